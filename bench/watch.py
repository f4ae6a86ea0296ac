#!/usr/bin/env python3
"""The hot folder (evenloud-cli --watch) against its targets.

  bench/watch.py [--cli build/release/cli/evenloud-cli] [--idle SECONDS] [--files N]

1. Start latency: a file moved into the watched folder, and one written into
   it, from the rename or the close until the tool says it has started it
   (target: 1 s).
2. N files (default 500) copied in at once: each processed exactly once.
3. An idle watch: resident memory at the start and the end of the idle
   period (target: no growth over 1 MB) and CPU used meanwhile (target: under
   0.1 %), for the tool and its worker.

Numbers from a loaded machine are rough; run it on a quiet one for figures.
"""
import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def make_wav(path, seconds):
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency=440:duration={seconds}", "-ac", "2", "-c:a", "pcm_s16le", path], check=True)


class Watch:
    def __init__(self, cli, args, env):
        self.proc = subprocess.Popen([cli, "--jsonl"] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     stdin=subprocess.DEVNULL, env=env, text=True)
        self.started = {}   # file name -> monotonic time of its "start" line
        self.results = []
        self.lock = threading.Lock()
        self.ready = threading.Event()
        threading.Thread(target=self._read_err, daemon=True).start()
        threading.Thread(target=self._read_out, daemon=True).start()

    def _read_err(self):
        for line in self.proc.stderr:
            now = time.monotonic()
            if line.startswith("Watching"):
                self.ready.set()
            if "] start " in line:
                with self.lock:
                    self.started.setdefault(os.path.basename(line.split("] start ", 1)[1].strip()), now)

    def _read_out(self):
        for line in self.proc.stdout:
            if line.strip():
                with self.lock:
                    self.results.append(json.loads(line))

    def wait(self, predicate, limit=600):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            with self.lock:
                if predicate():
                    return True
            time.sleep(0.05)
        return False

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        return self.proc.wait(timeout=120)


def children(pid):
    try:
        with open(f"/proc/{pid}/task/{pid}/children") as f:
            return [int(p) for p in f.read().split()]
    except OSError:
        return []


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cli", default=os.path.join(HERE, "..", "build", "release", "cli", "evenloud-cli"))
    parser.add_argument("--idle", type=float, default=60.0)
    parser.add_argument("--files", type=int, default=500)
    opt = parser.parse_args()

    tmp = tempfile.mkdtemp(prefix="evenloud-watch-bench-")
    try:
        folders = {name: os.path.join(tmp, name) for name in ("in", "out", "staging", "state")}
        for folder in folders.values():
            os.makedirs(folder)
        env = dict(os.environ, XDG_STATE_HOME=folders["state"])
        watch = Watch(opt.cli, ["--watch", folders["in"], "-o", folders["out"], "--lufs", "-20"], env)
        if not watch.ready.wait(60):
            sys.exit("the watch did not start")

        print("1. close to start")
        make_wav(os.path.join(folders["staging"], "one.wav"), 1)
        for i in range(5):
            for how in ("moved", "written"):
                name = f"{how}{i}.wav"
                # With every slot free, so that the figure is the watch's and
                # not a wait for a slot.
                watch.wait(lambda: len(watch.results) >= len(watch.started))
                src = os.path.join(folders["staging"], "one.wav")
                dest = os.path.join(folders["in"], name)
                if how == "moved":
                    shutil.copy(src, os.path.join(folders["staging"], name))
                    t0 = time.monotonic()
                    os.rename(os.path.join(folders["staging"], name), dest)
                else:
                    # Written here, so that the clock starts at the close
                    # itself, not when a copying program has ended.
                    with open(src, "rb") as f:
                        data = f.read()
                    with open(dest, "wb") as f:
                        f.write(data)
                    t0 = time.monotonic()
                if not watch.wait(lambda: name in watch.started, 60):
                    sys.exit(f"{name} never started")
                print(f"   {name:12s} {1000 * (watch.started[name] - t0):7.1f} ms")
        watch.wait(lambda: len(watch.results) >= len(watch.started))

        print(f"2. {opt.files} files copied in at once")
        batch = os.path.join(folders["staging"], "batch")
        os.makedirs(batch)
        make_wav(os.path.join(batch, "b0000.wav"), 0.3)
        for i in range(1, opt.files):
            shutil.copy(os.path.join(batch, "b0000.wav"), os.path.join(batch, f"b{i:04d}.wav"))
        watch.wait(lambda: len(watch.results) >= 10)
        before = len(watch.results)
        t0 = time.monotonic()
        subprocess.run(f"cp {batch}/*.wav {folders['in']}/", shell=True, check=True)
        if not watch.wait(lambda: len(watch.results) >= before + opt.files):
            print(f"   only {len(watch.results) - before} results")
        seconds = time.monotonic() - t0
        with watch.lock:
            names = [os.path.basename(r["input"]) for r in watch.results[before:]]
        twice = len(names) - len(set(names))
        failed = sum(1 for r in watch.results[before:] if r["result"] != "ok")
        outputs = len([n for n in os.listdir(folders["out"]) if n.startswith("b")])
        print(f"   {len(set(names))} processed, {twice} twice, {failed} failed, {outputs} outputs, {seconds:.1f} s")

        print(f"3. idle for {opt.idle:.0f} s")
        time.sleep(2)
        pids = {"evenloud-cli": watch.proc.pid}
        for child in children(watch.proc.pid):
            pids[f"worker {child}"] = child
        start = {name: (rss_kb(pid), cpu_seconds(pid)) for name, pid in pids.items()}
        time.sleep(opt.idle)
        for name, pid in pids.items():
            rss, cpu = rss_kb(pid), cpu_seconds(pid)
            print(f"   {name:16s} RSS {start[name][0] / 1024:6.1f} -> {rss / 1024:6.1f} MB "
                  f"({(rss - start[name][0]):+d} kB), CPU {100 * (cpu - start[name][1]) / opt.idle:.3f} %")
        print(f"   exit status after SIGTERM: {watch.stop()}")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


if __name__ == "__main__":
    main()

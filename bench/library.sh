#!/usr/bin/env bash
# A library of short files, as a curator's: how a first --analyze compares
# with a second (the cache), how a re-run over a finished library costs
# (the provenance tags), how memory grows with the count, and whether a
# --replace run survives random kills.
#   bench/library.sh                      20,000 files (LIBRARY_FILES=N for fewer)
#   LIBRARY_KILLS=20 LIBRARY_KILL_FILES=2000   the kill-and-resume part
#   BENCH_BUILD=DIR                       the programs of a build tree as they are
#   LIBRARY_BASELINE=PATH                 another evenloud-cli for the first run's
#                                         per-file time (say, a build of an earlier tree)
# Results: printed, and kept in build/library-work/summary.txt.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_BUILD:-$root/build/bench}
count=${LIBRARY_FILES:-20000}
kills=${LIBRARY_KILLS:-20}
kill_files=${LIBRARY_KILL_FILES:-2000}
corpus=$root/build/library-corpus
work=$root/build/library-work
jobs=$(nproc)

if [ -z "${BENCH_BUILD:-}" ]; then
  echo "== building Release in $build" >&2
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" --target evenloud-cli -j"$jobs" >/dev/null
fi
cli=$build/cli/evenloud-cli
rm -rf "$work"; mkdir -p "$work"
summary=$work/summary.txt
: >"$summary"
say() { echo "$*" | tee -a "$summary"; }
# wall seconds and peak RSS (MB) of a command, into $work/NAME.time
timed() { local name=$1; shift; /usr/bin/time -f "%e %M" -o "$work/$name.time" "$@"; }
wall() { tail -1 "$work/$1.time" | cut -d' ' -f1; }
rss() { tail -1 "$work/$1.time" | awk '{ printf "%.1f", $2 / 1024 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", a / b }'; }
per_file() { awk -v t="$1" -v n="$2" 'BEGIN { printf "%.2f", t * 1000 / n }'; }

# --- the corpus: a few short pieces in the usual formats, copied under many
# names (each copy its own inode, as in a real library), 500 to a folder.
bases=$corpus/bases
if [ ! -f "$bases/.done" ]; then
  rm -rf "$bases"; mkdir -p "$bases"
  i=0
  for format in "mp3 -c:a libmp3lame -b:a 128k" "flac -c:a flac" "ogg -c:a libvorbis -q:a 4" "m4a -c:a aac -b:a 128k"; do
    read -r ext enc <<<"$format"
    for gain in -14 -6; do
      i=$((i + 1))
      # shellcheck disable=SC2086
      ffmpeg -v error -nostdin -y -f lavfi -i "anoisesrc=d=1.5:c=pink:a=0.2:seed=$i" \
        -f lavfi -i "sine=f=$((200 + 40 * i)):d=1.5" -filter_complex "amix=inputs=2,volume=${gain}dB" \
        -ar 44100 -ac 2 $enc "$bases/base$i.$ext"
    done
  done
  touch "$bases/.done"
fi
mapfile -t base_files < <(find "$bases" -type f ! -name '.*' | sort)
make_library() { # dir count
  local dir=$1 n=$2 k folder
  rm -rf "$dir"; mkdir -p "$dir"
  for ((k = 0; k < n; k++)); do
    folder=$dir/$((k / 500))
    [ -d "$folder" ] || mkdir -p "$folder"
    local b=${base_files[$((k % ${#base_files[@]}))]}
    cp "$b" "$folder/$k.${b##*.}"
  done
}
echo "== a library of $count files" >&2
make_library "$corpus/lib" "$count"
say "library: $count files of 1.5 s ($(du -sh "$corpus/lib" | cut -f1)); $jobs cores; load $(cut -d' ' -f1-3 /proc/loadavg)"

# --- analyze: first run (an empty cache), second run
export XDG_CACHE_HOME=$work/cache
echo "== --analyze, first run" >&2
timed first "$cli" --analyze -r --jobs "$jobs" --jsonl "$corpus/lib" >"$work/first.jsonl" 2>/dev/null || true
echo "== --analyze, second run" >&2
timed second "$cli" --analyze -r --jobs "$jobs" --jsonl "$corpus/lib" >"$work/second.jsonl" 2>/dev/null || true
same=$(python3 - "$work/first.jsonl" "$work/second.jsonl" <<'EOF'
import json, sys
def load(p):
    out = {}
    for line in open(p):
        o = json.loads(line); o.pop("seconds", None); out[o["input"]] = o
    return out
a, b = load(sys.argv[1]), load(sys.argv[2])
print(sum(1 for k in a if a[k] == b.get(k)), "of", len(a))
EOF
)
say "analyze first run    $(wall first) s ($(per_file "$(wall first)" "$count") ms a file), peak $(rss first) MB"
say "analyze second run   $(wall second) s, peak $(rss second) MB: $(ratio "$(wall first)" "$(wall second)")x faster (target >= 50); same figures: $same"
if [ -n "${LIBRARY_BASELINE:-}" ]; then
  echo "== --analyze, first run, with $LIBRARY_BASELINE" >&2
  timed baseline env XDG_CACHE_HOME="$work/cache-baseline" "$LIBRARY_BASELINE" --analyze -r --jobs "$jobs" --json "$corpus/lib" >/dev/null 2>&1 || true
  say "baseline first run   $(wall baseline) s ($(per_file "$(wall baseline)" "$count") ms a file), peak $(rss baseline) MB"
fi

# --- memory against the count: the first 1,000 of the same library
mkdir -p "$work/lib1000"
cp -r "$corpus/lib/0" "$work/lib1000/"
[ -d "$corpus/lib/1" ] && cp -r "$corpus/lib/1" "$work/lib1000/"
timed small env XDG_CACHE_HOME="$work/cache-small" "$cli" --analyze -r --jobs "$jobs" --jsonl "$work/lib1000" >/dev/null 2>&1 || true
small_count=$(find "$work/lib1000" -type f | wc -l)
say "peak memory          $small_count files $(rss small) MB, $count files $(rss first) MB: +$(awk -v a="$(rss small)" -v b="$(rss first)" 'BEGIN { printf "%.0f", (b - a) * 100 / a }')% (target <= 20)"

# --- a finished library: every file normalised by us, then the same run again
echo "== a finished library" >&2
fin=$work/finished
mkdir -p "$work/normalised-bases"
"$cli" --lufs -16 --jobs "$jobs" -o "$work/normalised-bases" "${base_files[@]}" >/dev/null 2>&1
mapfile -t base_files < <(find "$work/normalised-bases" -type f | sort)
make_library "$fin" "$count"
timed rerun env XDG_CACHE_HOME="$work/cache-rerun" "$cli" --replace --skip-within 0.5 --lufs -16 -r --jobs "$jobs" --jsonl "$fin" >"$work/rerun.jsonl" 2>"$work/rerun.log" || true
skipped=$(grep -c '"result":"skipped"' "$work/rerun.jsonl" || true)
say "re-run, finished     $(wall rerun) s for $count files, $skipped skipped, peak $(rss rerun) MB (target < 10 s, no decode)"

# --- kill and resume: random SIGKILLs during a --replace run with a journal
echo "== $kills kills during a $kill_files-file --replace run" >&2
mapfile -t base_files < <(find "$bases" -type f ! -name '.*' | sort)
kl=$work/kill
make_library "$kl" "$kill_files"
journal=$work/kill.journal
args=(--replace --lufs -20 -r --jobs "$jobs" --jsonl --journal "$journal" "$kl")
killed=0
for ((k = 0; k < kills; k++)); do
  "$cli" "${args[@]}" >>"$work/kill.jsonl" 2>/dev/null &
  pid=$!
  sleep "$(awk -v s="$RANDOM" 'BEGIN { srand(s); printf "%.2f", 0.5 + rand() * 4 }')"
  if kill -9 "$pid" 2>/dev/null; then killed=$((killed + 1)); fi
  wait "$pid" 2>/dev/null || true
done
timed resume "$cli" "${args[@]}" >>"$work/kill.jsonl" 2>"$work/resume.log" || true
verdict=$(python3 - "$journal" "$kl" "$kill_files" <<'EOF'
import json, os, sys
journal, lib, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
done = {}
for line in open(journal, errors="replace"):
    try: o = json.loads(line)
    except ValueError: continue
    if o.get("e") == "done": done[o["in"]] = done.get(o["in"], 0) + 1
files = [os.path.join(d, f) for d, _, fs in os.walk(lib) for f in fs]
hidden = [f for f in files if os.path.basename(f).startswith(".")]
plain = [f for f in files if not os.path.basename(f).startswith(".")]
twice = sum(1 for v in done.values() if v > 1)
missing = sum(1 for f in plain if done.get(os.path.abspath(f), 0) == 0)
print(f"{len(plain)} of {n} files there, {len(done)} done, {twice} done twice, {missing} not done, {len(hidden)} staged files left")
EOF
)
say "kill and resume      $killed kills: $verdict"
left=$(find "${TMPDIR:-/tmp}/evenloud-$(id -u)" "/var/tmp/evenloud-$(id -u)" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l || true)
say "temporary folders    $left left behind"
echo "summary kept in $summary" >&2

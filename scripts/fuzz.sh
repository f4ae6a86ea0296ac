#!/usr/bin/env bash
# Builds the probing fuzzer with clang and runs it for a bounded time over a
# seed corpus of tiny files in every supported format, made here with ffmpeg.
# Fails on a crash, hang or memory blow-up in our code; one inside FFmpeg
# (the distribution's, not ours to fix) is reported and kept, and does not
# fail the run.
# EVENLOUD_FUZZ_SECONDS: how long to fuzz (default 45).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${EVENLOUD_FUZZ_SECONDS:-45}
build=${EVENLOUD_FUZZ_BUILD:-build/fuzz}
if [ "$seconds" = 0 ]; then
    exit 0
fi
if ! command -v clang++ >/dev/null; then
    echo "fuzz: clang++ not found, skipped"
    exit 0
fi
cmake -S fuzz -B "$build" -DCMAKE_CXX_COMPILER="$(command -v clang++)" >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null

seeds="$build/seeds"
corpus="$build/corpus"
rm -rf "$seeds" "$corpus" "$build/crashes"
mkdir -p "$seeds" "$corpus" "$build/crashes"
tone=(-f lavfi -i "sine=frequency=440:duration=0.2:sample_rate=8000")
make_seed() {  # name, then ffmpeg output options
    local name=$1; shift
    ffmpeg -v error -y "${tone[@]}" "$@" "$seeds/$name"
}
make_seed tone.mp3 -c:a libmp3lame -b:a 32k
make_seed aac.m4a -c:a aac -b:a 24k
make_seed alac.m4a -c:a alac
make_seed tone.wma -c:a wmav2 -b:a 32k
make_seed tone.wav -c:a pcm_s16le
make_seed tone.ac3 -ar 32000 -c:a ac3 -b:a 64k
make_seed tone.flac -c:a flac
make_seed tone.mp2 -ar 16000 -c:a mp2 -b:a 32k
make_seed vorbis.ogg -c:a libvorbis
make_seed opus.ogg -ar 48000 -c:a libopus -b:a 16k
# With a picture stream: a video track, and cover art.
ffmpeg -v error -y "${tone[@]}" -f lavfi -i "color=s=16x16:d=0.2:r=5" -c:a aac -b:a 24k -c:v mpeg4 \
    -shortest "$seeds/video.mp4"
ffmpeg -v error -y "${tone[@]}" -f lavfi -i "color=s=16x16:d=0.2:r=5" -c:a pcm_s16le -c:v mjpeg \
    -shortest "$seeds/video.mov"
ffmpeg -v error -y -f lavfi -i "color=s=8x8" -frames:v 1 "$seeds/cover.png"
ffmpeg -v error -y "${tone[@]}" -i "$seeds/cover.png" -map 0 -map 1 -c:a libmp3lame -b:a 32k -c:v copy \
    -disposition:v attached_pic "$seeds/cover.mp3"
rm "$seeds/cover.png"

log="$build/fuzz.log"
status=0
"$build/probe-fuzzer" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -seed=1 -max_len=16384 \
    -print_final_stats=1 -artifact_prefix="$build/crashes/" "$corpus" "$seeds" >"$log" 2>&1 || status=$?
grep -E "^(stat::number_of_executed_units|stat::average_exec_per_sec|stat::new_units_added|Done )" "$log" || true
if [ "$status" -eq 0 ]; then
    echo "fuzz: no crash in ${seconds}s"
    exit 0
fi
# The innermost frame that is neither the sanitizers', libFuzzer's nor the C
# and C++ runtimes' (allocation included) says whose fault it is.
runtime='in (fuzzer::|__sanitizer|__asan|__ubsan|__interceptor_|__libc_|_start|main \(|malloc|calloc|realloc|free|posix_memalign|memalign|aligned_alloc|operator new|operator delete)'
runtime+='|compiler-rt|/libc\.so|sysdeps|/libstdc\+\+|/ld-linux'
frame=$(grep -E '^ +#[0-9]+ ' "$log" | grep -vE "$runtime" | head -n 1 || true)
tail -n 60 "$log"
ls -l "$build/crashes"
if [ -n "$frame" ] && ! printf '%s\n' "$frame" | grep -qE "$PWD/(engine|fuzz)/"; then
    echo "fuzz: the crash is inside a library, not in our code: $frame"
    exit 0
fi
echo "fuzz: crash in our code; input kept in $build/crashes"
exit 1

#!/usr/bin/env bash
# Times a --lossless batch of MP3 and Opus files against the sequential
# two-pass ffmpeg recipe (bench/recipe.sh) on the same files, in the same
# run, and prints the ratio. Neither is a proof of speed on a loaded machine.
#   bench/lossless.sh [FILES_PER_FORMAT] [SECONDS]   (default 6 files of 180 s each)
#   BENCH_BUILD=DIR bench/lossless.sh                 the programs of a build tree as they are
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_BUILD:-$root/build/release}
count=${1:-6}
seconds=${2:-180}
work=$root/build/bench-lossless
target=-20

if [ -z "${BENCH_BUILD:-}" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" --target evenloud-cli evenloud-worker -j2 >/dev/null
fi
cli=$build/cli/evenloud-cli

rm -rf "$work"; mkdir -p "$work/in" "$work/ours" "$work/recipe"
music="aevalsrc=exprs='(0.6+0.3*sin(2*PI*0.35*t))*(0.22*sin(2*PI*220*t)+0.1*sin(2*PI*329.6*t))+0.02*(2*random(0)-1)|(0.6+0.3*sin(2*PI*0.3*t))*(0.2*sin(2*PI*164.8*t)+0.1*sin(2*PI*440*t))+0.02*(2*random(1)-1)':s=44100:d=$seconds"
for i in $(seq 1 "$count"); do
  ffmpeg -v error -nostdin -y -f lavfi -i "$music" -af "volume=-$i""dB" -c:a libmp3lame -b:a 192k "$work/in/cbr$i.mp3"
  ffmpeg -v error -nostdin -y -f lavfi -i "$music" -af "volume=-$i""dB" -c:a libmp3lame -q:a 2 "$work/in/vbr$i.mp3"
  ffmpeg -v error -nostdin -y -f lavfi -i "$music" -af "volume=-$i""dB" -c:a libopus -b:a 128k "$work/in/opus$i.ogg"
done
files=("$work"/in/*)
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }

start=$(now)
"$cli" --lossless --lufs "$target" -o "$work/ours" --json "${files[@]}" >"$work/ours.json" 2>"$work/ours.log"
ours=$(since "$start")

start=$(now)
for f in "${files[@]}"; do "$root/bench/recipe.sh" "$f" "$work/recipe" "$target"; done
recipe=$(since "$start")

kinds=$(python3 -c 'import json,sys,collections; print(dict(collections.Counter(r["normalization"] for r in json.load(open(sys.argv[1])))))' "$work/ours.json")
echo "files: ${#files[@]} x ${seconds} s; load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "evenloud-cli --lossless: ${ours} s  $kinds"
echo "ffmpeg recipe, sequential: ${recipe} s"
awk -v a="$recipe" -v b="$ours" 'BEGIN { printf "ratio: %.1fx\n", a / b }'

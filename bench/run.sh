#!/usr/bin/env bash
# Times evenloud-cli against the usual two-pass ffmpeg loudnorm recipe on one
# fixed corpus, in the same run, and checks every output with an independent
# meter (FFmpeg's ebur128 filter).
#   bench/run.sh            full run (builds Release in build/bench if needed)
#   BENCH_TIMING_ONLY=1 bench/run.sh   the timed comparison alone, for repeated runs
#   BENCH_BUILD=DIR bench/run.sh       the programs of a build tree as they are, unbuilt
# Results: printed, and kept in build/bench-work/summary.txt.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BENCH_BUILD:-$root/build/bench}
corpus=$root/build/bench-corpus
work=$root/build/bench-work
target=-24          # the CLI's default position 70.77 stands for -24 LUFS (the timed runs)
latency_file=mp3-192.mp3
jobs=$(nproc)

mkdir -p "$root/build"
if [ -z "${BENCH_BUILD:-}" ]; then
  echo "== building Release in $build" >&2
  # Another area's half-finished tests must not stop the bench's own targets.
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null 2>"$root/build/bench-cmake.log" ||
    echo "   (configure reported problems elsewhere, see build/bench-cmake.log; building anyway)" >&2
  cmake --build "$build" --target evenloud-cli evenloud-transcode -j2 >/dev/null
fi
cli=$build/cli/evenloud-cli
meter="python3 $root/bench/check.py --meter"
transcode=$build/bench/evenloud-transcode

echo "== corpus in $corpus" >&2
"$root/bench/make-corpus.sh" "$corpus"
mapfile -t files < <(find "$corpus" -maxdepth 1 -type f ! -name '.*' | sort)
rm -rf "$work"; mkdir -p "$work"
summary=$work/summary.txt
: >"$summary"
say() { echo "$*" | tee -a "$summary"; }

now() { date +%s.%N; }
ffmpeg_rss() { # the recipe's first pass on the latency file, for comparison
  /usr/bin/time -f "%M" ffmpeg -v error -nostdin -i "$corpus/$latency_file" -af "loudnorm=I=$target:print_format=json" -f null - 2>&1 |
    tail -1 | awk '{ printf "%.1f MB", $1 / 1024 }'
}
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

total=0
for f in "${files[@]}"; do
  d=$(ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 "$f")
  total=$(awk -v a="$total" -v b="$d" 'BEGIN { print a + b }')
done
say "corpus: ${#files[@]} files, $(awk -v t="$total" 'BEGIN { printf "%.0f", t }') s of audio; $(nproc) cores; load $(cut -d' ' -f1-3 /proc/loadavg)"

# --- batch: ours with every core, the recipe one file after the other and two at a time.
# Each is timed with /usr/bin/time: wall, user and system CPU (children included), max RSS.
timed() { local name=$1; shift; /usr/bin/time -f "%e %U %S %M" -o "$work/$name.time" "$@"; }
# The last line: time puts "Command exited with non-zero status" above it.
field() { tail -1 "$work/$1.time" | awk -v n="$2" '{ print $n }'; }
cpu() { tail -1 "$work/$1.time" | awk '{ printf "%.1f", $2 + $3 }'; }
export root work target

echo "== evenloud-cli, batch, --jobs $jobs" >&2
timed ours "$cli" --jobs "$jobs" -o "$work/ours" --json "${files[@]}" >"$work/ours.json" 2>"$work/ours.log" ||
  { echo "evenloud-cli failed, see $work/ours.log" >&2; exit 1; }
ours=$(field ours 1)
rss_mb=$(awk '{ printf "%.1f", $4 / 1024 }' "$work/ours.time")

echo "== evenloud-cli, batch, codec work in process (what isolation costs)" >&2
timed inproc env EVENLOUD_WORKER=none "$cli" --jobs "$jobs" -o "$work/inproc" --json "${files[@]}" >/dev/null 2>&1 ||
  { echo "evenloud-cli in process failed" >&2; exit 1; }
inproc=$(field inproc 1)

echo "== recipe, sequential" >&2
mkdir -p "$work/seq"
timed seq bash -c 'for f; do "$root/bench/recipe.sh" "$f" "$work/seq" "$target" || exit 1; done' _ "${files[@]}"
seq=$(field seq 1)

echo "== recipe, two at a time" >&2
mkdir -p "$work/par"
timed par bash -c 'printf "%s\0" "$@" | xargs -0 -P 2 -I{} "$root/bench/recipe.sh" {} "$work/par" "$target"' _ "${files[@]}"
par=$(field par 1)

echo "== evenloud-cli, batch, --meter loudnorm (an ffmpeg script's figures)" >&2
timed loudnorm "$cli" --meter loudnorm --jobs "$jobs" -o "$work/loudnorm" --json "${files[@]}" >"$work/loudnorm.json" 2>>"$work/ours.log" ||
  { echo "evenloud-cli --meter loudnorm failed, see $work/ours.log" >&2; exit 1; }
loudnorm=$(field loudnorm 1)

echo "== evenloud-cli --analyze, and the recipe's first pass alone" >&2
timed analyze "$cli" --analyze --jobs "$jobs" --json "${files[@]}" >"$work/analyze.json" 2>/dev/null
analyze=$(field analyze 1)
pass1() { ffmpeg -v error -nostdin -i "$1" -af "loudnorm=I=$target:print_format=json" -f null - 2>/dev/null; }
export -f pass1
timed pass1 bash -c 'for f; do pass1 "$f" || exit 1; done' _ "${files[@]}"
timed pass1x2 bash -c 'printf "%s\0" "$@" | xargs -0 -P 2 -I{} bash -c "pass1 \"\$1\"" _ {}' _ "${files[@]}"
pass1=$(field pass1 1)
pass1x2=$(field pass1x2 1)

echo "== evenloud-cli --tags-only, in place on a copy of the corpus" >&2
rm -rf "$work/tags"; mkdir -p "$work/tags"; cp "${files[@]}" "$work/tags/"
timed tags "$cli" --tags-only --jobs "$jobs" --json "$work/tags"/* >"$work/tags.json" 2>/dev/null || true
tags=$(field tags 1)
tagged=$(python3 -c 'import json,sys; print(sum(1 for r in json.load(open(sys.argv[1])) if r.get("result") == "tagged"))' "$work/tags.json" 2>/dev/null || echo "?")

# --- single-file latency, best of two
echo "== single file: $latency_file" >&2
best() { sort -n | head -1; }
lat_ours=$(for i in 1 2; do rm -rf "$work/lat-ours"; t=$(now); "$cli" -o "$work/lat-ours" "$corpus/$latency_file" >/dev/null 2>&1; since "$t"; echo; done | best)
lat_rec=$(for i in 1 2; do rm -rf "$work/lat-rec"; mkdir -p "$work/lat-rec"; t=$(now); "$root/bench/recipe.sh" "$corpus/$latency_file" "$work/lat-rec" "$target"; since "$t"; echo; done | best)

say ""
say "batch wall time      evenloud-cli ${ours}s   recipe sequential ${seq}s   recipe x2 ${par}s"
say "batch speed-up       vs sequential $(ratio "$seq" "$ours")x (target >= 5)   vs two at a time $(ratio "$par" "$ours")x (target >= 2.5)"
say "single-file latency  evenloud-cli ${lat_ours}s   recipe ${lat_rec}s   ours/recipe $(ratio "$lat_ours" "$lat_rec") (target <= 0.4)"
say "CPU time (user+sys)  evenloud-cli $(cpu ours)s   recipe sequential $(cpu seq)s   recipe x2 $(cpu par)s"
say "isolation            worker processes ${ours}s ($(cpu ours)s CPU) vs in process ${inproc}s ($(cpu inproc)s CPU): wall x$(ratio "$ours" "$inproc") (target < 1.03)"
say "--meter loudnorm     ${loudnorm}s: vs recipe sequential $(ratio "$seq" "$loudnorm")x   vs two at a time $(ratio "$par" "$loudnorm")x   vs the default $(ratio "$loudnorm" "$ours")x slower"
say "loudnorm vs default  $(python3 "$root/bench/check.py" --agree "$work/ours.json" "$work/loudnorm.json")"
say "analyze              ${analyze}s: vs recipe pass 1 sequential (${pass1}s) $(ratio "$pass1" "$analyze")x (target >= 1.5)   vs two at a time (${pass1x2}s) $(ratio "$pass1x2" "$analyze")x"
say "tags only            ${tags}s, ${tagged} of ${#files[@]} tagged: vs --analyze x$(ratio "$tags" "$analyze") (target <= 1.05)"
say "peak memory (batch)  ${rss_mb} MB max RSS of the largest process (in process: $(awk '{ printf "%.1f", $4 / 1024 }' "$work/inproc.time") MB); one recipe process peaks at $(ffmpeg_rss)"

if [ "${BENCH_TIMING_ONLY:-0}" = 1 ]; then
  echo "summary kept in $summary" >&2
  exit 0
fi

# --- the codec layer's memory does not grow with the file's length
echo "== filterless transcoding, 6 and 60 minutes of FLAC" >&2
mkdir -p "$corpus/long"
for m in 6 60; do
  long=$corpus/long/$m-min.flac
  if [ ! -f "$long" ]; then
    ffmpeg -v error -nostdin -f lavfi -i "sine=f=220:d=$((m * 60)),aformat=channel_layouts=stereo" \
      -ar 44100 -c:a flac "$long.part.flac"
    mv "$long.part.flac" "$long"
  fi
  /usr/bin/time -f "%M" -o "$work/long-$m.time" "$transcode" "$long" "$work/long-$m.flac" >/dev/null
done
say "peak memory (alone)  filterless FLAC transcoding: 6 min $(awk '{ printf "%.1f", $1 / 1024 }' "$work/long-6.time") MB, 60 min $(awk '{ printf "%.1f", $1 / 1024 }' "$work/long-60.time") MB max RSS"
rm -f "$work"/long-*.flac
say "load average now     $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine slows every wall time above)"

# --- every output against the target, measured independently
say ""
say "$(printf '%-16s %-8s %8s %8s %7s %6s %9s %8s  %s' FILE WHO LUFS dBTP dLU LINEAR RATE CODEC VERDICT)"
fails=0
check() { # who dir
  local who=$1 dir=$2 f name out lufs tp lra in_rate out_rate in_codec out_codec linear dev verdict
  for f in "${files[@]}"; do
    name=$(basename "$f"); out=$dir/$name
    if [ ! -f "$out" ]; then say "$(printf '%-16s %-8s %s' "$name" "$who" "NO OUTPUT")"; fails=$((fails + 1)); continue; fi
    read -r lufs tp lra _ < <($meter "$out")
    in_rate=$(ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate -of default=nw=1:nk=1 "$f")
    out_rate=$(ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate -of default=nw=1:nk=1 "$out")
    in_codec=$(ffprobe -v error -select_streams a:0 -show_entries stream=codec_name -of default=nw=1:nk=1 "$f")
    out_codec=$(ffprobe -v error -select_streams a:0 -show_entries stream=codec_name -of default=nw=1:nk=1 "$out")
    # loudnorm stays linear when the range fits its LRA target (7) and the
    # gained true peak stays under its TP target (-2); same rule here, from
    # the input as the independent meter sees it.
    read -r in_i in_tp in_lra _ < <($meter "$f")
    linear=$(awk -v i="$in_i" -v p="$in_tp" -v r="$in_lra" -v t="$target" 'BEGIN { print (r <= 7 && p + (t - i) <= -2) ? "yes" : "no" }')
    dev=$(awk -v l="$lufs" -v t="$target" 'BEGIN { d = l - t; printf "%+.2f", d }')
    verdict=$(awk -v d="$dev" -v p="$tp" -v lin="$linear" 'BEGIN {
      lim = lin == "yes" ? 0.5 : 1.0; d = d < 0 ? -d : d
      print (d <= lim && p <= -1.5) ? "ok" : "MISS" }')
    [ "$in_rate" = "$out_rate" ] || verdict="$verdict rate-changed"
    [ "$in_codec" = "$out_codec" ] || verdict="$verdict codec-changed"
    [ "$verdict" = ok ] || fails=$((fails + 1))
    say "$(printf '%-16s %-8s %8s %8s %7s %6s %9s %8s  %s' "$name" "$who" "$lufs" "$tp" "$dev" "$linear" "$out_rate" "$out_codec" "$verdict")"
  done
}
check recipe "$work/seq"
say ""
say "recipe outputs off target (or changed rate/codec): $fails"

# --- ours at the default and at the levels people ask for, every output
# against what its kind promises, on the independent meter.
levels() { # label target ceiling json
  say ""
  say "== evenloud-cli at $2 LUFS ($1)"
  python3 "$root/bench/check.py" "$2" "$3" "$4" | tee -a "$summary" || ours_misses=$((ours_misses + 1))
}
ours_misses=0
levels "the timed batch" -24 -2 "$work/ours.json"
for t in -14 -16; do
  "$cli" --jobs "$jobs" --lufs "$t" -o "$work/at$t" --json "${files[@]}" >"$work/at$t.json" 2>>"$work/ours.log" || true
  levels "default ceiling -2 dBTP" "$t" -2 "$work/at$t.json"
done
"$cli" --jobs "$jobs" --lufs -14 --limit-peaks -o "$work/limited" --json "${files[@]}" >"$work/limited.json" 2>>"$work/ours.log" || true
levels "--limit-peaks" -14 -2 "$work/limited.json"
say ""
say "evenloud runs with a file off its promise: $ours_misses of 4"
echo "summary kept in $summary" >&2

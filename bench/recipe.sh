#!/usr/bin/env bash
# The usual two-pass ffmpeg loudnorm recipe for one file, as found in
# tutorials: measure to null with print_format=json, then apply the measured
# values with linear=true, keeping the input's codec, bit rate and rate.
#   recipe.sh INPUT OUTDIR [TARGET_LUFS]
set -euo pipefail
in=$1; outdir=$2; target=${3:--24}
out="$outdir/$(basename "$in")"

probe() { ffprobe -v error -select_streams a:0 -show_entries "stream=$1" -of default=nw=1:nk=1 "$in"; }
codec=$(probe codec_name); rate=$(probe sample_rate); fmt=$(probe sample_fmt)
bitrate=$(probe bit_rate); bits=$(probe bits_per_raw_sample)
# Ogg Opus has no stream bit rate; the container's is close enough.
case $bitrate in ''|N/A) bitrate=$(ffprobe -v error -show_entries format=bit_rate -of default=nw=1:nk=1 "$in") ;; esac
case $codec in
  mp3) enc=(-c:a libmp3lame -b:a "$bitrate") ;;
  vorbis) enc=(-c:a libvorbis -b:a "$bitrate") ;;
  opus) enc=(-c:a libopus -b:a "$bitrate") ;;
  aac|ac3|mp2) enc=(-c:a "$codec" -b:a "$bitrate") ;;
  flac) [ "$bits" = 24 ] && enc=(-c:a flac -sample_fmt s32) || enc=(-c:a flac -sample_fmt s16) ;;
  *) enc=(-c:a "$codec") ;;
esac

json=$(ffmpeg -hide_banner -nostdin -nostats -i "$in" -af "loudnorm=I=$target:print_format=json" -f null - 2>&1 |
       sed -n '/^{/,/^}/p')
get() { sed -n "s/.*\"$1\" : \"\\([^\"]*\\)\".*/\\1/p" <<<"$json"; }
ffmpeg -v error -nostdin -y -i "$in" \
  -af "loudnorm=I=$target:measured_I=$(get input_i):measured_TP=$(get input_tp):measured_LRA=$(get input_lra):measured_thresh=$(get input_thresh):offset=$(get target_offset):linear=true" \
  -ar "$rate" "${enc[@]}" "$out"

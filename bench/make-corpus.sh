#!/usr/bin/env bash
# Writes the benchmark corpus into $1 once: music-like synthetic material
# (chords under note and phrase envelopes over pink noise, loudness range of
# a few LU) at several levels and in the usual formats, plus material that
# a high target pushes past the peak ceiling: a wide-range piece with loud
# and soft movements, a quiet take with hot transients, and a short spoken
# clip; a short AAC clip in MP4 and a mono MP3, where meters that gate their own
# way disagree most; and surround files in the layouts broadcasts, DVDs and
# music releases carry. A stamp file marks a complete corpus; change VERSION
# to rebuild.
set -euo pipefail
dir=$1
VERSION=3
stamp="$dir/.corpus-v$VERSION"
[ -f "$stamp" ] && exit 0
rm -rf "$dir"; mkdir -p "$dir"

# name seconds gain_dB rate channels root_Hz encoder args...
corpus=(
  "wav16.wav       180  -4 44100 2 220 -c:a pcm_s16le"
  "wav24.wav        90 -14 48000 2 196 -c:a pcm_s24le"
  "wav16-mono.wav   60 -20 44100 1 262 -c:a pcm_s16le"
  "flac16.flac     150  -8 44100 2 247 -c:a flac -sample_fmt s16"
  "flac24.flac      90 -18 48000 2 175 -c:a flac -sample_fmt s32"
  "mp3-192.mp3     180  -6 44100 2 233 -c:a libmp3lame -b:a 192k"
  "mp3-128.mp3      75 -16 44100 2 208 -c:a libmp3lame -b:a 128k"
  "aac-192.m4a     120 -10 44100 2 185 -c:a aac -b:a 192k"
  "aac-128.m4a      90 -22 48000 2 277 -c:a aac -b:a 128k"
  "vorbis.ogg      120 -12 44100 2 165 -c:a libvorbis -q:a 5"
  "opus.ogg         90  -2 48000 2 294 -c:a libopus -b:a 128k"
  "ac3.ac3          60 -15 48000 2 311 -c:a ac3 -b:a 192k"
  "mp2.mp2          60  -9 44100 2 156 -c:a mp2 -b:a 192k"
  "clip.mp4        8.5  -3 48000 2 220 -c:a aac -b:a 128k"
  "mono.mp3         20 -12 44100 1 196 -c:a libmp3lame -b:a 96k"
)

for entry in "${corpus[@]}"; do
  read -r name secs gain rate ch root enc <<<"$entry"
  # A chord (root, minor third, fifth, octave) whose root steps every 4 s,
  # notes swelling at ~1.5 Hz, phrases +-2 dB over 23 s.
  chord="(0.30*sin(2*PI*R*t)+0.20*sin(2*PI*R*1.1892*t)+0.15*sin(2*PI*R*1.4983*t)+0.08*sin(2*PI*R*2*t))"
  chord=${chord//R/($root*pow(1.122\,mod(floor(t/4)\,4)))}
  env="(0.55+0.45*sin(2*PI*t*SPEED))*pow(10\,2*sin(2*PI*t/23)/20)"
  left="$chord*${env//SPEED/1.7}"
  right="$chord*${env//SPEED/1.3}"
  echo "  corpus: $name (${secs}s)" >&2
  ffmpeg -v error -nostdin -y \
    -f lavfi -i "aevalsrc=exprs='$left|$right':s=$rate:d=$secs" \
    -f lavfi -i "anoisesrc=color=pink:amplitude=0.05:r=$rate:d=$secs:seed=$root" \
    -filter_complex "[1]aformat=channel_layouts=stereo[n];[0][n]amix=inputs=2:normalize=0,volume=${gain}dB,aformat=channel_layouts=$([ "$ch" = 1 ] && echo mono || echo stereo)" \
    -ar "$rate" -metadata title="Bench $name" -metadata artist="Evenloud bench" \
    $enc "$dir/$name"
done
# Wide range: movements 12 dB apart, peaks near -1 dBFS in the loud ones.
echo "  corpus: wide-range.flac (150s)" >&2
ffmpeg -v error -nostdin -y \
  -f lavfi -i "aevalsrc='(0.3*sin(2*PI*196*t)+0.2*sin(2*PI*294*t)+0.1*sin(2*PI*1175*t))*(0.6+0.4*sin(2*PI*1.1*t))*if(lt(mod(t,50),25),1,0.25)|(0.3*sin(2*PI*196*t)+0.2*sin(2*PI*247*t)+0.1*sin(2*PI*988*t))*(0.6+0.4*sin(2*PI*0.9*t))*if(lt(mod(t,50),25),1,0.25)':s=44100:d=150" \
  -f lavfi -i "anoisesrc=color=pink:amplitude=0.02:r=44100:d=150:seed=7" \
  -filter_complex "[1]aformat=channel_layouts=stereo[n];[0][n]amix=inputs=2:normalize=0" \
  -c:a flac -sample_fmt s32 -metadata title="Bench wide-range" "$dir/wide-range.flac"
# Quiet body, hot transients (a hit every 0.75 s to about -0.5 dBFS).
echo "  corpus: hot-peaks.mp3 (120s)" >&2
ffmpeg -v error -nostdin -y \
  -f lavfi -i "aevalsrc='0.05*(sin(2*PI*220*t)+0.6*sin(2*PI*660*t))+0.9*exp(-60*mod(t,0.75))*sin(2*PI*180*t)':s=44100:d=120" \
  -f lavfi -i "anoisesrc=color=pink:amplitude=0.01:r=44100:d=120:seed=3" \
  -filter_complex "[0]aformat=channel_layouts=stereo[s];[1]aformat=channel_layouts=stereo[n];[s][n]amix=inputs=2:normalize=0" \
  -c:a libmp3lame -b:a 192k -metadata title="Bench hot-peaks" "$dir/hot-peaks.mp3"
# A short spoken-like clip: shorter than loudnorm's three-second window.
echo "  corpus: short-clip.wav (1.4s)" >&2
ffmpeg -v error -nostdin -y -f lavfi \
  -i "aevalsrc='0.25*(sin(2*PI*150*t)+0.5*sin(2*PI*450*t)+0.25*sin(2*PI*1350*t))*abs(sin(2*PI*2.5*t))':s=48000:d=1.4" \
  -ac 1 -c:a pcm_s16le "$dir/short-clip.wav"
# Surround: the stereo material spread over each layout's speakers (left
# ones take the left channel, right ones the right, centres both, the LFE a
# low part), so every layout has real content in every channel.
# name seconds layout encoder args...
surround=(
  "surround-51side.ac3    40 5.1(side) -c:a ac3 -b:a 384k"
  "surround-51back.m4a    30 5.1       -c:a aac -b:a 256k"
  "surround-50side.flac   30 5.0(side) -c:a flac"
  "surround-quad.wav      25 quad      -c:a pcm_s16le"
  "surround-61.flac       25 6.1       -c:a flac"
  "surround-71.flac       25 7.1       -c:a flac"
  "surround-21.wav        20 2.1       -c:a pcm_s16le"
)
for entry in "${surround[@]}"; do
  read -r name secs layout enc <<<"$entry"
  channels=$(ffmpeg -hide_banner -layouts | awk -v l="$layout" '$1 == l { print $2 }')
  pan="$layout"
  for c in ${channels//+/ }; do
    case $c in
      LFE) pan="$pan|$c=0.5*c0+0.5*c1" ;;
      *C) pan="$pan|$c=0.5*c0+0.5*c1" ;;
      *L|*LC) pan="$pan|$c=c0" ;;
      *) pan="$pan|$c=c1" ;;
    esac
  done
  echo "  corpus: $name (${secs}s, $layout)" >&2
  ffmpeg -v error -nostdin -y \
    -f lavfi -i "aevalsrc='0.3*sin(2*PI*220*t)*(0.6+0.4*sin(2*PI*1.3*t))|0.3*sin(2*PI*277*t)*(0.6+0.4*sin(2*PI*1.7*t))':s=48000:d=$secs" \
    -f lavfi -i "anoisesrc=color=pink:amplitude=0.05:r=48000:d=$secs:seed=11" \
    -filter_complex "[1]aformat=channel_layouts=stereo[n];[0][n]amix=inputs=2:normalize=0,pan=$pan" \
    -metadata title="Bench $name" $enc "$dir/$name"
done
touch "$stamp"

#!/usr/bin/env bash
# Installs what building, running and testing Evenloud needs on Debian 12.
set -euo pipefail
pkgs=(cmake g++ make pkg-config libgtest-dev
      qt6-base-dev qt6-base-dev-tools libqt6svg6-dev qt6-qpa-plugins qt6-multimedia-dev
      libavformat-dev libavcodec-dev libavfilter-dev libswresample-dev libavutil-dev
      ffmpeg sox libsox-fmt-all libebur128-dev libseccomp-dev libtag1-dev libsqlite3-dev parallel
      clang libclang-rt-14-dev
      desktop-file-utils appstream qt6-l10n-tools dpkg-dev file groff-base)
# Optional, not installed here: chromium, where present, draws the compliance
# report's page headless in the engine's tests (they skip that check without it).
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

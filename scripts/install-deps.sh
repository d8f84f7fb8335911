#!/usr/bin/env bash
# Installs the Debian 12 packages that building, running and testing need.
# Runs as root, or through sudo otherwise. Safe to run again.
#   --fuzz   also clang and its libFuzzer runtime, for scripts/fuzz.sh
set -euo pipefail

PKGS=(
  build-essential cmake pkg-config
  qtbase5-dev libqt5websockets5-dev qt5-image-formats-plugins
  libopencv-dev
  libturbojpeg0-dev libtiff-dev libzip-dev
  libcurl4-openssl-dev openssl
  poppler-utils unzip
  procps xdg-utils
  fonts-wqy-zenhei
  # recording, printing, watermarks, barcodes
  libavformat-dev libavcodec-dev libswscale-dev libswresample-dev libavutil-dev libavdevice-dev
  ffmpeg libpulse-dev libasound2-dev
  libcups2-dev cups-daemon cups-client cups-bsd
  libzxing-dev fonts-wqy-microhei
  # card readers and voice prompts
  libpcsclite-dev pcscd vsmartcard-vpcd espeak-ng alsa-utils
  # face and fingerprint
  libopencv-contrib-dev opencv-data libdlib-dev libdlib-data libfprint-2-dev libglib2.0-dev
  # companions: the signing service, the browser helper and the page tests
  libqpdf-dev chromium
)
if [ "${1:-}" = "--fuzz" ]; then
  PKGS+=(clang libclang-rt-14-dev)
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

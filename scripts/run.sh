#!/usr/bin/env bash
# Installs what is missing, builds, and starts rvowebSocketServer on port 1818 with the
# portable device library. Extra arguments are passed to the program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target rvowebSocketServer webbrowserhelper elecsign voiceprompts
# No display (a server or a container): Qt's offscreen platform.
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
  export QT_QPA_PLATFORM=offscreen
fi
exec build/rvowebSocketServer "$@"

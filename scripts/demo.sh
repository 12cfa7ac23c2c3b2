#!/usr/bin/env bash
# The main job on its embedded default: builds the library and qvdfx, then
# runs a built-in test signal through a chain of plugins.
# Usage: scripts/demo.sh [OUT.wav]
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh >/dev/null
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)" --target qvdfx QVDAudioPlugins >/dev/null
exec build/release/bin/qvdfx demo "$@"

#!/usr/bin/env bash
# Per plugin: nanoseconds per frame, real-time factor and the 99th-percentile
# block time at 48 kHz stereo, for 64- and 512-frame blocks, through qvdfx
# (the library loaded as a host loads it). Builds what it needs first.
# Usage: bench/plugins.sh [PLUGIN ...] [--seconds S] [--json]
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)" --target qvdfx QVDAudioPlugins >/dev/null
for block in 64 512; do
  build/release/bin/qvdfx bench --channels 2 --block "$block" "$@"
done

#!/usr/bin/env bash
# Builds everything and runs every test: a Release build (shipping flags)
# and a Debug build (contract checks on). Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
jobs=$(nproc)

run() {
  local type=$1 dir=$2 bench=$3
  echo "== $type build in $dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DQVD_BUILD_BENCHMARKS="$bench" >/dev/null
  cmake --build "$dir" -j"$jobs"
  ctest --test-dir "$dir" -L unit --output-on-failure -j"$jobs" --timeout 600
}

# Benchmarks are built (so they keep compiling) but never run here.
run Release build/release ON
run Debug build/debug OFF

#!/usr/bin/env bash
# The long pass: the conformance harness with the long matrix and 1000
# sequences per plugin, then 30 minutes per fuzz target. Prints the same
# per-gate figures as the test command.
set -uo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh || exit 1
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null && cmake --build build/release -j"$(nproc)" || exit 1
echo "== conformance, long pass"
LD_PRELOAD=build/release/tests/conformance/libqvd_rtcheck.so \
  build/release/tests/conformance/qvd_conformance --library build/release/bin/libQVDAudioPlugins.so \
  --needed tests/conformance/needed.txt --long "$@" | grep -E '^(FAIL|gate|process calls|cold|conformance)'
status=${PIPESTATUS[0]}
QVD_GATES="tsan fuzz" QVD_FUZZ_SECONDS=${QVD_FUZZ_SECONDS:-1800} ./scripts/test.sh || status=1
exit "$status"

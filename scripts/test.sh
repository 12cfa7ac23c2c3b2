#!/usr/bin/env bash
# Builds everything and runs every test gate, installing what is missing first:
#   release  unit tests and the conformance harness (interposer and
#            RealtimeSanitizer) with the shipping flags
#   debug    unit tests with contract checks on
#   asan     unit tests and conformance under AddressSanitizer, LeakSanitizer
#            and UndefinedBehaviorSanitizer
#   tsan     the conformance thread check under ThreadSanitizer
#   fuzz     60 s per libFuzzer target (clang, ASan and UBSan)
# QVD_GATES="release debug" runs a subset. Ends with "N passed, N failed".
set -uo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh || exit 1
jobs=$(nproc)
gates=${QVD_GATES:-release debug asan tsan fuzz}
total_pass=0
total_fail=0
summary=()

gate() { # name dir label configure-args... -- build-targets...
  local name=$1 dir=$2 label=$3
  shift 3
  local cfg=() targets=()
  while (($#)) && [[ $1 != -- ]]; do cfg+=("$1"); shift; done
  (($#)) && shift
  targets=("$@")
  local start=$SECONDS
  echo "== gate $name: building in $dir"
  mkdir -p "$dir"
  if ! cmake -S . -B "$dir" "${cfg[@]}" >"$dir.configure.log" 2>&1; then
    cat "$dir.configure.log"
    summary+=("gate $name: configure failed")
    total_fail=$((total_fail + 1))
    return
  fi
  local build=(cmake --build "$dir" -j"$jobs")
  ((${#targets[@]})) && build+=(--target "${targets[@]}")
  if ! "${build[@]}"; then
    summary+=("gate $name: build failed")
    total_fail=$((total_fail + 1))
    return
  fi
  local log="$dir.ctest.log"
  ctest --test-dir "$dir" -L "$label" --output-on-failure -j"$jobs" --timeout 1800 2>&1 | tee "$log"
  # ctest closes with "NN% tests passed, F tests failed out of N".
  local line ran failed passed
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1)
  ran=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
  failed=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$line")
  if [[ -z $line ]]; then
    ran=0
    failed=1 # no test ran: a gate that checks nothing fails
  fi
  passed=$((ran - failed))
  total_pass=$((total_pass + passed))
  total_fail=$((total_fail + failed))
  summary+=("gate $name: $passed passed, $failed failed ($((SECONDS - start)) s)")
}

# Qt keeps some objects until exit on purpose; everything else that leaks fails.
export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1"
# Refusing a huge allocation is tested behaviour, not an error.
export ASAN_OPTIONS="allocator_may_return_null=1"

for g in $gates; do
  case $g in
    release) gate release build/release unit -DCMAKE_BUILD_TYPE=Release -DQVD_BUILD_BENCHMARKS=ON ;;
    debug) gate debug build/debug unit -DCMAKE_BUILD_TYPE=Debug -DQVD_BUILD_BENCHMARKS=OFF ;;
    asan) gate asan build/asan unit -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVD_SANITIZE=address,undefined \
            -DQVD_BUILD_BENCHMARKS=OFF ;;
    tsan) gate tsan build/tsan tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVD_SANITIZE=thread \
            -DQVD_BUILD_BENCHMARKS=OFF -- qvd_conformance ;;
    fuzz) gate fuzz build/fuzz fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-19 \
            -DCMAKE_CXX_COMPILER=clang++-19 -DQVD_SANITIZE=address,undefined -DQVD_FUZZ=ON \
            -DQVD_FUZZ_SECONDS="${QVD_FUZZ_SECONDS:-60}" -DQVD_BUILD_BENCHMARKS=OFF -- fuzz_sequences fuzz_cli ;;
    *) echo "unknown gate $g"; total_fail=$((total_fail + 1)) ;;
  esac
done

echo
for line in "${summary[@]}"; do echo "$line"; done
echo "$total_pass passed, $total_fail failed"
((total_fail == 0))

#!/usr/bin/env bash
# The long pass: the conformance harness with the long matrix and 1000
# sequences per plugin, an LV2 plugin in a session of headless Ardour, every
# LV2 plugin running in jalv on a JACK server (dummy backend) and the LV2
# wrapper benchmark, then 30 minutes per fuzz
# target. Prints the same per-gate figures as the test command.
set -uo pipefail
cd "$(dirname "$0")/.."
QVD_SETUP_LONG=1 ./scripts/setup.sh || exit 1
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null && cmake --build build/release -j"$(nproc)" || exit 1
echo "== conformance, long pass"
LD_PRELOAD=build/release/tests/conformance/libqvd_rtcheck.so \
  build/release/tests/conformance/qvd_conformance --library build/release/bin/libQVDAudioPlugins.so \
  --needed tests/conformance/needed.txt --long "$@" | grep -E '^(FAIL|gate|process calls|cold|conformance)'
status=${PIPESTATUS[0]}

echo "== qvdfx, audio past 4 GiB"
# 3000 s of stereo float at 192 kHz is 4.6 GB, past what a WAV header can
# count: gen and process must write RF64 that reads back whole.
big=$(mktemp -d build/qvdfx-big.XXXXXX)
trap 'rm -rf "$big"' EXIT
qvdfx=build/release/bin/qvdfx
if "$qvdfx" gen "$big/in.wav" --signal sine --seconds 3000 --rate 192000 --channels 2 &&
  report=$("$qvdfx" process "$big/in.wav" "$big/out.wav" -p Gain --set GAIN=-6 2>&1) &&
  reported=$(sed -nE 's/^wrote .*: ([0-9]+) frames.*/\1/p' <<<"$report") &&
  python3 - "$big/in.wav" $((3000 * 192000)) "$big/out.wav" "$reported" <<'CHECK'
import os, struct, sys

def rf64_frames(path):
    with open(path, "rb") as f:
        head = f.read(1 << 16)
    if head[:4] != b"RF64" or head[8:12] != b"WAVE":
        sys.exit(f"FAIL {path}: starts {head[:4]!r}, not RF64")
    pos, data_bytes, block = 12, None, None
    while pos + 8 <= len(head):
        chunk, size = head[pos:pos + 4], struct.unpack("<I", head[pos + 4:pos + 8])[0]
        body = head[pos + 8:pos + 8 + 64]
        if chunk == b"ds64":
            data_bytes = struct.unpack("<Q", body[8:16])[0]
        elif chunk == b"fmt ":
            block = struct.unpack("<H", body[12:14])[0]
        elif chunk == b"data":
            if os.path.getsize(path) < pos + 8 + data_bytes:
                sys.exit(f"FAIL {path}: the header counts {data_bytes} bytes of audio, the file holds fewer")
            return data_bytes // block
        pos += 8 + size + (size & 1)
    sys.exit(f"FAIL {path}: no audio chunk")

for path, expected in ((sys.argv[1], sys.argv[2]), (sys.argv[3], sys.argv[4])):
    read_back = rf64_frames(path)
    print(f"{os.path.basename(path)}: RF64, {read_back} frames read back, {expected} expected")
    if str(read_back) != expected:
        sys.exit(f"FAIL {path}")
CHECK
then
  echo "qvdfx past 4 GiB: pass"
else
  echo "FAIL qvdfx past 4 GiB"
  status=1
fi
rm -rf "$big"
# Each LV2 plugin in jalv, a real-time JACK host, for a few seconds: a click
# track at -6 dBFS peak goes into every input and the input meters must read
# it. jackd runs at 96 kHz (where the reverb reports latency) with the dummy
# backend, so no sound card is needed.
lv2_in_jalv() {
  local bundles=$PWD/build/release/bin/lv2 jackd_pid metro_pid failed=0 uri out inputs
  export LV2_PATH=$bundles
  jackd --no-realtime -n qvd-long -d dummy -r 96000 -p 256 >/dev/null 2>&1 &
  jackd_pid=$!
  export JACK_DEFAULT_SERVER=qvd-long
  jack_wait -w -t 10 >/dev/null || { echo "FAIL lv2 jalv: jackd -d dummy did not start"; kill "$jackd_pid"; return 1; }
  jack_metro -n metro -b 600 -f 1000 -A 0.5 -D 99 -a 1 -d 1 >/dev/null 2>&1 &
  metro_pid=$!
  for uri in $(lv2ls); do
    # Main inputs only: a side-chain input (sc_N) is left unconnected.
    inputs=$(lv2info "$uri" | grep -cE 'Symbol: +in_[0-9]+$' || true)
    out=$( (sleep 1
            for n in $(seq 1 "$inputs"); do jack_connect metro:600_bpm "qvdjalv:in_$n"; done
            sleep 3; echo monitors; sleep 1) | timeout 20 jalv -x -n qvdjalv "$uri" 2>&1)
    if grep -qE '^(> )?meter_input_1 = -6\.0[0-9]' <<<"$out" && ! grep -q 'meter_input_.* = -100' <<<"$out"; then
      echo "lv2 jalv $uri: ran, inputs metered at -6.02 dB, $(grep -oE 'latency = [0-9.]+' <<<"$out")"
    else
      echo "FAIL lv2 jalv $uri:"; tail -5 <<<"$out"
      failed=1
    fi
  done
  kill "$metro_pid" "$jackd_pid" 2>/dev/null
  wait "$metro_pid" "$jackd_pid" 2>/dev/null
  return "$failed"
}
# Ardour without its GUI: a session with the plugin on a track, a port set,
# saved (the plugin's state goes in through its state interface) and loaded
# again in a fresh process.
lv2_in_ardour() {
  local dir uri=urn:qvd:lv2:tarnwick-eq-1364608369#stereo saved loaded
  dir=$(mktemp -d)
  export LV2_PATH=$PWD/build/release/bin/lv2 QVD_ARDOUR_SESSION=$dir/qvd QVD_ARDOUR_URI=$uri
  saved=$(QVD_ARDOUR_STEP=save timeout 300 ardour7-lua tests/lv2/ardour-session.lua 2>&1)
  loaded=$(QVD_ARDOUR_STEP=load timeout 300 ardour7-lua tests/lv2/ardour-session.lua 2>&1)
  local state
  state=$(cat "$dir"/qvd/plugins/*/state*/state.ttl 2>/dev/null | grep -c 'urn:qvd:lv2:parameter:' || true)
  rm -rf "$dir"
  if grep -q '^saved:' <<<"$saved" && grep -q 'port 10 = 6' <<<"$loaded" && ((state > 0)); then
    echo "lv2 ardour $uri: $(grep '^saved:' <<<"$saved"), reloaded with port 10 = 6, $state parameters in its state"
  else
    echo "FAIL lv2 ardour $uri:"; tail -3 <<<"$saved"; tail -3 <<<"$loaded"
    return 1
  fi
}
echo "== LV2 in Ardour (headless)"
lv2_in_ardour || status=1
echo "== LV2 in jalv"
lv2_in_jalv || status=1
echo "== LV2 wrapper cost over direct calls"
build/release/bench/lv2/lv2_bench --benchmark_counters_tabular=true 2>/dev/null | grep Lv2Wrapper
QVD_GATES="tsan fuzz" QVD_FUZZ_SECONDS=${QVD_FUZZ_SECONDS:-1800} ./scripts/test.sh || status=1
exit "$status"

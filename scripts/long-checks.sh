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
QVD_GATES="tsan fuzz" QVD_FUZZ_SECONDS=${QVD_FUZZ_SECONDS:-1800} ./scripts/test.sh || status=1
exit "$status"

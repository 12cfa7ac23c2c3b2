#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need. Does nothing when
# all are present; runs apt-get update only when something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config binutils
  qtbase5-dev qtbase5-dev-tools
  libboost-dev libboost-serialization-dev libboost-container-dev libboost-math-dev
  libsoxr-dev libebur128-dev libpugixml-dev libkissfft-dev libfftw3-dev
  libwebrtc-audio-processing-dev libsndfile1-dev lv2-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # RealtimeSanitizer runtime for the conformance harness; clang for the fuzzers
  clang-19 libclang-rt-19-dev
  fontconfig fonts-dejavu-core
  # the CLI tests pipe WAV streams between sox and qvdfx; never linked
  sox
  # LV2 test tools only (never linked into what ships): lilv for the test
  # host, lv2ls/lv2info/lv2apply, sord_validate behind lv2_validate, and
  # ffmpeg for its lv2 filter
  liblilv-dev lilv-utils sordi ffmpeg
)
# The long pass also runs the LV2 plugins in jalv on a JACK server and in
# headless Ardour (large: only when asked).
if [[ ${QVD_SETUP_LONG:-0} == 1 ]]; then
  packages+=(jalv jackd2 ardour)
fi

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"

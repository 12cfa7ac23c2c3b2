#!/usr/bin/env bash
# Instructions per frame for every registered audio plugin, counted by
# callgrind: unlike time, the count does not depend on what else the machine
# is doing, so a change that makes a plugin cost more shows up in review as a
# diff of bench/instructions.txt.
#
# Each plugin runs at its defaults on a fixed noise signal (qvdfx bench's),
# 48 kHz, stereo (or its maximum if smaller), 512-frame blocks, with kernels
# held at AVX2 so the count does not depend on the processor. Only the
# library's process call is counted, not loading, preparing or the signal.
#
# Usage: bench/instructions.sh [--write] [--jobs N] [PLUGIN ...]
#   --write   also writes bench/instructions.txt (the reviewed figures)
#   --jobs N  plugins measured at once (default 1; counts do not change)
set -euo pipefail
cd "$(dirname "$0")/.."

write=0
jobs=1
plugins=()
while (($#)); do
  case $1 in
  --write) write=1 ;;
  --jobs)
    jobs=${2:?--jobs needs a number}
    shift
    ;;
  -h | --help)
    sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
  -*)
    echo "instructions.sh: unknown option '$1'" >&2
    exit 2
    ;;
  *) plugins+=("$1") ;;
  esac
  shift
done

command -v valgrind >/dev/null || {
  echo "instructions.sh: valgrind is not installed (apt-get install valgrind)" >&2
  exit 1
}
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)" --target qvdfx QVDAudioPlugins >/dev/null
qvdfx=build/release/bin/qvdfx

block=512
# Two runs of different lengths: their difference leaves out what happens
# once (the first block's reset of delay lines, lazy setup), so the figure
# is the steady cost of a frame. qvdfx bench makes 5 runs of the given length.
short=0.05
long=0.15
blocks_of() { python3 -c "import math,sys; print(math.ceil(float(sys.argv[1]) * 48000 / $block))" "$1"; }
frames=$((($(blocks_of $long) - $(blocks_of $short)) * block * 5))

if ((${#plugins[@]} == 0)); then
  mapfile -t plugins < <("$qvdfx" list --kind audio --json |
    python3 -c 'import json,sys; [print(p["key"]) for p in json.load(sys.stdin)["plugins"]]')
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() { # key seconds out -> instructions inside the process calls
  valgrind --tool=callgrind --callgrind-out-file="$3.cg" \
    --collect-atstart=no --toggle-collect='QVDAudioPluginImpl::process(*' \
    "$qvdfx" --isa avx2 bench "$1" --block "$block" --seconds "$2" --json \
    >"$3.json" 2>"$3.log" || {
    echo "instructions.sh: callgrind failed for '$1':" >&2
    tail -5 "$3.log" >&2
    return 1
  }
  callgrind_annotate "$3.cg" 2>/dev/null | awk '/PROGRAM TOTALS/ {gsub(",", "", $1); print $1; exit}'
}

measure() { # key index
  local out=$work/$2 a b
  a=$(count "$1" "$short" "$out.s") || return 1
  b=$(count "$1" "$long" "$out.l") || return 1
  python3 - "$out.l.json" "$a" "$b" "$frames" >"$out.row" <<'PY'
import json, sys
r = json.load(open(sys.argv[1]))["results"][0]
print(f'{r["key"]}\t{r["channels"]}\t{(int(sys.argv[3]) - int(sys.argv[2])) / int(sys.argv[4]):.1f}')
PY
}
export -f measure
export qvdfx block short long frames work
export -f count

for i in "${!plugins[@]}"; do
  printf '%s\0%s\0' "${plugins[$i]}" "$i"
done | xargs -0 -n2 -P"$jobs" bash -c 'measure "$1" "$2"' _

table=$work/table.txt
{
  printf '# instructions per frame: callgrind, defaults, 48 kHz, %d-frame blocks, AVX2, steady state over %d frames\n' "$block" "$frames"
  printf '%-36s %3s %16s\n' plugin ch instr/frame
  for j in "${!plugins[@]}"; do
    IFS=$'\t' read -r key ch ipf <"$work/$j.row"
    printf '%-36s %3s %16s\n' "$key" "$ch" "$ipf"
  done
} >"$table"
cat "$table"
if ((write)); then
  cp "$table" bench/instructions.txt
  echo "wrote bench/instructions.txt" >&2
fi

#!/usr/bin/env bash
# qvdfx measure beside ffmpeg's ebur128 filter (with true peak) on the same
# file, runs interleaved so both see the same machine load: user+sys CPU
# seconds and wall seconds, fastest and median of each.
# Usage: bench/measure-vs-ffmpeg.sh [RUNS] [MINUTES]   (defaults 5, 10)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
minutes=${2:-10}
qvdfx=build/release/bin/qvdfx
cmake --build build/release -j2 --target qvdfx QVDAudioPlugins >/dev/null
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
file=$dir/pink.wav
"$qvdfx" gen "$file" --signal pink --level -20 --seconds $((minutes * 60)) --channels 2 --rate 48000
for ((i = 0; i < runs; i++)); do
  /usr/bin/time -f "%U %S %e" -a -o "$dir/qvdfx.times" "$qvdfx" measure "$file" --quiet >/dev/null
  /usr/bin/time -f "%U %S %e" -a -o "$dir/ffmpeg.times" \
    ffmpeg -hide_banner -nostats -i "$file" -af ebur128=peak=true -f null - 2>/dev/null
done
report() {
  awk -v name="$1" '{ cpu[NR] = $1 + $2; wall[NR] = $3 }
    function median(a, n,   i, j, t) {
      for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
      return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2 }
    END { n = NR; c = median(cpu, n); w = median(wall, n)
          printf "%-8s cpu (user+sys) s: fastest %.2f median %.2f   wall s: fastest %.2f median %.2f\n",
                 name, cpu[1], c, wall[1], w }' "$dir/$1.times"
}
echo "$minutes min stereo 48 kHz float WAV, $runs interleaved runs each"
report qvdfx
report ffmpeg

// Multiband compressor on noise with every active band compressing (peak
// -6 dBFS against thresholds of -30 dB). Judged against one stereo
// full-band compressor: four bands stereo within three times its cost.
#include "PluginBenchDriver.h"

namespace {

constexpr int kFirstBand = 9;     // after the global rows
constexpr int kBandRows = 8;      // threshold, ratio, attack, release, knee, make-up, bypass, solo

void BM_Multiband(benchmark::State& state)
{
    const int bands = static_cast<int>(state.range(1));
    qvd::bench::PluginBenchDriver mbc("Multiband Compressor:1364608107", static_cast<int>(state.range(0)), 0.5f);
    mbc.set(0, static_cast<float>(bands));
    mbc.set(1, static_cast<float>(state.range(2))); // slope
    mbc.set(8, state.range(3) != 0 ? 1.0f : 0.0f);  // linked detection
    for (int b = 0; b < bands; ++b) {
        mbc.set(kFirstBand + b * kBandRows, -30.0f); // threshold
        mbc.set(kFirstBand + b * kBandRows + 1, 4.0f);
    }
    mbc.run(state);
    state.SetLabel(std::to_string(bands) + (state.range(2) ? " bands 48 dB/oct" : " bands 24 dB/oct") +
                   (state.range(3) ? " linked" : " per channel"));
}
BENCHMARK(BM_Multiband)
    ->Args({2, 4, 0, 1})
    ->Args({2, 4, 0, 0})
    ->Args({2, 5, 1, 1})
    ->Args({2, 1, 0, 1})
    ->Args({6, 4, 0, 1});

} // namespace

// Modulation and echo effects at 48 kHz, 512-frame stereo blocks.
#include "StereoPlugin.h"

namespace {

using qvd::bench::Stereo;

void BM_Flanger(benchmark::State& state)
{
    Stereo("Flanger:1364608121", {{"QVDFlanger::FEEDBACK", 70.0f},
                                  {"QVDFlanger::RATE", 2.0f},
                                  {"QVDFlanger::SHAPE", 1.0f}})
        .run(state);
}
BENCHMARK(BM_Flanger);

void BM_FlangerThroughZero(benchmark::State& state)
{
    Stereo("Flanger:1364608121", {{"QVDFlanger::FEEDBACK", -50.0f}, {"QVDFlanger::THROUGH_ZERO", 1.0f}}).run(state);
}
BENCHMARK(BM_FlangerThroughZero);

void BM_EchoEightTaps(benchmark::State& state)
{
    Stereo("Echo:1364608121", {{"QVDStereoEcho::TAPS", 8.0f}, {"QVDStereoEcho::FEEDBACK", 60.0f}}).run(state);
}
BENCHMARK(BM_EchoEightTaps);

void BM_EchoTape(benchmark::State& state)
{
    Stereo("Echo:1364608121", {{"QVDStereoEcho::TAPS", 4.0f}, {"QVDStereoEcho::MODE", 1.0f}}).run(state);
}
BENCHMARK(BM_EchoTape);

void BM_PhaserTwelveStages(benchmark::State& state)
{
    Stereo("Modulation:1364610412", {{"QVDModulation::MODE", 4.0f}, {"QVDModulation::STAGES", 4.0f}}).run(state);
}
BENCHMARK(BM_PhaserTwelveStages);

void BM_StereoFixer(benchmark::State& state)
{
    Stereo("Stereo Fixer:1364611910", {}).run(state);
}
BENCHMARK(BM_StereoFixer);

} // namespace

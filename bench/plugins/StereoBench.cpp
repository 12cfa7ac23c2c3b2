// Stereo and time-based plugins at 48 kHz, 512-frame stereo blocks, through
// the registry as a host drives them. "ns/frame" is the figure they are judged by.
#include "StereoPlugin.h"

namespace {

using qvd::bench::Stereo;

void BM_StereoWidth(benchmark::State& state)
{
    Stereo("Stereo Width:1364608115", {{"QVDStereoWidth::WIDTH", 150.0f}}).run(state);
}
BENCHMARK(BM_StereoWidth);

void BM_StereoWidthBassMono(benchmark::State& state)
{
    Stereo("Stereo Width:1364608115",
           {{"QVDStereoWidth::WIDTH", 150.0f}, {"QVDStereoWidth::BASS_MONO", 1.0f}, {"QVDStereoWidth::BALANCE", 20.0f}})
        .run(state);
}
BENCHMARK(BM_StereoWidthBassMono);

void BM_StereoDelay(benchmark::State& state)
{
    Stereo("Delay:1364608121", {{"QVDStereoDelay::FEEDBACK", 70.0f},
                                {"QVDStereoDelay::CROSSFEED", 30.0f},
                                {"QVDStereoDelay::LOW_CUT", 120.0f},
                                {"QVDStereoDelay::HIGH_CUT", 6000.0f}})
        .run(state);
}
BENCHMARK(BM_StereoDelay);

void BM_StereoDelayDucking(benchmark::State& state)
{
    Stereo("Delay:1364608121", {{"QVDStereoDelay::FEEDBACK", 70.0f}, {"QVDStereoDelay::DUCK", 9.0f}}).run(state);
}
BENCHMARK(BM_StereoDelayDucking);

void BM_Chorus(benchmark::State& state)
{
    Stereo("Chorus:1364608121", {{"QVDChorus::VOICES", 3.0f},
                                 {"QVDChorus::FEEDBACK", 30.0f},
                                 {"QVDChorus::HIGH_CUT", 8000.0f}})
        .run(state);
}
BENCHMARK(BM_Chorus);

void BM_ChorusOneVoice(benchmark::State& state)
{
    Stereo("Chorus:1364608121", {{"QVDChorus::VOICES", 0.0f}}).run(state);
}
BENCHMARK(BM_ChorusOneVoice);

// Default settings: two voices per side.
void BM_ChorusTwoVoices(benchmark::State& state)
{
    Stereo("Chorus:1364608121", {}).run(state);
}
BENCHMARK(BM_ChorusTwoVoices);

} // namespace

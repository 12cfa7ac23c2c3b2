// Dynamics plugins at 48 kHz, 512-frame stereo blocks of noise at -20 dBFS
// peak, set so every detector works all the time.
#include "StereoPlugin.h"

namespace {

using qvd::bench::Stereo;

void BM_DeEsser(benchmark::State& state)
{
    const bool split = state.range(0) != 0;
    Stereo("De-Esser:1364608115", {{"QVDDeesser::THRESHOLD", -40.0f},
                                   {"QVDDeesser::RANGE", 10.0f},
                                   {"QVDDeesser::MODE", split ? 1.0f : 0.0f}})
        .run(state);
    state.SetLabel(split ? "split band" : "wide band");
}
BENCHMARK(BM_DeEsser)->Arg(0)->Arg(1);

// The compressor stage alone, set like the peers' compressor runs
// (-24 dB, 4:1, 10/100 ms).
void BM_VocalChannelCompressor(benchmark::State& state)
{
    Stereo("Vocal Channel:1364608121", {{"QVDVocalChannel::HPF_ON", 0.0f},
                                        {"QVDVocalChannel::DEESS_ON", 0.0f},
                                        {"QVDVocalChannel::EQ_ON", 0.0f},
                                        {"QVDVocalChannel::COMP_THRESH", -24.0f},
                                        {"QVDVocalChannel::COMP_RATIO", 4.0f},
                                        {"QVDVocalChannel::COMP_ATTACK", 10.0f},
                                        {"QVDVocalChannel::COMP_RELEASE", 100.0f}})
        .run(state);
}
BENCHMARK(BM_VocalChannelCompressor);

// Every stage in, every EQ band away from 0 dB.
void BM_VocalChannelFull(benchmark::State& state)
{
    Stereo("Vocal Channel:1364608121", {{"QVDVocalChannel::GATE_ON", 1.0f},
                                        {"QVDVocalChannel::GATE_THRESH", -30.0f},
                                        {"QVDVocalChannel::COMP_THRESH", -30.0f},
                                        {"QVDVocalChannel::DEESS_THRESH", -40.0f},
                                        {"QVDVocalChannel::LOW_GAIN", -2.0f},
                                        {"QVDVocalChannel::PRESENCE_GAIN", 3.0f},
                                        {"QVDVocalChannel::HIGH_GAIN", 2.0f}})
        .run(state);
}
BENCHMARK(BM_VocalChannelFull);

} // namespace

#include "MeterBallistics.h"

#include <algorithm>

namespace {

// The burst that defines a peak meter's integration time is a 5 kHz tone.
constexpr double kBurstHz = 5000.0;
// e^-u (1 + u) = 0.01: two equal sections reach 99 % of a step after u time constants.
constexpr double kTwoPoleSettle = 6.638352067993813;

double burstReading(const MeterBallistics& m, double rate, double seconds)
{
    MeterBallistics::State s;
    const auto frames = static_cast<std::int64_t>(std::lround(seconds * rate));
    // A rotating phasor: a sine call a sample would make every prepare slow.
    const double w = 2.0 * M_PI * kBurstHz / rate;
    const double c = std::cos(w), d = std::sin(w);
    double re = 1.0, im = 0.0;
    for (std::int64_t n = 0; n < frames; ++n) {
        m.step(s, im);
        const double next = re * c - im * d;
        im = re * d + im * c;
        re = next;
    }
    return s.b;
}

} // namespace

MeterBallistics MeterBallistics::design(const MeterStandard& standard, double sampleRate)
{
    MeterBallistics m;
    m.kind = standard.kind;
    if (standard.kind != MeterStandard::kPeak) {
        const double tau = standard.integrationMs / 1000.0 / kTwoPoleSettle;
        m.pole = 1.0 - std::exp(-1.0 / (tau * sampleRate));
        // An average meter reads a sine at its RMS level.
        m.gainDb = (standard.kind == MeterStandard::kAverage ? 20.0 * std::log10(M_PI / (2.0 * std::sqrt(2.0))) : 0.0)
                 - standard.referenceDb;
        return m;
    }
    m.release = std::pow(10.0, -standard.returnDb / 20.0 / (standard.returnSeconds * sampleRate));
    m.gainDb = -standard.referenceDb;
    if (standard.integrationMs <= 0.0)
        return m;
    // The burst reading rises with the attack share: bisect for the one that
    // reads 2 dB under the steady tone at the end of the burst.
    const double target = std::pow(10.0, -2.0 / 20.0);
    const double burst = standard.integrationMs / 1000.0;
    double lo = 0.0, hi = 1.0;
    for (int i = 0; i < 30; ++i) {
        m.attack = 0.5 * (lo + hi);
        const double steady = burstReading(m, sampleRate, std::max(0.1, 10.0 * burst));
        (burstReading(m, sampleRate, burst) < target * steady ? lo : hi) = m.attack;
    }
    m.attack = 0.5 * (lo + hi);
    return m;
}

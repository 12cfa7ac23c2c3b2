#pragma once
// Level meter ballistics. Peak meters charge towards the rectified signal
// and fall at a fixed rate in dB; average meters (VU) smooth the rectified
// signal and power meters (K-system) the squared one, each through two equal
// one-pole sections, which rise and fall alike without overshoot.

#include <cmath>
#include <cstdint>

struct MeterStandard {
    enum Kind : std::int32_t { kPeak, kAverage, kPower };
    Kind kind = kPeak;
    // Peak: the length of a tone burst that reads 2 dB under the steady
    // reading (0: instant). Average and power: the time to 99 % of the
    // step (power for power meters), and equally back down to 1 %.
    double integrationMs = 0.0;
    // Peak: the fall of `returnDb` takes `returnSeconds`.
    double returnDb = 20.0;
    double returnSeconds = 1.7;
    // The level that reads 0 dB, in dBFS (K-system meters); 0 elsewhere.
    double referenceDb = 0.0;
};

struct MeterBallistics {
    MeterStandard::Kind kind = MeterStandard::kPeak;
    double attack = 1.0;  // peak: share of the distance to the rectified sample
    double release = 1.0; // peak: factor a sample while falling
    double pole = 0.0;    // average and power: the sections' smoothing share
    double gainDb = 0.0;  // added to the reading

    // [not while processing] Peak attacks are fitted to the burst reading by
    // simulation, as the charging only runs while the signal is above the reading.
    static MeterBallistics design(const MeterStandard& standard, double sampleRate);

    // Running state of one channel: `b` is the reading in the meter's own domain.
    struct State {
        double a = 0.0, b = 0.0;
    };

    // [audio-thread]
    void step(State& s, double x) const noexcept
    {
        if (kind == MeterStandard::kPeak) {
            const double r = std::fabs(x);
            s.b = r > s.b ? s.b + attack * (r - s.b) : s.b * release;
        } else {
            const double in = kind == MeterStandard::kPower ? x * x : std::fabs(x);
            s.a += pole * (in - s.a);
            s.b += pole * (s.a - s.b);
        }
    }
    // The reading in dB of a state's `b`.
    double decibels(double b) const noexcept
    {
        if (!(b > 0.0))
            return -HUGE_VAL;
        return (kind == MeterStandard::kPower ? 10.0 : 20.0) * std::log10(b) + gainDb;
    }
};

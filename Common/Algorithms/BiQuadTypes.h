#pragma once
// Plain records of the biquad block, kept apart from BiQuad.h so per-ISA
// kernel files can include them without pulling in any inline code.

// Realises H(z) = gain * (1 + num1 z^-1 + num2 z^-2) / (1 - den1 z^-1 - den2 z^-2).
// The default is the neutral (unity) set.
struct BiQuadCoefficients {
    double den2 = 0.0;
    double den1 = 0.0;
    double num2 = 0.0;
    double num1 = 0.0;
    double gain = 1.0;

    bool isNeutral() const;
    // Finite, with both poles strictly inside the unit circle.
    bool isStable() const;
    // |H| at `hz` for a rate of `sampleRate`.
    double magnitude(double hz, double sampleRate) const;
};

// Running state of one channel: w1 newest, w2 older.
struct BiQuadState {
    double w1 = 0.0;
    double w2 = 0.0;
};

// The single-precision 1e-18 widened; adding and subtracting it flushes
// denormals out of a state.
constexpr double kBiQuadFlush = static_cast<double>(1e-18f);

#pragma once
// Parameter records of the sixteen-line room reverb. Every record is a plain
// value of fixed size, so a whole engine record can be copied on the audio
// thread without allocating.

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t qv_lines = 16;
// Channel counts the engine is built for; the room reverb runs up to 8 in and out.
inline constexpr std::uint32_t qv_max_channels = 8;

struct qv_reflections_mod_param {
    struct DelayLines {
        static constexpr std::uint32_t Count = qv_lines;
        static constexpr std::uint32_t MaxLength = 65535;
    };
    // Tap delays in samples, each in [1, MaxLength].
    std::array<std::uint16_t, qv_lines> delays{};
    // What each tap channel carries of the mono feed.
    std::array<float, qv_lines> gains{};
};

struct qv_reverberant_u15_core_param {
    std::array<std::uint32_t, qv_lines> delays{}; // samples
    std::array<float, qv_lines * qv_lines> matrix{}; // row-major, row r feeds line r
    std::array<float, qv_lines> gains{};           // feedback gain per line
    std::array<float, qv_lines> damping{};         // [-0.9999, 0]; 0 leaves the line bright
    std::array<float, qv_lines> modulation{};      // delay excursion, samples
    std::array<float, qv_max_channels> tone{};      // [0, 1] per output channel
};

struct qv_reverberant_u15_param {
    qv_reverberant_u15_core_param core;
    std::uint32_t outputs = 0;
    // Late output gains, line by line for each output channel.
    std::array<std::array<float, qv_lines>, qv_max_channels> out_gains{};
};

struct qv_matrixing_param {
    std::uint32_t inputs = 0;
    std::uint32_t outputs = 0;
    // gain[i][o]: input i into output o.
    std::array<std::array<float, qv_max_channels>, qv_lines> gain{};
};

struct qv_eq_band {
    // Realises gain * (1 + num1 z^-1 + num2 z^-2) / (1 - den1 z^-1 - den2 z^-2).
    double den2 = 0.0, den1 = 0.0, num2 = 0.0, num1 = 0.0, gain = 1.0;
    // The settings they were designed from.
    float frequency = 0.0f, level = 1.0f, third = 0.0f;

    bool neutral() const { return gain == 1.0 && den1 == 0.0 && den2 == 0.0 && num1 == 0.0 && num2 == 0.0; }
};

struct qv_eq_param {
    std::uint32_t channels = 0;
    std::array<qv_eq_band, 2> bands{}; // low shelf, high shelf
};

struct qv_reverb_u15_param {
    qv_reverberant_u15_param late;
    qv_reflections_mod_param early;
    qv_matrixing_param direct;    // inputs x outputs
    qv_matrixing_param early_mix; // 16 taps x outputs
    qv_eq_param late_eq;
    qv_eq_param early_eq;
    std::uint32_t inputs = 0;
    std::uint32_t outputs = 0;
    std::uint32_t max_block = 0; // frames per process step
    float rate = 48000.0f;        // the engine's own rate, Hz
    // Longest line delay the engine must hold, in samples; fixed at construction.
    std::uint32_t max_delay = 0;
};

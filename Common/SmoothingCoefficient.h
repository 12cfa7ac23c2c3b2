#pragma once
// Process-wide one-pole smoothing coefficients shared by plugins. Every record
// joins one list when constructed, so a rate change or the host's smoothing
// switch reaches all of them at once.

#include <atomic>
#include <cstdint>

class SmoothingCoefficient {
public:
    // Time constant in milliseconds. Construct only as a static (lives until unload).
    explicit SmoothingCoefficient(std::int32_t timeConstantMs);
    ~SmoothingCoefficient();
    SmoothingCoefficient(const SmoothingCoefficient&) = delete;
    SmoothingCoefficient& operator=(const SmoothingCoefficient&) = delete;

    // [control-thread] a = min(exp(-2*pi / (T * fs * 0.001)), 1), b = 1 - a, for every record.
    static void recomputeAll(double sampleRate);
    // [control-thread] Switches smoothing on or off for every record.
    static void enableAll(bool enabled);

    std::int32_t timeConstantMs() const { return m_timeConstantMs; }
    // [any-thread] The coefficients in force: the computed pair when smoothing
    // is on, (0, 1) when it is off, so a state then follows its target within
    // one sample and lands on it exactly.
    double a() const { return enabled() ? m_a.load(std::memory_order_relaxed) : 0.0; }
    double b() const { return enabled() ? m_b.load(std::memory_order_relaxed) : 1.0; }
    // [any-thread] The computed pair regardless of the switch.
    double computedA() const { return m_a.load(std::memory_order_relaxed); }
    double computedB() const { return m_b.load(std::memory_order_relaxed); }
    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }

    // The 200 ms record most plugins share.
    static SmoothingCoefficient& shared200ms();

private:
    void recompute(double sampleRate);

    std::int32_t m_timeConstantMs;
    std::atomic<double> m_a{0.0};
    std::atomic<double> m_b{1.0};
    std::atomic<bool> m_enabled{false};
};

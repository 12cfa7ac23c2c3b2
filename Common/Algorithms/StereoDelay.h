#pragma once
// Two fractional delay lines (left, right) with gliding read heads: a change
// of time moves the head with bounded speed and acceleration, so automation
// never jumps the read position. Reads are 4-point cubic (Catmull-Rom); a
// settled head sits on a whole sample and returns stored samples exactly.
//
// The caller reads a frame, then writes one (a feedback loop needs the read
// first): a delay of d returns the frame written d frames before the current
// one. Delays are clamped to [2, capacity] so all four taps are written ones.

#include <cmath>
#include <cstdint>
#include <vector>

class StereoDelay {
public:
    // Read-head speed limit, in samples of delay change per sample: the
    // pitch of a gliding echo stays within 1 - kMaxSpeed .. 1 + kMaxSpeed.
    static constexpr double kMaxSpeed = 4.0;

    // [not while processing] Room for `maxDelay` samples per line; clears.
    void prepare(double sampleRate, std::int32_t maxDelay);
    // [audio-thread] Silence in both lines, heads parked at their targets.
    void clear() noexcept;
    // [audio-thread] Target delay of a line in samples; `glide` false jumps there.
    void setDelay(int line, double samples, bool glide) noexcept;

    // [audio-thread] Writes one frame (non-finite samples are stored as 0).
    void write(float left, float right) noexcept
    {
        m_write = (m_write + 1) & m_mask;
        m_lines[0][m_write] = finite(left);
        m_lines[1][m_write] = finite(right);
    }
    // [audio-thread] Moves both heads one sample and reads them.
    void read(float& left, float& right) noexcept
    {
        left = readLine(0);
        right = readLine(1);
    }
    double delay(int line) const { return m_heads[line].position; }
    // [audio-thread] A read `samples` back, for taps the caller modulates
    // itself (no head, no glide); `samples` within [2, capacity].
    float tap(int line, double samples) const noexcept { return interpolate(line, samples); }
    std::int32_t capacity() const { return m_maxDelay; }

private:
    struct Head {
        double position = 2.0;
        double velocity = 0.0;
        double target = 2.0;
    };
    static float finite(float x) { return x - x == 0.0f ? x : 0.0f; }
    float interpolate(int line, double position) const noexcept
    {
        const float* x = m_lines[line].data();
        // Positions are at least 2: truncation is the floor, without a libm call.
        const auto d = static_cast<std::uint32_t>(position);
        const auto t = static_cast<float>(position - static_cast<double>(d));
        // x1 is `d` frames old counting the frame about to be written; x0 is
        // newer, x2 and x3 older.
        const std::uint32_t at = m_write + 1 - d;
        const float x0 = x[(at + 1) & m_mask];
        const float x1 = x[at & m_mask];
        const float x2 = x[(at - 1) & m_mask];
        const float x3 = x[(at - 2) & m_mask];
        const float c1 = 0.5f * (x2 - x0);
        const float c2 = x0 - 2.5f * x1 + 2.0f * x2 - 0.5f * x3;
        const float c3 = 0.5f * (x3 - x0) + 1.5f * (x1 - x2);
        return t == 0.0f ? x1 : ((c3 * t + c2) * t + c1) * t + x1;
    }
    float readLine(int line) noexcept
    {
        Head& h = m_heads[line];
        const float* x = m_lines[line].data();
        // x1 is `d` frames old counting the frame about to be written.
        if (h.velocity == 0.0 && h.position == h.target && m_whole[line]) {
            return x[(m_write + 1 - m_settled[line]) & m_mask];
        }
        glide(h);
        m_settled[line] = static_cast<std::uint32_t>(h.position);
        m_whole[line] = h.position == static_cast<double>(m_settled[line]);
        return interpolate(line, h.position);
    }
    // Moves a head one sample towards its target.
    void glide(Head& h) noexcept;

    std::vector<float> m_lines[2];
    std::uint32_t m_mask = 0;
    std::uint32_t m_write = 0;
    std::int32_t m_maxDelay = 2;
    Head m_heads[2];
    // Whether a head rests on a whole sample, and that delay.
    bool m_whole[2]{};
    std::uint32_t m_settled[2]{2, 2};
    double m_maxAccel = 0.0;
    double m_settle = 1.0;
};

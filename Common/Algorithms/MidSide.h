#pragma once
// Stereo as a 2x2 matrix on (L, R): width in mid/side terms, balance, swap,
// polarity and the mono fold compose into one matrix, so a whole setting costs
// two multiply-adds per output sample. A matrix with exact 0 and 1 entries
// passes audio bit for bit.
//
// MidSideMixer glides from the matrix in force to a target, one one-pole step
// per sample, and snaps once within 1e-7 so a settled matrix is exact again.

#include <cstdint>

struct StereoMatrix {
    // out L = ll * L + lr * R, out R = rl * L + rr * R
    double ll = 1.0, lr = 0.0, rl = 0.0, rr = 1.0;

    // Side scaled by `width` (1 unchanged, 0 mono, 2 double) with mid kept.
    static StereoMatrix width(double width);
    // Left and right exchanged.
    static StereoMatrix swap();
    // Each channel's polarity, as a factor of +1 or -1.
    static StereoMatrix polarity(bool invertLeft, bool invertRight);
    // -1 left only .. 0 both at unity .. +1 right only; the far side stays at unity.
    static StereoMatrix balance(double position);
    // Both outputs the mean of the two inputs.
    static StereoMatrix mono();

    // This matrix applied after `first`.
    StereoMatrix operator*(const StereoMatrix& first) const;
    bool operator==(const StereoMatrix&) const = default;
};

class MidSideMixer {
public:
    // [audio-thread] Jumps to `m` without a glide (after a reset).
    void jump(const StereoMatrix& m) noexcept;
    // [audio-thread] One block out of place (in place allowed), gliding
    // towards `target` with the one-pole a/b pair: g = a g + b target.
    void process(const StereoMatrix& target, double a, double b, const float* inL, const float* inR, float* outL,
                 float* outR, std::int32_t frames) noexcept;
    const StereoMatrix& current() const { return m_current; }

private:
    StereoMatrix m_current;
};

// Encodes (L, R) to (M, S) = ((L + R) / 2, (L - R) / 2) and back.
inline void midSideEncode(float l, float r, float& m, float& s)
{
    m = 0.5f * (l + r);
    s = 0.5f * (l - r);
}
inline void midSideDecode(float m, float s, float& l, float& r)
{
    l = m + s;
    r = m - s;
}

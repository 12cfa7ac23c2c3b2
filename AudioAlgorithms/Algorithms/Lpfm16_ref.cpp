#include "Algorithms/Lpfm16.h"

namespace twa::numeric {
namespace ref {
namespace {

class Lpfm16_ref final : public Lpfm16 {
public:
    explicit Lpfm16_ref(std::size_t channels) noexcept
        : m_channels(channels), m_name(channels == 1 ? "Lpfm16_c1_ref" : "Lpfm16_c2_ref")
    {
    }
    const char* Name() const noexcept override { return m_name; }
    std::size_t Channels() const noexcept override { return m_channels; }

    void Process(const Lpfm16Coefs& c, Lpfm16State& s, const float* x, float* w, float* out,
                 std::size_t frames) const noexcept override
    {
        for (std::size_t n = 0; n < frames; ++n) {
            const float* xn = x + 16 * n;
            // Everything that reads the frame comes first: w may overwrite it.
            if (out) {
                for (std::size_t ch = 0; ch < m_channels; ++ch)
                    out[n * m_channels + ch] = dot(c.g[ch], xn);
            }
            float y[16];
            for (std::size_t r = 0; r < 16; ++r)
                y[r] = dot(c.m[r], xn);
            for (std::size_t r = 0; r < 16; ++r) {
                s.z[r] = c.k[r] * y[r] + c.km[r] * s.z[r];
                w[16 * n + r] = s.z[r];
            }
        }
    }

private:
    static float dot(const float* a, const float* xn) noexcept
    {
        float acc = a[0] * xn[0];
        for (std::size_t j = 1; j < 16; ++j)
            acc += a[j] * xn[j];
        return acc;
    }

    std::size_t m_channels;
    const char* m_name;
};

} // namespace
} // namespace ref

Lpfm16* NewLpfm16_ref(std::size_t channels)
{
    return channels == 1 || channels == 2 ? new ref::Lpfm16_ref(channels) : nullptr;
}

} // namespace twa::numeric

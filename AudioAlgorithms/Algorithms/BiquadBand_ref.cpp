#include "Algorithms/BiquadBand.h"
#include "Algorithms/BiquadBandState.h"

namespace twa::numeric::eq {
namespace {

template <std::size_t N, BiquadForm F>
class BiquadBand_ref final : public BiquadBand {
public:
    const char* Name() const noexcept override
    {
        if constexpr (F == BiquadForm::DF2)
            return N == 2 ? "BiquadBand_ref<2,DF2>" : N == 4 ? "BiquadBand_ref<4,DF2>" : "BiquadBand_ref<8,DF2>";
        else
            return N == 2 ? "BiquadBand_ref<2,DF2T>" : N == 4 ? "BiquadBand_ref<4,DF2T>" : "BiquadBand_ref<8,DF2T>";
    }
    std::size_t BandCount() const noexcept override { return N; }
    BiquadForm Form() const noexcept override { return F; }
    void SetCoefficients(std::size_t band, const BiquadCoeffs& c) noexcept override
    {
        if (band < N)
            m_d.set(band, c);
    }
    void Reset() noexcept override { m_d.clear(); }

    void Process(const float* in, float* out, std::size_t frames) noexcept override
    {
        for (std::size_t b = 0; b < N; ++b) {
            const float b0 = m_d.b0[b], b1 = m_d.b1[b], b2 = m_d.b2[b];
            const float a1 = m_d.a1[b], a2 = m_d.a2[b];
            float s1 = m_d.s1[b];
            float s2 = m_d.s2[b];
            for (std::size_t k = 0; k < frames; ++k) {
                const float x = in[k * N + b];
                if constexpr (F == BiquadForm::DF2) {
                    const float w = (x - a1 * s1) - a2 * s2;
                    out[k * N + b] = (b0 * w + b1 * s1) + b2 * s2;
                    s2 = s1;
                    s1 = w;
                } else {
                    const float y = b0 * x + s1;
                    s1 = (b1 * x - a1 * y) + s2;
                    s2 = b2 * x - a2 * y;
                    out[k * N + b] = y;
                }
            }
            m_d.s1[b] = s1;
            m_d.s2[b] = s2;
        }
        m_d.sanitise();
    }

private:
    BiquadBandData<N> m_d;
};

template <std::size_t N>
BiquadBand* make(BiquadForm form)
{
    if (form == BiquadForm::DF2)
        return new BiquadBand_ref<N, BiquadForm::DF2>();
    return new BiquadBand_ref<N, BiquadForm::DF2T>();
}

} // namespace

BiquadBand* NewBiquadBand_ref(std::size_t bands, BiquadForm form)
{
    switch (bands) {
    case 2:
        return make<2>(form);
    case 4:
        return make<4>(form);
    case 8:
        return make<8>(form);
    default:
        return nullptr;
    }
}

} // namespace twa::numeric::eq

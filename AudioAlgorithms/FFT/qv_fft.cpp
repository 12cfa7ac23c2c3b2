#include "FFT/qv_fft.h"

#include "System/twa_assert.h"

#include <algorithm>

namespace twa::fft {

namespace {

std::size_t EvenSize(std::size_t fftsize)
{
    return std::max<std::size_t>(2, fftsize & ~std::size_t{1});
}

} // namespace

qv_fft::qv_fft(std::size_t fftsize, std::size_t wlength, std::int32_t window_type,
               SpectrumOrder order, Backend backend)
    : m_Time(EvenSize(fftsize)),
      m_Window(MakeWindow(std::min(wlength, EvenSize(fftsize)), window_type)),
      m_WindowType(window_type), m_Spectrum(m_Time.size() / 2 + 1),
      m_Scale(1.0f / static_cast<float>(m_Time.size()))
{
    QVD_ASSERT(~fftsize & 1);
    QVD_ASSERT(wlength <= fftsize);
    m_UnitWindow = std::all_of(m_Window.begin(), m_Window.end(), [](float v) { return v == 1.0f; });
    const bool ordered = order == SpectrumOrder::Ordered;
    m_Forward = CreateTransform(size(), Direction::Forward, ordered, m_Time.data(), m_Spectrum.data(),
                                backend);
    m_Inverse = CreateTransform(size(), Direction::Inverse, ordered, m_Time.data(), m_Spectrum.data(),
                                backend);
}

qv_fft::~qv_fft() = default;
// Moving a vector keeps its heap block, so the transforms' bindings hold.
qv_fft::qv_fft(qv_fft&&) noexcept = default;
qv_fft& qv_fft::operator=(qv_fft&&) noexcept = default;

void qv_fft::analyse(const float* in) noexcept
{
    const std::size_t wl = wlength();
    // A whole-frame rectangular window leaves nothing to do but transform.
    if (m_UnitWindow && wl == size()) {
        m_Forward->forward(in, m_Spectrum.data());
        return;
    }
    if (m_UnitWindow)
        std::copy_n(in, wl, m_Time.data());
    else
        for (std::size_t i = 0; i < wl; ++i)
            m_Time[i] = in[i] * m_Window[i];
    // The inverse leaves a frame in the work vector; the padding must be zero again.
    std::fill(m_Time.begin() + static_cast<std::ptrdiff_t>(wl), m_Time.end(), 0.0f);
    m_Forward->execute();
}

void qv_fft::synthesise() noexcept
{
    m_Inverse->execute();
}

float qv_fft::synthesis_gain() const noexcept
{
    return m_ScaledSynthesis ? m_Gain * m_Scale : m_Gain;
}

void qv_fft::forward(std::span<const float> p_InSamples) noexcept
{
    QVD_ASSERT(wlength() == p_InSamples.size());
    if (p_InSamples.size() < wlength()) {
        std::fill(m_Spectrum.begin(), m_Spectrum.end(), complex_t{});
        return;
    }
    analyse(p_InSamples.data());
}

void qv_fft::forward_front(std::span<const float> p_InSamples) noexcept
{
    QVD_ASSERT(wlength() <= p_InSamples.size());
    if (p_InSamples.size() < wlength()) {
        std::fill(m_Spectrum.begin(), m_Spectrum.end(), complex_t{});
        return;
    }
    analyse(p_InSamples.data());
}

void qv_fft::forward(std::span<const float> p_InSamples, std::span<complex_t> p_OutSpectrum) noexcept
{
    QVD_ASSERT(p_InSamples.size() >= this->wlength());
    QVD_ASSERT(nfreq() <= p_OutSpectrum.size());
    if (p_InSamples.size() < wlength() || p_OutSpectrum.size() < nfreq()) {
        std::fill(p_OutSpectrum.begin(), p_OutSpectrum.end(), complex_t{});
        return;
    }
    analyse(p_InSamples.data());
    std::copy(m_Spectrum.begin(), m_Spectrum.end(), p_OutSpectrum.begin());
}

void qv_fft::inverse(std::span<float> p_OutSamples) noexcept
{
    QVD_ASSERT(wlength() == p_OutSamples.size());
    if (p_OutSamples.size() < wlength()) {
        std::fill(p_OutSamples.begin(), p_OutSamples.end(), 0.0f);
        return;
    }
    const float g = synthesis_gain();
    const std::size_t wl = wlength();
    float* out = p_OutSamples.data();
    if (m_UnitWindow && g == 1.0f && wl == size()) {
        m_Inverse->inverse_consuming(m_Spectrum.data(), out);
        return;
    }
    synthesise();
    if (m_UnitWindow)
        for (std::size_t i = 0; i < wl; ++i)
            out[i] = m_Time[i] * g;
    else
        for (std::size_t i = 0; i < wl; ++i)
            out[i] = m_Time[i] * m_Window[i] * g;
}

void qv_fft::inverse_add(std::span<float> p_OutSamples) noexcept
{
    QVD_ASSERT(this->wlength() <= p_OutSamples.size());
    if (p_OutSamples.size() < wlength())
        return;
    synthesise();
    const float g = synthesis_gain();
    const std::size_t wl = wlength();
    float* out = p_OutSamples.data();
    if (m_UnitWindow)
        for (std::size_t i = 0; i < wl; ++i)
            out[i] += m_Time[i] * g;
    else
        for (std::size_t i = 0; i < wl; ++i)
            out[i] += m_Time[i] * m_Window[i] * g;
}

void qv_fft::forward_raw(std::span<const float> p_InSamples,
                         std::span<complex_t> p_OutSpectrum) noexcept
{
    QVD_ASSERT(this->size() <= p_InSamples.size());
    QVD_ASSERT(nfreq() <= p_OutSpectrum.size());
    if (p_InSamples.size() < size() || p_OutSpectrum.size() < nfreq()) {
        std::fill(p_OutSpectrum.begin(), p_OutSpectrum.end(), complex_t{});
        return;
    }
    m_Forward->forward(p_InSamples.data(), p_OutSpectrum.data());
}

void qv_fft::inverse_raw(std::span<const complex_t> p_InSpectrum,
                         std::span<float> p_OutSamples) noexcept
{
    QVD_ASSERT(nfreq() <= p_InSpectrum.size());
    QVD_ASSERT(this->size() <= p_OutSamples.size());
    if (p_InSpectrum.size() < nfreq() || p_OutSamples.size() < size()) {
        std::fill(p_OutSamples.begin(), p_OutSamples.end(), 0.0f);
        return;
    }
    m_Inverse->inverse(p_InSpectrum.data(), p_OutSamples.data());
}

void qv_fft::spectral_product(std::span<const complex_t> a, std::span<complex_t> b,
                              std::size_t nonzero_nfreq) const noexcept
{
    QVD_ASSERT(nonzero_nfreq <= nfreq());
    QVD_ASSERT(nfreq() <= a.size() && nfreq() <= b.size());
    // Past the end of either spectrum there is nothing to multiply.
    nonzero_nfreq = std::min({nonzero_nfreq, a.size(), b.size()});
    m_Forward->multiply(a.data(), b.data(), nonzero_nfreq);
}

} // namespace twa::fft

#pragma once
// qv_fft: the library's real-signal FFT object. It owns an analysis window, a
// half spectrum and a forward and an inverse transform, and hides which
// transform library does the work (see qv_fft_imp.h for the back ends, the
// rule that picks one and the two spectrum layouts).
//
// A frame is wlength() samples; wlength() may be smaller than size(), the rest
// of the transform being zero padding. All transforms are unscaled: forward
// then inverse multiplies by size(). scale() is 1 / size() for callers that
// want it; the windowed synthesis calls apply it only when asked to.
//
// Contract failures are debug assertions. In release builds a call whose
// buffers are too short never reads or writes past them: it writes zeros where
// its result would have gone (an overlap-add call adds nothing).

#include "FFT/qv_fft_imp.h"
#include "FFT/qv_fft_window.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace twa::fft {

enum class SpectrumOrder : unsigned char { Ordered, Packed };

class qv_fft {
public:
    // [not while processing] fftsize must be even (an odd one is a contract
    // failure and is rounded down; sizes below 2 become 2); wlength is clamped
    // to fftsize. Throws std::bad_alloc when a plan or buffer cannot be made.
    qv_fft(std::size_t fftsize, std::size_t wlength, std::int32_t window_type,
           SpectrumOrder order = SpectrumOrder::Ordered, Backend backend = Backend::Auto);
    ~qv_fft();
    qv_fft(const qv_fft&) = delete;
    qv_fft& operator=(const qv_fft&) = delete;
    // [not while processing] The transforms stay bound to the moved buffers;
    // a moved-from object may only be destroyed or assigned to.
    qv_fft(qv_fft&&) noexcept;
    qv_fft& operator=(qv_fft&&) noexcept;

    // [any-thread]
    std::size_t wlength() const noexcept { return m_Window.size(); }
    std::size_t size() const noexcept { return m_Time.size(); }
    std::size_t nfreq() const noexcept { return m_Spectrum.size(); }
    std::int32_t window_type() const noexcept { return m_WindowType; }
    std::span<const float> window() const noexcept { return m_Window; }
    bool ordered() const noexcept { return m_Forward->ordered(); }
    Backend backend() const noexcept { return m_Forward->backend(); }
    const char* backend_name() const noexcept { return m_Forward->name(); }
    float scale() const noexcept { return m_Scale; }
    float gain() const noexcept { return m_Gain; }

    // [not while processing] Extra factor of the windowed synthesis calls.
    void set_gain(float gain) noexcept { m_Gain = gain; }
    // [not while processing] Whether the windowed synthesis calls also apply
    // scale(), so that analysis and synthesis round trips keep the level.
    void set_scaled_synthesis(bool on) noexcept { m_ScaledSynthesis = on; }
    bool scaled_synthesis() const noexcept { return m_ScaledSynthesis; }

    // [audio-thread] The object's half spectrum, in its layout.
    std::span<complex_t> spectrum() noexcept { return m_Spectrum; }
    std::span<const complex_t> spectrum() const noexcept { return m_Spectrum; }

    // Analysis [audio-thread]: windows wlength() samples, pads with zeros to
    // size() and transforms into spectrum().
    // A frame of exactly wlength() samples.
    void forward(std::span<const float> p_InSamples) noexcept;
    // The first wlength() samples of a longer buffer (a FIFO's oldest, say).
    void forward_front(std::span<const float> p_InSamples) noexcept;
    // Into the caller's spectrum (nfreq() slots) instead of spectrum().
    void forward(std::span<const float> p_InSamples, std::span<complex_t> p_OutSpectrum) noexcept;

    // Synthesis [audio-thread]: transforms spectrum() back and multiplies the
    // first wlength() samples by the window and the synthesis gain. The
    // transform uses spectrum() as scratch: it holds unspecified values
    // afterwards (analyse again, or keep a copy, to read it).
    // Writes exactly wlength() samples.
    void inverse(std::span<float> p_OutSamples) noexcept;
    // Adds the frame to the first wlength() samples (overlap-add).
    void inverse_add(std::span<float> p_OutSamples) noexcept;

    // Plain transforms [audio-thread]: no window, no gain, all size() samples;
    // the object's own spectrum is not touched. Inputs are left as they are.
    void forward_raw(std::span<const float> p_InSamples, std::span<complex_t> p_OutSpectrum) noexcept;
    void inverse_raw(std::span<const complex_t> p_InSpectrum, std::span<float> p_OutSamples) noexcept;

    // [audio-thread] b := b * a over the first nonzero_nfreq bins, in this
    // object's layout (see qv_fft_imp::multiply); the other bins of b are left
    // as they are. Both spectra hold nfreq() slots.
    void spectral_product(std::span<const complex_t> a, std::span<complex_t> b,
                          std::size_t nonzero_nfreq) const noexcept;

private:
    void analyse(const float* in) noexcept;
    void synthesise() noexcept;
    float synthesis_gain() const noexcept;

    // Time-domain work vector, size() floats.
    sample_vector m_Time;
    sample_vector m_Window;
    std::int32_t m_WindowType;
    // The window is all ones, so analysis and synthesis skip the multiply.
    bool m_UnitWindow = false;
    spectrum_vector m_Spectrum;
    // Bound to m_Time and m_Spectrum.
    std::unique_ptr<qv_fft_imp> m_Forward;
    std::unique_ptr<qv_fft_imp> m_Inverse;
    float m_Scale;
    float m_Gain = 1.0f;
    // Synthesis also applies m_Scale.
    bool m_ScaledSynthesis = false;
};

} // namespace twa::fft

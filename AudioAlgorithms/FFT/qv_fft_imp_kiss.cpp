#include "FFT/qv_fft_imp_kiss.h"

#include "System/twa_assert.h"

#include <kiss_fftr.h>

#include <algorithm>
#include <climits>
#include <new>

namespace twa::fft {

static_assert(sizeof(kiss_fft_cpx) == sizeof(complex_t), "KISS complex must be two floats");

qv_fft_imp_kiss::qv_fft_imp_kiss(std::size_t size, Direction direction, bool ordered, float* time,
                                 complex_t* freq)
    : qv_fft_imp(size, direction, ordered, time, freq), m_WorkFreq(ordered ? 0 : size / 2 + 1)
{
    if (size < 2 || (size & 1u) != 0 || size > static_cast<std::size_t>(INT_MAX))
        throw std::bad_alloc();
    const int n = static_cast<int>(size);
    const int inverse = direction == Direction::Inverse ? 1 : 0;
    std::size_t bytes = 0;
    kiss_fftr_alloc(n, inverse, nullptr, &bytes);
    m_PlanMemory.resize(bytes);
    m_Plan = kiss_fftr_alloc(n, inverse, m_PlanMemory.data(), &bytes);
    if (!m_Plan)
        throw std::bad_alloc();
}

qv_fft_imp_kiss::~qv_fft_imp_kiss() = default;

void qv_fft_imp_kiss::multiply(const complex_t* a, complex_t* b,
                               std::size_t nonzero_nfreq) const noexcept
{
    QVD_ASSERT(nonzero_nfreq == nfreq());
    spectral_product(a, b, nonzero_nfreq);
}

void qv_fft_imp_kiss::do_forward(const float* in, complex_t* out) noexcept
{
    kiss_fftr(m_Plan, in, reinterpret_cast<kiss_fft_cpx*>(out));
    if (!m_ordered)
        out[0].imag(out[m_Size / 2].real());
}

void qv_fft_imp_kiss::do_inverse(const complex_t* in, float* out) noexcept
{
    const complex_t* natural = in;
    if (!m_ordered) {
        // KISS reads DC and Nyquist from their natural slots and ignores their
        // imaginary parts, so only the Nyquist slot needs filling.
        const std::size_t half = m_Size / 2;
        std::copy_n(in, half, m_WorkFreq.data());
        m_WorkFreq[half] = complex_t(in[0].imag(), 0.0f);
        natural = m_WorkFreq.data();
    }
    kiss_fftri(m_Plan, reinterpret_cast<const kiss_fft_cpx*>(natural), out);
}

} // namespace twa::fft

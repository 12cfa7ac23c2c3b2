#include "FFT/qv_fft_imp.h"

#include "FFT/qv_fft_imp_kiss.h"
#include "System/twa_assert.h"

#if defined(QVD_HAVE_FFTW)
#include "FFT/qv_fft_imp_fftw.h"
#endif

#include <algorithm>
#include <atomic>

namespace twa::fft {

namespace {
std::atomic<PlannerRigor> g_Rigor{PlannerRigor::Measure};
} // namespace

void SetPlannerRigor(PlannerRigor rigor) noexcept
{
    g_Rigor.store(rigor, std::memory_order_relaxed);
}

PlannerRigor GetPlannerRigor() noexcept
{
    return g_Rigor.load(std::memory_order_relaxed);
}

bool HasFftw() noexcept
{
#if defined(QVD_HAVE_FFTW)
    return true;
#else
    return false;
#endif
}

bool KissServes(std::size_t size) noexcept
{
    if (size < 2 || (size & 1u) != 0)
        return false;
    std::size_t m = size / 2;
    for (const std::size_t p : {2u, 3u, 5u})
        while (m % p == 0)
            m /= p;
    return m == 1;
}

Backend ChooseBackend(std::size_t size, Backend requested) noexcept
{
    if (!HasFftw())
        return Backend::Kiss;
    if (requested == Backend::Kiss && KissServes(size))
        return Backend::Kiss;
    return Backend::Fftw;
}

qv_fft_imp::qv_fft_imp(std::size_t size, Direction direction, bool ordered, float* time,
                       complex_t* freq) noexcept
    : m_Size(size), m_Direction(direction), m_ordered(ordered), m_BoundTime(time), m_BoundFreq(freq)
{
}

qv_fft_imp::~qv_fft_imp() = default;

void qv_fft_imp::execute() noexcept
{
    if (m_Direction == Direction::Forward)
        do_forward(m_BoundTime, m_BoundFreq);
    else
        do_inverse_consuming(m_BoundFreq, m_BoundTime);
}

void qv_fft_imp::forward(const float* in, complex_t* out) noexcept
{
    QVD_ASSERT(m_Direction == Direction::Forward);
    if (m_Direction == Direction::Forward)
        do_forward(in, out);
}

void qv_fft_imp::inverse(const complex_t* in, float* out) noexcept
{
    QVD_ASSERT(m_Direction == Direction::Inverse);
    if (m_Direction == Direction::Inverse)
        do_inverse(in, out);
}

void qv_fft_imp::inverse_consuming(complex_t* in, float* out) noexcept
{
    QVD_ASSERT(m_Direction == Direction::Inverse);
    if (m_Direction == Direction::Inverse)
        do_inverse_consuming(in, out);
}

void qv_fft_imp::multiply(const complex_t* a, complex_t* b, std::size_t nonzero_nfreq) const noexcept
{
    spectral_product(a, b, nonzero_nfreq);
}

void qv_fft_imp::spectral_product(const complex_t* a, complex_t* b,
                                  std::size_t nonzero_nfreq) const noexcept
{
    nonzero_nfreq = std::min(nonzero_nfreq, nfreq());
    if (nonzero_nfreq == 0)
        return;
    if (m_ordered) {
        ComplexMultiply(a, b, nonzero_nfreq);
        return;
    }
    // DC and Nyquist are real and share slot 0: multiply them as two reals.
    const bool nyquist = nonzero_nfreq == nfreq();
    const float dc = a[0].real() * b[0].real();
    const float ny = nyquist ? a[0].imag() * b[0].imag() : b[0].imag();
    b[0] = complex_t(dc, ny);
    ComplexMultiply(a + 1, b + 1, nonzero_nfreq - (nyquist ? 2 : 1));
}

void ComplexMultiply(const complex_t* a, complex_t* b, std::size_t n) noexcept
{
    // std::complex's operator* takes the slow C99 Annex G path for infinities.
    const float* pa = reinterpret_cast<const float*>(a);
    float* pb = reinterpret_cast<float*>(b);
    for (std::size_t k = 0; k < n; ++k) {
        const float ar = pa[2 * k], ai = pa[2 * k + 1];
        const float br = pb[2 * k], bi = pb[2 * k + 1];
        pb[2 * k] = ar * br - ai * bi;
        pb[2 * k + 1] = ar * bi + ai * br;
    }
}

std::unique_ptr<qv_fft_imp> CreateTransform(std::size_t size, Direction direction, bool ordered,
                                            float* time, complex_t* freq,
                                            [[maybe_unused]] Backend requested)
{
#if defined(QVD_HAVE_FFTW)
    if (ChooseBackend(size, requested) == Backend::Fftw)
        return std::make_unique<qv_fft_imp_fftw>(size, direction, ordered, time, freq);
#endif
    return std::make_unique<qv_fft_imp_kiss>(size, direction, ordered, time, freq);
}

} // namespace twa::fft

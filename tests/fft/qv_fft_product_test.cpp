#include "AssertCatcher.h"
#include "FFT/qv_fft.h"
#include "qv_fft_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>

namespace twa::fft {
namespace {

using support::EstimatePlans;
using support::naturalBin;

// b := b * a against a direct complex multiply in double, bin by bin in
// natural order: bins below nonzero_nfreq are multiplied, the rest keep their
// bits, and the unused last slot of the packed layout is never touched.
void checkProduct(qv_fft& f, std::size_t nz)
{
    const std::size_t n = f.size();
    const bool ordered = f.ordered();
    const spectrum_vector a = support::randomSpectrum(f.nfreq(), 1 + static_cast<unsigned>(nz));
    const spectrum_vector b0 = support::randomSpectrum(f.nfreq(), 1000 + static_cast<unsigned>(nz));
    spectrum_vector b = b0;
    f.spectral_product(a, b, nz);
    for (std::size_t k = 0; k <= n / 2; ++k) {
        const complex_t was = naturalBin(b0, n, k, ordered);
        const complex_t got = naturalBin(b, n, k, ordered);
        if (k >= nz) {
            ASSERT_EQ(got, was) << "bin " << k << " of " << n << ", nz=" << nz;
            continue;
        }
        std::complex<double> want = std::complex<double>(naturalBin(a, n, k, ordered)) * std::complex<double>(was);
        // A real signal's DC and Nyquist are real; the ordered layout keeps
        // their imaginary slots, the packed one has none.
        if (!ordered && (k == 0 || k == n / 2))
            want = naturalBin(a, n, k, ordered).real() * static_cast<double>(was.real());
        ASSERT_NEAR(got.real(), want.real(), 1e-6) << "bin " << k << " of " << n << ", nz=" << nz;
        ASSERT_NEAR(got.imag(), want.imag(), 1e-6) << "bin " << k << " of " << n << ", nz=" << nz;
    }
    if (!ordered) {
        EXPECT_EQ(b[n / 2], b0[n / 2]) << "packed layout's spare slot written, nz=" << nz;
    }
}

// Any leading count of bins is multiplied. KISS supports only all of them:
// it reports a shorter count but still multiplies just those.
TEST_F(EstimatePlans, ProductMatchesDirectMultiplyForEveryCount)
{
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const std::size_t n : {16u, 18u, 1024u}) {
            for (const bool ordered : {true, false}) {
                qv_fft f(n, n, kWindowRectangular, support::orderOf(ordered), backend);
                const std::size_t nfreq = f.nfreq();
                for (const std::size_t nz : {std::size_t{0}, std::size_t{1}, std::size_t{2}, nfreq / 2, nfreq - 1, nfreq}) {
                    qvd::test::AssertCatcher catcher;
                    checkProduct(f, nz);
                    const bool reported = debug::kAssertsEnabled && f.backend() == Backend::Kiss && nz != nfreq;
                    EXPECT_EQ(catcher.count(), reported ? 1u : 0u) << f.backend_name() << " nz=" << nz;
                    if (reported) {
                        EXPECT_EQ(qvd::test::AssertCatcher::last(), "nonzero_nfreq == nfreq()");
                    }
                }
            }
        }
    }
}

// Fast convolution: forward both, multiply, inverse gives the circular
// convolution times size(), in every layout on both back ends.
TEST_F(EstimatePlans, ProductOfSpectraIsCircularConvolution)
{
    const std::size_t n = 240;
    const sample_vector x = support::randomSignal(n, 31), h = support::randomSignal(n, 32);
    std::vector<long double> want(n, 0.0L);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            want[(i + j) % n] += static_cast<long double>(x[i]) * h[j];
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const bool ordered : {true, false}) {
            qv_fft f(n, n, kWindowRectangular, support::orderOf(ordered), backend);
            spectrum_vector sx(f.nfreq()), sh(f.nfreq());
            f.forward_raw(x, sx);
            f.forward_raw(h, sh);
            f.spectral_product(sh, sx, f.nfreq());
            sample_vector y(n);
            f.inverse_raw(sx, y);
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_NEAR(y[i] * f.scale(), static_cast<double>(want[i]), 2e-5)
                    << f.backend_name() << ' ' << f.ordered() << ' ' << i;
        }
    }
}

} // namespace
} // namespace twa::fft

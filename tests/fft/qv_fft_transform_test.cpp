#include "FFT/qv_fft.h"
#if defined(QVD_HAVE_FFTW)
#include "FFT/qv_fft_imp_fftw.h"
#endif
#include "qv_fft_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>

namespace twa::fft {
namespace {

using support::cld;
using support::EstimatePlans;

constexpr Backend kBackends[] = {Backend::Fftw, Backend::Kiss};

// max |inverse(forward(x)) / size - x| through the plain transforms, which
// must leave their inputs alone. The forward's output is left in `spectrum`.
double roundTripError(qv_fft& f, std::span<const float> x, spectrum_vector& spectrum)
{
    const sample_vector input(x.begin(), x.end());
    sample_vector back(f.size());
    f.forward_raw(x, spectrum);
    EXPECT_TRUE(std::equal(input.begin(), input.end(), x.begin())) << "forward changed its input";
    const spectrum_vector kept = spectrum;
    f.inverse_raw(spectrum, back);
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), spectrum.begin())) << "inverse changed its input";
    double err = 0.0;
    for (std::size_t i = 0; i < f.size(); ++i)
        err = std::max(err, std::abs(static_cast<double>(back[i]) / static_cast<double>(f.size()) - x[i]));
    return err;
}

// Every size KISS serves through both back ends, in both layouts: the round
// trip gives the input back and the two agree bin for bin. FFTW serves every
// even size; planning all 32761 up to 65536 takes minutes, so it also gets
// every even size up to 1024, twice some large primes and a seeded draw.
TEST_F(EstimatePlans, RoundTripsAndBackEndsAgreeAcrossSizes)
{
    std::vector<std::size_t> sizes;
    for (std::size_t n = 16; n <= 65536; n += 2)
        if (n <= 1024 || KissServes(n))
            sizes.push_back(n);
    for (const std::size_t p : {1031u, 2053u, 4099u, 8191u, 16381u, 32749u})
        sizes.push_back(2 * p);
    std::mt19937 rng(2024);
    for (int i = 0; i < 40; ++i)
        sizes.push_back(2 * std::uniform_int_distribution<std::size_t>(513, 32768)(rng));
    for (const std::size_t n : sizes) {
        const sample_vector x = support::randomSignal(n, static_cast<unsigned>(n));
        for (const bool ordered : {true, false}) {
            spectrum_vector sk(n / 2 + 1), sf(n / 2 + 1);
            if (KissServes(n)) {
                qv_fft ks(n, n, kWindowRectangular, support::orderOf(ordered), Backend::Kiss);
                ASSERT_STREQ(ks.backend_name(), "kiss");
                ASSERT_LE(roundTripError(ks, x, sk), support::roundTripTolerance(n)) << "kiss n=" << n;
            }
            if (!HasFftw())
                continue;
            qv_fft fw(n, n, kWindowRectangular, support::orderOf(ordered), Backend::Fftw);
            ASSERT_STREQ(fw.backend_name(), "fftw");
            ASSERT_LE(roundTripError(fw, x, sf), support::roundTripTolerance(n)) << "fftw n=" << n;
            double worst = 0.0;
            for (std::size_t k = 0; KissServes(n) && k <= n / 2; ++k)
                worst = std::max(worst, double{std::abs(support::naturalBin(sf, n, k, ordered) -
                                                        support::naturalBin(sk, n, k, ordered))});
            ASSERT_LE(worst, support::binTolerance(n)) << "n=" << n << " ordered=" << ordered;
        }
    }
}

// Against a direct DFT in long double, so agreement is not just two libraries
// sharing a mistake; the packed layout carries DC and Nyquist in slot 0.
TEST_F(EstimatePlans, ForwardMatchesDirectDftInBothLayouts)
{
    for (const std::size_t n : {16u, 18u, 30u, 250u, 256u, 1000u, 1018u, 1022u}) {
        const sample_vector x = support::randomSignal(n, 99u + static_cast<unsigned>(n));
        const auto want = support::referenceDft(x);
        for (const Backend backend : kBackends) {
            for (const bool ordered : {true, false}) {
                qv_fft f(n, n, kWindowRectangular, support::orderOf(ordered), backend);
                f.forward(x);
                const auto s = f.spectrum();
                double worst = 0.0;
                for (std::size_t k = 0; k <= n / 2; ++k) {
                    const complex_t got = support::naturalBin(s, n, k, ordered);
                    worst = std::max(worst, static_cast<double>(std::abs(cld(got.real(), got.imag()) - want[k])));
                }
                EXPECT_LE(worst, support::binTolerance(n)) << f.backend_name() << " n=" << n << " ordered=" << ordered;
                if (ordered) { // DC and Nyquist of a real signal are real
                    EXPECT_EQ(s[0].imag(), 0.0f);
                    EXPECT_EQ(s[n / 2].imag(), 0.0f);
                }
            }
        }
    }
}

// The inverse reads DC and Nyquist from wherever the layout keeps them and
// ignores the imaginary parts a real signal cannot have.
TEST_F(EstimatePlans, InverseOfSingleBinsInBothLayouts)
{
    const std::size_t n = 64;
    for (const Backend backend : kBackends) {
        for (const bool ordered : {true, false}) {
            qv_fft f(n, n, kWindowRectangular, support::orderOf(ordered), backend);
            spectrum_vector s(f.nfreq(), complex_t{});
            sample_vector out(n);
            // Nyquist of 1 alone: (-1)^i. A stray imaginary part must not leak in.
            s[ordered ? n / 2 : 0] = ordered ? complex_t(1.0f, 5.0f) : complex_t(0.0f, 1.0f);
            s[ordered ? 0 : n / 2] = complex_t(0.0f, 3.0f);
            f.inverse_raw(s, out);
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_NEAR(out[i], (i % 2) ? -1.0 : 1.0, 1e-5) << f.backend_name() << ' ' << i;
            // Bin 3 of amplitude 1: 2 cos(2 pi 3 i / n).
            std::fill(s.begin(), s.end(), complex_t{});
            s[3] = complex_t(1.0f, 0.0f);
            f.inverse_raw(s, out);
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_NEAR(out[i], 2.0 * std::cos(2.0 * std::numbers::pi * 3.0 * i / n), 1e-5);
        }
    }
}

// Arrays off FFTW's SIMD alignment go through the work areas; a whole-frame
// rectangular window skips the work vector. Either way the bits are those of
// the plain transforms on aligned arrays, and the synthesis gain still applies.
TEST_F(EstimatePlans, MisalignedArraysAndTheRectangularPathGiveThePlainTransformsBits)
{
    for (const Backend backend : kBackends) {
        for (const bool ordered : {true, false}) {
            for (const std::size_t n : {64u, 1000u}) {
                qv_fft f(n, n, kWindowRectangular, support::orderOf(ordered), backend);
                const std::size_t bins = ordered ? f.nfreq() : n / 2; // the packed layout's last slot is unused
                const sample_vector x = support::randomSignal(n, 17);
                sample_vector shifted(n + 1), want(n), got(n + 1);
                std::copy(x.begin(), x.end(), shifted.begin() + 1);
                const auto odd = std::span<const float>(shifted).subspan(1);
                const auto oddOut = std::span<float>(got).subspan(1, n);
                spectrum_vector raw(f.nfreq()), spare(f.nfreq() + 1);
                const std::span<complex_t> oddSpectrum(
                    reinterpret_cast<complex_t*>(reinterpret_cast<float*>(spare.data()) + 1), f.nfreq());
                f.forward_raw(x, raw);
                f.inverse_raw(raw, want);
                f.forward_raw(odd, oddSpectrum);
                f.inverse_raw(oddSpectrum, oddOut);
                EXPECT_TRUE(std::equal(raw.begin(), raw.begin() + bins, oddSpectrum.begin())) << f.backend_name();
                EXPECT_TRUE(std::equal(want.begin(), want.end(), oddOut.begin())) << f.backend_name();
                for (const float gain : {1.0f, 0.5f}) {
                    for (const std::span<const float> frame : {std::span<const float>(x), odd}) {
                        f.forward(frame);
                        EXPECT_TRUE(std::equal(raw.begin(), raw.begin() + bins, f.spectrum().begin())) << f.backend_name();
                        f.set_gain(gain);
                        f.inverse(oddOut);
                        for (std::size_t i = 0; i < n; ++i)
                            ASSERT_EQ(oddOut[i], gain * want[i]) << f.backend_name() << " sample " << i;
                    }
                }
                f.forward(odd);
                f.set_gain(1.0f);
                f.set_scaled_synthesis(true);
                f.inverse(std::span<float>(got).first(n));
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_NEAR(got[i], x[i], 1e-6) << f.backend_name() << " sample " << i;
            }
        }
    }
}

// Windowed analysis with zero padding: the spectrum is that of w * x padded.
TEST_F(EstimatePlans, WindowedAnalysisPadsAndWindows)
{
    const std::size_t n = 512, wl = 300;
    const sample_vector x = support::randomSignal(wl, 3);
    qv_fft f(n, wl, kWindowHann);
    ASSERT_EQ(f.wlength(), wl);
    ASSERT_EQ(f.nfreq(), n / 2 + 1);
    sample_vector padded(n, 0.0f);
    for (std::size_t i = 0; i < wl; ++i)
        padded[i] = x[i] * f.window()[i];
    const auto want = support::referenceDft(padded);
    // An inverse first leaves a frame in the work vector that the next
    // analysis must not pick up as padding.
    sample_vector junk(wl);
    f.forward(support::randomSignal(wl, 4));
    f.inverse(junk);
    spectrum_vector s(f.nfreq());
    f.forward(x, s);
    for (std::size_t k = 0; k <= n / 2; ++k)
        ASSERT_LE(std::abs(cld(s[k].real(), s[k].imag()) - want[k]), support::binTolerance(n)) << k;
}

// sqrt-Hann analysis and synthesis at hop N/2, with the overlap-add factor as
// synthesis gain, gives the input back: on both back ends and layouts, and on
// objects moved about in a growing vector, whose transforms must follow the
// buffers they moved with.
TEST_F(EstimatePlans, OverlapAddResynthesisReconstructsTheInputAfterMoves)
{
    std::vector<qv_fft> bank;
    for (const Backend backend : kBackends)
        for (const bool ordered : {true, false})
            for (const std::size_t n : {64u, 256u})
                bank.emplace_back(n, n, kWindowSqrtHann, support::orderOf(ordered), backend);
    qv_fft replaced(32, 32, kWindowHann);
    replaced = std::move(bank.back());
    bank.back() = qv_fft(512, 512, kWindowSqrtHann);
    bank.push_back(std::move(replaced));
    for (qv_fft& f : bank) {
        const std::size_t n = f.size(), hop = n / 2, len = 16 * hop;
        f.set_scaled_synthesis(true);
        f.set_gain(WindowOverlapAddFactor(f.window(), hop));
        const sample_vector x = support::randomSignal(len, 11);
        sample_vector y(len + n, 0.0f);
        for (std::size_t at = 0; at + n <= len; at += hop) {
            f.forward(std::span<const float>(x).subspan(at, n));
            f.inverse_add(std::span<float>(y).subspan(at, n));
        }
        // Away from the ends every sample is covered by two frames.
        for (std::size_t i = n; i + n < len; ++i)
            ASSERT_NEAR(y[i], x[i], 2e-6) << f.backend_name() << " n=" << n << ' ' << i;
    }
}

TEST(FftBackEndChoice, FftwForEverySizeKissOnRequestWhereItServes)
{
    for (const std::size_t n : {16u, 2u * 3 * 3 * 5 * 5, 2u})
        EXPECT_TRUE(KissServes(n)) << n;
    for (const std::size_t n : {2u * 7, 2u * 32749, 17u, 0u})
        EXPECT_FALSE(KissServes(n)) << n;
#if defined(QVD_HAVE_FFTW)
    ASSERT_TRUE(HasFftw()) << "the build configured FFTW";
    EXPECT_EQ(ChooseBackend(1000, Backend::Auto), Backend::Fftw);
    EXPECT_EQ(ChooseBackend(1000, Backend::Kiss), Backend::Kiss);
    EXPECT_EQ(ChooseBackend(14, Backend::Kiss), Backend::Fftw) << "KISS does not serve 14";
#else
    ASSERT_FALSE(HasFftw());
    EXPECT_EQ(ChooseBackend(14, Backend::Fftw), Backend::Kiss) << "without FFTW, KISS serves every size";
#endif
}

#if defined(QVD_HAVE_FFTW)
// One plan per size, direction and rigor, shared by every object; measured
// plans (the default) work like estimated ones.
TEST(FftPlans, ObjectsOfOneSizeShareMeasuredPlans)
{
    const std::size_t before = qv_fft_imp_fftw::cached_plan_count();
    qv_fft a(256, 256, kWindowHann);
    EXPECT_EQ(qv_fft_imp_fftw::cached_plan_count(), before + 2);
    qv_fft b(256, 200, kWindowHamming, SpectrumOrder::Packed);
    EXPECT_EQ(qv_fft_imp_fftw::cached_plan_count(), before + 2);
    spectrum_vector s(a.nfreq());
    EXPECT_LE(roundTripError(a, support::randomSignal(256, 8), s), support::roundTripTolerance(256));
}
#endif

// Objects sharing a plan transform at once from several threads; each has
// its own work areas, so results match a lone run bit for bit.
TEST_F(EstimatePlans, ConcurrentObjectsOnSharedPlansGiveLoneResults)
{
    const std::size_t n = 1024;
    for (const Backend backend : kBackends) {
        const sample_vector x = support::randomSignal(n, 21);
        qv_fft lone(n, n, kWindowHann, SpectrumOrder::Packed, backend);
        lone.forward(x);
        sample_vector want(n);
        lone.inverse(want);
        std::vector<int> mismatches(4, 0);
        std::vector<std::thread> threads;
        for (int& count : mismatches)
            threads.emplace_back([&] {
                qv_fft f(n, n, kWindowHann, SpectrumOrder::Packed, backend);
                sample_vector got(n);
                for (int r = 0; r < 200; ++r) {
                    f.forward(x);
                    f.inverse(got);
                    count += !std::equal(got.begin(), got.end(), want.begin());
                }
            });
        for (auto& th : threads)
            th.join();
        for (const int count : mismatches)
            EXPECT_EQ(count, 0) << lone.backend_name();
    }
}

} // namespace
} // namespace twa::fft

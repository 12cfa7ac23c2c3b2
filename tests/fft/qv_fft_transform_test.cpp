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

using support::EstimatePlans;
using support::cld;

// max |inverse(forward(x)) - size * x| / size, through the plain transforms.
// The forward's output is left in `spectrum`.
double roundTripError(qv_fft& f, std::span<const float> x, spectrum_vector& spectrum)
{
    const std::size_t n = f.size();
    sample_vector back(n);
    const sample_vector input(x.begin(), x.end());
    f.forward_raw(x, spectrum);
    EXPECT_TRUE(std::equal(input.begin(), input.end(), x.begin())) << "forward changed its input";
    const spectrum_vector kept = spectrum;
    f.inverse_raw(spectrum, back);
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), spectrum.begin())) << "inverse changed its input";
    double err = 0.0;
    for (std::size_t i = 0; i < n; ++i)
        err = std::max(err, std::abs(static_cast<double>(back[i]) / static_cast<double>(n) - x[i]));
    return err;
}

std::vector<std::size_t> kissSizes()
{
    std::vector<std::size_t> sizes;
    for (std::size_t n = 16; n <= 65536; n += 2)
        if (KissServes(n))
            sizes.push_back(n);
    return sizes;
}

// Both back ends at every size KISS serves, in one layout: the round trip
// gives the input back and the two back ends agree bin for bin.
void checkEverySizeKissServes(bool ordered)
{
    const auto sizes = kissSizes();
    ASSERT_GT(sizes.size(), 200u);
    const auto order = ordered ? SpectrumOrder::Ordered : SpectrumOrder::Packed;
    for (const std::size_t n : sizes) {
        const sample_vector x = support::randomSignal(n, static_cast<unsigned>(n));
        qv_fft ks(n, n, kWindowRectangular, order, Backend::Kiss);
        ASSERT_STREQ(ks.backend_name(), "kiss");
        spectrum_vector sk(ks.nfreq());
        ASSERT_LE(roundTripError(ks, x, sk), support::roundTripTolerance(n)) << "kiss n=" << n;
        if (!HasFftw())
            continue;
        qv_fft fw(n, n, kWindowRectangular, order, Backend::Fftw);
        ASSERT_STREQ(fw.backend_name(), "fftw");
        spectrum_vector sf(fw.nfreq());
        ASSERT_LE(roundTripError(fw, x, sf), support::roundTripTolerance(n)) << "fftw n=" << n;
        double worst = 0.0;
        for (std::size_t k = 0; k <= n / 2; ++k)
            worst = std::max(worst, static_cast<double>(std::abs(support::naturalBin(sf, n, k, ordered) -
                                                                 support::naturalBin(sk, n, k, ordered))));
        ASSERT_LE(worst, support::binTolerance(n)) << "n=" << n;
    }
}

TEST_F(EstimatePlans, BackEndsAgreeAndRoundTripAtEverySizeKissServesOrdered)
{
    checkEverySizeKissServes(true);
}

TEST_F(EstimatePlans, BackEndsAgreeAndRoundTripAtEverySizeKissServesPacked)
{
    checkEverySizeKissServes(false);
}

// FFTW serves every even size. Planning all 32761 of them up to 65536 takes
// minutes, so: every even size up to 1024, sizes of twice a large prime, and a
// seeded draw from the rest (the test above covers the 5-smooth ones).
TEST_F(EstimatePlans, FftwRoundTripsEvenSizesIncludingLargePrimeFactors)
{
    FFT_SKIP_WITHOUT_FFTW();
    std::vector<std::size_t> sizes;
    for (std::size_t n = 16; n <= 1024; n += 2)
        sizes.push_back(n);
    for (const std::size_t p : {1031u, 2053u, 4099u, 8191u, 16381u, 32749u})
        sizes.push_back(2 * p);
    std::mt19937 rng(2024);
    std::uniform_int_distribution<std::size_t> half(513, 32768);
    for (int i = 0; i < 40; ++i)
        sizes.push_back(2 * half(rng));
    for (const std::size_t n : sizes) {
        const sample_vector x = support::randomSignal(n, static_cast<unsigned>(n) + 7u);
        for (const bool ordered : {true, false}) {
            qv_fft f(n, n, kWindowRectangular, ordered ? SpectrumOrder::Ordered : SpectrumOrder::Packed);
            ASSERT_STREQ(f.backend_name(), "fftw");
            spectrum_vector s(f.nfreq());
            ASSERT_LE(roundTripError(f, x, s), support::roundTripTolerance(n))
                << "n=" << n << ' ' << support::orderName(ordered);
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
        for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
            for (const bool ordered : {true, false}) {
                qv_fft f(n, n, kWindowRectangular, ordered ? SpectrumOrder::Ordered : SpectrumOrder::Packed,
                         backend);
                f.forward(x);
                const auto s = f.spectrum();
                double worst = 0.0;
                for (std::size_t k = 0; k <= n / 2; ++k) {
                    const cld got(support::naturalBin(s, n, k, ordered).real(),
                                  support::naturalBin(s, n, k, ordered).imag());
                    worst = std::max(worst, static_cast<double>(std::abs(got - want[k])));
                }
                EXPECT_LE(worst, support::binTolerance(n))
                    << f.backend_name() << " n=" << n << ' ' << support::orderName(ordered);
                if (ordered) {
                    EXPECT_EQ(s[0].imag(), 0.0f);
                    EXPECT_EQ(s[n / 2].imag(), 0.0f);
                } else {
                    EXPECT_NEAR(s[0].imag(), static_cast<double>(want[n / 2].real()), support::binTolerance(n));
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
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const bool ordered : {true, false}) {
            qv_fft f(n, n, kWindowRectangular, ordered ? SpectrumOrder::Ordered : SpectrumOrder::Packed,
                     backend);
            spectrum_vector s(f.nfreq(), complex_t{});
            sample_vector out(n);
            // Nyquist of 1 alone: (-1)^i. A stray imaginary part must not leak in.
            if (ordered)
                s[n / 2] = complex_t(1.0f, 5.0f);
            else
                s[0] = complex_t(0.0f, 1.0f);
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

// Arrays off FFTW's SIMD alignment go through the work areas and give the
// same bits as aligned ones.
TEST_F(EstimatePlans, MisalignedCallerArraysGiveTheSameResult)
{
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const std::size_t n : {64u, 1000u}) {
            qv_fft f(n, n, kWindowRectangular, SpectrumOrder::Ordered, backend);
            const sample_vector x = support::randomSignal(n, 5);
            sample_vector shifted(n + 1);
            std::copy(x.begin(), x.end(), shifted.begin() + 1);
            spectrum_vector aligned(f.nfreq()), spare(f.nfreq() + 1);
            f.forward_raw(x, aligned);
            std::span<complex_t> odd(reinterpret_cast<complex_t*>(reinterpret_cast<float*>(spare.data()) + 1),
                                     f.nfreq());
            f.forward_raw(std::span<const float>(shifted).subspan(1), odd);
            for (std::size_t k = 0; k < f.nfreq(); ++k)
                ASSERT_EQ(aligned[k], odd[k]) << f.backend_name() << " bin " << k;
            sample_vector backAligned(n), backShifted(n + 1);
            f.inverse_raw(aligned, backAligned);
            f.inverse_raw(odd, std::span<float>(backShifted).subspan(1, n));
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_EQ(backAligned[i], backShifted[i + 1]) << f.backend_name() << " sample " << i;
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
    ASSERT_EQ(f.size(), n);
    ASSERT_EQ(f.nfreq(), n / 2 + 1);
    sample_vector padded(n, 0.0f);
    for (std::size_t i = 0; i < wl; ++i)
        padded[i] = x[i] * f.window()[i];
    const auto want = support::referenceDft(padded);
    // Run an inverse first: it leaves a frame in the work vector that the
    // next analysis must not pick up as padding.
    sample_vector junk(wl);
    f.forward(support::randomSignal(wl, 4));
    f.inverse(junk);
    spectrum_vector s(f.nfreq());
    f.forward(x, s);
    for (std::size_t k = 0; k <= n / 2; ++k)
        ASSERT_LE(std::abs(cld(s[k].real(), s[k].imag()) - want[k]), support::binTolerance(n)) << k;
}

// A whole-frame rectangular window skips the work vector; it must give the
// plain transforms' bits, for aligned and misaligned frames, and a synthesis
// gain other than 1 must still apply.
TEST_F(EstimatePlans, WholeFrameRectangularPathMatchesPlainTransforms)
{
    const std::size_t n = 512;
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const auto order : {SpectrumOrder::Ordered, SpectrumOrder::Packed}) {
            for (const std::size_t offset : {0u, 1u}) {
                qv_fft f(n, n, kWindowRectangular, order, backend);
                const sample_vector x = support::randomSignal(n + 1, 17);
                const std::span<const float> frame = std::span<const float>(x).subspan(offset, n);
                spectrum_vector raw(f.nfreq());
                f.forward_raw(frame, raw);
                f.forward(frame);
                for (std::size_t k = 0; k < n / 2; ++k)
                    ASSERT_EQ(f.spectrum()[k], raw[k]) << f.backend_name() << " bin " << k;
                sample_vector want(n), got(n + 1);
                f.inverse_raw(raw, want);
                const std::span<float> out = std::span<float>(got).subspan(offset, n);
                f.inverse(out);
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_EQ(out[i], want[i]) << f.backend_name() << " sample " << i;
                f.forward(frame);
                f.set_gain(0.5f);
                f.inverse(out);
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_EQ(out[i], 0.5f * want[i]) << f.backend_name() << " sample " << i;
                f.forward(frame);
                f.set_gain(1.0f);
                f.set_scaled_synthesis(true);
                f.inverse(out);
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_NEAR(out[i], frame[i], 1e-6) << f.backend_name() << " sample " << i;
            }
        }
    }
}

// A user-level check: sqrt-Hann analysis and synthesis at hop N/2 with the
// overlap-add factor as synthesis gain gives the input back.
TEST_F(EstimatePlans, OverlapAddResynthesisReconstructsTheInput)
{
    const std::size_t n = 256, hop = n / 2, len = 16 * hop;
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        for (const auto order : {SpectrumOrder::Ordered, SpectrumOrder::Packed}) {
            qv_fft f(n, n, kWindowSqrtHann, order, backend);
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
                ASSERT_NEAR(y[i], x[i], 2e-6) << f.backend_name() << ' ' << i;
        }
    }
}

// Objects kept in a growing vector are moved; their transforms must still
// work on the buffers they moved with.
TEST_F(EstimatePlans, MovedObjectsKeepTransforming)
{
    std::vector<qv_fft> bank;
    for (const std::size_t n : {64u, 128u, 256u, 512u, 1024u})
        bank.emplace_back(n, n, kWindowHann, SpectrumOrder::Packed, n % 256 ? Backend::Kiss : Backend::Fftw);
    qv_fft replaced(32, 32, kWindowHann);
    replaced = std::move(bank.back());
    bank.back() = qv_fft(2048, 2048, kWindowHann);
    bank.push_back(std::move(replaced));
    for (qv_fft& f : bank) {
        const sample_vector x = support::randomSignal(f.size(), 9);
        spectrum_vector s(f.nfreq());
        f.forward(x, s);
        sample_vector y(f.size(), 0.0f);
        f.set_scaled_synthesis(true);
        f.set_gain(WindowOverlapAddFactor(f.window(), f.size()));
        f.inverse_add(y);
        // Hann analysis and synthesis of one frame: y = w^2 x / w[N/2]^2.
        for (std::size_t i = 0; i < f.size(); ++i)
            ASSERT_NEAR(y[i], f.window()[i] * f.window()[i] * x[i], 1e-5) << f.size() << ' ' << i;
    }
}

TEST(FftBackEndChoice, FftwForEverySizeKissOnRequestWhereItServes)
{
    EXPECT_TRUE(KissServes(16));
    EXPECT_TRUE(KissServes(2 * 3 * 3 * 5 * 5));
    EXPECT_TRUE(KissServes(2));
    EXPECT_FALSE(KissServes(2 * 7));
    EXPECT_FALSE(KissServes(2 * 32749));
    EXPECT_FALSE(KissServes(17));
    EXPECT_FALSE(KissServes(0));
    ASSERT_EQ(HasFftw(), support::kBuiltWithFftw);
    SetPlannerRigor(PlannerRigor::Estimate);
    if (HasFftw()) {
        for (const std::size_t n : {16u, 14u, 1000u, 65498u}) {
            EXPECT_EQ(ChooseBackend(n, Backend::Auto), Backend::Fftw) << n;
            EXPECT_EQ(ChooseBackend(n, Backend::Fftw), Backend::Fftw) << n;
        }
        EXPECT_EQ(ChooseBackend(1000, Backend::Kiss), Backend::Kiss);
        EXPECT_EQ(ChooseBackend(14, Backend::Kiss), Backend::Fftw);
        EXPECT_STREQ(qv_fft(14, 14, 0, SpectrumOrder::Ordered, Backend::Kiss).backend_name(), "fftw");
    } else {
        // Without FFTW, KISS serves every size, fast or not.
        for (const Backend b : {Backend::Auto, Backend::Fftw, Backend::Kiss})
            for (const std::size_t n : {16u, 14u, 65498u})
                EXPECT_EQ(ChooseBackend(n, b), Backend::Kiss) << n;
        EXPECT_STREQ(qv_fft(14, 14, 0).backend_name(), "kiss");
    }
    EXPECT_STREQ(qv_fft(12, 12, 0, SpectrumOrder::Ordered, Backend::Kiss).backend_name(), "kiss");
    SetPlannerRigor(PlannerRigor::Measure);
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
    const sample_vector x = support::randomSignal(256, 8);
    spectrum_vector s(a.nfreq());
    EXPECT_LE(roundTripError(a, x, s), support::roundTripTolerance(256));
}
#endif

// Objects sharing a plan transform at once from several threads; each has
// its own work areas, so results match a lone run bit for bit.
TEST_F(EstimatePlans, ConcurrentObjectsOnSharedPlansGiveLoneResults)
{
    const std::size_t n = 1024;
    for (const Backend backend : {Backend::Fftw, Backend::Kiss}) {
        const sample_vector x = support::randomSignal(n, 21);
        qv_fft lone(n, n, kWindowHann, SpectrumOrder::Packed, backend);
        lone.forward(x);
        sample_vector want(n);
        lone.inverse(want);

        constexpr int kThreads = 4;
        std::vector<int> mismatches(kThreads, 0);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                qv_fft f(n, n, kWindowHann, SpectrumOrder::Packed, backend);
                sample_vector got(n);
                for (int r = 0; r < 200; ++r) {
                    f.forward(x);
                    f.inverse(got);
                    if (!std::equal(got.begin(), got.end(), want.begin()))
                        ++mismatches[static_cast<std::size_t>(t)];
                }
            });
        for (auto& th : threads)
            th.join();
        for (int t = 0; t < kThreads; ++t)
            EXPECT_EQ(mismatches[static_cast<std::size_t>(t)], 0) << lone.backend_name() << " thread " << t;
    }
}

} // namespace
} // namespace twa::fft

#include "AssertCatcher.h"
#include "FFT/qv_fft.h"
#if defined(QVD_HAVE_FFTW)
#include "FFT/qv_fft_imp_fftw.h"
#endif
#include "qv_fft_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ranges>

namespace twa::fft {
namespace {

using qvd::test::AssertCatcher;

class FftContracts : public support::EstimatePlans {
protected:
    void SetUp() override
    {
        QVD_SKIP_WITHOUT_ASSERTS();
        support::EstimatePlans::SetUp();
    }
};

// An odd size is reported; the object works at the even size below.
TEST_F(FftContracts, OddSizesAssert)
{
    for (const std::size_t odd : {15u, 255u, 1001u}) {
        AssertCatcher catcher;
        qv_fft f(odd, odd - 1, kWindowHann);
        EXPECT_EQ(catcher.count(), 1u) << odd;
        EXPECT_EQ(AssertCatcher::last(), "~fftsize & 1");
        EXPECT_EQ(f.size(), odd - 1);
        EXPECT_EQ(f.nfreq(), (odd - 1) / 2 + 1);
        const sample_vector x = support::randomSignal(odd - 1, 1);
        f.forward(x);
        EXPECT_EQ(catcher.count(), 1u);
    }
    AssertCatcher catcher;
    qv_fft even(16, 16, kWindowHann);
    EXPECT_EQ(catcher.count(), 0u);
    // Below 2 there is no even size to fall back to but 2 itself.
    qv_fft tiny(1, 1, kWindowRectangular);
    EXPECT_EQ(catcher.count(), 1u);
    ASSERT_EQ(tiny.size(), 2u);
    const sample_vector x = {0.25f, -0.5f};
    sample_vector back(2);
    tiny.forward_front(x);
    tiny.inverse_add(back);
    // A one-sample frame padded to two: DC and Nyquist both 0.25.
    EXPECT_FLOAT_EQ(back[0], 0.5f);
    EXPECT_EQ(back[1], 0.0f);
}

// Each transform names the buffer it finds too short and writes zeros where
// its result would have gone, never past the buffer (out[47] is the guard).
TEST_F(FftContracts, ShortBuffersAreReportedAndZeroFilled)
{
    qv_fft f(64, 48, kWindowHann);
    const sample_vector full = support::randomSignal(64, 2);
    const std::span<const float> in47(full.data(), 47);
    spectrum_vector spectrum(f.nfreq());
    sample_vector out(64);
    const std::span<float> out47(out.data(), 47);
    auto zero = [](std::span<const complex_t> s) { return std::ranges::all_of(s, [](complex_t v) { return v == complex_t{}; }); };
    auto spectrumZero = [&] { return zero(spectrum); };
    auto outIs = [&](float v, std::size_t n) { return std::ranges::all_of(out | std::views::take(n), [v](float o) { return o == v; }); };
    struct Case {
        const char* text;
        std::function<void()> call;
        std::function<bool()> zeroed;
    };
    const Case cases[] = {
        {"wlength() == p_InSamples.size()", [&] { f.forward(in47); }, [&] { return zero(f.spectrum()); }},
        {"wlength() <= p_InSamples.size()", [&] { f.forward_front(in47); }, [] { return true; }},
        {"p_InSamples.size() >= this->wlength()", [&] { f.forward(in47, spectrum); }, spectrumZero},
        {"this->size() <= p_InSamples.size()",
         [&] { f.forward_raw(std::span<const float>(full).first(63), spectrum); }, spectrumZero},
        {"wlength() == p_OutSamples.size()", [&] { f.inverse(out47); },
         [&] { return outIs(0.0f, 47) && out[47] == 7.0f; }},
        {"this->wlength() <= p_OutSamples.size()", [&] { f.inverse_add(out47); }, [&] { return outIs(7.0f, 64); }},
        {"this->size() <= p_OutSamples.size()", [&] { f.inverse_raw(spectrum, std::span<float>(out).first(63)); },
         [&] { return outIs(0.0f, 63) && out[63] == 7.0f; }},
    };
    for (const Case& c : cases) {
        f.forward(std::span<const float>(full).first(48));
        std::fill(spectrum.begin(), spectrum.end(), complex_t(7.0f, 7.0f));
        std::fill(out.begin(), out.end(), 7.0f);
        AssertCatcher catcher;
        c.call();
        EXPECT_EQ(catcher.count(), 1u) << c.text;
        EXPECT_EQ(AssertCatcher::last(), c.text);
        EXPECT_TRUE(c.zeroed()) << c.text;
    }
    // Longer buffers are fine where the contract says "<=".
    AssertCatcher catcher;
    f.forward_front(full);
    f.forward(full, spectrum);
    f.inverse_add(out);
    EXPECT_EQ(catcher.count(), 0u);
}

TEST_F(FftContracts, ProductCountAboveNfreqAsserts)
{
    qv_fft f(32, 32, kWindowRectangular, SpectrumOrder::Packed);
    const spectrum_vector a = support::randomSpectrum(f.nfreq(), 1);
    spectrum_vector b = support::randomSpectrum(f.nfreq(), 2);
    spectrum_vector full = b;
    f.spectral_product(a, full, f.nfreq());
    AssertCatcher c;
    f.spectral_product(a, b, f.nfreq() + 1);
    EXPECT_EQ(c.count(), 1u);
    EXPECT_EQ(AssertCatcher::last(), "nonzero_nfreq <= nfreq()");
    // Treated as the full product.
    EXPECT_TRUE(std::equal(b.begin(), b.end(), full.begin()));
}

#if defined(QVD_HAVE_FFTW)
// The natural-order entry points of the FFTW back end belong to ordered objects.
TEST_F(FftContracts, FftwOrderedOperationsAssertOrdered)
{
    sample_vector time(64), out(64);
    spectrum_vector freq(33);
    qv_fft_imp_fftw packedForward(64, Direction::Forward, false, time.data(), freq.data());
    qv_fft_imp_fftw packedInverse(64, Direction::Inverse, false, time.data(), freq.data());
    qv_fft_imp_fftw orderedForward(64, Direction::Forward, true, time.data(), freq.data());
    const sample_vector x = support::randomSignal(64, 3);
    AssertCatcher c;
    orderedForward.forward_ordered(x.data(), freq.data());
    EXPECT_EQ(c.count(), 0u);
    packedForward.forward_ordered(x.data(), freq.data());
    EXPECT_EQ(c.count(), 1u);
    EXPECT_EQ(AssertCatcher::last(), "m_ordered");
    packedInverse.inverse_ordered(freq.data(), out.data());
    EXPECT_EQ(c.count(), 2u);
    EXPECT_EQ(AssertCatcher::last(), "m_ordered");
    // A forward object asked for an inverse.
    orderedForward.inverse(freq.data(), out.data());
    EXPECT_EQ(c.count(), 3u);
}
#endif

} // namespace
} // namespace twa::fft

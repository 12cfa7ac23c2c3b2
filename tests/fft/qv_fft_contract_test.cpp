#include "FFT/qv_fft.h"
#include "FFT/qv_fft_imp_fftw.h"
#include "qv_fft_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace twa::fft {
namespace {

using test::AssertCatcher;

class FftContracts : public support::EstimatePlans {
protected:
    void SetUp() override
    {
        TWA_SKIP_WITHOUT_ASSERTS();
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
}

// Each transform names the buffer it finds too short and writes zeros where
// its result would have gone, never past the buffer.
TEST_F(FftContracts, ShortBuffersAreReportedAndZeroFilled)
{
    qv_fft f(64, 48, kWindowHann);
    const sample_vector full = support::randomSignal(64, 2);
    const std::span<const float> in47(full.data(), 47);
    spectrum_vector spec(f.nfreq(), complex_t(7.0f, 7.0f));
    sample_vector out(64, 7.0f);

    auto expectOne = [](AssertCatcher& c, const char* text) {
        EXPECT_EQ(c.count(), 1u) << text;
        EXPECT_EQ(AssertCatcher::last(), text);
    };
    {
        AssertCatcher c;
        f.forward(full);
        expectOne(c, "wlength() == p_InSamples.size()");
    }
    {
        f.forward(std::span<const float>(full.data(), 48));
        AssertCatcher c;
        f.forward(in47);
        expectOne(c, "wlength() == p_InSamples.size()");
        EXPECT_TRUE(std::all_of(f.spectrum().begin(), f.spectrum().end(),
                                [](complex_t v) { return v == complex_t{}; }));
    }
    {
        AssertCatcher c;
        f.forward_front(full);
        EXPECT_EQ(c.count(), 0u);
        f.forward_front(in47);
        expectOne(c, "wlength() <= p_InSamples.size()");
    }
    {
        AssertCatcher c;
        f.forward(in47, spec);
        expectOne(c, "p_InSamples.size() >= this->wlength()");
        EXPECT_TRUE(std::all_of(spec.begin(), spec.end(), [](complex_t v) { return v == complex_t{}; }));
    }
    {
        AssertCatcher c;
        f.inverse(std::span<float>(out.data(), 47));
        expectOne(c, "wlength() == p_OutSamples.size()");
        EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 47, [](float v) { return v == 0.0f; }));
        EXPECT_EQ(out[47], 7.0f);
    }
    {
        std::fill(out.begin(), out.end(), 7.0f);
        AssertCatcher c;
        f.inverse_add(std::span<float>(out.data(), 47));
        expectOne(c, "this->wlength() <= p_OutSamples.size()");
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float v) { return v == 7.0f; }));
    }
    {
        AssertCatcher c;
        f.forward_raw(std::span<const float>(full.data(), 63), spec);
        expectOne(c, "this->size() <= p_InSamples.size()");
    }
    {
        AssertCatcher c;
        f.inverse_raw(spec, std::span<float>(out.data(), 63));
        expectOne(c, "this->size() <= p_OutSamples.size()");
        EXPECT_TRUE(std::all_of(out.begin(), out.begin() + 63, [](float v) { return v == 0.0f; }));
    }
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

} // namespace
} // namespace twa::fft

// The converters measured from outside: frequency response from impulse
// responses, alias and image levels from sines, latency, and the framing
// (block-size invariance, history, reset, null pointers).

#include "Algorithms/Resample/Upsampler.h"
#include "VariantCheck.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <numbers>
#include <random>

namespace twa::numeric {
namespace {

using namespace qvd::test;
constexpr double kTwoPi = 2.0 * std::numbers::pi;

struct Converter {
    const char* name;
    std::function<std::unique_ptr<PolyphaseResampler>(std::size_t channels)> make;
    // What the table is designed for, edges as fractions of the low rate.
    double passEdge, rippleDb, stopEdge, attenuationDb;
    std::size_t latency; // frames of the low rate
};

template <class R, auto... Extra>
std::unique_ptr<PolyphaseResampler> make(std::size_t c)
{
    return std::make_unique<R>(c, Extra...);
}

const Converter kConverters[] = {
    {"Upsampler_x2", make<Upsampler_x2>, 0.432, 0.00015, 0.568, 97.0, 24},
    {"Upsampler_x2 short", make<Upsampler_x2, std::size_t{512}, true>, 0.419, 0.0011, 0.581, 78.5, 16},
    {"Upsampler_x4", make<Upsampler_x4>, 0.432, 0.0001, 0.568, 100.0, 24},
    {"Upsampler_x8", make<Upsampler_x8>, 0.432, 0.0001, 0.568, 100.0, 24},
    {"Downsampler_x2", make<Downsampler_x2>, 0.4626, 0.00004, 0.5374, 108.5, 48},
    {"Downsampler_x4", make<Downsampler_x4>, 0.4626, 0.00003, 0.5374, 110.0, 48},
};

std::vector<float> convert(PolyphaseResampler& r, const std::vector<float>& in)
{
    const std::size_t frames = in.size() / r.ChannelCount();
    std::vector<float> out(r.OutputFrames(frames) * r.ChannelCount());
    EXPECT_EQ(r.Process(in.data(), frames, out.data()) * r.ChannelCount(), out.size());
    return out;
}

// The prototype filter at the high rate, read back through the converter. A
// downsampler's output n is tap L n - i0 for an impulse at frame i0.
std::vector<double> measuredPrototype(const Converter& cv)
{
    const auto probe = cv.make(1);
    const std::size_t L = probe->Factor(), N = probe->FilterLength();
    std::vector<double> g(N, 0.0);
    for (std::size_t i0 = 0; i0 < (probe->IsDownsampler() ? L : 1); ++i0) {
        std::vector<float> x(N + 2 * L, 0.0f);
        x[i0] = 1.0f;
        const auto y = convert(*cv.make(1), x);
        for (std::size_t n = 0; n < y.size(); ++n) {
            const std::size_t m = probe->IsDownsampler() ? L * n - i0 : n;
            if (m < N && L * n >= i0) {
                g[m] = y[n];
            } else if (!probe->IsDownsampler()) {
                EXPECT_EQ(y[n], 0.0f) << cv.name << ": response longer than the filter";
            }
        }
    }
    return g;
}

// |G(f)| in dB relative to `gain`, f as a fraction of the high rate.
double responseDb(const std::vector<double>& g, double f, double gain)
{
    std::complex<double> sum = 0.0;
    for (std::size_t j = 0; j < g.size(); ++j)
        sum += g[j] * std::polar(1.0, -kTwoPi * f * static_cast<double>(j));
    return 20.0 * std::log10(std::max(std::abs(sum) / gain, 1e-30));
}

TEST(PolyphaseResponse, RippleAttenuationAndLatencyMeetTheDesign)
{
    for (const Converter& cv : kConverters) {
        const auto g = measuredPrototype(cv);
        const auto r = cv.make(1);
        const double L = static_cast<double>(r->Factor());
        // An upsampler's phases each have unit gain, so the prototype has L.
        const double gain = r->IsDownsampler() ? 1.0 : L;
        double ripple = 0.0, worst = -400.0;
        for (int i = 0; i <= 600; ++i)
            ripple = std::max(ripple, std::abs(responseDb(g, cv.passEdge * i / 600.0 / L, gain)));
        for (int i = 0; i <= 3000; ++i)
            worst = std::max(worst, responseDb(g, (cv.stopEdge + (0.5 * L - cv.stopEdge) * i / 3000.0) / L, gain));
        EXPECT_LE(ripple, cv.rippleDb) << cv.name;
        EXPECT_GE(-worst, cv.attenuationDb) << cv.name;
        // Half the low rate sits in the middle of the transition band.
        EXPECT_NEAR(responseDb(g, 0.5 / L, gain), -6.02, 0.05) << cv.name;
        // Linear phase: the energy centre is the group delay, at the high rate.
        double e = 0.0, moment = 0.0;
        for (std::size_t j = 0; j < g.size(); ++j) {
            e += g[j] * g[j];
            moment += static_cast<double>(j) * g[j] * g[j];
        }
        EXPECT_EQ(r->Latency(), cv.latency) << cv.name;
        EXPECT_NEAR(moment / e / L, static_cast<double>(cv.latency), 1e-9) << cv.name;
    }
}

std::vector<float> sine(std::size_t n, double f)
{
    std::vector<float> x(n);
    for (std::size_t i = 0; i < n; ++i)
        x[i] = static_cast<float>(std::sin(kTwoPi * f * static_cast<double>(i)));
    return x;
}

// Level of frequency f (cycles per sample) in x after `from`, Hann-windowed, in dB re amplitude 1.
double toneDb(const std::vector<float>& x, std::size_t from, double f)
{
    const std::size_t n = x.size() - from;
    std::complex<double> sum = 0.0;
    double wsum = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 0.5 - 0.5 * std::cos(kTwoPi * static_cast<double>(i) / static_cast<double>(n));
        sum += w * x[from + i] * std::polar(1.0, kTwoPi * f * static_cast<double>(i));
        wsum += w;
    }
    return 20.0 * std::log10(std::max(2.0 * std::abs(sum) / wsum, 1e-30));
}

TEST(PolyphaseResponse, ImagesAndAliasesOfSinesStayBelowTheStopband)
{
    for (const Converter& cv : kConverters) {
        const auto r = cv.make(1);
        const double L = static_cast<double>(r->Factor());
        if (r->IsDownsampler()) {
            // Just past the stopband edge: folds to 1 - that, in low-rate units.
            const auto y = convert(*r, sine(16384, (cv.stopEdge + 0.01) / L));
            EXPECT_LT(toneDb(y, 1024, 1.0 - (cv.stopEdge + 0.01)), -cv.attenuationDb) << cv.name;
            continue;
        }
        // A tone at 0.4 of the low rate keeps its level; its images sit at k +- 0.4.
        const auto y = convert(*r, sine(16384, 0.4));
        EXPECT_NEAR(toneDb(y, 1024, 0.4 / L), 0.0, 0.001) << cv.name;
        for (double k = 1.0; k < L / 2.0 + 0.5; k += 1.0) {
            for (const double image : {k - 0.4, k + 0.4}) {
                if (image < L / 2.0) {
                    EXPECT_LT(toneDb(y, 1024, image / L), -cv.attenuationDb) << cv.name << " image " << image;
                }
            }
        }
    }
}

TEST(PolyphaseResponse, EvenOutputsOfTheUpsamplersRepeatTheInputExactly)
{
    const auto x = uniform(3000, -1, 1, 4);
    for (const Converter& cv : kConverters) {
        const auto r = cv.make(1);
        if (r->IsDownsampler())
            continue;
        const auto y = convert(*r, x);
        for (std::size_t n = r->Latency(); n < x.size(); ++n)
            ASSERT_EQ(y[r->Factor() * n], x[n - r->Latency()]) << cv.name << " n=" << n;
    }
}

// Whole, one frame at a time, in random pieces, through a small staging piece,
// or into a misaligned output: always the same samples.
TEST(PolyphaseFraming, OutputIsTheSameHoweverTheInputIsSplitOrPlaced)
{
    std::mt19937 rng(11);
    for (const Converter& cv : kConverters) {
        for (const std::size_t c : {1u, 2u, 3u}) {
            const std::size_t frames = 2100;
            const auto x = uniform(frames * c, -1, 1, 3 + static_cast<unsigned>(c));
            const auto whole = cv.make(c);
            const auto want = convert(*whole, x);
            const std::size_t L = whole->Factor();
            EXPECT_EQ(want.size(), (whole->IsDownsampler() ? (frames + L - 1) / L : frames * L) * c);
            std::vector<std::size_t> ones(frames, 1), random;
            for (std::size_t left = frames; left; left -= random.back())
                random.push_back(std::min<std::size_t>(left, rng() % 700));
            for (const auto& sizes : {ones, random}) {
                const auto r = cv.make(c);
                GuardedBuffer<float> got(want.size(), 4);
                std::size_t in = 0, out = 0;
                for (const std::size_t s : sizes) {
                    const std::size_t expected = r->OutputFrames(s);
                    ASSERT_EQ(r->Process(x.data() + in * c, s, got.data() + out * c), expected) << cv.name;
                    out += expected;
                    in += s;
                }
                ASSERT_EQ(out * c, want.size()) << cv.name;
                EXPECT_TRUE(got.guardsIntact()) << cv.name;
                for (std::size_t i = 0; i < want.size(); ++i)
                    ASSERT_EQ(bitsOf(got[i]), bitsOf(want[i])) << cv.name << " c=" << c << " i=" << i;
            }
        }
    }
    const auto x = uniform(1000 * 2, -1, 1, 13);
    Upsampler_x4 big(2, 512), small(2, 7);
    EXPECT_EQ(small.InFrameSize(), 7u);
    EXPECT_EQ(convert(big, x), convert(small, x));
    Downsampler_x2 dbig(2, 512), dsmall(2, 3);
    EXPECT_EQ(convert(dbig, x), convert(dsmall, x));
}

// Reset starts from silence; a null output still moves the history on; a null input reads silence.
TEST(PolyphaseFraming, ResetAndNullPointersKeepTheHistoryRight)
{
    for (const Converter& cv : kConverters) {
        const std::size_t c = 2;
        const auto a = uniform(333 * c, -1, 1, 5), b = uniform(600 * c, -1, 1, 6);
        const auto reset = cv.make(c), fresh = cv.make(c), skip = cv.make(c), full = cv.make(c);
        const auto nulls = cv.make(c), zeros = cv.make(c);
        convert(*reset, a);
        reset->Reset();
        EXPECT_EQ(convert(*reset, b), convert(*fresh, b)) << cv.name;
        EXPECT_EQ(skip->Process(a.data(), 333, nullptr), full->OutputFrames(333));
        convert(*full, a);
        EXPECT_EQ(convert(*skip, b), convert(*full, b)) << cv.name;
        convert(*nulls, a);
        convert(*zeros, a);
        std::vector<float> got(nulls->OutputFrames(500) * c);
        nulls->Process(nullptr, 500, got.data());
        EXPECT_EQ(got, convert(*zeros, std::vector<float>(500 * c, 0.0f))) << cv.name;
    }
}

TEST(PolyphaseFraming, AnyChannelCountBeyondTwoRunsTheReferenceChannelByChannel)
{
    // Mono converters would take a kernel that may use FMA; compare reference to reference.
    ScopedCpuFeatures restore;
    ScopedCpuFeatures::Force(kIsaNone, false);
    for (const Converter& cv : kConverters) {
        const std::size_t c = 5, frames = 700;
        const auto multi = cv.make(c);
        EXPECT_TRUE(std::string_view(multi->Algo().Name()).ends_with("_Algo_Ref")) << cv.name;
        const auto x = uniform(frames * c, -1, 1, 12);
        const auto y = convert(*multi, x);
        for (std::size_t ch = 0; ch < c; ++ch) {
            std::vector<float> xc(frames);
            for (std::size_t i = 0; i < frames; ++i)
                xc[i] = x[i * c + ch];
            const auto yc = convert(*cv.make(1), xc);
            ASSERT_EQ(yc.size() * c, y.size());
            for (std::size_t i = 0; i < yc.size(); ++i)
                ASSERT_EQ(y[i * c + ch], yc[i]) << cv.name << " ch=" << ch;
        }
    }
    EXPECT_THROW(Upsampler_x2(0), std::invalid_argument);
    EXPECT_THROW(Downsampler_x2(2, 0), std::invalid_argument);
}

} // namespace
} // namespace twa::numeric

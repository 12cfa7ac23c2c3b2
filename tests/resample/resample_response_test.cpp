// The converters measured from outside: frequency response from impulse
// responses, alias and image levels from sines, latency, and the framing
// (block-size invariance, history, reset, null pointers).

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/Upsampler.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace twa::numeric {
namespace {

using test::ScopedCpuFeatures;
using Make = std::function<std::unique_ptr<PolyphaseResampler>(std::size_t channels)>;

struct Converter {
    const char* name;
    Make make;
    // Figures the table is designed for, edges as fractions of the low rate.
    double passEdge;
    double rippleDb;
    double stopEdge;
    double attenuationDb;
    std::size_t latency; // frames of the low rate
};

const std::vector<Converter>& converters()
{
    static const std::vector<Converter> list = {
        {"Upsampler_x2", [](std::size_t c) { return std::make_unique<Upsampler_x2>(c); }, 0.432, 0.00015, 0.568, 97.0, 24},
        {"Upsampler_x2 short", [](std::size_t c) { return std::make_unique<Upsampler_x2>(c, 512, true); }, 0.419, 0.0011,
         0.581, 78.5, 16},
        {"Upsampler_x4", [](std::size_t c) { return std::make_unique<Upsampler_x4>(c); }, 0.432, 0.0001, 0.568, 100.0, 24},
        {"Upsampler_x8", [](std::size_t c) { return std::make_unique<Upsampler_x8>(c); }, 0.432, 0.0001, 0.568, 100.0, 24},
        {"Downsampler_x2", [](std::size_t c) { return std::make_unique<Downsampler_x2>(c); }, 0.4626, 0.00004, 0.5374,
         108.5, 48},
        {"Downsampler_x4", [](std::size_t c) { return std::make_unique<Downsampler_x4>(c); }, 0.4626, 0.00003, 0.5374,
         110.0, 48},
    };
    return list;
}

std::vector<float> convert(PolyphaseResampler& r, const std::vector<float>& in)
{
    const std::size_t frames = in.size() / r.ChannelCount();
    std::vector<float> out(r.OutputFrames(frames) * r.ChannelCount());
    const std::size_t n = r.Process(in.data(), frames, out.data());
    EXPECT_EQ(n * r.ChannelCount(), out.size());
    return out;
}

// The prototype filter at the high rate, read back through the converter.
std::vector<double> measuredPrototype(const Converter& cv)
{
    auto probe = cv.make(1);
    const std::size_t L = probe->Factor();
    const std::size_t N = probe->FilterLength();
    std::vector<double> g(N, 0.0);
    if (!probe->IsDownsampler()) {
        std::vector<float> x(N / L + 8, 0.0f);
        x[0] = 1.0f;
        const auto y = convert(*probe, x);
        for (std::size_t m = 0; m < N; ++m)
            g[m] = y[m];
        for (std::size_t m = N; m < y.size(); ++m)
            EXPECT_EQ(y[m], 0.0f) << "response longer than the filter";
        return g;
    }
    // Output n of a downsampler is tap L n - i0 for an impulse at frame i0.
    for (std::size_t i0 = 0; i0 < L; ++i0) {
        auto r = cv.make(1);
        std::vector<float> x(N + 2 * L, 0.0f);
        x[i0] = 1.0f;
        const auto y = convert(*r, x);
        for (std::size_t n = 0; n < y.size(); ++n) {
            const std::size_t m = L * n;
            if (m >= i0 && m - i0 < N)
                g[m - i0] = y[n];
        }
    }
    return g;
}

// |G(f)| in dB relative to `gain`, f as a fraction of the high rate.
double responseDb(const std::vector<double>& g, double f, double gain)
{
    double re = 0.0, im = 0.0;
    for (std::size_t j = 0; j < g.size(); ++j) {
        re += g[j] * std::cos(2.0 * std::numbers::pi * f * static_cast<double>(j));
        im -= g[j] * std::sin(2.0 * std::numbers::pi * f * static_cast<double>(j));
    }
    return 20.0 * std::log10(std::max(std::hypot(re, im) / gain, 1e-30));
}

TEST(PolyphaseResponse, PassbandRippleAndStopbandAttenuationMeetTheDesign)
{
    for (const Converter& cv : converters()) {
        const auto g = measuredPrototype(cv);
        const double L = static_cast<double>(cv.make(1)->Factor());
        // An upsampler's phases each have unit gain, so the prototype has L.
        const double gain = cv.make(1)->IsDownsampler() ? 1.0 : L;
        double ripple = 0.0;
        for (int i = 0; i <= 600; ++i)
            ripple = std::max(ripple, std::abs(responseDb(g, cv.passEdge * i / 600.0 / L, gain)));
        double worst = -400.0;
        for (int i = 0; i <= 3000; ++i) {
            const double f = (cv.stopEdge + (0.5 * L - cv.stopEdge) * i / 3000.0) / L;
            worst = std::max(worst, responseDb(g, f, gain));
        }
        EXPECT_LE(ripple, cv.rippleDb) << cv.name;
        EXPECT_GE(-worst, cv.attenuationDb) << cv.name;
        // Half the low rate sits in the middle of the transition band.
        EXPECT_NEAR(responseDb(g, 0.5 / L, gain), -6.02, 0.05) << cv.name;
        std::printf("%-20s ripple %.2g dB up to %.4f fs, attenuation %.1f dB from %.4f fs\n", cv.name, ripple,
                    cv.passEdge, -worst, cv.stopEdge);
    }
}

TEST(PolyphaseResponse, LatencyIsTheCentreOfTheImpulseResponse)
{
    for (const Converter& cv : converters()) {
        auto r = cv.make(1);
        EXPECT_EQ(r->Latency(), cv.latency) << cv.name;
        const auto g = measuredPrototype(cv);
        double e = 0.0, moment = 0.0;
        for (std::size_t j = 0; j < g.size(); ++j) {
            e += g[j] * g[j];
            moment += static_cast<double>(j) * g[j] * g[j];
        }
        // Linear phase: the energy centre is the group delay, at the high rate.
        const double centre = moment / e / static_cast<double>(r->Factor());
        EXPECT_NEAR(centre, static_cast<double>(r->Latency()), 1e-9) << cv.name;
    }
}

// A passband sine comes out as the same sine, delayed by the reported latency.
TEST(PolyphaseResponse, PassbandSineComesOutDelayedByTheLatency)
{
    for (const Converter& cv : converters()) {
        for (double f : {0.01, 0.137, 0.4}) { // fractions of the low rate
            auto r = cv.make(1);
            const double L = static_cast<double>(r->Factor());
            const bool down = r->IsDownsampler();
            const double fin = down ? f / L : f; // per input frame
            std::vector<float> x(4096);
            for (std::size_t i = 0; i < x.size(); ++i)
                x[i] = static_cast<float>(0.9 * std::sin(2.0 * std::numbers::pi * fin * static_cast<double>(i) + 0.3));
            const auto y = convert(*r, x);
            double worst = 0.0;
            for (std::size_t m = 400; m < y.size(); ++m) {
                // Output frame m is input time m / L (up) or m L (down), minus the latency.
                const double t = down ? static_cast<double>(m) * L - static_cast<double>(r->Latency()) * L
                                      : static_cast<double>(m) / L - static_cast<double>(r->Latency());
                const double want = 0.9 * std::sin(2.0 * std::numbers::pi * fin * t + 0.3);
                worst = std::max(worst, std::abs(y[m] - want));
            }
            // Passband ripple plus the images (or aliases) of the filter's stopband.
            const double bound = 0.9 * (std::pow(10.0, cv.rippleDb / 20.0) - 1.0 +
                                        L * std::pow(10.0, -cv.attenuationDb / 20.0)) + 2e-6;
            EXPECT_LT(worst, bound) << cv.name << " f=" << f;
        }
    }
}

// Level of frequency f (cycles per sample) in x, Hann-windowed, in dB re amplitude 1.
double toneDb(const std::vector<float>& x, std::size_t from, double f)
{
    const std::size_t n = x.size() - from;
    double re = 0.0, im = 0.0, wsum = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n));
        const double a = 2.0 * std::numbers::pi * f * static_cast<double>(i);
        re += w * x[from + i] * std::cos(a);
        im += w * x[from + i] * std::sin(a);
        wsum += w;
    }
    return 20.0 * std::log10(std::max(2.0 * std::hypot(re, im) / wsum, 1e-30));
}

// Images of an upsampled tone, aliases of a downsampled one, measured on the output.
TEST(PolyphaseResponse, ImagesAndAliasesOfSinesStayBelowTheStopband)
{
    for (const Converter& cv : converters()) {
        auto r = cv.make(1);
        const double L = static_cast<double>(r->Factor());
        const bool down = r->IsDownsampler();
        // A tone at 0.4 of the low rate, or one whose alias lands there.
        const double lowF = down ? 1.0 - 0.4 : 0.4;
        // Just outside the stopband edge for the downsampler: folds to 1 - 0.6 = 0.4.
        const double fin = down ? (cv.stopEdge + 0.01) / L : lowF;
        std::vector<float> x(16384);
        for (std::size_t i = 0; i < x.size(); ++i)
            x[i] = static_cast<float>(std::sin(2.0 * std::numbers::pi * fin * static_cast<double>(i)));
        const auto y = convert(*r, x);
        const std::size_t skip = 1024;
        if (down) {
            const double alias = 1.0 - (cv.stopEdge + 0.01); // low-rate units
            EXPECT_LT(toneDb(y, skip, alias), -cv.attenuationDb) << cv.name;
        } else {
            // The first image of 0.4 fs_in sits at 0.6 fs_in; the rest at k fs_in +- 0.4.
            for (double k = 1.0; k < L / 2.0 + 0.5; k += 1.0) {
                for (double img : {k - 0.4, k + 0.4}) {
                    if (img >= L / 2.0)
                        continue;
                    EXPECT_LT(toneDb(y, skip, img / L), -cv.attenuationDb) << cv.name << " image " << img;
                }
            }
            EXPECT_NEAR(toneDb(y, skip, 0.4 / L), 0.0, 0.001) << cv.name;
        }
    }
}

TEST(PolyphaseResponse, ImpulseThroughTheUpsamplerGivesThePhasesInterleaved)
{
    ScopedCpuFeatures restore;
    for (std::int32_t level : {0, 2, 7}) {
        ScopedCpuFeatures::Force(level, false);
        if (level >= kIsaAVX && !MachineRuns(IsaNeed::AVX))
            continue;
        for (std::size_t c : {1u, 2u}) {
            Upsampler_x2 up(c);
            std::vector<float> x(60 * c, 0.0f);
            for (std::size_t j = 0; j < c; ++j)
                x[j] = 1.0f;
            const auto y = convert(up, x);
            const std::size_t K = 48;
            for (std::size_t n = 0; n < K; ++n)
                for (std::size_t p = 0; p < 2; ++p)
                    for (std::size_t j = 0; j < c; ++j)
                        ASSERT_EQ(y[(2 * n + p) * c + j], tables::kUpsampler_x2[2 * (K - 1 - n) + p])
                            << up.Algo().Name() << " n=" << n << " p=" << p;
        }
    }
}

TEST(PolyphaseResponse, EvenOutputsOfTheUpsamplersRepeatTheInputExactly)
{
    const auto x = test::uniform(3000, -1.0f, 1.0f, 4);
    for (const Converter& cv : converters()) {
        auto r = cv.make(1);
        if (r->IsDownsampler())
            continue;
        const std::size_t L = r->Factor();
        const auto y = convert(*r, x);
        for (std::size_t n = r->Latency(); n < x.size(); ++n)
            ASSERT_EQ(y[L * n], x[n - r->Latency()]) << cv.name << " n=" << n;
    }
}

// ---------------------------------------------------------------------------
// Framing

std::vector<float> convertInPieces(PolyphaseResampler& r, const std::vector<float>& in, std::vector<std::size_t> sizes)
{
    const std::size_t c = r.ChannelCount();
    std::vector<float> out;
    std::size_t at = 0;
    for (std::size_t s : sizes) {
        std::vector<float> piece(r.OutputFrames(s) * c + 1);
        const std::size_t n = r.Process(in.data() + at * c, s, piece.data());
        EXPECT_EQ(n * c + 1, piece.size());
        out.insert(out.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(n * c));
        at += s;
    }
    return out;
}

TEST(PolyphaseFraming, OutputDoesNotDependOnHowTheInputIsSplit)
{
    std::mt19937 rng(11);
    for (const Converter& cv : converters()) {
        for (std::size_t c : {1u, 2u, 3u}) {
            const std::size_t frames = 2100;
            const auto x = test::uniform(frames * c, -1.0f, 1.0f, 3 + static_cast<unsigned>(c));
            auto whole = cv.make(c);
            const auto want = convert(*whole, x);
            EXPECT_EQ(want.size(), whole->IsDownsampler() ? (frames + whole->Factor() - 1) / whole->Factor() * c
                                                          : frames * whole->Factor() * c);

            std::vector<std::size_t> ones(frames, 1);
            std::vector<std::size_t> random;
            for (std::size_t left = frames; left;) {
                const std::size_t s = std::min<std::size_t>(left, rng() % 700);
                random.push_back(s);
                left -= s;
            }
            for (const auto& sizes : {ones, random}) {
                auto r = cv.make(c);
                const auto got = convertInPieces(*r, x, sizes);
                ASSERT_EQ(got.size(), want.size()) << cv.name;
                for (std::size_t i = 0; i < got.size(); ++i)
                    ASSERT_TRUE(test::sameBits(got[i], want[i])) << cv.name << " c=" << c << " i=" << i;
            }
        }
    }
}

TEST(PolyphaseFraming, DownsamplerOutputsOneFrameForEveryFactorInputFrames)
{
    Downsampler_x4 d(1);
    // The first output lines up with the first input frame.
    EXPECT_EQ(d.OutputFrames(1), 1u);
    EXPECT_EQ(d.OutputFrames(4), 1u);
    EXPECT_EQ(d.OutputFrames(5), 2u);
    alignas(32) float in[7] = {1, 1, 1, 1, 1, 1, 1};
    alignas(32) float out[4];
    EXPECT_EQ(d.Process(in, 3, out), 1u);
    EXPECT_EQ(d.OutputFrames(1), 0u);
    EXPECT_EQ(d.OutputFrames(2), 1u);
    EXPECT_EQ(d.Process(in, 7, out), 2u);
    EXPECT_EQ(d.Process(in, 0, out), 0u);
}

TEST(PolyphaseFraming, ResetStartsAgainFromSilence)
{
    for (const Converter& cv : converters()) {
        const auto a = test::uniform(900, -1.0f, 1.0f, 1);
        const auto b = test::uniform(700, -1.0f, 1.0f, 2);
        auto r = cv.make(1);
        convert(*r, a);
        r->Reset();
        auto fresh = cv.make(1);
        EXPECT_EQ(convert(*r, b), convert(*fresh, b)) << cv.name;
    }
}

TEST(PolyphaseFraming, NullPointersReadSilenceAndSkipOutput)
{
    for (const Converter& cv : converters()) {
        const std::size_t c = 2;
        const auto a = test::uniform(333 * c, -1.0f, 1.0f, 5);
        const auto b = test::uniform(600 * c, -1.0f, 1.0f, 6);
        // A null output still moves the history on.
        auto skip = cv.make(c);
        auto full = cv.make(c);
        EXPECT_EQ(skip->Process(a.data(), 333, nullptr), full->OutputFrames(333));
        convert(*full, a);
        EXPECT_EQ(convert(*skip, b), convert(*full, b)) << cv.name;
        // A null input is silence.
        auto zeros = cv.make(c);
        auto nulls = cv.make(c);
        convert(*zeros, a);
        convert(*nulls, a);
        std::vector<float> silence(500 * c, 0.0f);
        const auto want = convert(*zeros, silence);
        std::vector<float> got(nulls->OutputFrames(500) * c);
        nulls->Process(nullptr, 500, got.data());
        EXPECT_EQ(got, want) << cv.name;
    }
}

TEST(PolyphaseFraming, MisalignedOutputGivesTheSameSamples)
{
    for (const Converter& cv : converters()) {
        const auto x = test::uniform(1200 * 2, -1.0f, 1.0f, 8);
        auto a = cv.make(2);
        auto b = cv.make(2);
        const auto want = convert(*a, x);
        test::Guarded out(want.size(), 1);
        EXPECT_EQ(b->Process(x.data() + 0, 1200, out.data()) * 2, want.size());
        EXPECT_TRUE(out.guardsIntact());
        for (std::size_t i = 0; i < want.size(); ++i)
            ASSERT_EQ(out[i], want[i]) << cv.name;
    }
}

TEST(PolyphaseFraming, AnyChannelCountBeyondTwoRunsTheReferenceChannelByChannel)
{
    // Mono converters would take a kernel that may use FMA; compare reference to reference.
    ScopedCpuFeatures restore;
    ScopedCpuFeatures::Force(kIsaNone, false);
    for (const Converter& cv : converters()) {
        const std::size_t c = 5;
        auto multi = cv.make(c);
        EXPECT_NE(std::string(multi->Algo().Name()).find("_Algo_Ref"), std::string::npos) << cv.name;
        const std::size_t frames = 700;
        const auto x = test::uniform(frames * c, -1.0f, 1.0f, 12);
        const auto y = convert(*multi, x);
        for (std::size_t ch = 0; ch < c; ++ch) {
            std::vector<float> xc(frames);
            for (std::size_t i = 0; i < frames; ++i)
                xc[i] = x[i * c + ch];
            auto mono = cv.make(1);
            const auto yc = convert(*mono, xc);
            ASSERT_EQ(yc.size() * c, y.size());
            for (std::size_t i = 0; i < yc.size(); ++i)
                ASSERT_EQ(y[i * c + ch], yc[i]) << cv.name << " ch=" << ch;
        }
    }
}

TEST(PolyphaseFraming, RefusesZeroChannelsAndZeroPieces)
{
    EXPECT_THROW(Upsampler_x2(0), std::invalid_argument);
    EXPECT_THROW(Downsampler_x2(2, 0), std::invalid_argument);
}

TEST(PolyphaseFraming, SmallPiecesGiveTheSameOutputAsLargeOnes)
{
    const auto x = test::uniform(1000 * 2, -1.0f, 1.0f, 13);
    Upsampler_x4 big(2, 512), small(2, 7);
    EXPECT_EQ(small.InFrameSize(), 7u);
    EXPECT_EQ(convert(big, x), convert(small, x));
    Downsampler_x2 dbig(2, 512), dsmall(2, 3);
    EXPECT_EQ(convert(dbig, x), convert(dsmall, x));
}

} // namespace
} // namespace twa::numeric

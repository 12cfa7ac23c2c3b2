// Every kernel variant this machine runs against its family's reference, one
// row per family: how the inputs are made, how a variant is called, and how
// close it must come. Then what the references compute, checked against
// arithmetic done here, and the promises a fused or reordered variant keeps.

#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Func.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/Lpfm16.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"
#include "PolyphaseTables.h"
#include "System/twa_aligned_allocator.h"
#include "VariantCheck.h"

#include <gtest/gtest.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <limits>
#include <numbers>

namespace twa::numeric {
namespace {

using namespace qvd::test;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kPi = std::numbers::pi_v<float>;

// Puts `specials` at spread positions, so vector bodies and tails both meet them.
std::vector<float> with(std::vector<float> v, std::span<const float> specials)
{
    for (std::size_t i = 0; i < specials.size() && i < v.size(); ++i)
        v[i * 5 % v.size()] = specials[i];
    return v;
}

TEST(KernelVariants, FuncMatchesTheReference)
{
    // Abs and Sqrt exact; the polynomial approximations as measured, with margin.
    const struct {
        const char* name;
        void (Func::*fn)(const float*, float*, std::size_t) const noexcept;
        float lo, hi; // lo == hi: positive, spread over the whole exponent range
        std::uint64_t ulp;
    } cases[] = {{"Abs", &Func::Abs, -100, 100, 0}, {"Sqrt", &Func::Sqrt, 0, 1000, 0}, {"Exp", &Func::Exp, -110, 95, 2},
                 {"Log", &Func::Log, 0, 0, 2},      {"Log10", &Func::Log10, 0, 0, 3},   {"Pow10", &Func::Pow10, -48, 40, 2}};
    const float specials[] = {0.0f, -0.0f, kInf, -kInf, kNaN, -1.0f, std::numeric_limits<float>::denorm_min(), 1.0f};
    std::vector<Op<Func>> ops;
    for (const auto& c : cases) {
        auto inputs = [c, specials](Call& r) {
            std::vector<float> x = r.values(r.n, c.lo == c.hi ? -44 : c.lo, c.lo == c.hi ? 38 : c.hi);
            const auto mantissa = r.values(r.n, 1, 10);
            for (std::size_t i = 0; c.lo == c.hi && i < r.n; ++i)
                x[i] = mantissa[i] * std::pow(10.0f, std::floor(x[i]));
            return with(x, specials);
        };
        ops.push_back({c.name, [c, inputs](Func& f, Call& r) { (f.*c.fn)(r.input(inputs(r)), r.output(r.n), r.n); },
                       allWithin({c.ulp})});
        ops.push_back({std::string(c.name) + " in place", [c, inputs](Func& f, Call& r) {
                           float* io = r.inout(inputs(r));
                           (f.*c.fn)(io, io, r.n);
                       }, allWithin({c.ulp})});
    }
    std::unique_ptr<Func> ref(NewFunc_ref());
    EXPECT_TRUE(everyVariantMatches("Func", listedVariants(FuncVariants()), *ref, ops));
}

// Few distinct values: sums of products are exact in any order, and extremes repeat.
std::vector<float> integers(Call& r, float span)
{
    auto v = r.values(r.n, -span - 0.5f, span + 0.5f);
    for (float& x : v)
        x = std::round(x);
    return v;
}

TEST(KernelVariants, Blas1MatchesTheReference)
{
    // Fused variants skip the rounding of the product (|x y| <= 16): half an
    // ulp of it, plus one of the result.
    const ToleranceRule fused = fusedWithin({0, 4e-6});
    const std::vector<Op<Blas1>> ops = {
        {"Scale", [](Blas1& k, Call& r) { k.Scale(r.input(r.n, -4, 4), 0.3f, r.output(r.n), r.n); }},
        {"Add", [](Blas1& k, Call& r) { k.Add(r.input(r.n, -4, 4), r.input(r.n, -4, 4), r.output(r.n), r.n); }},
        {"Mul", [](Blas1& k, Call& r) { k.Mul(r.input(r.n, -4, 4), r.input(r.n, -4, 4), r.output(r.n), r.n); }},
        {"MulAdd", [](Blas1& k, Call& r) {
             k.MulAdd(r.input(r.n, -4, 4), r.input(r.n, -4, 4), r.input(r.n, -4, 4), r.output(r.n), r.n);
         }, fused},
        {"Axpy", [](Blas1& k, Call& r) { k.Axpy(-1.5f, r.input(r.n, -4, 4), r.inout(r.values(r.n, -4, 4)), r.n); }, fused},
        {"Dot", [](Blas1& k, Call& r) { r.result(k.Dot(r.input(integers(r, 8)), r.input(integers(r, 8)), r.n)); }},
        {"Sum", [](Blas1& k, Call& r) { r.result(k.Sum(r.input(integers(r, 8)), r.n)); }},
    };
    std::unique_ptr<Blas1> ref(NewBlas1_ref());
    EXPECT_TRUE(everyVariantMatches("Blas1", listedVariants(Blas1Variants()), *ref, ops));
}

TEST(KernelVariants, VecMatchesTheReference)
{
    auto withNaN = [](Call& r) { return with(r.values(r.n, -2, 2), std::array{0.5f, kNaN}); };
    // NaNs at both ends, which the searches skip.
    auto extreme = [](Call& r, ValueIndex (Vec::*find)(const float*, std::size_t) const noexcept, Vec& k) {
        auto v = integers(r, 4);
        if (r.n > 2)
            v.front() = v.back() = kNaN;
        const ValueIndex found = (k.*find)(r.input(v), r.n);
        r.result(found.value);
        r.result(static_cast<double>(found.index));
    };
    const std::vector<Op<Vec>> ops = {
        {"Copy", [withNaN](Vec& k, Call& r) { k.Copy(r.input(withNaN(r)), r.output(r.n), r.n); }},
        {"Fill", [](Vec& k, Call& r) { k.Fill(r.output(r.n), 0.25f, r.n); }},
        {"Clamp", [withNaN](Vec& k, Call& r) { k.Clamp(r.input(withNaN(r)), -0.5f, 0.75f, r.output(r.n), r.n); }},
        {"Clamp in place", [withNaN](Vec& k, Call& r) {
             float* io = r.inout(withNaN(r));
             k.Clamp(io, -0.5f, 0.75f, io, r.n);
         }},
        {"MinIndex", [extreme](Vec& k, Call& r) { extreme(r, &Vec::MinIndex, k); }},
        {"MaxIndex", [extreme](Vec& k, Call& r) { extreme(r, &Vec::MaxIndex, k); }},
    };
    std::unique_ptr<Vec> ref(NewVec_ref());
    EXPECT_TRUE(everyVariantMatches("Vec", listedVariants(VecVariants()), *ref, ops));
}

// Two arrays in, two out: into fresh arrays, or over the inputs.
template <class K>
void twoByTwo(K& k, Call& r, const std::vector<float>& a, const std::vector<float>& b, bool inPlace)
{
    if (!inPlace) {
        const float* x = r.input(a);
        const float* y = r.input(b);
        float* u = r.output(r.n);
        return k.Process(x, y, u, r.output(r.n), r.n);
    }
    float* x = r.inout(a);
    float* y = r.inout(b);
    k.Process(x, y, x, y, r.n);
}

TEST(KernelVariants, PolarFormsMatchTheReference)
{
    // Axes, signed zeros and equal parts hit the quadrant fix-ups of atan2.
    const float re0[] = {0, -0.0f, 0, -0.0f, -1, -1, 0, 0, 1, -1, 1e-30f, -3};
    const float im0[] = {0, 0, -0.0f, -0.0f, 0, -0.0f, 1, -1, 1, -1, 1e30f, 3};
    auto rect = [&](bool inPlace) {
        return [&, inPlace](Rect2Polar& k, Call& r) {
            const auto re = with(r.values(r.n, -10, 10), re0);
            twoByTwo(k, r, re, with(r.values(r.n, -10, 10), im0), inPlace);
        };
    };
    // Magnitudes exact; the SIMD phase within 2.5 ulp of pi, on the right side of the cut.
    const ToleranceRule phase = [](std::string_view, std::size_t out) {
        return out % 2 ? Tolerance{0, 6e-7, true} : Tolerance{};
    };
    std::unique_ptr<Rect2Polar> polarRef(NewRect2Polar_ref());
    EXPECT_TRUE(everyVariantMatches("Rect2Polar", listedVariants(Rect2PolarVariants()), *polarRef,
                                    {{"Process", rect(false), phase}, {"in place", rect(true), phase}}));

    // Within 1.5e-7 of the C library per unit of magnitude, growing with the angle reduced.
    auto polar = [](float maxPhase, bool inPlace) {
        return [=](Polar2Rect& k, Call& r) {
            const auto m = r.values(r.n, 0, 1);
            twoByTwo(k, r, m, with(r.values(r.n, -maxPhase, maxPhase), std::array{0.0f, kPi / 2, maxPhase}), inPlace);
        };
    };
    std::unique_ptr<Polar2Rect> rectRef(NewPolar2Rect_ref());
    const std::vector<Op<Polar2Rect>> toRect = {
        {"Process within 8 pi", polar(8 * kPi, false), allWithin({0, 1.5e-7 * (1 + 8 * kPi / 64)})},
        {"in place within 8192", polar(8192, true), allWithin({0, 1.5e-7 * (1 + 8192 / 64)})}};
    EXPECT_TRUE(everyVariantMatches("Polar2Rect", listedVariants(Polar2RectVariants()), *rectRef, toRect));
}

TEST(KernelVariants, CSquareMagnitudeMatchesTheReference)
{
    auto process = [](bool inPlace) { // in place, the results land at the start of the input array
        return [inPlace](CSquareMagnitude& k, Call& r) {
            float* io = r.inout(r.values(2 * r.n, -3, 3));
            k.Process(io, inPlace ? io : r.output(r.n), r.n);
        };
    };
    std::unique_ptr<CSquareMagnitude> ref(NewCSquareMagnitude_ref());
    EXPECT_TRUE(everyVariantMatches("CSquareMagnitude", listedVariants(CSquareMagnitudeVariants()), *ref,
                                    {{"Process", process(false), fusedWithin({2})}, {"in place", process(true), fusedWithin({2})}}));
}

// A scan that starts afresh, then one that updates what it found.
TEST(KernelVariants, FindMinMaxMatchesTheReferenceForEveryLayout)
{
    for (const std::size_t c : {1, 2, 3, 4, 5, 8, 12, 16, 24}) {
        const Op<FindMinMax> scan{"Process", [c](FindMinMax& k, Call& r) {
            float* mm = r.output(2 * c, Align::Any);
            r.result(k.Process(r.input(r.n * c, -1, 1), r.n, mm, true));
            r.keep({mm, 2 * c});
            r.result(k.Process(r.input(r.n * c, -2, 2), r.n, mm, false));
        }};
        std::unique_ptr<FindMinMax> ref(NewFindMinMax_ref(c));
        EXPECT_TRUE(everyVariantMatches("FindMinMax(" + std::to_string(c) + ")", listedVariants(FindMinMaxVariants(), c),
                                        *ref, {scan}));
    }
}

// Low-passes with distinct corners and Qs per band, so a lane mix-up shows.
void design(eq::BiquadBand& b)
{
    for (std::size_t k = 0; k < b.BandCount(); ++k) {
        const double w = 2.0 * std::numbers::pi * 200.0 * static_cast<double>(k + 1) / 48000.0;
        const double alpha = std::sin(w) / (1.0 + 0.6 * static_cast<double>(k)), a0 = 1.0 + alpha, c = std::cos(w);
        b.SetCoefficients(k, {float((1 - c) / 2 / a0), float((1 - c) / a0), float((1 - c) / 2 / a0), float(-2 * c / a0),
                              float((1 - alpha) / a0)});
    }
    b.Reset();
}

TEST(KernelVariants, BiquadBandMatchesTheReferenceAcrossBlockSplits)
{
    for (const std::size_t bands : {2, 4, 8}) {
        // Whole, or in place in random block lengths, empty ones included: the state carries over.
        auto run = [bands](bool split) {
            return [bands, split](eq::BiquadBand& k, Call& r) {
                design(k);
                float* in = r.inout(r.values(r.n * bands, -1, 1));
                float* out = split ? in : r.output(r.n * bands);
                std::mt19937 rng(3);
                for (std::size_t at = 0, len = 0; at < r.n; at += len) {
                    len = split ? std::min<std::size_t>(r.n - at, rng() % 70) : r.n;
                    k.Process(in + at * bands, out + at * bands, len);
                }
            };
        };
        for (const eq::BiquadForm form : {eq::BiquadForm::DF2, eq::BiquadForm::DF2T}) {
            std::unique_ptr<eq::BiquadBand> ref(eq::NewBiquadBand_ref(bands, form));
            EXPECT_TRUE(everyVariantMatches("BiquadBand(" + std::to_string(bands) + ")",
                                            listedVariants(eq::BiquadBandVariants(), bands, form), *ref,
                                            {{"Process", run(false)}, {"in place in uneven blocks", run(true)}}));
        }
    }
}

// The bank run as a host would, in blocks of 64 frames.
TEST(BiquadBand, LowpassesPassDcAndStopNyquist)
{
    for (const std::size_t bands : {2, 4, 8}) {
        for (const eq::BiquadForm form : {eq::BiquadForm::DF2, eq::BiquadForm::DF2T}) {
            std::unique_ptr<eq::BiquadBand> b;
            CreateBiquadBand(b, bands, form);
            for (const bool nyquist : {false, true}) {
                design(*b);
                const std::size_t frames = 4096;
                sample_vector x(frames * bands);
                for (std::size_t i = 0; i < x.size(); ++i)
                    x[i] = nyquist && (i / bands) % 2 ? -1.0f : 1.0f;
                for (std::size_t at = 0; at < frames; at += 64)
                    b->Process(x.data() + at * bands, x.data() + at * bands, 64);
                for (std::size_t k = 0; k < bands; ++k) {
                    const double db = 20 * std::log10(std::fabs(x[(frames - 1) * bands + k]) + 1e-12);
                    EXPECT_TRUE(nyquist ? db < -60.0 : std::fabs(db) < 0.01) << b->Name() << " band " << k << ": " << db;
                }
            }
        }
    }
}

TEST(KernelVariants, InterleavingMatchesTheReferenceForEveryLayoutAndFormat)
{
    // Out of range, non-finite and halfway values test clamping and rounding.
    const float special[] = {1.0f, -1.0f, 1.5f, -1.5f, kNaN, kInf, -kInf, 0.5f / 32768, 1.5f / 32768,
                             0.5f / 8388608, -2.5f / 32768, -0.0f};
    for (const SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32}) {
        const std::size_t bytes = BytesPerSample(f);
        for (const std::size_t c : {1, 2, 3, 4, 5, 8, 12, 16, 32}) {
            const std::string layout = std::to_string(c) + " channels, " + std::to_string(bytes) + " bytes";
            const Op<Deinterleave> split{"Process", [=](Deinterleave& k, Call& r) {
                const void* in = f == SampleFormat::Float32 ? static_cast<const void*>(r.input(r.n * c, -2, 2))
                                                            : r.inputBytes(r.n * c * bytes);
                std::vector<float*> out(c);
                for (float*& p : out)
                    p = r.output(r.n);
                k.Process(in, out.data(), r.n);
            }};
            std::unique_ptr<Deinterleave> de(NewDeinterleave_ref(c, f));
            EXPECT_TRUE(everyVariantMatches("Deinterleave " + layout, listedVariants(DeinterleaveVariants(), c, f), *de, {split}));

            const Op<Interleave> join{"Process", [=](Interleave& k, Call& r) {
                std::vector<const float*> in(c);
                for (std::size_t ch = 0; ch < c; ++ch) {
                    auto v = r.values(r.n, -1.2f, 1.2f);
                    for (std::size_t i = 0; i < r.n; i += 5)
                        v[i] = special[(i / 5 + ch) % std::size(special)];
                    in[ch] = r.input(v);
                }
                k.Process(in.data(), r.outputBytes(r.n * c * bytes), r.n);
            }};
            std::unique_ptr<Interleave> il(NewInterleave_ref(c, f));
            EXPECT_TRUE(everyVariantMatches("Interleave " + layout, listedVariants(InterleaveVariants(), c, f), *il, {join}));
        }
    }
}

Lpfm16Coefs lpfmCoefs()
{
    Lpfm16Coefs coefs;
    const auto m = uniform(256, -0.25f, 0.25f, 1), k = uniform(16, 0.05f, 1.0f, 2), g = uniform(32, -1, 1, 3);
    std::copy(m.begin(), m.end(), &coefs.m[0][0]);
    std::copy(k.begin(), k.end(), coefs.k);
    std::transform(k.begin(), k.end(), coefs.km, [](float v) { return 1.0f - v; });
    std::copy(g.begin(), g.end(), &coefs.g[0][0]);
    return coefs;
}

TEST(KernelVariants, Lpfm16MatchesTheReference)
{
    const Lpfm16Coefs coefs = lpfmCoefs();
    Lpfm16State start;
    const auto z = uniform(16, -0.5f, 0.5f, 4);
    std::copy(z.begin(), z.end(), start.z);
    for (const std::size_t c : {1, 2}) {
        // In place, calls of random length: odd and empty ones move frames
        // between the paired and single paths.
        auto run = [&, c](bool inPlace, bool taps) {
            return [&, c, inPlace, taps](Lpfm16& kernel, Call& r) {
                Lpfm16State s = start;
                const auto x = r.values(16 * r.n, -1, 1);
                float* w = inPlace ? r.inout(x) : r.output(16 * r.n);
                const float* in = inPlace ? w : r.input(x);
                float* out = taps ? r.output(c * r.n, Align::Any) : nullptr;
                std::mt19937 rng(3);
                for (std::size_t at = 0, len = 0; at < r.n; at += len) {
                    len = inPlace ? std::min<std::size_t>(r.n - at, rng() % 8) : r.n;
                    kernel.Process(coefs, s, in + 16 * at, w + 16 * at, out ? out + c * at : nullptr, len);
                }
                r.keep(s.z);
            };
        };
        // Unfused variants add in the reference's order; fused ones round once
        // per multiply-add, on sums below 4 in magnitude.
        const ToleranceRule tol = fusedWithin({0, 8e-6});
        std::unique_ptr<Lpfm16> ref(NewLpfm16_ref(c));
        EXPECT_TRUE(everyVariantMatches("Lpfm16(" + std::to_string(c) + ")", listedVariants(Lpfm16Variants(), c), *ref,
                                        {{"Process", run(false, true), tol}, {"without taps", run(false, false), tol},
                                         {"in place in short calls", run(true, true), tol}}));
    }
}

// The mix, the one-pole low-pass and the taps, worked out in double.
TEST(Lpfm16, EveryVariantMixesFiltersAndTapsAsDocumented)
{
    const Lpfm16Coefs c = lpfmCoefs();
    const std::size_t frames = 200;
    const auto x = uniform<sample_vector>(frames * 16, -1, 1, 9);
    for (const std::size_t ch : {1, 2}) {
        for (const auto& v : listedVariants(Lpfm16Variants(), ch)) {
            Lpfm16State s;
            std::fill(std::begin(s.z), std::end(s.z), 0.25f);
            double z[16];
            std::fill(std::begin(z), std::end(z), 0.25);
            sample_vector w(frames * 16), out(frames * ch);
            v.kernel->Process(c, s, x.data(), w.data(), out.data(), frames);
            for (std::size_t n = 0; n < frames; ++n) {
                for (std::size_t r = 0; r < 16 + ch; ++r) {
                    const float* row = r < 16 ? c.m[r] : c.g[r - 16];
                    double y = 0.0;
                    for (std::size_t j = 0; j < 16; ++j)
                        y += double{row[j]} * x[16 * n + j];
                    if (r < 16)
                        z[r] = c.k[r] * y + double{c.km[r]} * z[r];
                    ASSERT_NEAR(r < 16 ? w[16 * n + r] : out[n * ch + r - 16], r < 16 ? z[r] : y, 1e-5)
                        << v.name << " frame " << n << (r < 16 ? " row " : " tap ") << r % 16;
                }
            }
            // The state is the last row of w; no frames need no buffers.
            v.kernel->Process(c, s, nullptr, nullptr, nullptr, 0);
            EXPECT_TRUE(std::equal(s.z, s.z + 16, w.end() - 16)) << v.name;
        }
    }
}

TEST(KernelVariants, PolyphaseKernelsMatchTheReference)
{
    for (const PolyTable& t : polyphaseTables()) {
        CoefficientBlock coefs(32, t.taps.data(), t.taps.size(), t.factor);
        double l1 = 0.0;
        for (const float h : t.taps)
            l1 += std::fabs(h);
        for (const std::size_t c : {1, 2}) {
            std::vector<Built<AlgoPolyphase>> variants;
            for (const PolyphaseVariant& v : PolyphaseVariants(t.id))
                if (MachineRuns(v.info.Needs()) && v.info.ChannelCount() == c)
                    variants.push_back({v.info.Name(), std::unique_ptr<AlgoPolyphase>(v.create())});
            auto ref = CreatePolyphaseRef(t.id, c);
            variants.push_back({ref->Name(), CreatePolyphaseRef(t.id, c)});
            // Fused kernels round once per tap less; the half-band ones add mirrored
            // pairs first and sum in another order. Either stays within a few
            // roundings of the largest possible output, the sum of |h|.
            const ToleranceRule tol = [&](std::string_view v, std::size_t) {
                const bool halfband = v.find("_Sym_") != std::string_view::npos && coefs.IsSymmetricHalfband();
                return halfband || isFused(v) ? Tolerance{0, 4.0 * FLT_EPSILON * l1} : Tolerance{};
            };
            const std::vector<Op<AlgoPolyphase>> ops = {{"Process", [&, c](AlgoPolyphase& k, Call& r) {
                // Downsamplers: n outputs, and a partial group now and then.
                const std::size_t steps = t.down ? r.n * t.factor + r.n % t.factor : r.n;
                const float* in = r.input(framesRead(t, steps) * c, -1, 1);
                r.result(static_cast<double>(k.Process(coefs, in, r.output(framesWritten(t, steps) * c), steps) - in));
            }, tol}};
            EXPECT_TRUE(everyVariantMatches(std::string(t.name) + "(" + std::to_string(c) + ")", variants, *ref, ops));
        }
    }
}

// Fused variants round once: their answer is the exact one, rounded.
TEST(Blas1, FusedVariantsRoundTheExactResultOnce)
{
    const std::size_t n = 999;
    const auto x = uniform<sample_vector>(n, -4, 4, 1), y = uniform<sample_vector>(n, -4, 4, 2);
    const auto z = uniform<sample_vector>(n, -4, 4, 3);
    for (const auto& v : listedVariants(Blas1Variants())) {
        if (!isFused(v.name))
            continue;
        sample_vector out(n), ya = y;
        v.kernel->MulAdd(x.data(), y.data(), z.data(), out.data(), n);
        v.kernel->Axpy(-1.5f, x.data(), ya.data(), n);
        for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], static_cast<float>(double{x[i]} * y[i] + z[i])) << v.name << " MulAdd " << i;
            ASSERT_EQ(ya[i], static_cast<float>(-1.5 * x[i] + y[i])) << v.name << " Axpy " << i;
        }
    }
}

// Dot and Sum add in another order in every SIMD variant: within n eps sum |terms|.
TEST(Blas1, ReductionsStayWithinTheSummationBound)
{
    for (const auto& v : listedVariants(Blas1Variants())) {
        for (const std::size_t n : kernelCounts()) {
            const auto x = uniform<sample_vector>(n, -1, 1, 40 + static_cast<unsigned>(n));
            const auto y = uniform<sample_vector>(n, -1, 1, 41 + static_cast<unsigned>(n));
            double dot = 0.0, absDot = 0.0, sum = 0.0, absSum = 0.0;
            for (std::size_t i = 0; i < n; ++i) {
                dot += double{x[i]} * y[i];
                absDot += std::fabs(double{x[i]} * y[i]);
                sum += x[i];
                absSum += std::fabs(x[i]);
            }
            const double eps = FLT_EPSILON * static_cast<double>(n);
            EXPECT_LE(std::fabs(v.kernel->Dot(x.data(), y.data(), n) - dot), eps * absDot) << v.name << " n=" << n;
            EXPECT_LE(std::fabs(v.kernel->Sum(x.data(), n) - sum), eps * absSum) << v.name << " n=" << n;
        }
    }
}

TEST(Vec, ExtremesAreTheFirstOccurrenceSkippingNaNs)
{
    alignas(32) const float x[9] = {kNaN, 2, -1, 3, -1, 3, kNaN, 0.0f, -0.0f};
    alignas(32) const float zeros[9] = {1, 1, 0.0f, 1, -0.0f, 1, 1, 1, 1};
    alignas(32) const float nans[9] = {kNaN, kNaN, kNaN, kNaN, kNaN, kNaN, kNaN, kNaN, kNaN};
    alignas(32) float clamped[9];
    for (const auto& v : listedVariants(VecVariants())) {
        EXPECT_EQ(v.kernel->MinIndex(x, 9), (ValueIndex{-1, 2})) << v.name;
        EXPECT_EQ(v.kernel->MaxIndex(x, 9), (ValueIndex{3, 3})) << v.name;
        // -0 and +0 are equal: the first wins, with its own sign.
        const ValueIndex z = v.kernel->MinIndex(zeros, 9);
        EXPECT_EQ(z.index, 2u) << v.name;
        EXPECT_FALSE(std::signbit(z.value)) << v.name;
        EXPECT_EQ(v.kernel->MaxIndex(nans, 9).index, 0u) << v.name;
        EXPECT_EQ(v.kernel->MinIndex(x, 0), (ValueIndex{std::numeric_limits<float>::infinity(), 0})) << v.name;
        EXPECT_EQ(v.kernel->MaxIndex(x, 0), (ValueIndex{-std::numeric_limits<float>::infinity(), 0})) << v.name;
        v.kernel->Clamp(x, -0.5f, 0.75f, clamped, 9);
        EXPECT_EQ(clamped[0], -0.5f) << v.name << ": NaN clamps to lo";
        EXPECT_EQ(clamped[3], 0.75f) << v.name;
    }
}

TEST(Func, NullPointersAreContractFailures)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    alignas(32) float out[1];
    for (const auto& v : listedVariants(FuncVariants())) {
        AssertCatcher catcher;
        v.kernel->Sqrt(nullptr, out, v.name == "Func_ref" ? 1 : 0);
        EXPECT_EQ(catcher.count(), 1u) << v.name;
    }
}

TEST(PolarForms, RoundTripInPlaceRecoversTheInput)
{
    std::unique_ptr<Rect2Polar> toPolar;
    std::unique_ptr<Polar2Rect> toRect;
    CreateRect2Polar(toPolar);
    CreatePolar2Rect(toRect);
    const std::size_t n = 999;
    const auto re = uniform<sample_vector>(n, -1, 1, 8), im = uniform<sample_vector>(n, -1, 1, 9);
    sample_vector a(n), b(n);
    toPolar->Process(re.data(), im.data(), a.data(), b.data(), n);
    toRect->Process(a.data(), b.data(), a.data(), b.data(), n);
    for (std::size_t i = 0; i < n; ++i) {
        ASSERT_NEAR(a[i], re[i], 1e-6f);
        ASSERT_NEAR(b[i], im[i], 1e-6f);
    }
}

TEST(Interleave, IntegersScaleClampAndRoundToNearestEven)
{
    std::unique_ptr<Interleave> il;
    CreateInterleave(il, 1, SampleFormat::Int16);
    alignas(32) const float in[8] = {1.0f, -1.0f, 0.5f, 1.5f / 32768, 2.5f / 32768, -3.0f, kNaN, 0.0f};
    const float* chans[1] = {in};
    alignas(32) std::int16_t out[8];
    il->Process(chans, out, 8);
    const std::int16_t want[8] = {32767, -32768, 16384, 2, 2, -32768, -32768, 0};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(out[i], want[i]) << il->Name() << " sample " << i;

    std::unique_ptr<Deinterleave> de;
    CreateDeinterleave(de, 1, SampleFormat::Int24);
    alignas(32) const unsigned char packed[12] = {0x00, 0x00, 0x80, 0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x40, 0xFF, 0xFF, 0xFF};
    alignas(32) float mono[4];
    float* outs[1] = {mono};
    de->Process(packed, outs, 4);
    const float want24[4] = {-1.0f, 8388607.0f / 8388608.0f, 0.5f, -1.0f / 8388608.0f};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(mono[i], want24[i]) << de->Name() << " sample " << i;
}

TEST(Interleave, IntegerRoundTripIsLossless)
{
    for (const SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24}) {
        for (const std::size_t c : {2, 4, 6, 16}) {
            std::unique_ptr<Deinterleave> de;
            std::unique_ptr<Interleave> il;
            CreateDeinterleave(de, c, f);
            CreateInterleave(il, c, f);
            const std::size_t frames = 999, n = frames * c * BytesPerSample(f);
            std::vector<unsigned char, memory::aligned_allocator<unsigned char, 32>> a(n), b(n);
            std::mt19937 rng(5);
            for (auto& byte : a)
                byte = static_cast<unsigned char>(rng());
            std::vector<sample_vector> mid(c, sample_vector(frames));
            std::vector<float*> ptrs;
            for (auto& m : mid)
                ptrs.push_back(m.data());
            de->Process(a.data(), ptrs.data(), frames);
            il->Process(ptrs.data(), b.data(), frames);
            EXPECT_EQ(a, b) << de->Name() << " / " << il->Name();
        }
    }
}

TEST(FindMinMax, EachChannelHasItsOwnExtremesAndMissingInputIsRefused)
{
    std::unique_ptr<FindMinMax> k;
    CreateFindMinMax(k, 3);
    alignas(32) const float in[64] = {0.5f, -1.0f, 3.0f, -0.25f, 2.0f, 4.0f, 0.0f, 1.0f, -5.0f};
    alignas(32) float mm[6];
    ASSERT_TRUE(k->Process(in, 3, mm, true));
    const float want[] = {-0.25f, 0.5f, -1.0f, 2.0f, -5.0f, 4.0f};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(mm[i], want[i]) << i;
    for (const std::size_t c : {1, 2, 4, 8})
        for (const auto& v : listedVariants(FindMinMaxVariants(), c))
            EXPECT_FALSE(v.kernel->Process(in, 4, nullptr, true)) << v.name;
}

TEST(BiquadBand, RecoversFromNonFiniteInputAtTheNextBlock)
{
    for (const auto& v : listedVariants(eq::BiquadBandVariants(), 4, eq::BiquadForm::DF2T)) {
        v.kernel->SetCoefficients(1, {0.5f, 0.2f, 0.1f, -0.3f, 0.2f});
        alignas(16) float block[4 * 8];
        std::fill(std::begin(block), std::end(block), std::numeric_limits<float>::infinity());
        v.kernel->Process(block, block, 8);
        std::fill(std::begin(block), std::end(block), 0.5f);
        v.kernel->Process(block, block, 8);
        for (const float f : block)
            EXPECT_TRUE(std::isfinite(f)) << v.name;
    }
}

} // namespace
} // namespace twa::numeric

#include "Algorithms/Interleave.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

namespace twa::numeric {
namespace {

using test::Guarded;
using test::kernelCounts;

// Bytes between guard bytes, starting on a 32-byte boundary.
class GuardedBytes {
public:
    static constexpr std::size_t kGuard = 64;
    static constexpr unsigned char kSentinel = 0xA5;
    explicit GuardedBytes(std::size_t n) : m_n(n), m_store(n + 2 * kGuard, kSentinel) {}
    unsigned char* data() { return m_store.data() + kGuard; }
    bool guardsIntact() const
    {
        for (std::size_t i = 0; i < m_store.size(); ++i)
            if ((i < kGuard || i >= kGuard + m_n) && m_store[i] != kSentinel)
                return false;
        return true;
    }

private:
    std::size_t m_n;
    std::vector<unsigned char, memory::aligned_allocator<unsigned char, 32>> m_store;
};

// Per-channel guarded float arrays and their pointer table.
struct Planar {
    Planar(std::size_t channels, std::size_t frames)
    {
        for (std::size_t c = 0; c < channels; ++c)
            bufs.emplace_back(frames);
        for (auto& b : bufs)
            ptrs.push_back(b.data());
    }
    bool guardsIntact() const
    {
        for (const auto& b : bufs)
            if (!b.guardsIntact())
                return false;
        return true;
    }
    std::vector<Guarded> bufs;
    std::vector<float*> ptrs;
};

const char* formatName(SampleFormat f)
{
    return f == SampleFormat::Int16 ? "i16" : f == SampleFormat::Int24 ? "i24" : "f32";
}

template <class Base>
std::vector<std::unique_ptr<Base>> variantsFor(std::span<const KernelVariant<Base, std::size_t, SampleFormat>> list,
                                               std::size_t c, SampleFormat f)
{
    test::ScopedCpuFeatures restore;
    test::ScopedCpuFeatures::Force(kIsaAVX2, true);
    std::vector<std::unique_ptr<Base>> out;
    for (const auto& v : list)
        if (MachineRuns(v.needs) && v.chosen(c, f))
            out.emplace_back(v.create(c, f));
    return out;
}

const std::size_t kChannelCounts[] = {1, 2, 3, 4, 5, 8, 12, 16, 32};
const SampleFormat kFormats[] = {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32};

TEST(Deinterleave, EveryVariantMatchesTheReferenceBitForBit)
{
    std::size_t simdRuns = 0;
    for (SampleFormat f : kFormats) {
        const std::size_t bytes = BytesPerSample(f);
        for (std::size_t c : kChannelCounts) {
            std::unique_ptr<Deinterleave> ref(NewDeinterleave_ref(c, f));
            for (const auto& v : variantsFor(DeinterleaveVariants(), c, f)) {
                EXPECT_EQ(v->ChannelCount(), c);
                EXPECT_EQ(v->Format(), f);
                simdRuns += std::string(v->Name()) != "Deinterleave_ref";
                for (std::size_t frames : kernelCounts()) {
                    const std::size_t n = frames * c * bytes;
                    GuardedBytes in(n);
                    std::mt19937 rng(static_cast<unsigned>(frames * 31 + c));
                    for (std::size_t i = 0; i < n; ++i)
                        in.data()[i] = static_cast<unsigned char>(rng());
                    if (f == SampleFormat::Float32) {
                        const auto xs = test::uniform(frames * c, -2.0f, 2.0f, static_cast<unsigned>(frames));
                        if (n > 0) // an empty vector's data() may be null
                            std::memcpy(in.data(), xs.data(), n);
                    }
                    Planar got(c, frames), want(c, frames);
                    v->Process(in.data(), got.ptrs.data(), frames);
                    ref->Process(in.data(), want.ptrs.data(), frames);
                    ASSERT_TRUE(got.guardsIntact()) << v->Name() << " frames=" << frames;
                    ASSERT_TRUE(in.guardsIntact());
                    for (std::size_t ch = 0; ch < c; ++ch)
                        for (std::size_t k = 0; k < frames; ++k)
                            ASSERT_TRUE(test::sameBits(got.bufs[ch][k], want.bufs[ch][k]))
                                << v->Name() << " c=" << c << " frames=" << frames << " ch=" << ch << " k=" << k;
                }
            }
        }
    }
    if (MachineRuns(IsaNeed::SSE41)) {
        EXPECT_GE(simdRuns, 9u) << "every format should have met at least three SIMD layouts";
    }
}

TEST(Interleave, EveryVariantMatchesTheReferenceBitForBit)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    // Out of range, non-finite and halfway values test clamping and rounding.
    const float special[] = {1.0f, -1.0f, 1.5f, -1.5f, nan, inf, -inf, 0.5f / 32768.0f, 1.5f / 32768.0f,
                             0.5f / 8388608.0f, -2.5f / 32768.0f, -0.0f};
    for (SampleFormat f : kFormats) {
        const std::size_t bytes = BytesPerSample(f);
        for (std::size_t c : kChannelCounts) {
            std::unique_ptr<Interleave> ref(NewInterleave_ref(c, f));
            for (const auto& v : variantsFor(InterleaveVariants(), c, f)) {
                for (std::size_t frames : kernelCounts()) {
                    Planar in(c, frames);
                    for (std::size_t ch = 0; ch < c; ++ch) {
                        in.bufs[ch].fill(test::uniform(frames, -1.2f, 1.2f, static_cast<unsigned>(ch * 7 + frames)));
                        for (std::size_t k = 0; k < frames; k += 5)
                            in.bufs[ch][k] = special[(k / 5 + ch) % std::size(special)];
                    }
                    const std::size_t n = frames * c * bytes;
                    GuardedBytes got(n), want(n);
                    v->Process(in.ptrs.data(), got.data(), frames);
                    ref->Process(in.ptrs.data(), want.data(), frames);
                    ASSERT_TRUE(got.guardsIntact()) << v->Name() << " c=" << c << " frames=" << frames;
                    ASSERT_EQ(std::memcmp(got.data(), want.data(), n), 0)
                        << v->Name() << " " << formatName(f) << " c=" << c << " frames=" << frames;
                }
            }
        }
    }
}

TEST(Interleave, IntegerScalingClampsAndRoundsToNearestEven)
{
    std::unique_ptr<Interleave> il;
    CreateInterleave(il, 1, SampleFormat::Int16);
    alignas(32) float in[8] = {1.0f, -1.0f, 0.5f, 1.5f / 32768.0f, 2.5f / 32768.0f, -3.0f,
                               std::numeric_limits<float>::quiet_NaN(), 0.0f};
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
    EXPECT_EQ(mono[0], -1.0f);
    EXPECT_EQ(mono[1], 8388607.0f / 8388608.0f);
    EXPECT_EQ(mono[2], 0.5f);
    EXPECT_EQ(mono[3], -1.0f / 8388608.0f);
}

TEST(Interleave, IntegerRoundTripIsLossless)
{
    for (SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24}) {
        for (std::size_t c : {2, 4, 6, 16}) {
            std::unique_ptr<Deinterleave> de;
            std::unique_ptr<Interleave> il;
            CreateDeinterleave(de, c, f);
            CreateInterleave(il, c, f);
            const std::size_t frames = 999;
            const std::size_t n = frames * c * BytesPerSample(f);
            GuardedBytes a(n), b(n);
            std::mt19937 rng(5);
            for (std::size_t i = 0; i < n; ++i)
                a.data()[i] = static_cast<unsigned char>(rng());
            Planar mid(c, frames);
            de->Process(a.data(), mid.ptrs.data(), frames);
            il->Process(mid.ptrs.data(), b.data(), frames);
            EXPECT_EQ(std::memcmp(a.data(), b.data(), n), 0) << de->Name() << " / " << il->Name();
        }
    }
}

} // namespace
} // namespace twa::numeric

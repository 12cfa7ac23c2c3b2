#include "Algorithms/Resample/Upsampler.h"

#include "Algorithms/Resample/ResampleTables.h"
#include "System/twa_assert.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

namespace twa::numeric {

// ---------------------------------------------------------------------------
// Coefficient block

namespace {

// The one non-zero tap of phase 1 when phase 0 of a factor-2 block reads the
// same backwards and has an even length; `taps` otherwise.
std::size_t symmetricHalfbandTap(const float* h, std::size_t factor, std::size_t taps) noexcept
{
    if (factor != 2 || taps < 2 || taps % 2 != 0)
        return taps;
    for (std::size_t k = 0; k < taps / 2; ++k)
        if (!(h[2 * k] == h[2 * (taps - 1 - k)]))
            return taps;
    return SingleTap(h, 2, 1, taps);
}

} // namespace

CoefficientBlock::CoefficientBlock(std::size_t granularity, const float* table, std::size_t count,
                                   std::size_t factor)
    : m_count(count), m_factor(factor), m_taps(factor ? count / factor : 0), m_bytes(0),
      m_granularity(granularity), m_halfbandTap(m_taps)
{
    if (factor == 0)
        throw std::invalid_argument("CoefficientBlock: factor must not be 0");
    if (granularity < 8 || (granularity & (granularity - 1)) != 0)
        throw std::bad_alloc();
    const std::size_t phaseBytes = (m_taps * sizeof(float) + granularity - 1) / granularity * granularity;
    m_bytes = phaseBytes * factor;
    m_data = static_cast<float*>(::operator new(m_bytes == 0 ? granularity : m_bytes, std::align_val_t{granularity}));
    std::memset(m_data, 0, m_bytes);
    // A table longer than L whole phases keeps only what fits.
    std::memcpy(m_data, table, std::min(count * sizeof(float), m_bytes));
    m_halfbandTap = symmetricHalfbandTap(m_data, factor, static_cast<std::size_t>(m_taps));
}

CoefficientBlock::~CoefficientBlock()
{
    ::operator delete(m_data, std::align_val_t{m_granularity});
}

const float* CoefficientBlock::Data() const noexcept { return m_data; }
std::uint64_t CoefficientBlock::Count() const noexcept { return m_count; }
std::uint64_t CoefficientBlock::Factor() const noexcept { return m_factor; }
std::uint64_t CoefficientBlock::TapsPerPhase() const noexcept { return m_taps; }
std::size_t CoefficientBlock::StorageBytes() const noexcept { return m_bytes; }
std::size_t CoefficientBlock::Granularity() const noexcept { return m_granularity; }
bool CoefficientBlock::IsSymmetricHalfband() const noexcept { return m_halfbandTap < m_taps; }
std::uint64_t CoefficientBlock::HalfbandTap() const noexcept { return m_halfbandTap; }

// ---------------------------------------------------------------------------
// Variant infos. Out of line on purpose: no copy of them may be compiled with
// a per-ISA file's flags.

AlgoInfo::~AlgoInfo() = default;
bool AlgoInfo::NeedsTableShape() const noexcept { return false; }
bool AlgoInfo::Serves(const CoefficientBlock&) const noexcept { return true; }

#define TWA_DEFINE_POLYPHASE_INFO(NAME, TEXT, ALIGN, FRAMES, CHANNELS, LEVEL, FMA, NEED)          \
    NAME::NAME() noexcept = default;                                                                \
    NAME::~NAME() = default;                                                                        \
    std::size_t NAME::Alignment() const noexcept { return ALIGN; }                                  \
    std::size_t NAME::BlockFrames() const noexcept { return FRAMES; }                               \
    std::size_t NAME::ChannelCount() const noexcept { return CHANNELS; }                            \
    bool NAME::IsSupported(const InstructionSetSettings& f) const noexcept                         \
    {                                                                                               \
        return f.level >= (LEVEL) && (!(FMA) || f.fma);                                             \
    }                                                                                               \
    const char* NAME::Name() const noexcept { return TEXT; }                                        \
    IsaNeed NAME::Needs() const noexcept { return IsaNeed::NEED; }

// Block frames: lanes / channels, times the accumulator blocks per step (the
// _Sym kernels: times the output vectors one round of a pass takes).
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c1_m256, "Upsampler_x2_Algo_c1_m256", 32, 32, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c1_m128, "Upsampler_x2_Algo_c1_m128", 16, 16, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c2_m256, "Upsampler_x2_Algo_c2_m256", 32, 16, 2, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c2_m128, "Upsampler_x2_Algo_c2_m128", 16, 8, 2, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c1_m256_fma, "Downsampler_x2_Sym_Algo_c1_m256_fma", 32, 32, 1, kIsaAVX, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c1_m256, "Downsampler_x2_Sym_Algo_c1_m256", 32, 32, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c2_m256_fma, "Downsampler_x2_Sym_Algo_c2_m256_fma", 32, 16, 2, kIsaAVX, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c2_m256, "Downsampler_x2_Sym_Algo_c2_m256", 32, 16, 2, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c1_m128_fma, "Downsampler_x2_Sym_Algo_c1_m128_fma", 16, 16, 1, kIsaSSE2, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c1_m128, "Downsampler_x2_Sym_Algo_c1_m128", 16, 16, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c2_m128_fma, "Downsampler_x2_Sym_Algo_c2_m128_fma", 16, 8, 2, kIsaSSE2, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Sym_Algo_Info_c2_m128, "Downsampler_x2_Sym_Algo_c2_m128", 16, 8, 2, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m256_fma, "Downsampler_x2_Algo_c1_m256_fma", 32, 64, 1, kIsaAVX, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m256, "Downsampler_x2_Algo_c1_m256", 32, 64, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m256_fma, "Downsampler_x2_Algo_c2_m256_fma", 32, 32, 2, kIsaAVX, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m256, "Downsampler_x2_Algo_c2_m256", 32, 32, 2, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m128_fma, "Downsampler_x2_Algo_c1_m128_fma", 16, 32, 1, kIsaSSE2, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m128, "Downsampler_x2_Algo_c1_m128", 16, 32, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m128_fma, "Downsampler_x2_Algo_c2_m128_fma", 16, 16, 2, kIsaSSE2, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m128, "Downsampler_x2_Algo_c2_m128", 16, 16, 2, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c1_m256, "Upsampler_x4_Algo_c1_m256", 32, 16, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c1_m128, "Upsampler_x4_Algo_c1_m128", 16, 8, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c2_m256, "Upsampler_x4_Algo_c2_m256", 32, 8, 2, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c2_m128, "Upsampler_x4_Algo_c2_m128", 16, 4, 2, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m256_fma, "Downsampler_x4_Algo_c1_m256_fma", 32, 64, 1, kIsaAVX, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m256, "Downsampler_x4_Algo_c1_m256", 32, 64, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m128_fma, "Downsampler_x4_Algo_c1_m128_fma", 16, 32, 1, kIsaSSE2, true, FMA)
TWA_DEFINE_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m128, "Downsampler_x4_Algo_c1_m128", 16, 32, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m256_avx2, "Upsampler_x8_Algo_c1_m256_avx2", 32, 8, 1, kIsaAVX2, false, AVX2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m256, "Upsampler_x8_Algo_c1_m256", 32, 8, 1, kIsaAVX, false, AVX)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m128, "Upsampler_x8_Algo_c1_m128", 16, 4, 1, kIsaSSE2, false, SSE2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c2_m256_avx2, "Upsampler_x8_Algo_c2_m256_avx2", 32, 4, 2, kIsaAVX2, false, AVX2)
TWA_DEFINE_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c2_m256, "Upsampler_x8_Algo_c2_m256", 32, 4, 2, kIsaAVX, false, AVX)

#undef TWA_DEFINE_POLYPHASE_INFO

#define TWA_DEFINE_POLYPHASE_SYM_SHAPE(NAME)                                                        \
    bool NAME::NeedsTableShape() const noexcept { return true; }                                    \
    bool NAME::Serves(const CoefficientBlock& coefs) const noexcept { return coefs.IsSymmetricHalfband(); }

TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c1_m256_fma)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c1_m256)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c2_m256_fma)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c2_m256)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c1_m128_fma)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c1_m128)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c2_m128_fma)
TWA_DEFINE_POLYPHASE_SYM_SHAPE(Downsampler_x2_Sym_Algo_Info_c2_m128)

#undef TWA_DEFINE_POLYPHASE_SYM_SHAPE

// ---------------------------------------------------------------------------
// Algorithm objects

AlgoPolyphase::AlgoPolyphase() noexcept = default;
AlgoPolyphase::~AlgoPolyphase() = default;

#define TWA_DEFINE_POLYPHASE_BASE(NAME, FACTOR, DOWN)                      \
    NAME::~NAME() = default;                                              \
    std::size_t NAME::Factor() const noexcept { return FACTOR; }          \
    bool NAME::IsDownsampler() const noexcept { return DOWN; }

TWA_DEFINE_POLYPHASE_BASE(AlgoUpsampler_x2, 2, false)
TWA_DEFINE_POLYPHASE_BASE(AlgoUpsampler_x4, 4, false)
TWA_DEFINE_POLYPHASE_BASE(AlgoUpsampler_x8, 8, false)
TWA_DEFINE_POLYPHASE_BASE(AlgoDownsampler_x2, 2, true)
TWA_DEFINE_POLYPHASE_BASE(AlgoDownsampler_x4, 4, true)

#undef TWA_DEFINE_POLYPHASE_BASE

namespace {

// Input consumed by `frames` steps of a kernel.
const float* advanced(const AlgoPolyphase& a, const float* in, std::size_t frames) noexcept
{
    const std::size_t steps = a.IsDownsampler() ? frames / a.Factor() * a.Factor() : frames;
    return in + steps * a.ChannelCount();
}

// A specialised kernel bound to its family's base; the queries come from the info.
template <class Base, PolyphaseKernel Kernel, std::size_t Channels>
class KernelAlgo : public Base {
public:
    const float* Process(const CoefficientBlock& coefs, const float* in, float* out,
                         std::size_t frames) const noexcept override
    {
        if (!out) {
            const std::size_t steps = Base::kDown ? frames / Base::kFactor * Base::kFactor : frames;
            return in + steps * Channels;
        }
        return Kernel(coefs.Data(), static_cast<std::size_t>(coefs.TapsPerPhase()), in, out, frames);
    }
};

// The symmetric half-band kernel on blocks of that shape (checked when the
// block was built), the generic kernel of the same instruction set on others.
template <HalfbandKernel Sym, PolyphaseKernel Generic, std::size_t Channels>
class HalfbandAlgo : public AlgoDownsampler_x2 {
public:
    const float* Process(const CoefficientBlock& coefs, const float* in, float* out,
                         std::size_t frames) const noexcept override
    {
        if (!out)
            return in + frames / kFactor * kFactor * Channels;
        const auto taps = static_cast<std::size_t>(coefs.TapsPerPhase());
        if (coefs.IsSymmetricHalfband())
            return Sym(coefs.Data(), taps, static_cast<std::size_t>(coefs.HalfbandTap()), in, out, frames);
        return Generic(coefs.Data(), taps, in, out, frames);
    }
};

template <class Algo, class Info>
class AlgoSpecialized final : public Algo {
public:
    std::size_t Alignment() const noexcept override { return m_info.Alignment(); }
    std::size_t BlockFrames() const noexcept override { return m_info.BlockFrames(); }
    std::size_t ChannelCount() const noexcept override { return m_info.ChannelCount(); }
    bool IsSupported(const InstructionSetSettings& f) const noexcept override { return m_info.IsSupported(f); }
    const char* Name() const noexcept override { return m_info.Name(); }

private:
    Info m_info;
};

template <class Algo, class Info>
using AlgoUpsamplerSpecialized = AlgoSpecialized<Algo, Info>;
template <class Algo, class Info>
using AlgoDownsamplerSpecialized = AlgoSpecialized<Algo, Info>;
template <HalfbandKernel Sym, PolyphaseKernel Generic, std::size_t Channels, class Info>
using AlgoHalfbandSpecialized = AlgoSpecialized<HalfbandAlgo<Sym, Generic, Channels>, Info>;

// The reference kernel of a family; serves any channel count.
template <class Base>
class AlgoRef final : public Base {
public:
    AlgoRef(std::size_t channels, const char* name) noexcept : m_channels(channels), m_name(name) {}
    std::size_t Alignment() const noexcept override { return 8; }
    std::size_t BlockFrames() const noexcept override { return 0; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    bool IsSupported(const InstructionSetSettings&) const noexcept override { return false; }
    const char* Name() const noexcept override { return m_name; }
    const float* Process(const CoefficientBlock& coefs, const float* in, float* out,
                         std::size_t frames) const noexcept override
    {
        if (!out)
            return advanced(*this, in, frames);
        const std::size_t taps = static_cast<std::size_t>(coefs.TapsPerPhase());
        return this->IsDownsampler()
                   ? DownsampleFIR_ref(this->Factor(), m_channels, coefs.Data(), taps, in, out, frames)
                   : UpsampleFIR_ref(this->Factor(), m_channels, coefs.Data(), taps, in, out, frames);
    }

private:
    std::size_t m_channels;
    const char* m_name;
};

using Upsampler_x2_Algo_Ref = AlgoRef<AlgoUpsampler_x2>;
using Upsampler_x4_Algo_Ref = AlgoRef<AlgoUpsampler_x4>;
using Upsampler_x8_Algo_Ref = AlgoRef<AlgoUpsampler_x8>;
using Downsampler_x2_Algo_Ref = AlgoRef<AlgoDownsampler_x2>;
using Downsampler_x4_Algo_Ref = AlgoRef<AlgoDownsampler_x4>;

using Upsampler_x2_Algo_c1_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x2, &m256::Upsampler_x2_c1_FIR, 1>, Upsampler_x2_Algo_Info_c1_m256>;
using Upsampler_x2_Algo_c1_m128 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x2, &m128::Upsampler_x2_c1_FIR, 1>, Upsampler_x2_Algo_Info_c1_m128>;
using Upsampler_x2_Algo_c2_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x2, &m256::Upsampler_x2_c2_FIR, 2>, Upsampler_x2_Algo_Info_c2_m256>;
using Upsampler_x2_Algo_c2_m128 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x2, &m128::Upsampler_x2_c2_FIR, 2>, Upsampler_x2_Algo_Info_c2_m128>;

using Downsampler_x2_Sym_Algo_c1_m256_fma =
    AlgoHalfbandSpecialized<&m256_fma::Downsampler_x2_c1_Sym, &m256_fma::Downsampler_x2_c1_FIR, 1,
                            Downsampler_x2_Sym_Algo_Info_c1_m256_fma>;
using Downsampler_x2_Sym_Algo_c1_m256 =
    AlgoHalfbandSpecialized<&m256::Downsampler_x2_c1_Sym, &m256::Downsampler_x2_c1_FIR, 1,
                            Downsampler_x2_Sym_Algo_Info_c1_m256>;
using Downsampler_x2_Sym_Algo_c2_m256_fma =
    AlgoHalfbandSpecialized<&m256_fma::Downsampler_x2_c2_Sym, &m256_fma::Downsampler_x2_c2_FIR, 2,
                            Downsampler_x2_Sym_Algo_Info_c2_m256_fma>;
using Downsampler_x2_Sym_Algo_c2_m256 =
    AlgoHalfbandSpecialized<&m256::Downsampler_x2_c2_Sym, &m256::Downsampler_x2_c2_FIR, 2,
                            Downsampler_x2_Sym_Algo_Info_c2_m256>;
using Downsampler_x2_Sym_Algo_c1_m128_fma =
    AlgoHalfbandSpecialized<&m128_fma::Downsampler_x2_c1_Sym, &m128_fma::Downsampler_x2_c1_FIR, 1,
                            Downsampler_x2_Sym_Algo_Info_c1_m128_fma>;
using Downsampler_x2_Sym_Algo_c1_m128 =
    AlgoHalfbandSpecialized<&m128::Downsampler_x2_c1_Sym, &m128::Downsampler_x2_c1_FIR, 1,
                            Downsampler_x2_Sym_Algo_Info_c1_m128>;
using Downsampler_x2_Sym_Algo_c2_m128_fma =
    AlgoHalfbandSpecialized<&m128_fma::Downsampler_x2_c2_Sym, &m128_fma::Downsampler_x2_c2_FIR, 2,
                            Downsampler_x2_Sym_Algo_Info_c2_m128_fma>;
using Downsampler_x2_Sym_Algo_c2_m128 =
    AlgoHalfbandSpecialized<&m128::Downsampler_x2_c2_Sym, &m128::Downsampler_x2_c2_FIR, 2,
                            Downsampler_x2_Sym_Algo_Info_c2_m128>;

using Downsampler_x2_Algo_c1_m256_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m256_fma::Downsampler_x2_c1_FIR, 1>,
                               Downsampler_x2_Algo_Info_c1_m256_fma>;
using Downsampler_x2_Algo_c1_m256 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m256::Downsampler_x2_c1_FIR, 1>,
                               Downsampler_x2_Algo_Info_c1_m256>;
using Downsampler_x2_Algo_c2_m256_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m256_fma::Downsampler_x2_c2_FIR, 2>,
                               Downsampler_x2_Algo_Info_c2_m256_fma>;
using Downsampler_x2_Algo_c2_m256 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m256::Downsampler_x2_c2_FIR, 2>,
                               Downsampler_x2_Algo_Info_c2_m256>;
using Downsampler_x2_Algo_c1_m128_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m128_fma::Downsampler_x2_c1_FIR, 1>,
                               Downsampler_x2_Algo_Info_c1_m128_fma>;
using Downsampler_x2_Algo_c1_m128 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m128::Downsampler_x2_c1_FIR, 1>,
                               Downsampler_x2_Algo_Info_c1_m128>;
using Downsampler_x2_Algo_c2_m128_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m128_fma::Downsampler_x2_c2_FIR, 2>,
                               Downsampler_x2_Algo_Info_c2_m128_fma>;
using Downsampler_x2_Algo_c2_m128 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x2, &m128::Downsampler_x2_c2_FIR, 2>,
                               Downsampler_x2_Algo_Info_c2_m128>;

using Upsampler_x4_Algo_c1_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x4, &m256::Upsampler_x4_c1_FIR, 1>, Upsampler_x4_Algo_Info_c1_m256>;
using Upsampler_x4_Algo_c1_m128 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x4, &m128::Upsampler_x4_c1_FIR, 1>, Upsampler_x4_Algo_Info_c1_m128>;
using Upsampler_x4_Algo_c2_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x4, &m256::Upsampler_x4_c2_FIR, 2>, Upsampler_x4_Algo_Info_c2_m256>;
using Upsampler_x4_Algo_c2_m128 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x4, &m128::Upsampler_x4_c2_FIR, 2>, Upsampler_x4_Algo_Info_c2_m128>;

using Downsampler_x4_Algo_c1_m256_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x4, &m256_fma::Downsampler_x4_c1_FIR, 1>,
                               Downsampler_x4_Algo_Info_c1_m256_fma>;
using Downsampler_x4_Algo_c1_m256 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x4, &m256::Downsampler_x4_c1_FIR, 1>,
                               Downsampler_x4_Algo_Info_c1_m256>;
using Downsampler_x4_Algo_c1_m128_fma =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x4, &m128_fma::Downsampler_x4_c1_FIR, 1>,
                               Downsampler_x4_Algo_Info_c1_m128_fma>;
using Downsampler_x4_Algo_c1_m128 =
    AlgoDownsamplerSpecialized<KernelAlgo<AlgoDownsampler_x4, &m128::Downsampler_x4_c1_FIR, 1>,
                               Downsampler_x4_Algo_Info_c1_m128>;

using Upsampler_x8_Algo_c1_m256_avx2 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x8, &m256_avx2::Upsampler_x8_c1_FIR, 1>,
                             Upsampler_x8_Algo_Info_c1_m256_avx2>;
using Upsampler_x8_Algo_c1_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x8, &m256::Upsampler_x8_c1_FIR, 1>, Upsampler_x8_Algo_Info_c1_m256>;
using Upsampler_x8_Algo_c1_m128 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x8, &m128::Upsampler_x8_c1_FIR, 1>, Upsampler_x8_Algo_Info_c1_m128>;
using Upsampler_x8_Algo_c2_m256_avx2 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x8, &m256_avx2::Upsampler_x8_c2_FIR, 2>,
                             Upsampler_x8_Algo_Info_c2_m256_avx2>;
using Upsampler_x8_Algo_c2_m256 =
    AlgoUpsamplerSpecialized<KernelAlgo<AlgoUpsampler_x8, &m256::Upsampler_x8_c2_FIR, 2>, Upsampler_x8_Algo_Info_c2_m256>;

template <class T>
AlgoPolyphase* make()
{
    return new T();
}

template <class T>
const AlgoInfo& infoOf()
{
    static const T info;
    return info;
}

const char* refName(PolyphaseFamily family)
{
    switch (family) {
    case PolyphaseFamily::Up2:
        return "Upsampler_x2_Algo_Ref";
    case PolyphaseFamily::Up4:
        return "Upsampler_x4_Algo_Ref";
    case PolyphaseFamily::Up8:
        return "Upsampler_x8_Algo_Ref";
    case PolyphaseFamily::Down2:
        return "Downsampler_x2_Algo_Ref";
    case PolyphaseFamily::Down4:
        return "Downsampler_x4_Algo_Ref";
    }
    return "?";
}

// With no block, variants that need a table shape are passed over.
const PolyphaseVariant* firstSupported(PolyphaseFamily family, std::size_t channels,
                                       const InstructionSetSettings& features, const CoefficientBlock* coefs)
{
    if (channels != 1 && channels != 2)
        return nullptr;
    for (const auto& v : PolyphaseVariants(family)) {
        if (v.info.ChannelCount() != channels || !v.info.IsSupported(features))
            continue;
        if (coefs ? v.info.Serves(*coefs) : !v.info.NeedsTableShape())
            return &v;
    }
    return nullptr;
}

const char* install(std::unique_ptr<AlgoPolyphase>& out, const PolyphaseVariant* v, PolyphaseFamily family,
                    std::size_t channels)
{
    std::unique_ptr<AlgoPolyphase> made(v ? v->create() : nullptr);
    if (!made)
        made = CreatePolyphaseRef(family, channels);
    out.swap(made);
    return out->Name();
}

} // namespace

std::span<const PolyphaseVariant> PolyphaseVariants(PolyphaseFamily family)
{
    // Widest first, the kernels for symmetric half-band blocks ahead of the
    // generic ones (they are only chosen for such blocks). The 256-bit downsamplers and the 2-channel kernels of the
    // x2 and x4 upsamplers beyond the 128-bit ones let stereo oversampling and
    // true-peak meters use 256-bit lanes. Built on first use, so other static
    // initialisers may ask.
    static const PolyphaseVariant kUp2[] = {
        {infoOf<Upsampler_x2_Algo_Info_c1_m256>(), &make<Upsampler_x2_Algo_c1_m256>},
        {infoOf<Upsampler_x2_Algo_Info_c1_m128>(), &make<Upsampler_x2_Algo_c1_m128>},
        {infoOf<Upsampler_x2_Algo_Info_c2_m256>(), &make<Upsampler_x2_Algo_c2_m256>},
        {infoOf<Upsampler_x2_Algo_Info_c2_m128>(), &make<Upsampler_x2_Algo_c2_m128>},
    };
    static const PolyphaseVariant kDown2[] = {
        {infoOf<Downsampler_x2_Sym_Algo_Info_c1_m256_fma>(), &make<Downsampler_x2_Sym_Algo_c1_m256_fma>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c1_m256>(), &make<Downsampler_x2_Sym_Algo_c1_m256>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c1_m128_fma>(), &make<Downsampler_x2_Sym_Algo_c1_m128_fma>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c1_m128>(), &make<Downsampler_x2_Sym_Algo_c1_m128>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c2_m256_fma>(), &make<Downsampler_x2_Sym_Algo_c2_m256_fma>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c2_m256>(), &make<Downsampler_x2_Sym_Algo_c2_m256>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c2_m128_fma>(), &make<Downsampler_x2_Sym_Algo_c2_m128_fma>},
        {infoOf<Downsampler_x2_Sym_Algo_Info_c2_m128>(), &make<Downsampler_x2_Sym_Algo_c2_m128>},
        {infoOf<Downsampler_x2_Algo_Info_c1_m256_fma>(), &make<Downsampler_x2_Algo_c1_m256_fma>},
        {infoOf<Downsampler_x2_Algo_Info_c1_m256>(), &make<Downsampler_x2_Algo_c1_m256>},
        {infoOf<Downsampler_x2_Algo_Info_c1_m128_fma>(), &make<Downsampler_x2_Algo_c1_m128_fma>},
        {infoOf<Downsampler_x2_Algo_Info_c1_m128>(), &make<Downsampler_x2_Algo_c1_m128>},
        {infoOf<Downsampler_x2_Algo_Info_c2_m256_fma>(), &make<Downsampler_x2_Algo_c2_m256_fma>},
        {infoOf<Downsampler_x2_Algo_Info_c2_m256>(), &make<Downsampler_x2_Algo_c2_m256>},
        {infoOf<Downsampler_x2_Algo_Info_c2_m128_fma>(), &make<Downsampler_x2_Algo_c2_m128_fma>},
        {infoOf<Downsampler_x2_Algo_Info_c2_m128>(), &make<Downsampler_x2_Algo_c2_m128>},
    };
    static const PolyphaseVariant kUp4[] = {
        {infoOf<Upsampler_x4_Algo_Info_c1_m256>(), &make<Upsampler_x4_Algo_c1_m256>},
        {infoOf<Upsampler_x4_Algo_Info_c1_m128>(), &make<Upsampler_x4_Algo_c1_m128>},
        {infoOf<Upsampler_x4_Algo_Info_c2_m256>(), &make<Upsampler_x4_Algo_c2_m256>},
        {infoOf<Upsampler_x4_Algo_Info_c2_m128>(), &make<Upsampler_x4_Algo_c2_m128>},
    };
    static const PolyphaseVariant kDown4[] = {
        {infoOf<Downsampler_x4_Algo_Info_c1_m256_fma>(), &make<Downsampler_x4_Algo_c1_m256_fma>},
        {infoOf<Downsampler_x4_Algo_Info_c1_m256>(), &make<Downsampler_x4_Algo_c1_m256>},
        {infoOf<Downsampler_x4_Algo_Info_c1_m128_fma>(), &make<Downsampler_x4_Algo_c1_m128_fma>},
        {infoOf<Downsampler_x4_Algo_Info_c1_m128>(), &make<Downsampler_x4_Algo_c1_m128>},
    };
    static const PolyphaseVariant kUp8[] = {
        {infoOf<Upsampler_x8_Algo_Info_c1_m256_avx2>(), &make<Upsampler_x8_Algo_c1_m256_avx2>},
        {infoOf<Upsampler_x8_Algo_Info_c1_m256>(), &make<Upsampler_x8_Algo_c1_m256>},
        {infoOf<Upsampler_x8_Algo_Info_c1_m128>(), &make<Upsampler_x8_Algo_c1_m128>},
        {infoOf<Upsampler_x8_Algo_Info_c2_m256_avx2>(), &make<Upsampler_x8_Algo_c2_m256_avx2>},
        {infoOf<Upsampler_x8_Algo_Info_c2_m256>(), &make<Upsampler_x8_Algo_c2_m256>},
    };
    switch (family) {
    case PolyphaseFamily::Up2:
        return kUp2;
    case PolyphaseFamily::Up4:
        return kUp4;
    case PolyphaseFamily::Up8:
        return kUp8;
    case PolyphaseFamily::Down2:
        return kDown2;
    case PolyphaseFamily::Down4:
        return kDown4;
    }
    return {};
}

std::unique_ptr<AlgoPolyphase> CreatePolyphaseRef(PolyphaseFamily family, std::size_t channels)
{
    const char* name = refName(family);
    switch (family) {
    case PolyphaseFamily::Up2:
        return std::make_unique<Upsampler_x2_Algo_Ref>(channels, name);
    case PolyphaseFamily::Up4:
        return std::make_unique<Upsampler_x4_Algo_Ref>(channels, name);
    case PolyphaseFamily::Up8:
        return std::make_unique<Upsampler_x8_Algo_Ref>(channels, name);
    case PolyphaseFamily::Down2:
        return std::make_unique<Downsampler_x2_Algo_Ref>(channels, name);
    case PolyphaseFamily::Down4:
        return std::make_unique<Downsampler_x4_Algo_Ref>(channels, name);
    }
    return nullptr;
}

const char* CreatePolyphaseAlgo(std::unique_ptr<AlgoPolyphase>& out, PolyphaseFamily family, std::size_t channels,
                                const InstructionSetSettings& features)
{
    return install(out, firstSupported(family, channels, features, nullptr), family, channels);
}

const char* CreatePolyphaseAlgo(std::unique_ptr<AlgoPolyphase>& out, PolyphaseFamily family, std::size_t channels,
                                const InstructionSetSettings& features, const CoefficientBlock& coefs)
{
    return install(out, firstSupported(family, channels, features, &coefs), family, channels);
}

const char* ChosenPolyphaseAlgo(PolyphaseFamily family, std::size_t channels, const InstructionSetSettings& features)
{
    const PolyphaseVariant* v = firstSupported(family, channels, features, nullptr);
    return v ? v->info.Name() : refName(family);
}

const char* ChosenPolyphaseAlgo(PolyphaseFamily family, std::size_t channels, const InstructionSetSettings& features,
                                const CoefficientBlock& coefs)
{
    const PolyphaseVariant* v = firstSupported(family, channels, features, &coefs);
    return v ? v->info.Name() : refName(family);
}

// ---------------------------------------------------------------------------
// Generic framing

namespace {

std::size_t factorOf(PolyphaseFamily f)
{
    switch (f) {
    case PolyphaseFamily::Up2:
    case PolyphaseFamily::Down2:
        return 2;
    case PolyphaseFamily::Up4:
    case PolyphaseFamily::Down4:
        return 4;
    case PolyphaseFamily::Up8:
        return 8;
    }
    return 1;
}

bool isDown(PolyphaseFamily f)
{
    return f == PolyphaseFamily::Down2 || f == PolyphaseFamily::Down4;
}

// The largest of 8 and the alignments any variant the features allow asks
// for: the block is built before the choice that may depend on its shape.
std::size_t granularityOf(PolyphaseFamily family, const InstructionSetSettings& features)
{
    std::size_t g = 8;
    for (const auto& v : PolyphaseVariants(family))
        if (v.info.IsSupported(features))
            g = std::max(g, v.info.Alignment());
    return g;
}

bool aligned32(const float* p)
{
    return (reinterpret_cast<std::uintptr_t>(p) & 31u) == 0;
}

} // namespace

PolyphaseResampler::PolyphaseResampler(PolyphaseFamily family, const float* table, std::size_t count,
                                       std::size_t channels, std::size_t inFrameSize)
    : m_channels(channels), m_factor(factorOf(family)), m_down(isDown(family)), m_inFrameSize(inFrameSize),
      m_filterLength(count), m_taps(count / factorOf(family))
{
    if (channels == 0 || inFrameSize == 0)
        throw std::invalid_argument("PolyphaseResampler: channels and frames per piece must not be 0");
    const InstructionSetSettings features = GetFeatureSet();
    m_coefs = std::make_unique<CoefficientBlock>(granularityOf(family, features), table, count, m_factor);
    CreatePolyphaseAlgo(m_algo, family, channels, features, *m_coefs);
    // A downsampler keeps up to N - 1 frames; an upsampler K - 1.
    const std::size_t history = m_down ? m_filterLength - 1 : (m_taps ? m_taps - 1 : 0);
    m_staging.assign((history + m_inFrameSize) * m_channels, 0.0f);
    m_outScratch.assign(m_down ? m_inFrameSize / m_factor * m_channels + m_channels
                               : m_inFrameSize * m_factor * m_channels,
                        0.0f);
    Reset();
}

PolyphaseResampler::~PolyphaseResampler() = default;

std::size_t PolyphaseResampler::historyAfterReset() const noexcept
{
    // The downsampler's first output lines up with the first input frame, so
    // it starts one frame further into its window than it keeps afterwards.
    if (m_down)
        return m_filterLength ? m_filterLength - 1 : 0;
    return m_taps ? m_taps - 1 : 0;
}

std::size_t PolyphaseResampler::Latency() const noexcept
{
    return m_taps / 2;
}

std::size_t PolyphaseResampler::OutputFrames(std::size_t inFrames) const noexcept
{
    if (!m_down)
        return inFrames * m_factor;
    const std::size_t have = m_have + inFrames;
    return have >= m_filterLength ? (have - m_filterLength) / m_factor + 1 : 0;
}

void PolyphaseResampler::Reset() noexcept
{
    std::fill(m_staging.begin(), m_staging.end(), 0.0f);
    m_have = historyAfterReset();
}

std::size_t PolyphaseResampler::Process(const float* in, std::size_t frames, float* out) noexcept
{
    const std::size_t c = m_channels;
    const float* const in_begin = in;
    const float* const in_end = in ? in + frames * c : nullptr;
    QVD_ASSERT(in_end - in_begin >= 0);
    std::size_t written = 0;
    std::size_t done = 0;
    while (done < frames) {
        const std::size_t in_frame_size = std::min(frames - done, m_inFrameSize);
        QVD_ASSERT(in_frame_size <= InFrameSize());
        float* stage = m_staging.data();
        float* piece = stage + m_have * c;
        if (in)
            std::copy_n(in + done * c, in_frame_size * c, piece);
        else
            std::fill_n(piece, in_frame_size * c, 0.0f);
        const std::size_t have = m_have + in_frame_size;

        std::size_t steps = 0;
        std::size_t produced = 0;
        if (m_down) {
            const std::size_t outs = have >= m_filterLength ? (have - m_filterLength) / m_factor + 1 : 0;
            steps = outs * m_factor;
            produced = outs;
        } else {
            steps = have - (m_taps ? m_taps - 1 : 0);
            produced = steps * m_factor;
        }

        float* dst = nullptr;
        if (out)
            dst = aligned32(out + written * c) ? out + written * c : m_outScratch.data();
        const float* beg = m_algo->Process(*m_coefs, stage, dst, steps);
        const float* end = stage + have * c;
        QVD_ASSERT(end - beg >= 0);
        if (out && dst != out + written * c)
            std::copy_n(dst, produced * c, out + written * c);

        // What the kernel did not consume is the history of the next piece.
        std::copy(beg, end, stage);
        m_have = static_cast<std::size_t>(end - beg) / c;
        written += produced;
        done += in_frame_size;
    }
    return written;
}

// ---------------------------------------------------------------------------
// Converters

Upsampler_x2::Upsampler_x2(std::size_t channels, std::size_t inFrameSize, bool shortFilter)
    : PolyphaseResampler(PolyphaseFamily::Up2, shortFilter ? tables::kUpsampler_x2_short : tables::kUpsampler_x2,
                         shortFilter ? 64 : 96, channels, inFrameSize)
{
}

Upsampler_x4::Upsampler_x4(std::size_t channels, std::size_t inFrameSize)
    : PolyphaseResampler(PolyphaseFamily::Up4, tables::kUpsampler_x4, 192, channels, inFrameSize)
{
}

Upsampler_x8::Upsampler_x8(std::size_t channels, std::size_t inFrameSize)
    : PolyphaseResampler(PolyphaseFamily::Up8, tables::kUpsampler_x8, 384, channels, inFrameSize)
{
}

Downsampler_x2::Downsampler_x2(std::size_t channels, std::size_t inFrameSize)
    : PolyphaseResampler(PolyphaseFamily::Down2, tables::kDownsampler_x2, 192, channels, inFrameSize)
{
}

Downsampler_x4::Downsampler_x4(std::size_t channels, std::size_t inFrameSize)
    : PolyphaseResampler(PolyphaseFamily::Down4, tables::kDownsampler_x4, 384, channels, inFrameSize)
{
}

UpsamplerTruePeak_x4::UpsamplerTruePeak_x4(std::size_t channels, std::size_t inFrameSize)
    : PolyphaseResampler(PolyphaseFamily::Up4, tables::kUpsamplerTruePeak_x4, 48, channels, inFrameSize)
{
}

} // namespace twa::numeric

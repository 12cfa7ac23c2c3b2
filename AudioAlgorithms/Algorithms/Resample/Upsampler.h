#pragma once
// Integer-factor polyphase sample-rate converters: up by 2, 4 or 8, down by 2
// or 4. Each converter is a coefficient block, one kernel object chosen for
// its channel count and the instruction sets at hand, and a staging buffer
// that carries the filter history from call to call.

#include "Algorithms/Resample/ResampleKernels.h"
#include "System/twa_aligned_allocator.h"
#include "System/twa_cpuinfo_x86.h"
#include "System/twa_dispatch.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace twa::numeric {

// Polyphase coefficients on aligned storage: the table's N values at the
// front, zeros after, L * round_up(K * 4, granularity) bytes in all.
class CoefficientBlock {
public:
    // [not while processing] Throws std::invalid_argument for a factor of 0,
    // std::bad_alloc for a granularity below 8 or not a power of two, or when
    // memory runs out.
    CoefficientBlock(std::size_t granularity, const float* table, std::size_t count, std::size_t factor);
    ~CoefficientBlock();
    CoefficientBlock(const CoefficientBlock&) = delete;
    CoefficientBlock& operator=(const CoefficientBlock&) = delete;

    // [any-thread]
    const float* Data() const noexcept;
    std::uint64_t Count() const noexcept;        // N
    std::uint64_t Factor() const noexcept;       // L
    std::uint64_t TapsPerPhase() const noexcept; // N / L
    std::size_t StorageBytes() const noexcept;
    std::size_t Granularity() const noexcept;
    // [any-thread] Found when the block is built: a factor of 2, an even
    // number of taps, phase 0 the same read backwards and phase 1 a single
    // non-zero tap. The half-band downsampler tables have this shape; the
    // _Sym kernels rely on it.
    bool IsSymmetricHalfband() const noexcept;
    // [any-thread] That tap of phase 1; TapsPerPhase() without the shape.
    std::uint64_t HalfbandTap() const noexcept;

private:
    float* m_data = nullptr;
    std::uint64_t m_count;
    std::uint64_t m_factor;
    std::uint64_t m_taps;
    std::size_t m_bytes;
    std::size_t m_granularity;
    std::uint64_t m_halfbandTap; // m_taps without the half-band shape
};

// What a specialised kernel needs and serves.
class AlgoInfo {
public:
    virtual ~AlgoInfo();
    // [any-thread] Alignment in bytes the kernel checks on its pointers.
    virtual std::size_t Alignment() const noexcept = 0;
    // [any-thread] Frames the kernel handles per vector step; shorter runs
    // take its scalar tail. 0 means no preference.
    virtual std::size_t BlockFrames() const noexcept = 0;
    // [any-thread] 1 or 2.
    virtual std::size_t ChannelCount() const noexcept = 0;
    // [any-thread] Whether the dispatch may pick it under these answers.
    virtual bool IsSupported(const InstructionSetSettings& features) const noexcept = 0;
    // [any-thread] The variant's name, e.g. "Upsampler_x2_Algo_c1_m256".
    virtual const char* Name() const noexcept = 0;
    // [any-thread] What the processor must run, whatever the dispatch answers.
    virtual IsaNeed Needs() const noexcept = 0;
    // [any-thread] Whether the kernel is only chosen for blocks of one shape
    // (on any other block it runs the generic arithmetic). False by default.
    virtual bool NeedsTableShape() const noexcept;
    // [any-thread] Whether the kernel does its own arithmetic on these
    // coefficients: always, unless it needs a shape the block lacks.
    virtual bool Serves(const CoefficientBlock& coefs) const noexcept;
};

#define TWA_POLYPHASE_INFO_CLASS(NAME, ...)                                               \
    class NAME final : public AlgoInfo {                                                  \
    public:                                                                               \
        NAME() noexcept;                                                                  \
        ~NAME() override;                                                                 \
        std::size_t Alignment() const noexcept override;                                  \
        std::size_t BlockFrames() const noexcept override;                                \
        std::size_t ChannelCount() const noexcept override;                               \
        bool IsSupported(const InstructionSetSettings& features) const noexcept override; \
        const char* Name() const noexcept override;                                       \
        IsaNeed Needs() const noexcept override;                                          \
        __VA_ARGS__                                                                       \
    }
#define TWA_POLYPHASE_INFO(NAME) TWA_POLYPHASE_INFO_CLASS(NAME)
// Kernels for symmetric half-band blocks only.
#define TWA_POLYPHASE_SYM_INFO(NAME)                                                      \
    TWA_POLYPHASE_INFO_CLASS(NAME, bool NeedsTableShape() const noexcept override;        \
                             bool Serves(const CoefficientBlock& coefs) const noexcept override;)

TWA_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c1_m256);
TWA_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c1_m128);
TWA_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c2_m256);
TWA_POLYPHASE_INFO(Upsampler_x2_Algo_Info_c2_m128);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c1_m256_fma);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c1_m256);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c2_m256_fma);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c2_m256);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c1_m128_fma);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c1_m128);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c2_m128_fma);
TWA_POLYPHASE_SYM_INFO(Downsampler_x2_Sym_Algo_Info_c2_m128);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m256_fma);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m256);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m256_fma);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m256);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m128_fma);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c1_m128);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m128_fma);
TWA_POLYPHASE_INFO(Downsampler_x2_Algo_Info_c2_m128);
TWA_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c1_m256);
TWA_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c1_m128);
TWA_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c2_m256);
TWA_POLYPHASE_INFO(Upsampler_x4_Algo_Info_c2_m128);
TWA_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m256_fma);
TWA_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m256);
TWA_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m128_fma);
TWA_POLYPHASE_INFO(Downsampler_x4_Algo_Info_c1_m128);
TWA_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m256_avx2);
TWA_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m256);
TWA_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c1_m128);
TWA_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c2_m256_avx2);
TWA_POLYPHASE_INFO(Upsampler_x8_Algo_Info_c2_m256);

#undef TWA_POLYPHASE_SYM_INFO
#undef TWA_POLYPHASE_INFO
#undef TWA_POLYPHASE_INFO_CLASS

// A kernel object of one family. Stateless: the history lives in the
// converter's staging buffer, so one object may serve any number of them.
class AlgoPolyphase {
public:
    virtual ~AlgoPolyphase();
    AlgoPolyphase(const AlgoPolyphase&) = delete;
    AlgoPolyphase& operator=(const AlgoPolyphase&) = delete;

    // [any-thread] 8 for the reference kernels.
    virtual std::size_t Alignment() const noexcept = 0;
    // [any-thread] 0 for the reference kernels.
    virtual std::size_t BlockFrames() const noexcept = 0;
    // [any-thread]
    virtual std::size_t ChannelCount() const noexcept = 0;
    // [any-thread] False for the reference kernels, the fallback.
    virtual bool IsSupported(const InstructionSetSettings& features) const noexcept = 0;
    // [audio-thread] Runs `frames` steps (see ResampleKernels.h) and returns
    // the input pointer past the consumed frames. A null out computes nothing
    // and returns the same pointer.
    virtual const float* Process(const CoefficientBlock& coefs, const float* in, float* out,
                                 std::size_t frames) const noexcept = 0;
    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    // [any-thread] Upsampling or downsampling factor.
    virtual std::size_t Factor() const noexcept = 0;
    virtual bool IsDownsampler() const noexcept = 0;

protected:
    AlgoPolyphase() noexcept;
};

class AlgoUpsampler_x2 : public AlgoPolyphase {
public:
    static constexpr std::size_t kFactor = 2;
    static constexpr bool kDown = false;
    ~AlgoUpsampler_x2() override;
    std::size_t Factor() const noexcept final;
    bool IsDownsampler() const noexcept final;
};
class AlgoUpsampler_x4 : public AlgoPolyphase {
public:
    static constexpr std::size_t kFactor = 4;
    static constexpr bool kDown = false;
    ~AlgoUpsampler_x4() override;
    std::size_t Factor() const noexcept final;
    bool IsDownsampler() const noexcept final;
};
class AlgoUpsampler_x8 : public AlgoPolyphase {
public:
    static constexpr std::size_t kFactor = 8;
    static constexpr bool kDown = false;
    ~AlgoUpsampler_x8() override;
    std::size_t Factor() const noexcept final;
    bool IsDownsampler() const noexcept final;
};
class AlgoDownsampler_x2 : public AlgoPolyphase {
public:
    static constexpr std::size_t kFactor = 2;
    static constexpr bool kDown = true;
    ~AlgoDownsampler_x2() override;
    std::size_t Factor() const noexcept final;
    bool IsDownsampler() const noexcept final;
};
class AlgoDownsampler_x4 : public AlgoPolyphase {
public:
    static constexpr std::size_t kFactor = 4;
    static constexpr bool kDown = true;
    ~AlgoDownsampler_x4() override;
    std::size_t Factor() const noexcept final;
    bool IsDownsampler() const noexcept final;
};

enum class PolyphaseFamily { Up2, Up4, Up8, Down2, Down4 };

// One entry of a family's table, in order of preference.
struct PolyphaseVariant {
    const AlgoInfo& info;
    AlgoPolyphase* (*create)();
};

// [any-thread] The specialised variants of a family, widest first; those
// that need a table shape ahead of the generic ones.
std::span<const PolyphaseVariant> PolyphaseVariants(PolyphaseFamily family);

// [not while processing] The reference kernel of a family, for any channel count.
std::unique_ptr<AlgoPolyphase> CreatePolyphaseRef(PolyphaseFamily family, std::size_t channels);

// [not while processing] Installs the first variant for `channels` that the
// feature set supports, or the reference kernel (always, for channel counts
// other than 1 and 2). The previous object is destroyed after the new one is
// installed. Returns the installed variant's name. Without a coefficient
// block, variants that need a table shape are passed over; with one, they
// are taken when the block has the shape.
const char* CreatePolyphaseAlgo(std::unique_ptr<AlgoPolyphase>& out, PolyphaseFamily family,
                                std::size_t channels, const InstructionSetSettings& features);
const char* CreatePolyphaseAlgo(std::unique_ptr<AlgoPolyphase>& out, PolyphaseFamily family,
                                std::size_t channels, const InstructionSetSettings& features,
                                const CoefficientBlock& coefs);

// [any-thread] The name CreatePolyphaseAlgo would install; builds nothing.
const char* ChosenPolyphaseAlgo(PolyphaseFamily family, std::size_t channels,
                                const InstructionSetSettings& features);
const char* ChosenPolyphaseAlgo(PolyphaseFamily family, std::size_t channels,
                                const InstructionSetSettings& features, const CoefficientBlock& coefs);

// Generic framing around one kernel: callers hand in blocks of any length;
// they are fed through the kernel in pieces of at most InFrameSize() frames,
// each copied behind the kept history in an aligned staging buffer.
class PolyphaseResampler {
public:
    static constexpr std::size_t kDefaultInFrameSize = 512;

    virtual ~PolyphaseResampler();
    PolyphaseResampler(const PolyphaseResampler&) = delete;
    PolyphaseResampler& operator=(const PolyphaseResampler&) = delete;

    // [any-thread]
    std::size_t ChannelCount() const noexcept { return m_channels; }
    std::size_t Factor() const noexcept { return m_factor; }
    bool IsDownsampler() const noexcept { return m_down; }
    std::size_t InFrameSize() const noexcept { return m_inFrameSize; }
    // Coefficients in the table (N).
    std::size_t FilterLength() const noexcept { return m_filterLength; }
    // Delay of the filter's centre, in frames of the lower rate: the input
    // of an upsampler, the output of a downsampler.
    std::size_t Latency() const noexcept;
    const AlgoPolyphase& Algo() const noexcept { return *m_algo; }
    const CoefficientBlock& Coefficients() const noexcept { return *m_coefs; }

    // [any-thread] Frames the next Process call writes for `inFrames` input frames.
    std::size_t OutputFrames(std::size_t inFrames) const noexcept;

    // [audio-thread] Converts `frames` interleaved frames (null reads as
    // silence) into out, which must hold OutputFrames(frames) frames; a null
    // out skips the arithmetic but still moves the history on. Any pointer
    // alignment is accepted (misaligned output goes through a scratch copy).
    // Returns the output frames written.
    std::size_t Process(const float* in, std::size_t frames, float* out) noexcept;

    // [audio-thread] The next block starts from silence.
    void Reset() noexcept;

protected:
    // [not while processing] Throws std::invalid_argument for 0 channels or
    // frames per piece, and what CoefficientBlock throws.
    PolyphaseResampler(PolyphaseFamily family, const float* table, std::size_t count, std::size_t channels,
                       std::size_t inFrameSize);

private:
    std::size_t historyAfterReset() const noexcept;

    std::size_t m_channels;
    std::size_t m_factor;
    bool m_down;
    std::size_t m_inFrameSize;
    std::size_t m_filterLength;
    std::size_t m_taps;
    std::unique_ptr<AlgoPolyphase> m_algo;
    std::unique_ptr<CoefficientBlock> m_coefs;
    sample_vector m_staging;   // history, then the piece being converted
    sample_vector m_outScratch; // for misaligned output pointers
    std::size_t m_have = 0;    // frames held in m_staging
};

class Upsampler_x2 final : public PolyphaseResampler {
public:
    // [not while processing] The short filter has 32 taps per phase instead of
    // 48: less delay, a wider transition band.
    explicit Upsampler_x2(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize,
                          bool shortFilter = false);
};

class Upsampler_x4 final : public PolyphaseResampler {
public:
    explicit Upsampler_x4(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize);
};

class Upsampler_x8 final : public PolyphaseResampler {
public:
    explicit Upsampler_x8(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize);
};

class Downsampler_x2 final : public PolyphaseResampler {
public:
    explicit Downsampler_x2(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize);
};

class Downsampler_x4 final : public PolyphaseResampler {
public:
    explicit Downsampler_x4(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize);
};

// The 4x interpolator of ITU-R BS.1770-4 Annex 2 for true-peak meters.
class UpsamplerTruePeak_x4 final : public PolyphaseResampler {
public:
    explicit UpsamplerTruePeak_x4(std::size_t channels, std::size_t inFrameSize = kDefaultInFrameSize);
};

} // namespace twa::numeric

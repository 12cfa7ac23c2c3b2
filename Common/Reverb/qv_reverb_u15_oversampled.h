#pragma once
// The room reverb run at a half or a quarter of the host rate, between a
// polyphase decimator and interpolator. Host blocks must be multiples of the
// factor; the plugin guarantees it.

#include "qv_reverb_u15.h"

#include <Algorithms/Resample/Upsampler.h>
#include <System/twa_aligned_allocator.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

struct qv_reverb_u15_os_param {
    std::uint32_t factor = 2;
    std::uint32_t GetRate() const { return factor; }
};

class qv_reverb_u15_oversampled {
public:
    virtual ~qv_reverb_u15_oversampled();

    // [audio-thread] Between blocks; p is the engine's record at its own rate.
    bool set_param(const qv_reverb_u15_param& p) noexcept { return m_engine.set_param(p); }
    // [audio-thread] Planar host-rate blocks; nsamples a multiple of the
    // factor and at most InFrameSize() (longer blocks run in steps).
    void process(const float* const* in, float* const* out, std::size_t nsamples) noexcept;
    // [audio-thread] Clears the engine and both converters.
    void reset(bool clear = true) noexcept;

    std::uint32_t Factor() const { return m_param.GetRate(); }
    // Host frames one call takes at most.
    std::size_t InFrameSize() const { return m_inFrameSize; }
    // Host frames between the input and the output of the direct sound.
    std::size_t Latency() const;
    const qv_reverb_u15& engine() const { return m_engine; }

protected:
    // [not while processing] p describes the engine at the low rate; its
    // max_block times the factor is the largest host block. Throws
    // std::bad_alloc.
    qv_reverb_u15_oversampled(std::uint32_t factor, const qv_reverb_u15_param& p);

private:
    void processChunk(const float* const* in, float* const* out, std::size_t nsamples) noexcept;

    qv_reverb_u15_os_param m_param;
    qv_reverb_u15 m_engine;
    std::size_t m_inFrameSize;
    // One mono converter per channel: planar rows go straight through, and
    // every factor gets its vector kernels.
    std::vector<std::unique_ptr<twa::numeric::PolyphaseResampler>> m_down;
    std::vector<std::unique_ptr<twa::numeric::PolyphaseResampler>> m_up;
    twa::sample_vector m_lowIn;           // planar, inputs x max_block
    twa::sample_vector m_lowOut;          // planar, outputs x max_block
    float* m_lowInRows[qv_max_channels] = {};
    float* m_lowOutRows[qv_max_channels] = {};
};

class qv_reverb_u15_x2 final : public qv_reverb_u15_oversampled {
public:
    explicit qv_reverb_u15_x2(const qv_reverb_u15_param& p) : qv_reverb_u15_oversampled(2, p) {}
};

class qv_reverb_u15_x4 final : public qv_reverb_u15_oversampled {
public:
    explicit qv_reverb_u15_x4(const qv_reverb_u15_param& p) : qv_reverb_u15_oversampled(4, p) {}
};

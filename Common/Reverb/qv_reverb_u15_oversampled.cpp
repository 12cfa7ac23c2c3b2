#include "qv_reverb_u15_oversampled.h"

#include <System/twa_assert.h>

#include <algorithm>

using namespace twa::numeric;

qv_reverb_u15_oversampled::qv_reverb_u15_oversampled(std::uint32_t factor, const qv_reverb_u15_param& p)
    : m_param{factor}, m_engine(p)
{
    const std::size_t low = m_engine.max_block();
    m_inFrameSize = low * factor;
    const std::size_t ins = std::max(m_engine.inputs(), 1u), outs = std::max(m_engine.outputs(), 1u);
    for (std::size_t c = 0; c < ins; ++c) {
        if (factor == 4)
            m_down.push_back(std::make_unique<Downsampler_x4>(1, m_inFrameSize));
        else
            m_down.push_back(std::make_unique<Downsampler_x2>(1, m_inFrameSize));
    }
    for (std::size_t c = 0; c < outs; ++c) {
        if (factor == 4)
            m_up.push_back(std::make_unique<Upsampler_x4>(1, low));
        else
            m_up.push_back(std::make_unique<Upsampler_x2>(1, low));
    }
    m_lowIn.assign(low * ins, 0.0f);
    m_lowOut.assign(low * outs, 0.0f);
    for (std::size_t c = 0; c < m_engine.inputs(); ++c)
        m_lowInRows[c] = m_lowIn.data() + c * low;
    for (std::size_t c = 0; c < m_engine.outputs(); ++c)
        m_lowOutRows[c] = m_lowOut.data() + c * low;
}

qv_reverb_u15_oversampled::~qv_reverb_u15_oversampled() = default;

std::size_t qv_reverb_u15_oversampled::Latency() const
{
    return (m_down[0]->Latency() + m_up[0]->Latency()) * m_param.GetRate();
}

void qv_reverb_u15_oversampled::reset(bool clear) noexcept
{
    if (!clear)
        return;
    m_engine.reset();
    for (auto& d : m_down)
        d->Reset();
    for (auto& u : m_up)
        u->Reset();
}

void qv_reverb_u15_oversampled::process(const float* const* in, float* const* out, std::size_t nsamples) noexcept
{
    QVD_ASSERT((m_param.GetRate() == 2u) || (m_param.GetRate() == 4u));
    if (m_param.GetRate() == 2u)
        QVD_ASSERT((nsamples & 1) == 0);
    else
        QVD_ASSERT((nsamples & 3) == 0);
    const std::size_t in_size = nsamples;
    QVD_ASSERT(in_size <= InFrameSize());

    const std::size_t factor = m_param.GetRate();
    const std::size_t whole = nsamples - nsamples % factor;
    const float* inPos[qv_max_channels];
    float* outPos[qv_max_channels];
    for (std::size_t done = 0; done < whole;) {
        const std::size_t step = std::min(whole - done, m_inFrameSize);
        for (std::uint32_t c = 0; c < m_engine.inputs(); ++c)
            inPos[c] = in[c] + done;
        for (std::uint32_t c = 0; c < m_engine.outputs(); ++c)
            outPos[c] = out[c] + done;
        processChunk(inPos, outPos, step);
        done += step;
    }
    // A ragged end cannot be converted; it comes out silent rather than stale.
    for (std::uint32_t c = 0; c < m_engine.outputs(); ++c)
        std::fill(out[c] + whole, out[c] + nsamples, 0.0f);
}

void qv_reverb_u15_oversampled::processChunk(const float* const* in, float* const* out, std::size_t nsamples) noexcept
{
    std::size_t lowFrames = 0;
    for (std::size_t c = 0; c < m_engine.inputs(); ++c)
        lowFrames = m_down[c]->Process(in[c], nsamples, m_lowInRows[c]);
    m_engine.process(m_lowInRows, m_lowOutRows, lowFrames);
    for (std::size_t c = 0; c < m_engine.outputs(); ++c)
        m_up[c]->Process(m_lowOutRows[c], lowFrames, out[c]);
}

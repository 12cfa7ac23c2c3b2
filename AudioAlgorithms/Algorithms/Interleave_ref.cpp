#include "Algorithms/Interleave.h"
#include "Algorithms/InterleaveCodec.h"

namespace twa::numeric {
namespace ref {
namespace {

using Reader = float (*)(const unsigned char*);
using Writer = void (*)(unsigned char*, float);

Reader readerFor(SampleFormat f)
{
    return f == SampleFormat::Int16 ? &codec::readI16 : f == SampleFormat::Int24 ? &codec::readI24 : &codec::readF32;
}

Writer writerFor(SampleFormat f)
{
    return f == SampleFormat::Int16 ? &codec::writeI16 : f == SampleFormat::Int24 ? &codec::writeI24 : &codec::writeF32;
}

class Deinterleave_ref final : public Deinterleave {
public:
    Deinterleave_ref(std::size_t channels, SampleFormat format) noexcept
        : m_channels(channels), m_format(format), m_read(readerFor(format)), m_bytes(BytesPerSample(format))
    {
    }
    const char* Name() const noexcept override { return "Deinterleave_ref"; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    SampleFormat Format() const noexcept override { return m_format; }
    void Process(const void* in, float* const* out, std::size_t frames) const noexcept override
    {
        const auto* p = static_cast<const unsigned char*>(in);
        for (std::size_t k = 0; k < frames; ++k)
            for (std::size_t c = 0; c < m_channels; ++c, p += m_bytes)
                out[c][k] = m_read(p);
    }

private:
    std::size_t m_channels;
    SampleFormat m_format;
    Reader m_read;
    std::size_t m_bytes;
};

class Interleave_ref final : public Interleave {
public:
    Interleave_ref(std::size_t channels, SampleFormat format) noexcept
        : m_channels(channels), m_format(format), m_write(writerFor(format)), m_bytes(BytesPerSample(format))
    {
    }
    const char* Name() const noexcept override { return "Interleave_ref"; }
    std::size_t ChannelCount() const noexcept override { return m_channels; }
    SampleFormat Format() const noexcept override { return m_format; }
    void Process(const float* const* in, void* out, std::size_t frames) const noexcept override
    {
        auto* p = static_cast<unsigned char*>(out);
        for (std::size_t k = 0; k < frames; ++k)
            for (std::size_t c = 0; c < m_channels; ++c, p += m_bytes)
                m_write(p, in[c][k]);
    }

private:
    std::size_t m_channels;
    SampleFormat m_format;
    Writer m_write;
    std::size_t m_bytes;
};

} // namespace
} // namespace ref

Deinterleave* NewDeinterleave_ref(std::size_t channels, SampleFormat format)
{
    return channels ? new ref::Deinterleave_ref(channels, format) : nullptr;
}

Interleave* NewInterleave_ref(std::size_t channels, SampleFormat format)
{
    return channels ? new ref::Interleave_ref(channels, format) : nullptr;
}

} // namespace twa::numeric

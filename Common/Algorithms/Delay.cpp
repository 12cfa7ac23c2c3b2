#include "Delay.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include <SmoothingCoefficient.h>

#include "ParameterRow.h"

namespace {
// Keeps |g| below 1, where the section is stable.
constexpr float kMaxFeedback = 0.999f;
} // namespace

std::vector<QVDParameterDefinition> Delay::makeTable(const char* className)
{
    const QByteArray time = QByteArray(className) + "::TIME";
    const QByteArray feedback = QByteArray(className) + "::FEEDBACK";
    QVDParameterDefinition t = qvd::algorithms::parameterRow(className, TIME, time.constData(), "Delay Time",
                                                             qvd::kContinuous, 0.0f, 2000.0f, 100.0f, 1.0f);
    t.scale = qvd::kValueTable;
    // 1 ms steps up to 100 ms, then exponential up to 2000 ms.
    t.segments = {{0, 0.0f, 100.0f, 0.0f, 100.0f}, {1, 100.0f, 200.0f, 100.0f, 2000.0f}};
    t.buildValueTable();
    return {t, qvd::algorithms::parameterRow(className, FEEDBACK, feedback.constData(), "Feedback",
                                             qvd::kContinuous, 0.0f, 99.0f, 0.0f, 1.0f)};
}

const std::vector<QVDParameterDefinition>& Delay::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = makeTable("Delay");
    return table;
}

Delay::Delay() : Delay(parameterTable()) {}

Delay::Delay(const std::vector<QVDParameterDefinition>& table) : QVDAudioAlgorithm(table) {}

bool Delay::initialise(float sampleRate, std::int32_t channelCount)
{
    setChannelCount(channelCount);
    const bool ok = QVDAudioAlgorithm::initialise(sampleRate, channelCount);
    reset();
    return ok;
}

bool Delay::setChannelCount(std::int32_t channelCount)
{
    const auto n = static_cast<std::size_t>(channelCount > 0 ? channelCount : 0);
    while (m_channels.size() > n)
        m_channels.pop_back();
    while (m_channels.size() < n)
        m_channels.push_back(std::make_unique<Channel>());
    QVDAudioAlgorithm::setChannelCount(channelCount);
    applyTime(m_parameters[TIME].value());
    applyFeedback(m_parameters[FEEDBACK].value());
    return true;
}

void Delay::applyTime(float ms)
{
    if (std::isnan(ms))
        return;
    const float samples = static_cast<float>(m_sampleRate) * ms / 1000.0f;
    std::int32_t d = 0;
    if (samples >= static_cast<float>(kMaxLength))
        d = kMaxLength;
    else if (samples > 0.0f)
        d = static_cast<std::int32_t>(samples);
    for (auto& ch : m_channels)
        ch->length.store(d, std::memory_order_relaxed);
}

void Delay::applyFeedback(float percent)
{
    if (std::isnan(percent))
        return;
    float g = percent / 100.0f;
    g = g > kMaxFeedback ? kMaxFeedback : (g < -kMaxFeedback ? -kMaxFeedback : g);
    const bool smoothing = SmoothingCoefficient::shared200ms().enabled();
    for (auto& ch : m_channels) {
        ch->target.exchange(g);
        if (!smoothing)
            ch->smoothed.store(g, std::memory_order_relaxed);
    }
}

bool Delay::setParameter(std::uint32_t index, float value)
{
    if (!QVDAudioAlgorithm::setParameter(index, value))
        return false;
    if (index == TIME)
        applyTime(value);
    else if (index == FEEDBACK)
        applyFeedback(value);
    return true;
}

void Delay::reset()
{
    for (auto& ch : m_channels) {
        std::fill(ch->buffer.begin(), ch->buffer.end(), 0.0f);
        ch->write = 0;
        ch->smoothed.store(ch->target.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
}

template <bool WriteOutput>
void Delay::run(Channel& ch, const float* input, float* output, std::uint32_t frames) noexcept
{
    const SmoothingCoefficient& s = SmoothingCoefficient::shared200ms();
    const double a = s.a();
    const double bt = s.b() * static_cast<double>(ch.target.load(std::memory_order_relaxed));
    const std::int32_t d = ch.length.load(std::memory_order_relaxed);
    double gs = ch.smoothed.load(std::memory_order_relaxed);
    float* buf = ch.buffer.data();
    // A shortened D can leave the index past it; the first step wraps it.
    std::int32_t i = ch.write < kBufferSize ? ch.write : 0;
    bool bad = false;
    for (std::uint32_t n = 0; n < frames; ++n) {
        gs = a * gs + bt;
        const auto g = static_cast<float>(gs);
        const float x = input[n];
        const float y = buf[i] - g * x;
        buf[i] = y * g + x;
        if (++i >= d)
            i = 0;
        bad |= !(std::fabs(y) <= FLT_MAX);
        if constexpr (WriteOutput)
            output[n] = y;
    }
    ch.write = i;
    if (!std::isfinite(gs))
        gs = ch.target.load(std::memory_order_relaxed);
    ch.smoothed.store(gs, std::memory_order_relaxed);
    if (bad) {
        for (float& v : ch.buffer)
            if (!std::isfinite(v))
                v = 0.0f;
    }
}

bool Delay::processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept
{
    return processChannel(channel, samples, samples, frames);
}

bool Delay::processChannel(std::uint32_t channel, const float* input, float* output, std::uint32_t frames) noexcept
{
    if (channel >= m_channels.size() || input == nullptr || output == nullptr)
        return false;
    run<true>(*m_channels[channel], input, output, frames);
    return true;
}

bool Delay::processChannels(float* const* channels, std::uint32_t frames) noexcept
{
    if (channels == nullptr)
        return false;
    for (std::size_t c = 0; c < activeChannels(); ++c)
        run<true>(*m_channels[c], channels[c], channels[c], frames);
    return true;
}

bool Delay::feedChannels(const float* const* channels, std::uint32_t frames) noexcept
{
    if (channels == nullptr)
        return false;
    for (std::size_t c = 0; c < activeChannels(); ++c)
        run<false>(*m_channels[c], channels[c], nullptr, frames);
    return true;
}

std::size_t Delay::activeChannels() const noexcept
{
    return std::min(m_channels.size(), static_cast<std::size_t>(m_channelCount > 0 ? m_channelCount : 0));
}

float Delay::read(std::uint32_t channel, float position) const noexcept
{
    if (channel >= m_channels.size() || !(position > -1.0f && position < static_cast<float>(kBufferSize)))
        return 0.0f;
    return m_channels[channel]->buffer[static_cast<std::size_t>(position)];
}

std::int32_t Delay::length(std::uint32_t channel) const
{
    return channel < m_channels.size() ? m_channels[channel]->length.load(std::memory_order_relaxed) : 0;
}

double Delay::smoothedFeedback(std::uint32_t channel) const
{
    return channel < m_channels.size() ? m_channels[channel]->smoothed.load(std::memory_order_relaxed) : 0.0;
}

const std::vector<QVDParameterDefinition>& Delay2::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = makeTable("Delay2");
    return table;
}

Delay2::Delay2() : Delay(parameterTable()) {}

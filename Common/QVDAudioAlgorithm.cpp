#include "QVDAudioAlgorithm.h"

#include <System/twa_assert.h>

QVDAudioAlgorithm::QVDAudioAlgorithm(const std::vector<QVDParameterDefinition>& table)
    : m_parameters(qvdMakeParameterEntries(table))
{
}

QVDAudioAlgorithm::~QVDAudioAlgorithm() = default;

bool QVDAudioAlgorithm::initialise(float sampleRate, std::int32_t channelCount)
{
    m_channelCount = channelCount;
    m_sampleRate = static_cast<std::int32_t>(sampleRate);
    for (std::uint32_t i = 0; i < parameterCount(); ++i)
        setParameter(i, m_parameters[i].definition().defaultValue);
    return true;
}

bool QVDAudioAlgorithm::setSampleRate(std::int32_t sampleRate)
{
    m_sampleRate = sampleRate;
    return true;
}

bool QVDAudioAlgorithm::setChannelCount(std::int32_t channelCount)
{
    m_channelCount = channelCount;
    return true;
}

void QVDAudioAlgorithm::setContext(void* context)
{
    m_context = context;
}

bool QVDAudioAlgorithm::processChannel(std::uint32_t, float*, std::uint32_t) noexcept
{
    QVD_ASSERT(0);
    return false;
}

bool QVDAudioAlgorithm::processChannels(float* const*, std::uint32_t) noexcept
{
    QVD_ASSERT(0);
    return false;
}

bool QVDAudioAlgorithm::setParameter(std::uint32_t index, float value)
{
    if (index >= parameterCount())
        return false;
    m_parameters[index].exchange(value);
    return true;
}

float QVDAudioAlgorithm::getParameter(std::uint32_t index) const
{
    return index < parameterCount() ? m_parameters[index].value() : 0.0f;
}

float QVDAudioAlgorithm::readOut(std::uint32_t) const
{
    return 0.0f;
}

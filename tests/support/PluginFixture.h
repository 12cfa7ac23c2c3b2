#pragma once
// One plugin instance from the library's registry, prepared and driven the
// way a host drives it, for tests of a plugin's physical properties.

#include <gtest/gtest.h>

#include <qvd/PluginInterface.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

extern "C" void* GetQVDPluginInterface();

namespace qvd::test {

using Signal = std::vector<std::vector<float>>; // planar, one vector per channel

class PluginFixture {
public:
    explicit PluginFixture(const std::string& key)
        : m_instance(static_cast<PluginInterface*>(GetQVDPluginInterface())->createPlugin(kAudioPlugin, key.c_str()))
    {
        EXPECT_NE(m_instance, nullptr) << key;
    }
    ~PluginFixture()
    {
        if (m_instance)
            m_instance->destroy();
    }
    PluginFixture(const PluginFixture&) = delete;
    PluginFixture& operator=(const PluginFixture&) = delete;

    PluginInstance* instance() const { return m_instance; }
    AudioPlugin* audio() const { return m_instance->getAudioInterface(); }

    // Prepares with smoothing off, so settings hold from the first sample.
    bool prepare(double rate, int block, int inputs, int outputs = -1, bool smoothing = false)
    {
        m_block = block;
        const PrepareConfig config{formatForChannels(inputs), formatForChannels(outputs < 0 ? inputs : outputs),
                                   smoothing ? 1 : 0, 1};
        return audio()->prepare(static_cast<float>(rate), block, &config);
    }
    // Sets a parameter by the part of its identifier after the colons.
    void set(const std::string& name, float value)
    {
        const std::int32_t index = indexOf(name);
        ASSERT_GE(index, 0) << "no parameter " << name;
        m_instance->setParameter(index, value);
    }
    std::int32_t indexOf(const std::string& name) const
    {
        ParameterInfo info;
        for (std::int32_t i = 0; m_instance->parameterInfo(i, &info); ++i) {
            const auto colon = info.identifier.rfind("::");
            if (info.identifier.substr(colon == std::string::npos ? 0 : colon + 2) == name)
                return i;
        }
        return -1;
    }
    // Runs `in` through the plugin out of place in blocks of the prepared
    // size, or of random sizes up to it with `seed` != 0; returns the outputs.
    Signal run(const Signal& in, unsigned seed = 0)
    {
        const std::size_t frames = in.empty() ? 0 : in[0].size();
        const auto outs = static_cast<std::size_t>(audio()->outputChannelCount());
        Signal out(outs, std::vector<float>(frames));
        std::vector<const float*> ip(in.size());
        std::vector<float*> op(outs);
        std::mt19937 rng(seed);
        BlockRecord record{};
        record.mode = kModePlaying;
        for (std::size_t done = 0; done < frames;) {
            std::size_t n = static_cast<std::size_t>(m_block);
            if (seed != 0)
                n = 1 + rng() % static_cast<unsigned>(m_block);
            n = std::min(n, frames - done);
            for (std::size_t c = 0; c < in.size(); ++c)
                ip[c] = in[c].data() + done;
            for (std::size_t c = 0; c < outs; ++c)
                op[c] = out[c].data() + done;
            audio()->process(&record, ip.data(), op.data(), static_cast<std::int32_t>(n));
            done += n;
            record.position = static_cast<std::int64_t>(done);
        }
        return out;
    }

private:
    PluginInstance* m_instance;
    int m_block = 512;
};

// ---- test signals, deterministic for a seed

inline Signal silence(int channels, std::size_t frames)
{
    return Signal(static_cast<std::size_t>(channels), std::vector<float>(frames, 0.0f));
}

// Uniform white noise with peak `level` (linear).
inline Signal noise(int channels, std::size_t frames, unsigned seed, float level = 0.5f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-level, level);
    Signal s = silence(channels, frames);
    for (auto& ch : s)
        for (auto& x : ch)
            x = d(rng);
    return s;
}

// A sine of `hz` at `rate` with peak `amplitude`, the same on every channel.
inline Signal sine(int channels, std::size_t frames, double hz, double rate, double amplitude = 0.5,
                   double phase = 0.0)
{
    Signal s = silence(channels, frames);
    for (auto& ch : s)
        for (std::size_t n = 0; n < frames; ++n)
            ch[n] = static_cast<float>(amplitude * std::sin(2.0 * M_PI * hz * static_cast<double>(n) / rate + phase));
    return s;
}

// A unit impulse at frame `at` on every channel.
inline Signal impulse(int channels, std::size_t frames, std::size_t at = 0, float height = 1.0f)
{
    Signal s = silence(channels, frames);
    for (auto& ch : s)
        ch[at] = height;
    return s;
}

// ---- measurements

inline double rms(const std::vector<float>& x, std::size_t from = 0, std::size_t to = SIZE_MAX)
{
    to = std::min(to, x.size());
    double sum = 0.0;
    for (std::size_t n = from; n < to; ++n)
        sum += static_cast<double>(x[n]) * x[n];
    return to > from ? std::sqrt(sum / static_cast<double>(to - from)) : 0.0;
}

inline double peak(const std::vector<float>& x, std::size_t from = 0, std::size_t to = SIZE_MAX)
{
    to = std::min(to, x.size());
    double p = 0.0;
    for (std::size_t n = from; n < to; ++n)
        p = std::max(p, static_cast<double>(std::fabs(x[n])));
    return p;
}

inline double dB(double linear)
{
    return linear > 0.0 ? 20.0 * std::log10(linear) : -400.0;
}

// Level in dB of the component at `hz` (a single-bin DFT over whole periods
// is exact for a sine; callers pass a span of whole periods).
inline double toneDb(const std::vector<float>& x, double hz, double rate, std::size_t from, std::size_t to)
{
    double re = 0.0, im = 0.0;
    for (std::size_t n = from; n < to; ++n) {
        const double w = 2.0 * M_PI * hz * static_cast<double>(n) / rate;
        re += x[n] * std::cos(w);
        im += x[n] * std::sin(w);
    }
    const double amplitude = 2.0 * std::hypot(re, im) / static_cast<double>(to - from);
    return dB(amplitude);
}

} // namespace qvd::test

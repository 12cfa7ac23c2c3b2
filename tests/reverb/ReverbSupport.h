#pragma once
// Builds controller and engine together for the reverb tests.

#include "qv_reverb_u15.h"
#include "qv_reverb_u15_control.h"
#include "qv_reverb_u15_oversampled.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace reverbtest {

using Control = qv_reverb_u15_control;

inline Control::Settings defaults()
{
    Control::Settings s{};
    const float v[28] = {12.430144f, 20.112396f, 4.0f,        249.99998f, 1.618034f,   0.95f,  0.5f,
                         4.0f,       0.2f,       0.1f,        0.0f,       2.0f,        0.5f,   1.0f,
                         1.0f,       1.0f,       300.0f,      1.0f,       0.33333334f, 10000.0f, 1.0f,
                         0.33333334f, 300.0f,    1.0f,        0.33333334f, 10000.0f,   1.0f,   0.33333334f};
    for (int i = 0; i < 28; ++i)
        s[i] = v[i];
    return s;
}

// The engine record for a rate and channel count, filled by a controller.
struct EngineSetup {
    explicit EngineSetup(float rate = 48000.0f, const Control::Settings& s = defaults(), std::uint32_t channels = 2,
                         std::uint32_t maxBlock = 512)
    {
        param = std::make_unique<qv_reverb_u15_param>();
        param->inputs = param->outputs = channels;
        param->max_block = maxBlock;
        param->rate = rate;
        param->max_delay = static_cast<std::uint32_t>(std::ceil(0.25f * rate));
        control = std::make_unique<Control>(rate, s, param.get());
    }
    std::unique_ptr<qv_reverb_u15_param> param;
    std::unique_ptr<Control> control;
};

using Signal = std::vector<std::vector<float>>;

inline Signal noise(std::size_t channels, std::size_t frames, unsigned seed, float level = 0.5f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-level, level);
    Signal s(channels, std::vector<float>(frames));
    for (auto& ch : s)
        for (auto& v : ch)
            v = u(rng);
    return s;
}

inline Signal impulse(std::size_t channels, std::size_t frames)
{
    Signal s(channels, std::vector<float>(frames, 0.0f));
    for (auto& ch : s)
        ch[0] = 1.0f;
    return s;
}

inline float peak(const std::vector<float>& x, std::size_t from = 0, std::size_t to = SIZE_MAX)
{
    float p = 0.0f;
    for (std::size_t n = from; n < std::min(to, x.size()); ++n)
        p = std::max(p, std::fabs(x[n]));
    return p;
}

// The oversampled engine for a factor of 2 or 4.
inline std::unique_ptr<qv_reverb_u15_oversampled> oversampled(std::uint32_t factor, const qv_reverb_u15_param& p)
{
    if (factor == 2)
        return std::make_unique<qv_reverb_u15_x2>(p);
    return std::make_unique<qv_reverb_u15_x4>(p);
}

// Runs planar signals through anything with process(in, out, frames), in
// blocks of `block` frames.
template <class Engine>
std::vector<std::vector<float>> run(Engine& e, const std::vector<std::vector<float>>& in, std::size_t block)
{
    const std::size_t frames = in[0].size();
    std::vector<std::vector<float>> out(in.size(), std::vector<float>(frames));
    std::vector<const float*> ip(in.size());
    std::vector<float*> op(in.size());
    for (std::size_t pos = 0; pos < frames; pos += block) {
        const std::size_t n = std::min(block, frames - pos);
        for (std::size_t c = 0; c < in.size(); ++c) {
            ip[c] = in[c].data() + pos;
            op[c] = out[c].data() + pos;
        }
        e.process(ip.data(), op.data(), n);
    }
    return out;
}

// Reverb time from the Schroeder integral, fitted from -5 to -35 dB.
inline double decayTime(const std::vector<float>& ir, double rate)
{
    std::vector<double> edc(ir.size());
    double acc = 0.0;
    for (std::size_t n = ir.size(); n-- > 0;) {
        acc += static_cast<double>(ir[n]) * ir[n];
        edc[n] = acc;
    }
    const double total = edc[0];
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    std::size_t count = 0;
    for (std::size_t n = 0; n < ir.size(); ++n) {
        const double db = 10.0 * std::log10(edc[n] / total);
        if (db > -5.0)
            continue;
        if (db < -35.0)
            break;
        const double t = static_cast<double>(n) / rate;
        sx += t;
        sy += db;
        sxx += t * t;
        sxy += t * db;
        ++count;
    }
    const double slope = (count * sxy - sx * sy) / (count * sxx - sx * sx);
    return -60.0 / slope;
}

} // namespace reverbtest

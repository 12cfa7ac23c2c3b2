#include "qv_reverb_u15_control.h"

#include <BiQuad.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <numbers>

namespace {

// Stage order of one pass of the update loop.
constexpr int kStageOrder[8] = {0, 1, 2, 5, 4, 3, 6, 7};

// Each of the 16 lines starts with a quarter of the mono feed, so the feed's
// energy is shared out rather than multiplied by 16.
constexpr float kTapFeed = 0.25f;
// Late output taps: one row of the 16-point Hadamard pattern per output, so
// the outputs are decorrelated, scaled so that the fully wet tail sits a few
// dB under the early sound at the default distance.
constexpr float kLateBase = 0.25f;

float hadamardSign(std::uint32_t row, std::uint32_t col)
{
    return (std::popcount(row & col) & 1) ? -1.0f : 1.0f;
}

float clampRoom(float v)
{
    // NaN becomes the smallest room, which stage 0 then refuses.
    return v >= 0.1f ? std::min(v, 1000.0f) : 0.1f;
}

} // namespace

float qv_reverb_u15_control::fastInverseSqrt(float s)
{
    const float half = 0.5f * s;
    const std::uint32_t bits = 0x5F3759DFu - (std::bit_cast<std::uint32_t>(s) >> 1);
    const float y = std::bit_cast<float>(bits);
    return y * (1.5f - half * y * y);
}

std::uint16_t qv_reverb_u15_control::stagesReading(std::uint32_t index)
{
    switch (index) {
    case RoomWidth:
    case RoomLength:
    case RoomHeight:
        return 0x01 | 0x04;
    case ReverbTime:
    case Brightness:
        return 0x02;
    case Distance:
    case Azimuth:
    case Elevation:
    case PreDelay:
        return 0x04;
    case Modulation:
        return 0x40;
    case DryWet:
        return 0x08 | 0x10 | 0x20;
    case DirectGain:
        return 0x08;
    case EarlyGain:
        return 0x10;
    case LateGain:
        return 0x20;
    default:
        return index >= LateLowFreq && index < kSettingCount ? 0x80 : 0;
    }
}

qv_reverb_u15_control::qv_reverb_u15_control(float rate, const Settings& settings, qv_reverb_u15_param* param)
    : m_rate(rate), m_invRate(1.0f / rate), m_param(param), m_settings(settings)
{
    qv_reverb_u15_param& p = *m_param;
    const std::uint32_t ins = std::min(p.inputs, qv_max_channels);
    const std::uint32_t outs = std::min(p.outputs, qv_max_channels);

    // An orthonormal feedback matrix (Hadamard / 4): it keeps the loop's energy,
    // so the per-line gains alone set the decay, and it mixes every line into
    // every other on each pass, which builds echo density fast.
    for (std::uint32_t r = 0; r < qv_lines; ++r)
        for (std::uint32_t j = 0; j < qv_lines; ++j)
            p.late.core.matrix[r * qv_lines + j] = 0.25f * hadamardSign(r, j);
    p.late.outputs = outs;
    for (std::uint32_t o = 0; o < outs; ++o)
        for (std::uint32_t i = 0; i < qv_lines; ++i)
            m_lateBase[o][i] = kLateBase * hadamardSign(o + 1, i);
    p.early.gains.fill(kTapFeed);

    // Direct path: input i to output i, a mono input to every output, and
    // surplus inputs folded onto the outputs at a level that keeps the sum.
    for (std::uint32_t o = 0; o < outs && ins > 0; ++o)
        m_directBase[o % ins][o] = 1.0f;
    if (ins > outs && outs > 0) {
        for (std::uint32_t i = outs; i < ins; ++i)
            m_directBase[i][i % outs] = 1.0f;
        for (std::uint32_t i = 0; i < ins; ++i)
            for (std::uint32_t o = 0; o < outs; ++o)
                m_directBase[i][o] *= static_cast<float>(outs) / static_cast<float>(ins);
    }
    p.direct.inputs = ins;
    p.direct.outputs = outs;
    p.early_mix.inputs = qv_lines;
    p.early_mix.outputs = outs;
    p.late_eq.channels = outs;
    p.early_eq.channels = outs;

    m_dirty = 0xFF;
    update();
}

void qv_reverb_u15_control::set(std::uint32_t index, float value)
{
    if (index >= kSettingCount)
        return;
    m_settings[index] = value;
    m_dirty |= stagesReading(index);
    update();
}

void qv_reverb_u15_control::set(const Settings& settings)
{
    for (std::uint32_t i = 0; i < kSettingCount; ++i) {
        // Bitwise comparison, so a NaN that stays a NaN marks nothing.
        if (std::bit_cast<std::uint32_t>(settings[i]) != std::bit_cast<std::uint32_t>(m_settings[i]))
            m_dirty |= stagesReading(i);
    }
    m_settings = settings;
    update();
}

void qv_reverb_u15_control::update()
{
    while (m_dirty != 0) {
        for (const int stage : kStageOrder) {
            if (!(m_dirty & (1u << stage)))
                continue;
            switch (stage) {
            case 0: roomModes(); break;
            case 1: decay(); break;
            case 2: reflections(); break;
            case 3: directMix(); break;
            case 4: earlyMix(); break;
            case 5: lateMix(); break;
            case 6: modulation(); break;
            case 7: toneBands(); break;
            }
        }
    }
}

void qv_reverb_u15_control::roomModes()
{
    m_dirty &= ~0x01;
    const float Lx = clampRoom(m_settings[RoomWidth]);
    const float Ly = clampRoom(m_settings[RoomLength]);
    const float Lz = clampRoom(m_settings[RoomHeight]);
    // A degenerate room keeps the previous delays.
    if (Lx <= 0.1f || Ly <= 0.1f || Lz <= 0.1f)
        return;

    std::array<float, 26> period{};
    std::size_t m = 0;
    for (int nx = 0; nx <= 2; ++nx)
        for (int ny = 0; ny <= 2; ++ny)
            for (int nz = 0; nz <= 2; ++nz) {
                if (nx == 0 && ny == 0 && nz == 0)
                    continue;
                const float ax = static_cast<float>(nx) / Lx;
                const float ay = static_cast<float>(ny) / Ly;
                const float az = static_cast<float>(nz) / Lz;
                period[m++] = (2.0f / m_speedOfSound) * fastInverseSqrt(ax * ax + ay * ay + az * az);
            }
    // Middle at 15: the last line takes the shortest of the first sixteen
    // modes in table order, a short delay that thickens the early tail.
    std::partial_sort(period.begin(), period.begin() + 15, period.end(), std::greater<float>());

    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const float half = std::floor(0.5f * period[i] * m_rate);
        const auto d = static_cast<std::uint32_t>(2.0f * half + 1.0f);
        m_param->late.core.delays[i] = d;
        m_lineTimes[i] = static_cast<float>(d) * m_invRate;
    }
    m_dirty |= 0x02 | 0x04;
}

void qv_reverb_u15_control::decay()
{
    m_dirty &= ~0x02;
    const float b = std::min(1.0f, m_settings[Brightness]);
    // A zero or negative time would divide by zero; the shortest decay we
    // model is a millisecond.
    const float T = m_settings[ReverbTime] >= 0.001f ? m_settings[ReverbTime] : 0.001f;
    auto& core = m_param->late.core;
    float total = 0.0f;
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const float t = m_lineTimes[i];
        const float g = std::pow(10.0f, -3.0f * t / T);
        const float h = std::pow(g, 1.0f / b - 1.0f);
        float damp = (h - 1.0f) / (h + 1.0f);
        damp = damp > 0.0f ? 0.0f : (damp >= -0.9999f ? damp : -0.9999f);
        core.gains[i] = g;
        core.damping[i] = damp;
        total += t;
    }
    m_lateLevel = std::sqrt(total / T);
    float tone = (1.0f - b) / (1.0f + b);
    tone = tone >= 0.0f ? std::min(tone, 1.0f) : 0.0f;
    // b = -1 divides by zero: no tone filter to speak of, keep it closed.
    if (std::isnan(tone))
        tone = 1.0f;
    core.tone.fill(tone);
    m_dirty |= 0x20;
}

void qv_reverb_u15_control::reflections()
{
    m_dirty &= ~0x04;
    const float Lx = clampRoom(m_settings[RoomWidth]);
    const float Ly = clampRoom(m_settings[RoomLength]);
    const float Lz = clampRoom(m_settings[RoomHeight]);

    const float r = std::max(0.01f, m_settings[Distance]);
    const float alpha = m_settings[Azimuth] * std::numbers::pi_v<float>;
    const float eps = m_settings[Elevation] * std::numbers::pi_v<float>;
    float x = std::cos(alpha) * r * std::cos(eps);
    float y = std::sin(alpha) * r * std::cos(eps);
    float z = std::sin(eps) * r;
    x = std::clamp(x, -0.475f * Lx, 0.475f * Lx);
    y = std::clamp(y, -0.475f * Ly, 0.475f * Ly);
    z = std::clamp(z, -0.475f * Lz, 0.475f * Lz);
    const float r0 = std::sqrt(x * x + y * y + z * z);

    // First-order images and a few second-order edges. The table lacks (-1,0,0)
    // and (1,1,0) on purpose: the pattern is part of the room's sound.
    static constexpr int kImages[qv_lines][3] = {
        {1, 0, 0},  {0, 1, 0},  {0, -1, 0},  {0, 0, 1},  {0, 0, -1}, {1, -1, 0}, {-1, -1, 0}, {-1, 1, 0},
        {0, 1, 1},  {0, 1, -1}, {0, -1, 1},  {0, -1, -1}, {1, 0, 1}, {1, 0, -1}, {-1, 0, 1},  {-1, 0, -1},
    };
    const float dims[3] = {Lx, Ly, Lz};
    const float pos[3] = {x, y, z};
    std::array<float, qv_lines> sq{};
    for (std::uint32_t t = 0; t < qv_lines; ++t) {
        float s = 0.0f;
        for (int a = 0; a < 3; ++a) {
            const int k = kImages[t][a];
            // Odd k mirrors the source, including k = -1.
            const float u = static_cast<float>(k) * dims[a] + ((k % 2 != 0) ? -pos[a] : pos[a]);
            s += u * u;
        }
        sq[t] = s;
    }
    std::sort(sq.begin(), sq.end());

    std::array<float, qv_lines> gain{};
    std::array<float, qv_lines> delay{};
    for (std::uint32_t t = 0; t < qv_lines; ++t) {
        const float dist = std::sqrt(sq[t]);
        gain[t] = 1.0f / (1.0f + dist);
        delay[t] = std::max(dist - r0, 0.1f) * m_rate / m_speedOfSound;
    }
    const float pre = m_settings[PreDelay];
    if (pre != 0.0f) {
        const float shift = std::max(pre * m_rate, 4.0f - delay[0]);
        for (float& d : delay)
            d += shift;
    }
    constexpr float kMax = static_cast<float>(qv_reflections_mod_param::DelayLines::MaxLength);
    for (std::uint32_t t = 0; t < qv_lines; ++t) {
        const float d = std::nearbyint(delay[t]);
        m_param->early.delays[t] = static_cast<std::uint16_t>(d >= 1.0f ? std::min(d, kMax) : 1.0f);
    }

    static constexpr float kSigns[15] = {1, 1, 1, 1, -1, -1, -1, 1, -1, -1, 1, 1, -1, 1, -1};
    const std::uint32_t outs = m_param->late.outputs;
    for (std::uint32_t o = 0; o < outs; ++o)
        for (std::uint32_t t = 0; t < qv_lines; ++t)
            m_earlyGains[o][t] = outs == 1 ? gain[t] : gain[t] * kSigns[(o + t * outs) % 15];

    m_directLevel = 1.0f / (1.0f + r0);
    m_dirty |= 0x08 | 0x10;
}

void qv_reverb_u15_control::directMix()
{
    m_dirty &= ~0x08;
    const float m = m_settings[DryWet];
    float L = m < 0.5f ? std::pow(m_directLevel + 1e-10f, 2.0f * m) : (2.0f - 2.0f * m) * m_directLevel;
    L *= m_settings[DirectGain];
    auto& d = m_param->direct;
    for (std::uint32_t i = 0; i < d.inputs; ++i)
        for (std::uint32_t o = 0; o < d.outputs; ++o)
            d.gain[i][o] = L * m_directBase[i][o];
}

void qv_reverb_u15_control::earlyMix()
{
    m_dirty &= ~0x10;
    const float m = m_settings[DryWet];
    float L = m > 0.5f ? std::pow(1.0f, 2.0f - 2.0f * m) : 2.0f * m;
    L *= m_settings[EarlyGain];
    auto& e = m_param->early_mix;
    for (std::uint32_t t = 0; t < qv_lines; ++t)
        for (std::uint32_t o = 0; o < e.outputs; ++o)
            e.gain[t][o] = L * m_earlyGains[o][t];
}

void qv_reverb_u15_control::lateMix()
{
    m_dirty &= ~0x20;
    const float m = m_settings[DryWet];
    float L = m > 0.5f ? std::pow(m_lateLevel + 1e-10f, 2.0f - 2.0f * m) : 2.0f * m * m_lateLevel;
    L *= m_settings[LateGain];
    auto& late = m_param->late;
    for (std::uint32_t o = 0; o < late.outputs; ++o)
        for (std::uint32_t i = 0; i < qv_lines; ++i)
            late.out_gains[o][i] = L * m_lateBase[o][i];
}

void qv_reverb_u15_control::modulation()
{
    m_dirty &= ~0x40;
    const float amount = m_settings[Modulation];
    for (std::uint32_t i = 0; i < qv_lines; ++i) {
        const float depth = amount * 0.02f * static_cast<float>(6 + i);
        m_param->late.core.modulation[i] = depth >= 0.0f ? std::min(depth, kMaxModulation) : 0.0f;
    }
}

bool qv_reverb_u15_control::designBand(BandCache& cache, std::uint32_t first, std::uint32_t kind)
{
    const float f = m_settings[first], g = m_settings[first + 1], q = m_settings[first + 2];
    if (cache.designed && f == cache.frequency && g == cache.level && q == cache.third)
        return false;
    cache.frequency = f;
    cache.level = g;
    cache.third = q;
    cache.designed = true;
    // The low band is a low shelf and the high band a high shelf; the third
    // value is the shelf's Q (0.333 by default: a gentle, wide slope). Keep
    // the corner inside the band the engine rate can carry, and level and Q
    // positive; anything else designs a neutral band.
    const double nyquistGuard = 0.45 * static_cast<double>(m_rate);
    const double fd = std::clamp(static_cast<double>(f), 10.0, nyquistGuard);
    BiQuadCoefficients c;
    if (std::isfinite(fd) && g > 0.0f && std::isfinite(g) && q > 0.0f && std::isfinite(q))
        c = BiQuad::design(kind, m_rate, fd, q, g);
    if (!c.isStable())
        c = BiQuadCoefficients{};
    qv_eq_band& b = cache.band;
    b.den2 = c.den2;
    b.den1 = c.den1;
    b.num2 = c.num2;
    b.num1 = c.num1;
    b.gain = c.gain;
    b.frequency = f;
    b.level = g;
    b.third = q;
    return true;
}

void qv_reverb_u15_control::toneBands()
{
    m_dirty &= ~0x80;
    // Low shelf then high shelf for each of the late and the early sound.
    const bool lateLow = designBand(m_bands[0], LateLowFreq, BiQuad::kLowShelf);
    const bool lateHigh = designBand(m_bands[1], LateHighFreq, BiQuad::kHighShelf);
    const bool earlyLow = designBand(m_bands[2], EarlyLowFreq, BiQuad::kLowShelf);
    const bool earlyHigh = designBand(m_bands[3], EarlyHighFreq, BiQuad::kHighShelf);
    if (lateLow || lateHigh) {
        m_param->late_eq.bands[0] = m_bands[0].band;
        m_param->late_eq.bands[1] = m_bands[1].band;
    }
    if (earlyLow || earlyHigh) {
        m_param->early_eq.bands[0] = m_bands[2].band;
        m_param->early_eq.bands[1] = m_bands[3].band;
    }
}

#include "Crossover.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "BiQuad.h"

namespace {

// Two channels in the lanes of one SSE2 register; plain double for one.
using Pair = double __attribute__((vector_size(16)));

// Samples that would leave as subnormal floats leave as 0: they are far
// below hearing and slow down every block that meets them.
inline float flushed(double v)
{
    return std::fabs(v) < 1e-30 ? 0.0f : static_cast<float>(v);
}

template <class T>
struct Lanes;

template <>
struct Lanes<double> {
    static double load(const float* const* p, std::int32_t i) { return static_cast<double>(p[0][i]); }
    static void store(float* const* p, std::int32_t i, double v) { p[0][i] = flushed(v); }
    static double state(BiQuadState* const* s, std::size_t k, bool older)
    {
        return older ? s[0][k].w2 : s[0][k].w1;
    }
    static void setState(BiQuadState* const* s, std::size_t k, double w1, double w2) { s[0][k] = {w1, w2}; }
};

template <>
struct Lanes<Pair> {
    static Pair load(const float* const* p, std::int32_t i)
    {
        return Pair{static_cast<double>(p[0][i]), static_cast<double>(p[1][i])};
    }
    static void store(float* const* p, std::int32_t i, Pair v)
    {
        p[0][i] = flushed(v[0]);
        p[1][i] = flushed(v[1]);
    }
    static Pair state(BiQuadState* const* s, std::size_t k, bool older)
    {
        return older ? Pair{s[0][k].w2, s[1][k].w2} : Pair{s[0][k].w1, s[1][k].w1};
    }
    static void setState(BiQuadState* const* s, std::size_t k, Pair w1, Pair w2)
    {
        s[0][k] = {w1[0], w2[0]};
        s[1][k] = {w1[1], w2[1]};
    }
};

// One second-order section, transposed direct form II: its states stay near
// the signal's size, where direct form II holds the input over the pole
// polynomial (thousands of times the signal in a low all-pass), so a gliding
// crossover moves its coefficients without ringing. States map to
// BiQuadState as w1 = s1, w2 = s2.
template <class T>
struct Section {
    T b0, b1, b2, den1, den2;
    T s1, s2;

    void set(const BiQuadCoefficients& c)
    {
        b0 = T{} + c.gain;
        b1 = T{} + c.gain * c.num1;
        b2 = T{} + c.gain * c.num2;
        den1 = T{} + c.den1;
        den2 = T{} + c.den2;
    }
    T step(T x)
    {
        const T y = b0 * x + s1;
        s1 = b1 * x + den1 * y + s2;
        s2 = b2 * x + den2 * y;
        return y;
    }
};

template <int Sections, class T>
void runSplit(const Crossover::Split& split, BiQuadState* const* low, BiQuadState* const* allPass,
              const float* const* in, float* const* band, float* const* rest, std::int32_t frames) noexcept
{
    Section<T> lp[2 * Sections], ap[Sections];
    for (int s = 0; s < 2 * Sections; ++s) {
        lp[s].set(split.lowPass[static_cast<std::size_t>(s / 2)]);
        lp[s].s1 = Lanes<T>::state(low, static_cast<std::size_t>(s), false);
        lp[s].s2 = Lanes<T>::state(low, static_cast<std::size_t>(s), true);
    }
    for (int s = 0; s < Sections; ++s) {
        ap[s].set(split.allPass[static_cast<std::size_t>(s)]);
        ap[s].s1 = Lanes<T>::state(allPass, static_cast<std::size_t>(s), false);
        ap[s].s2 = Lanes<T>::state(allPass, static_cast<std::size_t>(s), true);
    }
    for (std::int32_t i = 0; i < frames; ++i) {
        const T x = Lanes<T>::load(in, i);
        T y = x, a = x;
#pragma GCC unroll 4
        for (int s = 0; s < 2 * Sections; ++s)
            y = lp[s].step(y);
#pragma GCC unroll 2
        for (int s = 0; s < Sections; ++s)
            a = ap[s].step(a);
        Lanes<T>::store(band, i, y);
        Lanes<T>::store(rest, i, a - y);
    }
    for (int s = 0; s < 2 * Sections; ++s)
        Lanes<T>::setState(low, static_cast<std::size_t>(s), lp[s].s1, lp[s].s2);
    for (int s = 0; s < Sections; ++s)
        Lanes<T>::setState(allPass, static_cast<std::size_t>(s), ap[s].s1, ap[s].s2);
}

// `Count` all-pass sections in series, in place; `coefs[k]` and `states[k]` per section.
template <int Count, class T>
void runAllPasses(const BiQuadCoefficients* const* coefs, BiQuadState* (*states)[2], float* const* io,
                  std::int32_t frames) noexcept
{
    Section<T> ap[Count];
    for (int s = 0; s < Count; ++s) {
        ap[s].set(*coefs[s]);
        ap[s].s1 = Lanes<T>::state(states[s], 0, false);
        ap[s].s2 = Lanes<T>::state(states[s], 0, true);
    }
    for (std::int32_t i = 0; i < frames; ++i) {
        T a = Lanes<T>::load(io, i);
#pragma GCC unroll 6
        for (int s = 0; s < Count; ++s)
            a = ap[s].step(a);
        Lanes<T>::store(io, i, a);
    }
    for (int s = 0; s < Count; ++s)
        Lanes<T>::setState(states[s], 0, ap[s].s1, ap[s].s2);
}

template <class T>
void runAllPassChain(int count, const BiQuadCoefficients* const* coefs, BiQuadState* (*states)[2],
                     float* const* io, std::int32_t frames) noexcept
{
    switch (count) {
    case 1: runAllPasses<1, T>(coefs, states, io, frames); break;
    case 2: runAllPasses<2, T>(coefs, states, io, frames); break;
    case 3: runAllPasses<3, T>(coefs, states, io, frames); break;
    case 4: runAllPasses<4, T>(coefs, states, io, frames); break;
    case 5: runAllPasses<5, T>(coefs, states, io, frames); break;
    case 6: runAllPasses<6, T>(coefs, states, io, frames); break;
    default: break;
    }
}

// End of block: a state that went non-finite restarts from rest, one that
// decayed towards the subnormal range becomes 0.
void tidy(BiQuadState& s) noexcept
{
    if (!std::isfinite(s.w1) || !std::isfinite(s.w2)) {
        s = BiQuadState{};
        return;
    }
    if (std::fabs(s.w1) < 1e-30)
        s.w1 = 0.0;
    if (std::fabs(s.w2) < 1e-30)
        s.w2 = 0.0;
}

} // namespace

BiQuadCoefficients Crossover::allPassOf(const BiQuadCoefficients& p)
{
    // Numerator = the denominator mirrored: z^-2 D(1/z) has the poles'
    // reciprocal zeros and unit magnitude everywhere.
    return {.den2 = p.den2, .den1 = p.den1, .num2 = -1.0 / p.den2, .num1 = p.den1 / p.den2, .gain = -p.den2};
}

Crossover::Split Crossover::design(double sampleRate, double hz, Slope slope)
{
    Split split;
    const double f = std::clamp(hz, 1.0, 0.49 * sampleRate);
    // Butterworth pole pairs: Q = 1/sqrt(2) for the second order, 0.5412 and
    // 1.3066 for the fourth.
    const int order = slope == k48dB ? 4 : 2;
    split.sections = order / 2;
    for (int k = 0; k < split.sections; ++k) {
        const double q = 1.0 / (2.0 * std::sin((2.0 * k + 1.0) * M_PI / (2.0 * order)));
        const auto i = static_cast<std::size_t>(k);
        split.lowPass[i] = BiQuad::design(BiQuad::kLowPass, sampleRate, f, q, 1.0);
        split.allPass[i] = allPassOf(split.lowPass[i]);
    }
    return split;
}

void Crossover::setChannelCount(std::int32_t channels)
{
    m_channels = std::max(channels, 0);
    m_states.assign(static_cast<std::size_t>(m_channels), ChannelState{});
}

void Crossover::setBands(int bands, Slope slope) noexcept
{
    bands = std::clamp(bands, 1, kMaxBands);
    if (bands == m_bands && slope == m_slope)
        return;
    if (slope != m_slope) {
        reset();
    } else {
        // Splits that come into use start from rest, as do the compensations
        // of every band below them; the others carry on undisturbed.
        for (ChannelState& s : m_states) {
            for (int k = std::min(bands, m_bands) - 1; k < kMaxSplits; ++k) {
                s.low[static_cast<std::size_t>(k)] = {};
                s.allPass[static_cast<std::size_t>(k)] = {};
                for (auto& band : s.compensation)
                    band[static_cast<std::size_t>(k)] = {};
            }
        }
    }
    m_bands = bands;
    m_slope = slope;
}

void Crossover::reset() noexcept
{
    for (ChannelState& s : m_states)
        s = ChannelState{};
}

template <int Lanes>
void Crossover::run(ChannelState* const* states, const float* const* in, float* const* const* bands,
                    std::int32_t frames) noexcept
{
    using T = std::conditional_t<Lanes == 2, Pair, double>;
    const int splits = m_bands - 1;
    const int sections = m_splits[0].sections;
    float* const* top = bands[splits];
    for (int k = 0; k < splits; ++k) {
        const auto kk = static_cast<std::size_t>(k);
        BiQuadState* low[2] = {states[0]->low[kk].data(), states[Lanes - 1]->low[kk].data()};
        BiQuadState* ap[2] = {states[0]->allPass[kk].data(), states[Lanes - 1]->allPass[kk].data()};
        const float* const* from = k == 0 ? in : top;
        if (sections == 2)
            runSplit<2, T>(m_splits[kk], low, ap, from, bands[k], top, frames);
        else
            runSplit<1, T>(m_splits[kk], low, ap, from, bands[k], top, frames);
    }
    // Band j goes through the all-passes of every split above it.
    for (int j = 0; j + 1 < splits; ++j) {
        const BiQuadCoefficients* coefs[kMaxSplits * kMaxSections];
        BiQuadState* st[kMaxSplits * kMaxSections][2];
        int count = 0;
        for (int k = j + 1; k < splits; ++k) {
            for (int s = 0; s < sections; ++s) {
                const auto kk = static_cast<std::size_t>(k), ss = static_cast<std::size_t>(s);
                const auto jj = static_cast<std::size_t>(j);
                coefs[count] = &m_splits[kk].allPass[ss];
                st[count][0] = &states[0]->compensation[jj][kk][ss];
                st[count][1] = &states[Lanes - 1]->compensation[jj][kk][ss];
                ++count;
            }
        }
        runAllPassChain<T>(count, coefs, st, bands[j], frames);
    }
    for (int c = 0; c < Lanes; ++c) {
        ChannelState& s = *states[c];
        for (auto& split : s.low)
            for (BiQuadState& x : split)
                tidy(x);
        for (auto& split : s.allPass)
            for (BiQuadState& x : split)
                tidy(x);
        for (auto& band : s.compensation)
            for (auto& split : band)
                for (BiQuadState& x : split)
                    tidy(x);
    }
}

void Crossover::process(std::int32_t first, std::int32_t count, const float* const* in,
                        float* const* const* bands, std::int32_t frames) noexcept
{
    if (frames <= 0 || count < 1 || first < 0 || first + count > m_channels)
        return;
    if (m_bands == 1) {
        for (std::int32_t c = 0; c < count; ++c)
            if (bands[0][c] != in[c])
                std::memcpy(bands[0][c], in[c], static_cast<std::size_t>(frames) * sizeof(float));
        return;
    }
    ChannelState* states[2] = {&m_states[static_cast<std::size_t>(first)],
                               &m_states[static_cast<std::size_t>(first + count - 1)]};
    if (count == 2)
        run<2>(states, in, bands, frames);
    else
        run<1>(states, in, bands, frames);
}

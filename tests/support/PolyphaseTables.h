#pragma once
// Coefficient tables for the polyphase tests, and how many frames a kernel
// reads and writes for a number of steps.

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/Upsampler.h"
#include "GuardedBuffer.h"

#include <algorithm>
#include <vector>

namespace twa::numeric {

struct PolyTable {
    PolyphaseFamily id;
    const char* name;
    std::vector<float> taps;
    std::size_t factor;
    bool down;
};

// A downsampler table of the symmetric half-band shape, K taps per phase:
// phase 0 random and mirrored, phase 1 zero but for tap d.
inline std::vector<float> symmetricHalfband(std::size_t K, std::size_t d, unsigned seed)
{
    auto t = qvd::test::uniform(2 * K, -0.5f, 0.5f, seed);
    for (std::size_t k = 0; k < K; ++k) {
        t[2 * k] = t[2 * std::min(k, K - 1 - k)];
        t[2 * k + 1] = k == d ? 0.375f : 0.0f;
    }
    return t;
}

inline std::vector<float> shipped(const float* table, std::size_t count)
{
    return {table, table + count};
}

// The shipped tables; random ones without a single-tap phase, one longer than
// the kernels stage; the half-band shape off the centre, at other lengths,
// beyond 128 taps per phase, and with one tap of phase 0 changed.
inline const std::vector<PolyTable>& polyphaseTables()
{
    using F = PolyphaseFamily;
    static const std::vector<PolyTable> list = [] {
        std::vector<float> lopsided = shipped(tables::kDownsampler_x2, 192);
        lopsided[10] *= 1.5f;
        return std::vector<PolyTable>{
            {F::Up2, "Up2", shipped(tables::kUpsampler_x2, 96), 2, false},
            {F::Up2, "Up2short", shipped(tables::kUpsampler_x2_short, 64), 2, false},
            {F::Up4, "Up4", shipped(tables::kUpsampler_x4, 192), 4, false},
            {F::Up4, "TruePeak", shipped(tables::kUpsamplerTruePeak_x4, 48), 4, false},
            {F::Up8, "Up8", shipped(tables::kUpsampler_x8, 384), 8, false},
            {F::Down2, "Down2", shipped(tables::kDownsampler_x2, 192), 2, true},
            {F::Down4, "Down4", shipped(tables::kDownsampler_x4, 384), 4, true},
            {F::Up2, "Up2random", qvd::test::uniform(96, -0.5f, 0.5f, 31), 2, false},
            {F::Down2, "Down2random", qvd::test::uniform(192, -0.5f, 0.5f, 32), 2, true},
            {F::Down4, "Down4random", qvd::test::uniform(384, -0.5f, 0.5f, 33), 4, true},
            {F::Down2, "Down2long", qvd::test::uniform(264, -0.5f, 0.5f, 34), 2, true},
            {F::Down2, "Down2sym32", symmetricHalfband(32, 5, 35), 2, true},
            {F::Down2, "Down2sym58", symmetricHalfband(58, 40, 36), 2, true},
            {F::Down2, "Down2sym132", symmetricHalfband(132, 65, 37), 2, true},
            {F::Down2, "Down2lopsided", lopsided, 2, true},
        };
    }();
    return list;
}

// Input frames a kernel reads for `steps` steps (see ResampleKernels.h).
inline std::size_t framesRead(const PolyTable& t, std::size_t steps)
{
    const std::size_t taps = t.taps.size() / t.factor;
    if (!t.down)
        return steps + taps - 1;
    const std::size_t outs = steps / t.factor;
    return outs ? (outs - 1) * t.factor + t.taps.size() : 0;
}

inline std::size_t framesWritten(const PolyTable& t, std::size_t steps)
{
    return t.down ? steps / t.factor : steps * t.factor;
}

} // namespace twa::numeric

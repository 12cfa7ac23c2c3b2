#pragma once
// Running per-channel minimum and maximum of interleaved frames.

#include "System/twa_dispatch.h"

#include <cstddef>
#include <memory>
#include <span>

namespace twa::numeric {

// minmax holds two floats per channel: the minimum of channel c at 2c and its
// maximum at 2c + 1. All variants find the same extremes; NaN samples are not
// detected (a NaN may or may not win). SIMD variants expect aligned pointers.
class FindMinMax {
public:
    virtual ~FindMinMax();
    FindMinMax(const FindMinMax&) = delete;
    FindMinMax& operator=(const FindMinMax&) = delete;

    // [any-thread]
    virtual const char* Name() const noexcept = 0;
    // [any-thread] Channels per frame, fixed at construction.
    virtual std::size_t ChannelCount() const noexcept = 0;
    // [audio-thread] Scans `frames` frames. With `start` the extremes begin
    // afresh from these frames; otherwise they update what minmax holds.
    // Returns false and leaves minmax untouched when a pointer is null or a
    // start is asked for with no frames.
    virtual bool Process(const float* in, std::size_t frames, float* minmax,
                         bool start) const noexcept = 0;

protected:
    FindMinMax() noexcept;
};

using FindMinMaxVariant = KernelVariant<FindMinMax, std::size_t>;

// [not while processing] Installs the preferred variant for `channels`
// channels (at least 1); leaves `out` empty only for 0 channels.
void CreateFindMinMax(std::unique_ptr<FindMinMax>& out, std::size_t channels);
std::span<const FindMinMaxVariant> FindMinMaxVariants();

FindMinMax* NewFindMinMax_ref(std::size_t channels);
FindMinMax* NewFindMinMax_m128(std::size_t channels); // 1, 2 or a multiple of 4
FindMinMax* NewFindMinMax_m256(std::size_t channels); // 1, 2, 4 or a multiple of 8

} // namespace twa::numeric

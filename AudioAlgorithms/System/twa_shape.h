#pragma once
// Shape of interleaved sample data: how many channels a frame carries and how
// many samples apart consecutive frames are.

#include <cstddef>

namespace twa {

struct shape {
    std::size_t channels = 0;
    std::size_t width = 0; // samples per frame, >= channels (padding allowed)
    std::size_t frames = 0;

    constexpr std::size_t samples() const noexcept { return width * frames; }
    constexpr bool operator==(const shape&) const = default;
};

} // namespace twa

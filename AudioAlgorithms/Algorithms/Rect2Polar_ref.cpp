#include "Algorithms/Rect2Polar.h"

#include <cmath>

namespace twa::numeric {
namespace ref {
namespace {

class Rect2Polar_ref final : public Rect2Polar {
public:
    const char* Name() const noexcept override { return "Rect2Polar_ref"; }
    void Process(const float* re, const float* im, float* mag, float* phase,
                 std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i) {
            const float x = re[i];
            const float y = im[i];
            mag[i] = std::sqrt(x * x + y * y);
            phase[i] = std::atan2(y, x);
        }
    }
};

} // namespace
} // namespace ref

Rect2Polar* NewRect2Polar_ref()
{
    return new ref::Rect2Polar_ref();
}

} // namespace twa::numeric

#include "Algorithms/Polar2Rect.h"

#include <cmath>

namespace twa::numeric {
namespace ref {
namespace {

class Polar2Rect_ref final : public Polar2Rect {
public:
    const char* Name() const noexcept override { return "Polar2Rect_ref"; }
    void Process(const float* mag, const float* phase, float* re, float* im,
                 std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i) {
            const float m = mag[i];
            const float p = phase[i];
            re[i] = m * std::cos(p);
            im[i] = m * std::sin(p);
        }
    }
};

} // namespace
} // namespace ref

Polar2Rect* NewPolar2Rect_ref()
{
    return new ref::Polar2Rect_ref();
}

} // namespace twa::numeric

#include "Algorithms/CSquareMagnitude.h"

namespace twa::numeric {
namespace ref {
namespace {

class CSquareMagnitude_ref final : public CSquareMagnitude {
public:
    const char* Name() const noexcept override { return "CSquareMagnitude_ref"; }
    void Process(const float* cplx, float* out, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i) {
            const float re = cplx[2 * i];
            const float im = cplx[2 * i + 1];
            out[i] = re * re + im * im;
        }
    }
};

} // namespace
} // namespace ref

CSquareMagnitude* NewCSquareMagnitude_ref()
{
    return new ref::CSquareMagnitude_ref();
}

} // namespace twa::numeric

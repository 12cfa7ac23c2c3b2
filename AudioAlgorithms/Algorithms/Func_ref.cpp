#include "Algorithms/Func.h"
#include "Algorithms/FuncImpl.h"

#include <cmath>

namespace twa::numeric {
namespace ref {
namespace {

class Func_ref final : public Func {
public:
    const char* Name() const noexcept override { return "Func_ref"; }
    void Abs(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::fabs(x); });
    }
    void Sqrt(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::sqrt(x); });
    }
    void Exp(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::exp(x); });
    }
    void Log(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::log(x); });
    }
    void Log10(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::log10(x); });
    }
    void Pow10(const float* in, float* out, std::size_t n) const noexcept override
    {
        FuncApply(in, out, n, [](float x) { return std::pow(10.0f, x); });
    }
};

} // namespace
} // namespace ref

Func* NewFunc_ref()
{
    return new ref::Func_ref();
}

} // namespace twa::numeric

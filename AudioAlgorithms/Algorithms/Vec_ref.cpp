#include "Algorithms/Vec.h"

#include <cstring>
#include <limits>

namespace twa::numeric {
namespace ref {
namespace {

// a precedes b in the search order: NaN never wins over a number.
template <bool kMin>
bool better(float a, float b)
{
    if (b != b)
        return a == a;
    return kMin ? a < b : a > b;
}

template <bool kMin>
ValueIndex search(const float* in, std::size_t n)
{
    if (n == 0)
        return {kMin ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity(), 0};
    std::size_t best = 0;
    for (std::size_t i = 1; i < n; ++i)
        if (better<kMin>(in[i], in[best]))
            best = i;
    return {in[best], best};
}

class Vec_ref final : public Vec {
public:
    const char* Name() const noexcept override { return "Vec_ref"; }
    void Copy(const float* in, float* out, std::size_t n) const noexcept override
    {
        if (n != 0 && in != out)
            std::memcpy(out, in, n * sizeof(float));
    }
    void Fill(float* out, float value, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = value;
    }
    void Clamp(const float* in, float lo, float hi, float* out, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i) {
            const float v = in[i] > lo ? in[i] : lo;
            out[i] = v < hi ? v : hi;
        }
    }
    ValueIndex MinIndex(const float* in, std::size_t n) const noexcept override
    {
        return search<true>(in, n);
    }
    ValueIndex MaxIndex(const float* in, std::size_t n) const noexcept override
    {
        return search<false>(in, n);
    }
};

} // namespace
} // namespace ref

Vec* NewVec_ref()
{
    return new ref::Vec_ref();
}

} // namespace twa::numeric

#include "Algorithms/Blas1.h"

namespace twa::numeric {
namespace ref {
namespace {

class Blas1_ref final : public Blas1 {
public:
    const char* Name() const noexcept override { return "Blas1_ref"; }
    void Scale(const float* x, float a, float* out, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = a * x[i];
    }
    void Add(const float* x, const float* y, float* out, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = x[i] + y[i];
    }
    void Mul(const float* x, const float* y, float* out, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = x[i] * y[i];
    }
    void MulAdd(const float* x, const float* y, const float* z, float* out,
                std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = x[i] * y[i] + z[i];
    }
    void Axpy(float a, const float* x, float* y, std::size_t n) const noexcept override
    {
        for (std::size_t i = 0; i < n; ++i)
            y[i] = a * x[i] + y[i];
    }
    float Dot(const float* x, const float* y, std::size_t n) const noexcept override
    {
        float s = 0.0f;
        for (std::size_t i = 0; i < n; ++i)
            s += x[i] * y[i];
        return s;
    }
    float Sum(const float* x, std::size_t n) const noexcept override
    {
        float s = 0.0f;
        for (std::size_t i = 0; i < n; ++i)
            s += x[i];
        return s;
    }
};

} // namespace
} // namespace ref

Blas1* NewBlas1_ref()
{
    return new ref::Blas1_ref();
}

} // namespace twa::numeric

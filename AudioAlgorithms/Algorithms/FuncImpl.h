#pragma once
// Scalar elementwise loops behind the reference variants. In place they go one
// element at a time; otherwise four at a time, which lets the compiler keep
// four independent calls in flight, with a scalar tail.

#include "System/twa_assert.h"

#include <cstddef>

namespace twa::numeric::ref {

template <class F>
void FuncApply(const float* in, float* out, std::size_t n, F f) noexcept
{
    QVD_ASSERT((in != nullptr) && (out != nullptr));
    if (in == nullptr || out == nullptr)
        return;
    std::size_t i = 0;
    if (in == out) {
        for (; i < n; ++i)
            out[i] = f(in[i]);
        return;
    }
    for (; i + 4 <= n; i += 4) {
        out[i] = f(in[i]);
        out[i + 1] = f(in[i + 1]);
        out[i + 2] = f(in[i + 2]);
        out[i + 3] = f(in[i + 3]);
    }
    for (; i < n; ++i)
        out[i] = f(in[i]);
}

} // namespace twa::numeric::ref

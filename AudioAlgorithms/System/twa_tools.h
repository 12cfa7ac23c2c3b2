#pragma once
// Small helpers around sample containers: a FIFO on a vector and strided copies.

#include "System/twa_assert.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace twa {

// Appends v_size samples. [audio-thread] only when the capacity was reserved
// beforehand; otherwise it may allocate.
template <class T, class A>
void FifoPush(std::vector<T, A>& p_FIFO, const T* v, std::size_t v_size)
{
    p_FIFO.insert(p_FIFO.end(), v, v + v_size);
}

// [audio-thread] Moves the oldest v_size samples into v. A FIFO holding fewer
// is a contract failure: what it holds is popped and the rest of v zero-filled.
// Returns whether v_size samples were available.
template <class T, class A>
bool FifoPop(std::vector<T, A>& p_FIFO, T* v, std::size_t v_size) noexcept
{
    QVD_ASSERT(p_FIFO.size() >= v_size);
    const std::size_t n = std::min(p_FIFO.size(), v_size);
    std::copy_n(p_FIFO.begin(), n, v);
    std::fill(v + n, v + v_size, T{});
    p_FIFO.erase(p_FIFO.begin(), p_FIFO.begin() + static_cast<std::ptrdiff_t>(n));
    return n == v_size;
}

// [audio-thread] out[i] = in[i * stride], for i < n.
template <class T>
void GatherStrided(const T* in, std::size_t stride, T* out, std::size_t n) noexcept
{
    QVD_ASSERT(stride>0);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = in[i * stride];
}

// [audio-thread] out[i * stride] = in[i], for i < n.
template <class T>
void ScatterStrided(const T* in, T* out, std::size_t stride, std::size_t n) noexcept
{
    QVD_ASSERT(stride>0);
    for (std::size_t i = 0; i < n; ++i)
        out[i * stride] = in[i];
}

} // namespace twa

#include "TDynamicBuffer.h"

#include <cstring>
#include <new>

#include <System/twa_assert.h>

bool TDynamicBuffer::reserve(std::size_t bytes)
{
    if (bytes <= m_size && m_data)
        return true;
    m_data.reset();
    m_size = 0;
    // Rounded up to whole floats and 32 bytes so SIMD tails stay inside.
    const std::size_t rounded = (bytes + 31) & ~std::size_t{31};
    std::byte* p = new (std::nothrow) std::byte[rounded];
    if (!p) {
        twa::debug::report("Error - new failed\n");
        return false;
    }
    std::memset(p, 0, rounded);
    m_data.reset(p);
    m_size = rounded;
    return true;
}

void TDynamicBuffer::clear()
{
    if (m_data)
        std::memset(m_data.get(), 0, m_size);
}

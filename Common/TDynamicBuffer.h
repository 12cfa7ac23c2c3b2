#pragma once
// Host core library growable byte buffer. Grows only: a request larger than
// the current size frees the old storage and allocates the new size zeroed.

#include <cstddef>
#include <memory>

class TDynamicBuffer {
public:
    // [not while processing] Ensures at least `bytes` bytes. On allocation
    // failure reports "Error - new failed", keeps no storage and returns false.
    bool reserve(std::size_t bytes);
    void clear();

    void* data() const { return m_data.get(); }
    float* floats() const { return reinterpret_cast<float*>(m_data.get()); }
    std::size_t size() const { return m_size; }

private:
    std::unique_ptr<std::byte[]> m_data;
    std::size_t m_size = 0;
};

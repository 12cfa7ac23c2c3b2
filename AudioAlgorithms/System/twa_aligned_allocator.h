#pragma once
// Allocator for SIMD data: every block starts on an `Align`-byte boundary.

#include <cstddef>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

namespace twa::memory {

template <class T, std::size_t Align>
class aligned_allocator {
    static_assert(Align >= alignof(T) && (Align & (Align - 1)) == 0,
                  "alignment must be a power of two no smaller than the type's");

public:
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using propagate_on_container_move_assignment = std::true_type;
    using is_always_equal = std::true_type;
    static constexpr std::size_t alignment = Align;

    template <class U>
    struct rebind {
        using other = aligned_allocator<U, Align>;
    };

    constexpr aligned_allocator() noexcept = default;
    template <class U>
    constexpr aligned_allocator(const aligned_allocator<U, Align>&) noexcept
    {
    }

    // [not while processing] Throws std::length_error when n * sizeof(T)
    // overflows and std::bad_alloc when memory runs out.
    T* allocate(std::size_t n)
    {
        if (n > std::numeric_limits<std::size_t>::max() / sizeof(T))
            throw std::length_error("aligned_allocator<T>::allocate() - Integer overflow.");
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t{Align}));
    }

    void deallocate(T* p, std::size_t) noexcept
    {
        ::operator delete(p, std::align_val_t{Align});
    }

    template <class U>
    bool operator==(const aligned_allocator<U, Align>&) const noexcept
    {
        return true;
    }
};

} // namespace twa::memory

namespace twa {

// The library's sample vector: floats on 32-byte boundaries.
using sample_vector = std::vector<float, memory::aligned_allocator<float, 32>>;

} // namespace twa

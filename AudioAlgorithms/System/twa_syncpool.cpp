#include "System/twa_syncpool.h"

#include <boost/container/pmr/global_resource.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

namespace twa::memory {

namespace bpmr = boost::container::pmr;

SyncPool::SyncPool() : m_pool() {}

SyncPool::SyncPool(const bpmr::pool_options& options, bpmr::memory_resource* upstream)
    : m_pool(options, upstream ? upstream : bpmr::get_default_resource())
{
}

SyncPool::~SyncPool() = default;

void SyncPool::release()
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_pool.release();
}

bpmr::pool_options SyncPool::options() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_pool.options();
}

namespace {
// The inner pool only aligns to the fundamental alignment; stricter requests
// get room for the alignment plus the raw pointer, stored just before the block.
constexpr std::size_t kPoolAlign = alignof(std::max_align_t);

std::size_t paddedSize(std::size_t bytes, std::size_t alignment)
{
    return bytes + alignment + sizeof(void*);
}
} // namespace

void* SyncPool::do_allocate(std::size_t bytes, std::size_t alignment)
{
    if (alignment > kPoolAlign && bytes > std::numeric_limits<std::size_t>::max() - alignment - sizeof(void*))
        throw std::bad_alloc();
    std::lock_guard<std::mutex> guard(m_lock);
    if (alignment <= kPoolAlign)
        return m_pool.allocate(bytes, alignment);
    void* raw = m_pool.allocate(paddedSize(bytes, alignment), kPoolAlign);
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw) + sizeof(void*);
    const std::uintptr_t block = (start + alignment - 1) & ~static_cast<std::uintptr_t>(alignment - 1);
    std::memcpy(reinterpret_cast<void*>(block - sizeof(void*)), &raw, sizeof raw);
    return reinterpret_cast<void*>(block);
}

void SyncPool::do_deallocate(void* p, std::size_t bytes, std::size_t alignment)
{
    std::lock_guard<std::mutex> guard(m_lock);
    if (alignment <= kPoolAlign) {
        m_pool.deallocate(p, bytes, alignment);
        return;
    }
    void* raw = nullptr;
    std::memcpy(&raw, static_cast<char*>(p) - sizeof(void*), sizeof raw);
    m_pool.deallocate(raw, paddedSize(bytes, alignment), kPoolAlign);
}

bool SyncPool::do_is_equal(const bpmr::memory_resource& other) const noexcept
{
    return dynamic_cast<const SyncPool*>(&other) == this;
}

} // namespace twa::memory

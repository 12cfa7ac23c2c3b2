#pragma once
// A pool memory resource that many threads may share: every call into the
// inner, unsynchronised pool runs under one lock.

#include <boost/container/pmr/memory_resource.hpp>
#include <boost/container/pmr/pool_options.hpp>
#include <boost/container/pmr/unsynchronized_pool_resource.hpp>

#include <mutex>

namespace twa::memory {

class SyncPool final : public boost::container::pmr::memory_resource {
public:
    // Takes memory from the default upstream resource.
    SyncPool();
    explicit SyncPool(const boost::container::pmr::pool_options& options,
                      boost::container::pmr::memory_resource* upstream = nullptr);
    ~SyncPool() override;
    SyncPool(const SyncPool&) = delete;
    SyncPool& operator=(const SyncPool&) = delete;

    // [not while processing] Returns every block to the upstream resource.
    void release();
    boost::container::pmr::pool_options options() const;

protected:
    // [any-thread] Lock, forward, unlock. Not for the audio thread: it waits.
    void* do_allocate(std::size_t bytes, std::size_t alignment) override;
    void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) override;
    // Equal only to itself.
    bool do_is_equal(const boost::container::pmr::memory_resource& other) const noexcept override;

private:
    mutable std::mutex m_lock;
    boost::container::pmr::unsynchronized_pool_resource m_pool;
};

} // namespace twa::memory

#pragma once
// Host core library lock: a recursive critical section and its scoped guard.
// Used on control threads only; the audio path never takes it.

#include <mutex>

class TCriticalSection {
public:
    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }
    bool tryLock() { return m_mutex.try_lock(); }

private:
    std::recursive_mutex m_mutex;
};

// Locks for its lifetime. A null section is reported
// (" TAutoLockCS given a null pointer\n") and nothing is locked.
class TAutoLockCS {
public:
    explicit TAutoLockCS(TCriticalSection* section);
    ~TAutoLockCS();
    TAutoLockCS(const TAutoLockCS&) = delete;
    TAutoLockCS& operator=(const TAutoLockCS&) = delete;

private:
    TCriticalSection* m_section;
};

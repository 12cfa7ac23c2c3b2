#pragma once
// Sets flush-to-zero and denormals-are-zero for its lifetime and restores the
// caller's mode after: the host's audio thread keeps whatever it had.
#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
class QVDDenormalGuard {
public:
    QVDDenormalGuard() noexcept : m_saved(_mm_getcsr()) { _mm_setcsr(m_saved | 0x8040u); }
    ~QVDDenormalGuard() { _mm_setcsr(m_saved); }
    QVDDenormalGuard(const QVDDenormalGuard&) = delete;
    QVDDenormalGuard& operator=(const QVDDenormalGuard&) = delete;

private:
    unsigned m_saved;
};
#else
class QVDDenormalGuard {
};
#endif

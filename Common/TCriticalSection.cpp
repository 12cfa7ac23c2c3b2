#include "TCriticalSection.h"

#include <System/twa_assert.h>

TAutoLockCS::TAutoLockCS(TCriticalSection* section) : m_section(section)
{
    if (m_section)
        m_section->lock();
    else
        twa::debug::report(" TAutoLockCS given a null pointer\n");
}

TAutoLockCS::~TAutoLockCS()
{
    if (m_section)
        m_section->unlock();
}

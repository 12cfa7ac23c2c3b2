#include "SmoothingCoefficient.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>
#include <vector>

namespace {
struct Registry {
    std::mutex mutex;
    std::vector<SmoothingCoefficient*> records;
};
Registry& registry()
{
    static Registry r;
    return r;
}
} // namespace

SmoothingCoefficient::SmoothingCoefficient(std::int32_t timeConstantMs) : m_timeConstantMs(timeConstantMs)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.records.push_back(this);
}

SmoothingCoefficient::~SmoothingCoefficient()
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    r.records.erase(std::remove(r.records.begin(), r.records.end(), this), r.records.end());
}

void SmoothingCoefficient::recompute(double sampleRate)
{
    if (!(sampleRate > 0.0) || !std::isfinite(sampleRate) || m_timeConstantMs <= 0)
        return;
    const double a = std::min(std::exp(-2.0 * std::numbers::pi / (m_timeConstantMs * sampleRate * 0.001)), 1.0);
    m_a.store(a, std::memory_order_relaxed);
    m_b.store(1.0 - a, std::memory_order_relaxed);
}

void SmoothingCoefficient::recomputeAll(double sampleRate)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (SmoothingCoefficient* c : r.records)
        c->recompute(sampleRate);
}

void SmoothingCoefficient::enableAll(bool enabled)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (SmoothingCoefficient* c : r.records)
        c->m_enabled.store(enabled, std::memory_order_relaxed);
}

SmoothingCoefficient& SmoothingCoefficient::shared200ms()
{
    static SmoothingCoefficient c(200);
    return c;
}

namespace {
// Joins the list during static initialisation, before any plugin is prepared.
[[maybe_unused]] SmoothingCoefficient& g_shared200ms = SmoothingCoefficient::shared200ms();
} // namespace

#include "LoudnessGating.h"

#include <algorithm>
#include <cmath>
#include <limits>

double loudnessOf(double energy) noexcept
{
    return energy > 0.0 ? -0.691 + 10.0 * std::log10(energy) : -std::numeric_limits<double>::infinity();
}

double energyOf(double lufs) noexcept
{
    return std::pow(10.0, (lufs + 0.691) / 10.0);
}

LoudnessHistogram::LoudnessHistogram()
    : m_bins(static_cast<std::int32_t>((kTop - kAbsoluteGate) * kBinsPerLU)), m_topBit(1),
      m_counts(static_cast<std::size_t>(m_bins) + 1, 0), m_energies(static_cast<std::size_t>(m_bins) + 1, 0.0)
{
    while (m_topBit * 2 <= m_bins)
        m_topBit *= 2;
}

void LoudnessHistogram::clear() noexcept
{
    std::fill(m_counts.begin(), m_counts.end(), 0);
    std::fill(m_energies.begin(), m_energies.end(), 0.0);
    m_count = 0;
    m_energy = 0.0;
}

void LoudnessHistogram::add(double energy) noexcept
{
    const double lufs = loudnessOf(energy);
    // The gate passes blocks above it; NaN and infinities never count.
    if (!(lufs > kAbsoluteGate) || !std::isfinite(energy))
        return;
    const auto bin = std::min(static_cast<std::int32_t>((lufs - kAbsoluteGate) * kBinsPerLU), m_bins - 1);
    for (std::int32_t i = bin + 1; i <= m_bins; i += i & -i) {
        m_counts[static_cast<std::size_t>(i)] += 1;
        m_energies[static_cast<std::size_t>(i)] += energy;
    }
    ++m_count;
    m_energy += energy;
}

std::int64_t LoudnessHistogram::countBelow(std::int32_t end) const noexcept
{
    std::int64_t sum = 0;
    for (std::int32_t i = end; i > 0; i -= i & -i)
        sum += m_counts[static_cast<std::size_t>(i)];
    return sum;
}

double LoudnessHistogram::energyBelow(std::int32_t end) const noexcept
{
    double sum = 0.0;
    for (std::int32_t i = end; i > 0; i -= i & -i)
        sum += m_energies[static_cast<std::size_t>(i)];
    return sum;
}

LoudnessHistogram::Cut LoudnessHistogram::cut(double relativeGate) const noexcept
{
    const double gate = m_energy / static_cast<double>(m_count) * std::pow(10.0, relativeGate / 10.0);
    const double position = (loudnessOf(gate) - kAbsoluteGate) * kBinsPerLU;
    if (!(position > 0.0))
        return {0, m_count, m_energy};
    const auto bin = std::min(static_cast<std::int32_t>(position), m_bins - 1);
    // The bin the gate falls in goes with its mean: in when that passes.
    const std::int64_t below = countBelow(bin);
    const double energyBelowBin = energyBelow(bin);
    const std::int64_t inBin = countBelow(bin + 1) - below;
    const double energyInBin = energyBelow(bin + 1) - energyBelowBin;
    if (inBin > 0 && energyInBin / static_cast<double>(inBin) > gate)
        return {bin, m_count - below, m_energy - energyBelowBin};
    return {bin + 1, m_count - below - inBin, m_energy - energyBelowBin - energyInBin};
}

double LoudnessHistogram::gatedLoudness(double relativeGate) const noexcept
{
    if (m_count == 0)
        return -std::numeric_limits<double>::infinity();
    const Cut c = cut(relativeGate);
    return c.count > 0 ? loudnessOf(c.energy / static_cast<double>(c.count)) : -std::numeric_limits<double>::infinity();
}

std::int32_t LoudnessHistogram::binOfRank(std::int64_t rank) const noexcept
{
    // Descends the tree: the largest prefix holding no more than `rank` blocks.
    std::int32_t pos = 0;
    for (std::int32_t step = m_topBit; step > 0; step /= 2) {
        const std::int32_t next = pos + step;
        if (next <= m_bins && m_counts[static_cast<std::size_t>(next)] <= rank) {
            pos = next;
            rank -= m_counts[static_cast<std::size_t>(next)];
        }
    }
    return pos; // 0-based bin index
}

double LoudnessHistogram::binLoudness(std::int32_t bin) const noexcept
{
    const std::int64_t n = countBelow(bin + 1) - countBelow(bin);
    const double e = energyBelow(bin + 1) - energyBelow(bin);
    // The bin's own mean places it to well within its width.
    return n > 0 ? loudnessOf(e / static_cast<double>(n))
                 : kAbsoluteGate + (static_cast<double>(bin) + 0.5) / kBinsPerLU;
}

double LoudnessHistogram::range(double relativeGate, double low, double high) const noexcept
{
    if (m_count == 0)
        return 0.0;
    const Cut c = cut(relativeGate);
    if (c.count <= 0)
        return 0.0;
    const std::int64_t skipped = m_count - c.count;
    const auto last = static_cast<double>(c.count - 1);
    const auto lowRank = static_cast<std::int64_t>(last * low + 0.5);
    const auto highRank = static_cast<std::int64_t>(last * high + 0.5);
    return binLoudness(binOfRank(skipped + highRank)) - binLoudness(binOfRank(skipped + lowRank));
}

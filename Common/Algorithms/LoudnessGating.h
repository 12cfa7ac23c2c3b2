#pragma once
// Gated statistics of loudness blocks without keeping the blocks: a
// histogram of 0.01 LU bins from the absolute gate up, holding each bin's
// count and exact energy sum in prefix-sum (Fenwick) trees. Adding a block
// and every query cost a few dozen steps however long the programme runs,
// and only blocks that share a 0.01 LU bin with a relative gate can fall on
// the wrong side of it.

#include <cstdint>
#include <vector>

// Loudness of a mean square (already channel-weighted), in LUFS.
double loudnessOf(double energy) noexcept;
// The mean square of a loudness, in LUFS.
double energyOf(double lufs) noexcept;

class LoudnessHistogram {
public:
    static constexpr double kAbsoluteGate = -70.0; // LUFS
    static constexpr double kTop = 30.0;           // LUFS; louder blocks share the top bin
    static constexpr double kBinsPerLU = 100.0;

    // [not while processing] Sizes the trees.
    LoudnessHistogram();

    // [audio-thread]
    void clear() noexcept;
    // Counts a block of mean square `energy`; below the absolute gate it is ignored.
    void add(double energy) noexcept;
    std::int64_t count() const noexcept { return m_count; }

    // Integrated loudness (LUFS) of the blocks above `relativeGate` LU under
    // the mean of those above the absolute gate; -inf without any.
    double gatedLoudness(double relativeGate) const noexcept;
    // Loudness range (LU): the spread between the `low` and `high` quantiles
    // of the blocks that pass both gates; 0 without any.
    double range(double relativeGate, double low, double high) const noexcept;

private:
    struct Cut {
        std::int32_t bin;   // first bin counted
        std::int64_t count; // blocks from there up
        double energy;
    };
    Cut cut(double relativeGate) const noexcept;
    // Sums of bins [0, end).
    std::int64_t countBelow(std::int32_t end) const noexcept;
    double energyBelow(std::int32_t end) const noexcept;
    // The bin holding the block of rank `rank` (0-based, quietest first).
    std::int32_t binOfRank(std::int64_t rank) const noexcept;
    double binLoudness(std::int32_t bin) const noexcept;

    std::int32_t m_bins;
    std::int32_t m_topBit; // highest power of two within the tree, for rank searches
    std::vector<std::int64_t> m_counts; // Fenwick, 1-based
    std::vector<double> m_energies;
    std::int64_t m_count = 0;
    double m_energy = 0.0;
};

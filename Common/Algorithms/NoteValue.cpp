#include "NoteValue.h"

#include <algorithm>

namespace qvd::notes {

std::vector<std::string> labels()
{
    std::vector<std::string> out;
    out.reserve(kCount);
    for (int k = 0, d = 1; k < kCount / 3; ++k, d *= 2) {
        const std::string base = "1/" + std::to_string(d);
        out.push_back(base);
        out.push_back(base + " D");
        out.push_back(base + " T");
    }
    return out;
}

std::vector<std::string> syncLabels()
{
    std::vector<std::string> out{"Free"};
    for (auto& label : labels())
        out.push_back(std::move(label));
    return out;
}

double beats(std::int32_t index) noexcept
{
    index = std::clamp(index, 0, kCount - 1);
    // A whole note is four quarters; each step down halves it.
    const double straight = 4.0 / static_cast<double>(1 << (index / 3));
    constexpr double kind[3] = {1.0, 1.5, 2.0 / 3.0};
    return straight * kind[index % 3];
}

double seconds(std::int32_t index, double bpm) noexcept
{
    return beats(index) * 60.0 / bpm;
}

} // namespace qvd::notes

#pragma once
// Note values for tempo sync: whole note to 1/64, each straight, dotted and
// triplet, in that order ("1/1", "1/1 D", "1/1 T", "1/2", ...). Tempo counts
// quarter notes per minute, as hosts report it whatever the time signature.

#include <cstdint>
#include <string>
#include <vector>

namespace qvd::notes {

constexpr std::int32_t kCount = 21;

// The labels in index order, for a list parameter.
std::vector<std::string> labels();
// "Free" followed by the labels: a sync choice whose index - 1 is the note value.
std::vector<std::string> syncLabels();
// Length in quarter notes; the nearest valid index is used outside 0..kCount-1.
double beats(std::int32_t index) noexcept;
// Length in seconds at `bpm` quarter notes per minute (bpm > 0).
double seconds(std::int32_t index, double bpm) noexcept;

} // namespace qvd::notes

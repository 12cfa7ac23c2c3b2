#pragma once
// Constant wavetables of LFO (internal): 256 steps plus a guard entry equal
// to the first.

namespace qvd::lfo {

constexpr int kTableSize = 257;
extern const float kSaw2[kTableSize];
extern const float kSquare[kTableSize];
extern const float kRandom[kTableSize];

} // namespace qvd::lfo

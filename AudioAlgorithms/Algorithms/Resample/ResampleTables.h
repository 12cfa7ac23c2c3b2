#pragma once
// The fixed polyphase tables (ResampleTables.cpp, written by
// tools/design_tables.py), time-reversed with the L phases of a tap side by
// side. Upsamplers: entry L * (K - 1 - t) + p holds tap t of phase p.
// Downsamplers: entry j holds prototype tap N - 1 - j.

namespace twa::numeric::tables {

extern const float kUpsampler_x2[96];
extern const float kUpsampler_x2_short[64];
extern const float kDownsampler_x2[192];
extern const float kUpsampler_x4[192];
extern const float kDownsampler_x4[384];
extern const float kUpsampler_x8[384];
extern const float kUpsamplerTruePeak_x4[48];

} // namespace twa::numeric::tables

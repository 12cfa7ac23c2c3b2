#pragma once
// Records a host passes to and receives from the plugin library.
// Layouts are part of the binary interface (interface version 100): fields are
// only ever appended, never reordered.

#include <cstdint>
#include <string>
#include <vector>

namespace qvd {

// Plugin kinds accepted by PluginInterface::listPlugins and createPlugin.
enum PluginKind : std::int32_t {
    kAudioPlugin = 0,
    kControlPlugin = 2,
};

// What listing returns for one plugin.
struct PluginInfo {
    std::string name;          // display name ("Gain")
    std::int32_t channels = 0; // larger of the maximum input and output counts
    std::int32_t reserved0 = 0;
    std::int32_t reserved1 = 0;
    // Bit set passed through from the plugin's descriptor; the host interprets it.
    std::int32_t flags = 0;
};

// One block handed to AudioPlugin::process.
// A host advances `sequence` whenever playback becomes discontinuous (start,
// seek, loop wrap); blocks of one continuous stretch carry the same value.
struct BlockRecord {
    std::int32_t count = 1;     // number of host blocks this record stands for
    std::int64_t sequence = 0;  // block-sequence value read by needs-reset
    std::int32_t mode = 0;      // kModeStopped, kModePlaying or kModePreRoll
    std::int64_t position = -1; // timeline frame of the block's first frame, -1 unknown
    std::int64_t sourcePosition = -1; // frame within the source media, -1 unknown
};

enum BlockMode : std::int32_t {
    kModeStopped = 0,
    kModePlaying = 1,
    // Silence the plugin itself feeds through after a reset to fill its look-ahead.
    kModePreRoll = 2,
};

// Optional settings for AudioPlugin::prepare; a null pointer keeps everything as it is.
struct PrepareConfig {
    // Channel format codes to apply before preparing; kFormatKeep leaves them.
    std::int32_t inputFormat = -1;
    std::int32_t outputFormat = -1;
    // Process-wide parameter smoothing: 1 on, 0 off (changes take effect at
    // once, which bit-exact renders rely on), -1 leave as it is.
    std::int32_t smoothing = -1;
    // 1 for offline rendering, 0 for live playback.
    std::int32_t offline = 0;
};

// Channel format codes. A code names a layout; its channel count is what the
// plugin processes. Unknown codes are refused.
//   0..8      named layouts (see below)
//   9         7.1.4, 12 channels
//   0x100 | n n discrete channels, 1 <= n <= 64
//   0x200 | k ambisonics of order k, 1 <= k <= 7: (k + 1)^2 channels
enum ChannelFormat : std::int32_t {
    kFormatKeep = -1,
    kFormatNone = 0,
    kFormatMono = 1,
    kFormatStereo = 2,
    kFormatLCR = 3,
    kFormatQuad = 4,
    kFormat50 = 5,
    kFormat51 = 6,
    kFormat61 = 7,
    kFormat71 = 8,
    kFormat714 = 9,
    kFormatDiscrete = 0x100,
    kFormatAmbisonics = 0x200,
};

constexpr std::int32_t discreteFormat(std::int32_t channels) { return kFormatDiscrete | channels; }
constexpr std::int32_t ambisonicFormat(std::int32_t order) { return kFormatAmbisonics | order; }

// Channel count of a format code, or -1 when the code is not known.
constexpr std::int32_t channelCountOf(std::int32_t format)
{
    if (format >= kFormatNone && format <= kFormat71)
        return format;
    if (format == kFormat714)
        return 12;
    if ((format & ~0xff) == kFormatDiscrete) {
        const std::int32_t n = format & 0xff;
        return n >= 1 && n <= 64 ? n : -1;
    }
    if ((format & ~0xff) == kFormatAmbisonics) {
        const std::int32_t k = format & 0xff;
        return k >= 1 && k <= 7 ? (k + 1) * (k + 1) : -1;
    }
    return -1;
}

// What a channel of a named layout carries. Named layouts list their
// channels in this order:
//   mono   M
//   stereo L R
//   LCR    L R C
//   quad   L R Ls Rs
//   5.0    L R C Ls Rs
//   5.1    L R C LFE Ls Rs
//   6.1    L R C LFE Ls Rs Cs
//   7.1    L R C LFE Ls Rs Lb Rb
//   7.1.4  L R C LFE Ls Rs Lb Rb Tfl Tfr Tbl Tbr
// Discrete and ambisonic channels have no role (kRoleNone).
enum ChannelRole : std::int32_t {
    kRoleNone = -1,
    kRoleMono,
    kRoleLeft,
    kRoleRight,
    kRoleCentre,
    kRoleLFE,
    kRoleLeftSurround,
    kRoleRightSurround,
    kRoleCentreSurround,
    kRoleLeftBack,
    kRoleRightBack,
    kRoleTopFrontLeft,
    kRoleTopFrontRight,
    kRoleTopBackLeft,
    kRoleTopBackRight,
};

// Role of channel `index` of `format`; kRoleNone past the layout or for
// layouts without roles.
constexpr ChannelRole channelRole(std::int32_t format, std::int32_t index)
{
    constexpr ChannelRole L = kRoleLeft, R = kRoleRight, C = kRoleCentre, LFE = kRoleLFE, Ls = kRoleLeftSurround,
                          Rs = kRoleRightSurround;
    constexpr ChannelRole mono[] = {kRoleMono};
    constexpr ChannelRole stereo[] = {L, R};
    constexpr ChannelRole lcr[] = {L, R, C};
    constexpr ChannelRole quad[] = {L, R, Ls, Rs};
    constexpr ChannelRole f50[] = {L, R, C, Ls, Rs};
    constexpr ChannelRole f51[] = {L, R, C, LFE, Ls, Rs};
    constexpr ChannelRole f61[] = {L, R, C, LFE, Ls, Rs, kRoleCentreSurround};
    constexpr ChannelRole f714[] = {L,  R,  C,  LFE, Ls, Rs, kRoleLeftBack, kRoleRightBack, kRoleTopFrontLeft,
                                    kRoleTopFrontRight, kRoleTopBackLeft, kRoleTopBackRight};
    const ChannelRole* roles = nullptr;
    switch (format) {
    case kFormatMono: roles = mono; break;
    case kFormatStereo: roles = stereo; break;
    case kFormatLCR: roles = lcr; break;
    case kFormatQuad: roles = quad; break;
    case kFormat50: roles = f50; break;
    case kFormat51: roles = f51; break;
    case kFormat61: roles = f61; break;
    case kFormat71: // 7.1 is 7.1.4 without the heights
    case kFormat714: roles = f714; break;
    default: return kRoleNone;
    }
    return index >= 0 && index < channelCountOf(format) ? roles[index] : kRoleNone;
}

// Index of the first channel of `format` with `role`, or -1.
constexpr std::int32_t channelWithRole(std::int32_t format, ChannelRole role)
{
    for (std::int32_t i = 0; i < channelCountOf(format); ++i)
        if (channelRole(format, i) == role)
            return i;
    return -1;
}

// The smallest format code that carries `channels` channels: named layouts
// for 0 to 8, discrete above.
constexpr std::int32_t formatForChannels(std::int32_t channels)
{
    return channels >= 0 && channels <= 8 ? channels : discreteFormat(channels);
}

enum ParameterKind : std::int32_t { kContinuous = 0, kSwitch = 1, kList = 2 };
enum ParameterScale : std::int32_t { kLinear = 0, kLogarithmic = 1, kValueTable = 2 };

// One parameter definition as a host sees it.
struct ParameterInfo {
    std::int32_t index = -1;
    std::string identifier; // "QVDGain::GAIN": stable name for presets and scripts
    std::string label;      // translated display name
    std::int32_t kind = kContinuous;
    std::int32_t scale = kLinear;
    float minimum = 0.0f;
    float maximum = 0.0f;
    float defaultValue = 0.0f;
    float step = 1.0f;
    std::string unit;                 // "dB", "Hz", "ms", "%" or empty
    std::vector<std::string> options; // labels of a list parameter, in value order
};

enum ReadoutKind : std::int32_t { kReadoutScalar = 0, kReadoutArray = 1 };

// One named measurement a plugin publishes (PluginInstance::readoutInfo).
struct ReadoutInfo {
    std::string name;  // "Gain Reduction", "Integrated"
    std::string unit;  // "dB", "LUFS", "LU", "Hz", "" ...
    std::int32_t kind = kReadoutScalar;
    std::int32_t size = 1; // values per snapshot: 1 for a scalar
};

} // namespace qvd

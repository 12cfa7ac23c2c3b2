#pragma once
// The constant record each audio plugin class registers by address.

#include <cstdint>

// The defaults are those of almost every plugin, so a plugin names only what
// differs: {.name = "Gain", .fourcc = qvdFourCC("QVGn"), .maxInputs = 36, ...}.
struct QVDPluginDescriptor {
    const char* name = "";   // display name ("Gain")
    double version = 1.0;
    std::int32_t kind = 1;   // 1 for audio plugins; 2 (control) is skipped by registration
    std::uint32_t fourcc = 0; // four ASCII letters packed big-endian
    std::int32_t maxInputs = 0;
    std::int32_t maxOutputs = 0;
    const char* className = ""; // "QVDGain"
    std::int64_t extra = 0;     // copied, never read by the registry
    std::int32_t flags = 0;     // passed to the host unchanged
    std::int32_t assistantMode = -1; // -1 unless the shared assistant class runs a mode
};

constexpr std::uint32_t qvdFourCC(const char (&code)[5])
{
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24)
         | (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16)
         | (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8)
         | static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

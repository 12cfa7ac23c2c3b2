#pragma once
// Turns the room reverb's user settings (room, source, decay, tone, mix) into
// the engine's parameter record. Each update stage owns one bit of a dirty
// mask; a stage clears its bit and may set the bits of stages that depend on
// what it computed. Runs on the setting thread only.

#include "qv_reverb_u15_param.h"

#include <array>
#include <cstddef>
#include <cstdint>

class qv_reverb_u15_control {
public:
    static constexpr std::size_t kSettingCount = 28;
    using Settings = std::array<float, kSettingCount>;

    // Indices into the settings record.
    enum Setting : std::uint32_t {
        RoomWidth = 0,
        RoomLength = 1,
        RoomHeight = 2,
        RoomSize = 3,
        RoomRatio = 4,
        ReverbTime = 5,
        Brightness = 6,
        Distance = 7,
        Azimuth = 8,
        Elevation = 9,
        PreDelay = 10,
        Modulation = 11,
        DryWet = 12,
        DirectGain = 13,
        EarlyGain = 14,
        LateGain = 15,
        LateLowFreq = 16,  // then gain and third value
        LateHighFreq = 19,
        EarlyLowFreq = 22,
        EarlyHighFreq = 25,
    };

    static constexpr float kSpeedOfSound = 340.0f; // m/s
    // The late network's largest delay excursion, in samples at the engine rate.
    static constexpr float kMaxModulation = 48.0f;

    // [setting-thread] Fills the late matrix and base gains for the channel
    // counts already in *param, then runs every stage. param must outlive this.
    qv_reverb_u15_control(float rate, const Settings& settings, qv_reverb_u15_param* param);

    // [setting-thread] One field: stores it, marks the stages that read it and
    // brings the record up to date.
    void set(std::uint32_t index, float value);
    // [setting-thread] A whole record: only fields that differ mark stages.
    void set(const Settings& settings);

    // [any-thread, while no set runs]
    const Settings& settings() const { return m_settings; }
    const qv_reverb_u15_param& param() const { return *m_param; }
    float rate() const { return m_rate; }
    // Bits still set after the last update: bit 0 stays clear even when a room
    // dimension at or below 0.1 m kept the delays unchanged.
    std::uint16_t dirty() const { return m_dirty; }
    const std::array<float, qv_lines>& line_times() const { return m_lineTimes; }
    float direct_level() const { return m_directLevel; }
    float late_level() const { return m_lateLevel; }
    // Dirty bits that a change of settings[index] sets.
    static std::uint16_t stagesReading(std::uint32_t index);

    // The fast inverse square root that the mode table is built with.
    static float fastInverseSqrt(float s);

private:
    struct BandCache {
        float frequency = 0.0f, level = 0.0f, third = 0.0f;
        bool designed = false;
        qv_eq_band band;
    };

    void update();
    void roomModes();      // bit 0
    void decay();          // bit 1
    void reflections();    // bit 2
    void directMix();      // bit 3
    void earlyMix();       // bit 4
    void lateMix();        // bit 5
    void modulation();     // bit 6
    void toneBands();      // bit 7
    bool designBand(BandCache& cache, std::uint32_t first, std::uint32_t kind);

    float m_rate;
    float m_invRate;
    const float m_speedOfSound = kSpeedOfSound;
    qv_reverb_u15_param* m_param;
    Settings m_settings;
    std::array<float, qv_lines> m_lineTimes{};
    std::array<std::array<float, qv_lines>, qv_max_channels> m_lateBase{};
    std::array<std::array<float, qv_lines>, qv_max_channels> m_earlyGains{};
    std::array<std::array<float, qv_max_channels>, qv_max_channels> m_directBase{};
    float m_directLevel = 1.0f;
    float m_lateLevel = 1.0f;
    std::array<BandCache, 4> m_bands{};
    std::uint16_t m_dirty = 0;
};

#pragma once
// Loudness of a whole file as the library's Loudness Meter measures it, run
// the way a host runs it: integrated loudness, loudness range, true and
// sample peaks from its readouts. The gates behind the integrated loudness
// and the range are not readouts; they are derived from the meter's
// momentary and short-term readouts, read at every 100 ms step it takes.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <qvd/qvd.h>

#include "Options.h"
#include "PluginChain.h"

namespace qvdfx {

struct LoudnessFigures {
    int rate = 0;
    int channels = 0;
    std::int64_t frames = 0;
    double integrated = 0.0;          // LUFS; -inf when nothing passes the gates
    double integratedThreshold = 0.0; // LUFS: the relative gate, 10 LU under the ungated mean
    double range = 0.0;               // LU
    double rangeThreshold = 0.0;      // LUFS: the range's relative gate, 20 LU under
    double maxMomentary = 0.0;        // LUFS
    double maxShortTerm = 0.0;        // LUFS
    double truePeak = 0.0;            // dBTP, the loudest channel
    double samplePeak = 0.0;          // dBFS, the loudest channel
    std::vector<double> truePeaks;    // per channel
    std::vector<double> samplePeaks;  // per channel
};

// A Loudness Meter instance fed planar audio of any block length.
class LoudnessAnalyzer {
public:
    LoudnessAnalyzer(qvd::PluginInterface& registry, int rate, int channels);
    LoudnessAnalyzer(const LoudnessAnalyzer&) = delete;
    LoudnessAnalyzer& operator=(const LoudnessAnalyzer&) = delete;

    // Measures `frames` frames; the samples are left as they are.
    void feed(const float* const* channels, std::int64_t frames);
    LoudnessFigures figures() const;

private:
    std::int32_t readoutIndex(const char* name, std::int32_t size) const;
    double scalar(std::int32_t index) const;

    std::unique_ptr<PluginHandle> m_meter;
    int m_rate;
    int m_channels;
    std::int32_t m_step; // frames per 100 ms, as the meter counts them
    std::int64_t m_frames = 0;
    std::int64_t m_steps = 0;
    std::vector<std::vector<float>> m_scratch;
    std::vector<const float*> m_in;
    std::vector<float*> m_out;
    std::vector<double> m_peaks;
    qvd::BlockRecord m_block{};
    std::int32_t m_momentary, m_shortTerm, m_integrated, m_range, m_maxMomentary, m_maxShortTerm, m_truePeak,
        m_samplePeak;
    // Gate sums: blocks above the absolute gate, in mean-square energy.
    double m_blockEnergy = 0.0, m_windowEnergy = 0.0;
    std::int64_t m_blockCount = 0, m_windowCount = 0;
};

// Measures the file at `path` (not '-' unless read once) with a progress bar
// labelled `label` unless `quiet`.
LoudnessFigures measureFile(qvd::PluginInterface& registry, const std::string& path, bool quiet,
                            const std::string& label);

// The figures as readable lines and as JSON members (no braces).
std::string loudnessText(const LoudnessFigures& f, const std::string& indent);
std::string loudnessJson(const LoudnessFigures& f, const std::string& indent);

int commandMeasure(qvd::PluginInterface& registry, Arguments args);

} // namespace qvdfx

#pragma once
// The readouts of every plugin in a chain for `process --meters`: their
// values at the end, and optionally a time series sampled every so many
// milliseconds of audio, streamed into the meters file as it grows so a long
// file never holds the whole series in memory.

#include <cstdint>
#include <string>
#include <vector>

#include <qvd/qvd.h>

#include "OutputFile.h"
#include "PluginChain.h"

namespace qvdfx {

// Shortest period --meters-every accepts, in ms: a readout rarely changes
// faster, and finer series grow huge on long files.
constexpr double kMinReadoutPeriodMs = 1.0;
constexpr double kMaxReadoutPeriodMs = 3600.0 * 1000.0;

// The milliseconds --meters-every gives, or a usage failure naming the text.
double parseReadoutPeriod(const std::string& text);

class ReadoutWriter {
public:
    // `chain` is prepared and outlives the writer. With `periodMs` > 0 the
    // series goes to `out` as it is sampled; the caller ends the document
    // with finish().
    ReadoutWriter(PluginChain& chain, int rate, int channels, OutputFile* out, double periodMs);

    // Runs the chain over `frames` frames, splitting the block where a
    // sample of the series falls due, so samples land on exact frames.
    void process(float* const* channels, std::int32_t frames);

    // Writes the rest of the document: the meters and the final readouts.
    void finish();

    // Every readout of every step as "readouts": [...] members, one per step.
    std::vector<std::string> readoutFields();

private:
    struct Readout {
        qvd::ReadoutInfo info;
        std::vector<double> values;
    };
    std::string valueJson(std::size_t step, std::size_t index);
    void sample();
    void flush();

    PluginChain& m_chain;
    int m_rate;
    OutputFile* m_out;
    std::vector<std::vector<Readout>> m_readouts; // per step
    std::vector<float*> m_offset;
    std::int64_t m_period = 0; // frames; 0: no series
    std::int64_t m_fed = 0;
    std::int64_t m_samples = 0;
    std::string m_pending;
};

} // namespace qvdfx

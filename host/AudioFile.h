#pragma once
// Audio files through libsndfile. Writers write to a temporary file beside
// the target and rename it into place only when everything was written, so
// a failure never leaves a partial or truncated output.

#include <sndfile.h>

#include <cstdint>
#include <string>

namespace qvdfx {

enum class SampleFormat { Float, Pcm16, Pcm24 };

// "float", "pcm16" or "pcm24"; a usage failure otherwise.
SampleFormat parseSampleFormat(const std::string& text);

class AudioReader {
public:
    // Opens `path`; a file failure naming the path and the reason otherwise.
    explicit AudioReader(const std::string& path);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    int rate() const { return m_info.samplerate; }
    int channels() const { return m_info.channels; }
    std::int64_t frames() const { return m_info.frames; }
    // Reads up to `frames` interleaved frames; returns how many were read.
    std::int64_t read(float* interleaved, std::int64_t frames);

private:
    std::string m_path;
    SF_INFO m_info{};
    SNDFILE* m_file = nullptr;
};

class AudioWriter {
public:
    // Creates the temporary file; a file failure when the target's folder is
    // not writable.
    AudioWriter(const std::string& path, int rate, int channels, SampleFormat format);
    ~AudioWriter();
    AudioWriter(const AudioWriter&) = delete;
    AudioWriter& operator=(const AudioWriter&) = delete;

    void write(const float* interleaved, std::int64_t frames);
    // Closes and renames into place.
    void commit();

private:
    std::string m_path;
    std::string m_temporary;
    SNDFILE* m_file = nullptr;
    bool m_committed = false;
};

// Throws a file failure when `output` names the same file as `input`.
void checkDistinct(const std::string& input, const std::string& output);

// Writes `text` to `path` through a temporary file.
void writeTextFile(const std::string& path, const std::string& text);

} // namespace qvdfx

#pragma once
// Audio files through libsndfile, and WAV streams: "-" reads standard input
// or writes standard output. A WAV whose header leaves its length open
// (data size 0 or 0xFFFFFFFF, as streaming writers mark it) is read to its
// end. Writers go through OutputFile, so a failure never leaves a partial
// or truncated file.

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "OutputFile.h"

namespace qvdfx {

enum class SampleFormat { Float, Pcm16, Pcm24 };
struct WavHeader;
struct StreamSink;

// "float", "pcm16" or "pcm24"; a usage failure otherwise.
SampleFormat parseSampleFormat(const std::string& text);

class AudioReader {
public:
    // Opens `path`, or standard input for "-"; a file failure naming it and
    // the reason otherwise.
    explicit AudioReader(const std::string& path);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    int rate() const { return m_info.samplerate; }
    int channels() const { return m_info.channels; }
    // The exact frame count, or -1 for a pipe, which is read to its end.
    std::int64_t frames() const { return m_frames; }
    // True for a pipe: its frames arrive as they are made.
    bool live() const { return m_pipe; }
    // Reads up to `frames` interleaved frames; returns how many were read,
    // 0 at the end.
    // Small reads are served from a large chunk: libsndfile makes one
    // system call per call, which at 512-frame blocks costs more than the
    // copy.
    std::int64_t read(float* interleaved, std::int64_t frames);

    // Reads raw WAV data from a file descriptor, for libsndfile.
    struct Stream {
        int fd = -1;
        std::int64_t remaining = -1; // -1: to the end
        std::int64_t position = 0;
        int error = 0;
    };

private:
    void open(const std::string& path);
    void openStream(int fd);
    void startStream(int fd, const WavHeader& header);
    void close();
    std::int64_t readFile(float* interleaved, std::int64_t frames);

    std::string m_name;
    SF_INFO m_info{};
    SNDFILE* m_file = nullptr;
    int m_fd = -1; // owned until libsndfile takes it
    std::int64_t m_frames = -1;
    Stream m_stream;
    bool m_pipe = false;
    std::vector<float> m_chunk; // interleaved frames read ahead
    std::int64_t m_chunkFrames = 0, m_chunkUsed = 0;
};

class AudioWriter {
public:
    // Opens the output (see OutputFile). `frames` is how many will be
    // written, or -1 when unknown: an output that may pass the 4 GiB a WAV
    // header can count is written as RF64, which libsndfile turns back into
    // WAV when it stays small.
    AudioWriter(const std::string& path, int rate, int channels, SampleFormat format, std::int64_t frames);
    ~AudioWriter();
    AudioWriter(const AudioWriter&) = delete;
    AudioWriter& operator=(const AudioWriter&) = delete;

    // Collects small writes into large ones (see AudioReader::read); a
    // failure may therefore surface at a later write or at commit().
    void write(const float* interleaved, std::int64_t frames);
    // Every write goes out at once: for output made from a live input.
    void writeThrough() { flush(); m_through = true; }
    // Closes and puts the output in place.
    void commit();
    const std::string& name() const { return m_out.name(); }

private:
    void writeFile(const float* interleaved, std::int64_t frames);
    void flush();

    OutputFile m_out;
    std::unique_ptr<StreamSink> m_sink; // set when the output is a stream
    SNDFILE* m_file = nullptr;
    int m_channels = 0;
    bool m_through = false;
    std::vector<float> m_chunk; // interleaved frames not yet written
    std::int64_t m_chunkFrames = 0;
};

} // namespace qvdfx

#pragma once
// 32-bit float WAV files for the end-to-end tests, through libsndfile (the
// test links it): interleaved, as the files hold them, or planar, one vector
// per channel, for comparing channel by channel.

#include <sndfile.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

namespace qvd::test::wav {

struct Audio {
    int rate = 48000;
    int channels = 2;
    std::vector<float> samples; // interleaved
    std::size_t frames() const { return channels > 0 ? samples.size() / static_cast<std::size_t>(channels) : 0; }
};

using Planar = std::vector<std::vector<float>>;

// The whole file; no rate, no channels and no samples when it cannot be read.
inline Audio read(const std::filesystem::path& path)
{
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        return {0, 0, {}};
    Audio a{info.samplerate, info.channels, {}};
    a.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(f, a.samples.data(), info.frames);
    sf_close(f);
    return a;
}

// A file that cannot be written fails the test.
inline void write(const std::filesystem::path& path, const Audio& a)
{
    SF_INFO info{};
    info.samplerate = a.rate;
    info.channels = a.channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << path << ": " << sf_strerror(nullptr);
    sf_writef_float(f, a.samples.data(), static_cast<sf_count_t>(a.frames()));
    sf_close(f);
}

inline Planar planar(const Audio& a)
{
    Planar x(static_cast<std::size_t>(a.channels), std::vector<float>(a.frames()));
    for (std::size_t n = 0; n < a.frames(); ++n)
        for (std::size_t c = 0; c < x.size(); ++c)
            x[c][n] = a.samples[n * x.size() + c];
    return x;
}

inline Audio interleaved(const Planar& x, int rate)
{
    const std::size_t frames = x.empty() ? 0 : x[0].size();
    Audio a{rate, static_cast<int>(x.size()), std::vector<float>(frames * x.size())};
    for (std::size_t n = 0; n < frames; ++n)
        for (std::size_t c = 0; c < x.size(); ++c)
            a.samples[n * x.size() + c] = x[c][n];
    return a;
}

inline Planar readPlanar(const std::filesystem::path& path)
{
    return planar(read(path));
}

inline void writePlanar(const std::filesystem::path& path, const Planar& x, int rate)
{
    write(path, interleaved(x, rate));
}

} // namespace qvd::test::wav

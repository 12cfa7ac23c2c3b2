#include "AudioFile.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Options.h"

namespace fs = std::filesystem;

namespace qvdfx {

namespace {
// ".name.<pid>.part" beside the target: hidden, and unique per process.
fs::path temporaryFor(const fs::path& target)
{
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string name = ".";
    name.append(target.filename().string()).append(".").append(std::to_string(::getpid())).append(".part");
    return folder / name;
}
} // namespace

SampleFormat parseSampleFormat(const std::string& text)
{
    if (text == "float")
        return SampleFormat::Float;
    if (text == "pcm16")
        return SampleFormat::Pcm16;
    if (text == "pcm24")
        return SampleFormat::Pcm24;
    fail(kExitUsage, "--format must be float, pcm16 or pcm24, not '" + text + "'");
}

AudioReader::AudioReader(const std::string& path) : m_path(path)
{
    std::error_code ec;
    if (!fs::exists(path, ec))
        fail(kExitFile, "input '" + path + "' does not exist");
    if (fs::is_directory(path, ec))
        fail(kExitFile, "input '" + path + "' is a folder, not an audio file");
    m_file = sf_open(path.c_str(), SFM_READ, &m_info);
    if (!m_file)
        fail(kExitFile, "cannot read '" + path + "': " + sf_strerror(nullptr));
    // A throw from here skips the destructor, so the file is closed first.
    auto refuse = [&](const std::string& why) {
        sf_close(m_file);
        m_file = nullptr;
        fail(kExitFile, why);
    };
    if (m_info.channels < 1 || m_info.channels > 64)
        refuse("'" + path + "' has " + std::to_string(m_info.channels) + " channels; 1 to 64 are supported");
    if (m_info.samplerate < 1 || m_info.samplerate > 1536000)
        refuse("'" + path + "' has a sample rate of " + std::to_string(m_info.samplerate) + " Hz");
    if (m_info.frames < 0)
        refuse("'" + path + "' has no frame count");
}

AudioReader::~AudioReader()
{
    if (m_file)
        sf_close(m_file);
}

std::int64_t AudioReader::read(float* interleaved, std::int64_t frames)
{
    const sf_count_t n = sf_readf_float(m_file, interleaved, frames);
    if (n < 0)
        fail(kExitFile, "cannot read '" + m_path + "': " + sf_strerror(m_file));
    return n;
}

AudioWriter::AudioWriter(const std::string& path, int rate, int channels, SampleFormat format) : m_path(path)
{
    const fs::path target(path);
    std::error_code ec;
    if (target.filename().empty() || fs::is_directory(target, ec))
        fail(kExitFile, "output '" + path + "' is a folder, not a file name");
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, ec))
        fail(kExitFile, "cannot write '" + path + "': folder '" + folder.string() + "' does not exist");
    m_temporary = temporaryFor(target).string();

    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | (format == SampleFormat::Float   ? SF_FORMAT_FLOAT
                                   : format == SampleFormat::Pcm16 ? SF_FORMAT_PCM_16
                                                                   : SF_FORMAT_PCM_24);
    m_file = sf_open(m_temporary.c_str(), SFM_WRITE, &info);
    if (!m_file)
        fail(kExitFile, "cannot write '" + path + "': " + sf_strerror(nullptr));
    // Integer formats clip instead of wrapping.
    sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

AudioWriter::~AudioWriter()
{
    if (m_file)
        sf_close(m_file);
    if (!m_committed && !m_temporary.empty()) {
        std::error_code ec;
        fs::remove(m_temporary, ec);
    }
}

void AudioWriter::write(const float* interleaved, std::int64_t frames)
{
    if (sf_writef_float(m_file, interleaved, frames) != frames)
        fail(kExitFile, "cannot write '" + m_path + "': " + sf_strerror(m_file));
}

void AudioWriter::commit()
{
    const int rc = sf_close(m_file);
    m_file = nullptr;
    if (rc != 0)
        fail(kExitFile, "cannot write '" + m_path + "': " + sf_error_number(rc));
    std::error_code ec;
    fs::rename(m_temporary, m_path, ec);
    if (ec)
        fail(kExitFile, "cannot write '" + m_path + "': " + ec.message());
    m_committed = true;
}

void checkDistinct(const std::string& input, const std::string& output)
{
    std::error_code ec;
    if (fs::exists(output, ec) && fs::equivalent(input, output, ec))
        fail(kExitFile, "output '" + output + "' is the input file; choose another name");
    if (fs::weakly_canonical(input, ec) == fs::weakly_canonical(output, ec))
        fail(kExitFile, "output '" + output + "' is the input file; choose another name");
}

void writeTextFile(const std::string& path, const std::string& text)
{
    const fs::path target(path);
    const fs::path temporary = temporaryFor(target);
    {
        std::ofstream out(temporary, std::ios::binary);
        out << text;
        out.close();
        if (!out) {
            std::error_code ec;
            fs::remove(temporary, ec);
            fail(kExitFile, "cannot write '" + path + "'");
        }
    }
    std::error_code ec;
    fs::rename(temporary, target, ec);
    if (ec) {
        fs::remove(temporary, ec);
        fail(kExitFile, "cannot write '" + path + "': " + ec.message());
    }
}

} // namespace qvdfx

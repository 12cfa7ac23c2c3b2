#include "AudioFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>

#include "Options.h"

namespace fs = std::filesystem;

namespace qvdfx {

struct WavHeader {
    int encoding = 0; // format tag, or the sub-format's for WAVE_FORMAT_EXTENSIBLE
    int channels = 0;
    int rate = 0;
    int blockAlign = 0;
    std::int64_t dataBytes = -1; // -1: to the end of the stream
};

// Writing raw samples after our own header, through OutputFile, whose
// failure is rethrown once libsndfile has returned.
struct StreamSink {
    OutputFile* out;
    sf_count_t position = 0;
    std::exception_ptr failure;
};

namespace {

// A WAV header may count at most this many bytes; the rest is room for
// the chunks libsndfile writes besides the audio.
constexpr std::int64_t kWavLimit = 0xFFFFFFFFLL - (1 << 20);

// Frames read or written at once for files. Pipes keep the caller's block
// size, so a live stream is not held back.
constexpr std::int64_t kChunkFrames = 32768;

int subtypeOf(SampleFormat format)
{
    return format == SampleFormat::Float   ? SF_FORMAT_FLOAT
           : format == SampleFormat::Pcm16 ? SF_FORMAT_PCM_16
                                           : SF_FORMAT_PCM_24;
}

int bytesOf(SampleFormat format)
{
    return format == SampleFormat::Float ? 4 : format == SampleFormat::Pcm16 ? 2 : 3;
}

// libsndfile's message without its "System error : " wrapping.
std::string reasonOf(SNDFILE* file)
{
    std::string text = sf_strerror(file);
    const std::string prefix = "System error : ";
    if (text.rfind(prefix, 0) == 0)
        text.erase(0, prefix.size());
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

void checkShape(const std::string& name, std::int64_t channels, std::int64_t rate)
{
    if (channels < 1 || channels > 64)
        fail(kExitFile, name + " has " + std::to_string(channels) + " channels; 1 to 64 are supported");
    if (rate < 1 || rate > 1536000)
        fail(kExitFile, name + " has a sample rate of " + std::to_string(rate) +
                            " Hz; its header is damaged or it is not audio qvdfx can run");
}

// ---- WAV streams ----

std::uint32_t le(const unsigned char* p, int bytes)
{
    std::uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

// Reads exactly `size` bytes unless the stream ends first.
bool readFully(int fd, void* data, std::size_t size, const std::string& name)
{
    auto* p = static_cast<unsigned char*>(data);
    while (size > 0) {
        const ssize_t n = ::read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail(kExitFile, "cannot read " + name + ": " + std::strerror(errno));
        if (n == 0)
            return false;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Reads a RIFF or RF64 WAVE header up to the first byte of audio, reading
// forward only, as a pipe allows. std::nullopt when the bytes are not such
// a header; a failure in words for one that describes no possible audio.
std::optional<WavHeader> readWavHeader(int fd, const std::string& name)
{
    unsigned char riff[12];
    if (!readFully(fd, riff, sizeof riff, name))
        return std::nullopt;
    const bool rf64 = std::memcmp(riff, "RF64", 4) == 0;
    if ((!rf64 && std::memcmp(riff, "RIFF", 4) != 0) || std::memcmp(riff + 8, "WAVE", 4) != 0)
        return std::nullopt;
    WavHeader header;
    bool haveFormat = false;
    std::uint64_t ds64Data = 0;
    unsigned char body[1024];
    for (;;) {
        unsigned char chunk[8];
        if (!readFully(fd, chunk, sizeof chunk, name))
            return std::nullopt;
        const std::uint32_t size = le(chunk + 4, 4);
        if (std::memcmp(chunk, "data", 4) == 0) {
            if (!haveFormat)
                return std::nullopt;
            const std::uint64_t bytes = rf64 && size == 0xFFFFFFFFu ? ds64Data : size;
            const bool open = bytes == 0 || bytes == 0xFFFFFFFFu || bytes == ~std::uint64_t{0};
            header.dataBytes = open ? -1 : static_cast<std::int64_t>(bytes);
            return header;
        }
        const bool fmt = std::memcmp(chunk, "fmt ", 4) == 0;
        const bool ds64 = std::memcmp(chunk, "ds64", 4) == 0;
        if ((fmt || ds64) && size >= 16 && size <= sizeof body) {
            if (!readFully(fd, body, size + (size & 1), name))
                return std::nullopt;
            if (ds64) {
                ds64Data = le(body + 8, 4) | std::uint64_t{le(body + 12, 4)} << 32;
                continue;
            }
            header.encoding = static_cast<int>(le(body, 2));
            header.channels = static_cast<int>(le(body + 2, 2));
            header.rate = static_cast<int>(le(body + 4, 4));
            header.blockAlign = static_cast<int>(le(body + 12, 2));
            if (header.encoding == 0xFFFE && size >= 26)
                header.encoding = static_cast<int>(le(body + 24, 2));
            checkShape(name, header.channels, header.rate);
            if (header.blockAlign == 0 || header.blockAlign % header.channels != 0)
                fail(kExitFile, name + " has frames of " + std::to_string(header.blockAlign) + " bytes for " +
                                    std::to_string(header.channels) + " channels; its header is damaged");
            haveFormat = true;
            continue;
        }
        // Any other chunk: skip it by reading, which works on a pipe too.
        for (std::uint64_t left = std::uint64_t{size} + (size & 1); left > 0;) {
            const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(left, sizeof body));
            if (!readFully(fd, body, n, name))
                return std::nullopt;
            left -= n;
        }
    }
}

// The libsndfile raw subtype that reads a WAV stream's samples.
int rawSubtype(const WavHeader& header, const std::string& name)
{
    const int bytes = header.blockAlign / header.channels;
    if (header.encoding == 1 && bytes >= 1 && bytes <= 4) {
        const int pcm[] = {SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32};
        return pcm[bytes - 1];
    }
    if (header.encoding == 3 && (bytes == 4 || bytes == 8))
        return bytes == 4 ? SF_FORMAT_FLOAT : SF_FORMAT_DOUBLE;
    if ((header.encoding == 6 || header.encoding == 7) && bytes == 1)
        return header.encoding == 6 ? SF_FORMAT_ALAW : SF_FORMAT_ULAW;
    char tag[8];
    std::snprintf(tag, sizeof tag, "0x%04X", static_cast<unsigned>(header.encoding));
    fail(kExitFile, name + " is a WAV stream of encoding " + tag + " with " + std::to_string(bytes) +
                        "-byte samples, which qvdfx cannot read from a stream; convert it to PCM or float");
}

sf_count_t streamLength(void*)
{
    return SF_COUNT_MAX;
}

sf_count_t streamSeek(sf_count_t offset, int whence, void* user)
{
    const auto* s = static_cast<AudioReader::Stream*>(user);
    if ((whence == SEEK_CUR && offset == 0) || (whence == SEEK_SET && offset == s->position))
        return s->position;
    return -1;
}

sf_count_t streamRead(void* data, sf_count_t size, void* user)
{
    auto* s = static_cast<AudioReader::Stream*>(user);
    if (s->remaining >= 0)
        size = std::min<sf_count_t>(size, s->remaining);
    sf_count_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(s->fd, static_cast<char*>(data) + done, static_cast<std::size_t>(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            s->error = errno;
        if (n <= 0)
            break;
        done += n;
    }
    s->position += done;
    if (s->remaining >= 0)
        s->remaining -= done;
    return done;
}

sf_count_t streamWrite(const void*, sf_count_t, void*)
{
    return 0;
}

sf_count_t sinkLength(void* user)
{
    return static_cast<StreamSink*>(user)->position;
}

sf_count_t sinkSeek(sf_count_t offset, int whence, void* user)
{
    const auto* s = static_cast<StreamSink*>(user);
    return (whence == SEEK_CUR && offset == 0) || (whence == SEEK_SET && offset == s->position) ? s->position : -1;
}

sf_count_t sinkRead(void*, sf_count_t, void*)
{
    return 0;
}

sf_count_t sinkWrite(const void* data, sf_count_t size, void* user)
{
    auto* s = static_cast<StreamSink*>(user);
    if (s->failure)
        return 0;
    try {
        s->out->write(data, static_cast<std::size_t>(size));
    } catch (...) {
        s->failure = std::current_exception();
        return 0;
    }
    s->position += size;
    return size;
}

sf_count_t sinkTell(void* user)
{
    return static_cast<StreamSink*>(user)->position;
}

sf_count_t streamTell(void* user)
{
    return static_cast<AudioReader::Stream*>(user)->position;
}

// Streaming writers' header: sizes of 0xFFFFFFFF say "to the end".
std::string streamHeader(int rate, int channels, SampleFormat format)
{
    const auto bytes = static_cast<std::uint32_t>(bytesOf(format));
    const bool real = format == SampleFormat::Float;
    std::string h;
    auto put = [&](std::uint32_t v, int size) {
        for (int i = 0; i < size; ++i)
            h += static_cast<char>(v >> (8 * i) & 0xFF);
    };
    const auto c = static_cast<std::uint32_t>(channels);
    h += "RIFF";
    put(0xFFFFFFFFu, 4);
    h += "WAVEfmt ";
    put(real ? 18 : 16, 4);
    put(real ? 3 : 1, 2);
    put(c, 2);
    put(static_cast<std::uint32_t>(rate), 4);
    put(static_cast<std::uint32_t>(rate) * c * bytes, 4);
    put(c * bytes, 2);
    put(bytes * 8, 2);
    if (real)
        put(0, 2);
    h += "data";
    put(0xFFFFFFFFu, 4);
    return h;
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

AudioReader::AudioReader(const std::string& path)
{
    try {
        open(path);
    } catch (...) {
        close();
        throw;
    }
}

void AudioReader::open(const std::string& path)
{
    if (path == "-") {
        m_name = "standard input";
        if (::isatty(STDIN_FILENO))
            fail(kExitFile, "standard input is a terminal; pipe a WAV stream into qvdfx or name a file");
        openStream(STDIN_FILENO);
        return;
    }
    m_name = "'" + path + "'";
    std::error_code ec;
    if (!fs::exists(path, ec))
        fail(kExitFile, "input " + m_name + " does not exist");
    if (fs::is_directory(path, ec))
        fail(kExitFile, "input " + m_name + " is a folder, not an audio file");
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0)
        fail(kExitFile, "cannot read " + m_name + ": " + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) {
        openStream(m_fd);
        return;
    }
    // A file saved from a stream keeps the stream's open length.
    const auto header = readWavHeader(m_fd, m_name);
    if (header && header->dataBytes < 0) {
        startStream(m_fd, *header);
        m_frames = (st.st_size - ::lseek(m_fd, 0, SEEK_CUR)) / header->blockAlign;
        return;
    }
    if (::lseek(m_fd, 0, SEEK_SET) != 0)
        fail(kExitFile, "cannot read " + m_name + ": " + std::strerror(errno));
    m_file = sf_open_fd(m_fd, SFM_READ, &m_info, SF_FALSE);
    if (!m_file)
        fail(kExitFile, "cannot read " + m_name + ": " + reasonOf(nullptr));
    checkShape(m_name, m_info.channels, m_info.samplerate);
    if (m_info.frames < 0)
        fail(kExitFile, m_name + " has no frame count");
    m_frames = m_info.frames;
}

void AudioReader::openStream(int fd)
{
    m_pipe = true;
    const auto header = readWavHeader(fd, m_name);
    if (!header)
        fail(kExitFile, m_name + " is not a WAV stream (a pipe is read as WAV; a file may be any format)");
    startStream(fd, *header);
}

void AudioReader::startStream(int fd, const WavHeader& header)
{
    static SF_VIRTUAL_IO io = {streamLength, streamSeek, streamRead, streamWrite, streamTell};
    m_stream.fd = fd;
    m_stream.remaining = header.dataBytes;
    m_info.samplerate = header.rate;
    m_info.channels = header.channels;
    m_info.format = SF_FORMAT_RAW | rawSubtype(header, m_name) | SF_ENDIAN_LITTLE;
    m_file = sf_open_virtual(&io, SFM_READ, &m_info, &m_stream);
    if (!m_file)
        fail(kExitFile, "cannot read " + m_name + ": " + reasonOf(nullptr));
}

void AudioReader::close()
{
    if (m_file)
        sf_close(m_file);
    m_file = nullptr;
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

AudioReader::~AudioReader()
{
    close();
}

std::int64_t AudioReader::read(float* interleaved, std::int64_t frames)
{
    const auto ch = static_cast<std::size_t>(m_info.channels);
    std::int64_t done = 0;
    while (done < frames) {
        if (m_chunkUsed == m_chunkFrames) {
            // Large requests skip the chunk rather than be copied twice.
            if (m_pipe || frames - done >= kChunkFrames)
                return done + readFile(interleaved + static_cast<std::size_t>(done) * ch, frames - done);
            if (m_chunk.empty())
                m_chunk.resize(static_cast<std::size_t>(kChunkFrames) * ch);
            m_chunkFrames = readFile(m_chunk.data(), kChunkFrames);
            m_chunkUsed = 0;
            if (m_chunkFrames == 0)
                break;
        }
        const std::int64_t n = std::min(frames - done, m_chunkFrames - m_chunkUsed);
        std::memcpy(interleaved + static_cast<std::size_t>(done) * ch,
                    m_chunk.data() + static_cast<std::size_t>(m_chunkUsed) * ch,
                    static_cast<std::size_t>(n) * ch * sizeof(float));
        m_chunkUsed += n;
        done += n;
    }
    return done;
}

std::int64_t AudioReader::readFile(float* interleaved, std::int64_t frames)
{
    const sf_count_t n = sf_readf_float(m_file, interleaved, frames);
    if (m_stream.error != 0)
        fail(kExitFile, "cannot read " + m_name + ": " + std::strerror(m_stream.error));
    if (n < 0)
        fail(kExitFile, "cannot read " + m_name + ": " + reasonOf(m_file));
    return n;
}

AudioWriter::AudioWriter(const std::string& path, int rate, int channels, SampleFormat format, std::int64_t frames)
    : m_out(path, true), m_channels(channels)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    if (m_out.seekable()) {
        const bool large = frames < 0 || frames > kWavLimit / (channels * bytesOf(format));
        info.format = (large ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | subtypeOf(format);
        m_file = sf_open_fd(m_out.fd(), SFM_WRITE, &info, SF_FALSE);
        if (m_file && large)
            sf_command(m_file, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    } else {
        // libsndfile writes WAV only where it can seek back to fill in the
        // sizes; a pipe gets a header that leaves them open, and raw samples.
        static SF_VIRTUAL_IO io = {sinkLength, sinkSeek, sinkRead, sinkWrite, sinkTell};
        m_out.write(streamHeader(rate, channels, format));
        m_sink = std::make_unique<StreamSink>(StreamSink{&m_out, 0, nullptr});
        info.format = SF_FORMAT_RAW | subtypeOf(format) | SF_ENDIAN_LITTLE;
        m_file = sf_open_virtual(&io, SFM_WRITE, &info, m_sink.get());
    }
    if (!m_file)
        m_out.failed(reasonOf(nullptr));
    // Integer formats clip instead of wrapping.
    sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

AudioWriter::~AudioWriter()
{
    if (m_file)
        sf_close(m_file);
}

void AudioWriter::write(const float* interleaved, std::int64_t frames)
{
    const auto ch = static_cast<std::size_t>(m_channels);
    if (m_chunkFrames + frames > kChunkFrames)
        flush();
    if (m_sink || m_through || frames >= kChunkFrames) {
        writeFile(interleaved, frames);
        return;
    }
    if (m_chunk.empty())
        m_chunk.resize(static_cast<std::size_t>(kChunkFrames) * ch);
    std::memcpy(m_chunk.data() + static_cast<std::size_t>(m_chunkFrames) * ch, interleaved,
                static_cast<std::size_t>(frames) * ch * sizeof(float));
    m_chunkFrames += frames;
}

void AudioWriter::flush()
{
    if (m_chunkFrames > 0)
        writeFile(m_chunk.data(), m_chunkFrames);
    m_chunkFrames = 0;
}

void AudioWriter::writeFile(const float* interleaved, std::int64_t frames)
{
    const bool complete = sf_writef_float(m_file, interleaved, frames) == frames;
    if (m_sink && m_sink->failure)
        std::rethrow_exception(m_sink->failure);
    if (!complete)
        m_out.failed(reasonOf(m_file));
}

void AudioWriter::commit()
{
    flush();
    const int rc = sf_close(m_file);
    m_file = nullptr;
    if (m_sink && m_sink->failure)
        std::rethrow_exception(m_sink->failure);
    if (rc != 0)
        m_out.failed(sf_error_number(rc));
    m_out.commit();
}

} // namespace qvdfx

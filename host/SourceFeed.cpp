#include "SourceFeed.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "AudioFile.h"
#include "Options.h"

namespace qvdfx {

std::pair<std::string, std::string> SourceFeed::parseOption(const std::string& text)
{
    const auto eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size())
        fail(kExitUsage, "--source takes NAME=FILE.wav (sidechain=key.wav, stem:vocals=v.wav), not '" + text + "'");
    return {text.substr(0, eq), text.substr(eq + 1)};
}

void SourceFeed::add(const std::string& name, const std::string& path)
{
    const bool wellFormed = std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == ':' || c == '_' || c == '-' || c == '.';
    });
    if (name.empty() || !wellFormed)
        fail(kExitUsage, "source name '" + name + "' may hold only letters, digits and : _ - .");
    if (path == "-")
        fail(kExitUsage, "source '" + name + "' must be a file, not standard input");
    for (const Source& s : m_sources)
        if (s.name == name)
            fail(kExitUsage, "source '" + name + "' is given twice ('" + s.path + "' and '" + path + "')");
    m_sources.push_back(Source{name, path, {}});
}

void SourceFeed::load(int rate)
{
    for (Source& s : m_sources) {
        AudioReader reader(s.path); // names the file when it is missing or unreadable
        if (reader.rate() != rate)
            fail(kExitFile, "source '" + s.name + "' ('" + s.path + "') is at " + std::to_string(reader.rate()) +
                                " Hz but the input is at " + std::to_string(rate) +
                                " Hz; resample it first (qvdfx does not)");
        const auto channels = static_cast<std::size_t>(reader.channels());
        std::vector<std::vector<float>> planar(channels);
        if (reader.frames() > 0)
            for (auto& ch : planar)
                ch.reserve(static_cast<std::size_t>(reader.frames()));
        std::vector<float> chunk(channels * 4096);
        for (;;) {
            const std::int64_t n = reader.read(chunk.data(), 4096);
            if (n <= 0)
                break;
            for (std::int64_t f = 0; f < n; ++f)
                for (std::size_t c = 0; c < channels; ++c)
                    planar[c].push_back(chunk[static_cast<std::size_t>(f) * channels + c]);
        }
        s.planar = std::move(planar);
    }
}

void SourceFeed::setOffset(std::uint64_t instanceId, std::int64_t frames)
{
    for (auto& [id, offset] : m_offsets)
        if (id == instanceId) {
            offset = frames;
            return;
        }
    m_offsets.emplace_back(instanceId, frames);
}

std::vector<std::pair<std::string, std::string>> SourceFeed::paths() const
{
    std::vector<std::pair<std::string, std::string>> out;
    for (const Source& s : m_sources)
        out.emplace_back("source '" + s.name + "'", s.path);
    return out;
}

bool SourceFeed::fetch(std::uint64_t instanceId, const char* source, std::int64_t position, float* const* channels,
                       std::int32_t channelCount, std::int32_t frames) const noexcept
{
    if (!source || !channels || channelCount < 1 || frames < 0 || position < 0)
        return false;
    const Source* found = nullptr;
    for (const Source& s : m_sources)
        if (std::strcmp(s.name.c_str(), source) == 0) {
            found = &s;
            break;
        }
    if (!found || found->planar.empty())
        return false;
    std::int64_t offset = 0;
    for (const auto& [id, frames] : m_offsets)
        if (id == instanceId)
            offset = frames;

    const auto length = static_cast<std::int64_t>(found->planar[0].size());
    const std::int64_t start = position - offset;
    // The span [from, to) of this block that the file covers.
    const std::int64_t from = std::clamp<std::int64_t>(-start, 0, frames);
    const std::int64_t to = std::clamp<std::int64_t>(length - start, from, frames);
    const auto last = static_cast<std::int32_t>(found->planar.size()) - 1;
    for (std::int32_t c = 0; c < channelCount; ++c) {
        float* out = channels[c];
        const std::vector<float>& in = found->planar[static_cast<std::size_t>(std::min(c, last))];
        std::fill(out, out + from, 0.0f);
        if (to > from)
            std::memcpy(out + from, in.data() + (start + from), static_cast<std::size_t>(to - from) * sizeof(float));
        std::fill(out + to, out + frames, 0.0f);
    }
    return true;
}

} // namespace qvdfx

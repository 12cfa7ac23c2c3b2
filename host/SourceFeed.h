#pragma once
// Audio qvdfx supplies plugins on request (--sidechain, --source NAME=FILE):
// a side-chain key, the monitor feed, a separated stem.
//
// Each source is decoded whole before processing starts, so the audio path
// only copies from memory: no file access, no lock, no allocation. A source
// is read at the block's timeline position minus the latency of the steps
// before the asking plugin, so it lines up with the main signal as that
// plugin sees it. Before its start and after its end a source reads as
// silence. A plugin asking for more channels than the file has gets the last
// one repeated (a mono key feeds both sides); one asking for fewer gets the
// first ones. A source must have the main input's sample rate: qvdfx refuses
// a mismatch rather than resampling behind the user's back.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qvdfx {

class SourceFeed {
public:
    // [control] "NAME=FILE" of --source; a usage failure naming the word.
    static std::pair<std::string, std::string> parseOption(const std::string& text);

    // [control] Records source `name` from `path`; a usage failure when the
    // name is taken or malformed. Nothing is read until load().
    void add(const std::string& name, const std::string& path);
    // [control] Decodes every source; a file failure naming the file for a
    // missing or unreadable one or a rate other than `rate`.
    void load(int rate);
    // [control] The latency ahead of instance `instanceId` in the chain.
    void setOffset(std::uint64_t instanceId, std::int64_t frames);

    bool empty() const { return m_sources.empty(); }
    // Role and path of every source, for the command's path checks.
    std::vector<std::pair<std::string, std::string>> paths() const;

    // [audio] Fills `channels` with `frames` frames of `source` for the
    // instance at timeline `position`; false when there is no such source or
    // the position is unknown.
    bool fetch(std::uint64_t instanceId, const char* source, std::int64_t position, float* const* channels,
               std::int32_t channelCount, std::int32_t frames) const noexcept;

private:
    struct Source {
        std::string name;
        std::string path;
        std::vector<std::vector<float>> planar;
    };
    std::vector<Source> m_sources;
    std::vector<std::pair<std::uint64_t, std::int64_t>> m_offsets;
};

} // namespace qvdfx

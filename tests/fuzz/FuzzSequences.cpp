// libFuzzer target: bytes become a plugin, a rate, a block size, channel
// formats and a list of operations, run through the public interface only.
// Any crash, sanitizer report, guard overwrite or unwritten output is a find;
// the operation list is printed so it replays.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <qvd/qvd.h>

extern "C" void* GetQVDPluginInterface();

namespace {

class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_pos >= m_size; }
    std::uint8_t u8() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    std::uint16_t u16() { return static_cast<std::uint16_t>(u8() | (u8() << 8)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(u16()) | (static_cast<std::uint32_t>(u16()) << 16); }
    float f32()
    {
        const std::uint32_t b = u32();
        float f;
        std::memcpy(&f, &b, 4);
        return f;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
};

constexpr std::uint32_t kGuard = 0x7f81a5a5u;
constexpr std::uint32_t kMarker = 0x7fc0dea1u;
constexpr int kGuardWords = 8;

std::vector<std::string>& ops()
{
    static std::vector<std::string> o;
    return o;
}

[[noreturn]] void found(const char* what)
{
    std::fprintf(stderr, "fuzz_sequences: %s after:\n", what);
    for (const auto& o : ops())
        std::fprintf(stderr, "  %s\n", o.c_str());
    __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto* registry = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface());
    static const auto plugins = registry->listPlugins(qvd::kAudioPlugin);
    static std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        for (const auto& [key, info] : plugins)
            k.push_back(key);
        return k;
    }();
    if (keys.empty() || size < 4)
        return 0;
    Bytes in(data, size);
    ops().clear();
    const std::string& key = keys[in.u8() % keys.size()];
    qvd::PluginInstance* p = registry->createPlugin(qvd::kAudioPlugin, key.c_str());
    if (!p)
        return 0;
    AudioPlugin* a = p->getAudioInterface();
    static const int rates[] = {8000, 11025, 22050, 44100, 48000, 88200, 96000, 192000, 384000};
    const int rate = rates[in.u8() % 9];
    const int block = 1 + in.u16() % 2048;
    const int channels = 1 + in.u8() % 40;
    const bool formatsOk = a->setChannelFormats(qvd::formatForChannels(channels), qvd::formatForChannels(channels));
    ops().push_back(key + " at " + std::to_string(rate) + " Hz, block " + std::to_string(block) + ", " +
                    std::to_string(channels) + " channels" + (formatsOk ? "" : " (refused)"));
    bool prepared = a->prepare(static_cast<float>(rate), block, nullptr);
    const int ins = a->inputChannelCount(), outs = a->outputChannelCount();
    const std::size_t span = static_cast<std::size_t>(block) + 2 * kGuardWords;
    std::vector<std::vector<float>> inBuf(static_cast<std::size_t>(std::max(ins, 1)), std::vector<float>(span));
    std::vector<std::vector<float>> outBuf(static_cast<std::size_t>(std::max(outs, 1)), std::vector<float>(span));
    std::vector<const float*> inPtr;
    std::vector<float*> outPtr;
    for (auto& b : inBuf)
        inPtr.push_back(b.data() + kGuardWords);
    for (auto& b : outBuf)
        outPtr.push_back(b.data() + kGuardWords);

    while (!in.empty()) {
        switch (in.u8() % 8) {
        case 0: {
            const std::int32_t index = static_cast<std::int32_t>(in.u8()) - 4;
            const float v = in.f32();
            p->setParameter(index, v);
            char text[64];
            std::snprintf(text, sizeof text, "set %d = %a", index, static_cast<double>(v));
            ops().push_back(text);
            break;
        }
        case 1:
            a->setBypass(in.u8() & 1);
            ops().push_back(a->isBypassed() ? "bypass on" : "bypass off");
            break;
        case 2:
            a->requestReset();
            ops().push_back("request reset");
            break;
        case 3: {
            const int n = 1 + in.u8() % 40;
            const bool ok = a->setChannelFormats(qvd::formatForChannels(n), qvd::formatForChannels(n));
            ops().push_back("formats " + std::to_string(n) + (ok ? "" : " (refused)"));
            // Buffers follow the formats only after the next prepare.
            if (ok)
                prepared = false;
            break;
        }
        case 4: {
            const int r = rates[in.u8() % 9];
            prepared = a->prepare(static_cast<float>(r), block, nullptr);
            ops().push_back("prepare " + std::to_string(r) + (prepared ? "" : " (refused)"));
            if (a->inputChannelCount() > static_cast<int>(inPtr.size()) ||
                a->outputChannelCount() > static_cast<int>(outPtr.size()))
                prepared = false;
            break;
        }
        default: {
            if (!prepared)
                break;
            const int frames = in.u16() % (block + 1);
            const int n = frames == 0 ? block : frames;
            for (int c = 0; c < a->inputChannelCount(); ++c) {
                auto& b = inBuf[static_cast<std::size_t>(c)];
                for (int g = 0; g < kGuardWords; ++g) {
                    std::memcpy(&b[static_cast<std::size_t>(g)], &kGuard, 4);
                    std::memcpy(&b[static_cast<std::size_t>(kGuardWords + n + g)], &kGuard, 4);
                }
                for (int i = 0; i < n; ++i)
                    b[static_cast<std::size_t>(kGuardWords + i)] = static_cast<float>(static_cast<std::int8_t>(in.u8())) / 64.0f;
            }
            for (int c = 0; c < a->outputChannelCount(); ++c) {
                auto& b = outBuf[static_cast<std::size_t>(c)];
                for (std::size_t i = 0; i < b.size(); ++i)
                    std::memcpy(&b[i], i < kGuardWords || i >= static_cast<std::size_t>(kGuardWords + n) ? &kGuard : &kMarker, 4);
            }
            a->process(nullptr, inPtr.data(), outPtr.data(), frames);
            ops().push_back("process " + std::to_string(frames));
            for (int c = 0; c < a->outputChannelCount(); ++c) {
                const auto& b = outBuf[static_cast<std::size_t>(c)];
                for (std::size_t i = 0; i < b.size(); ++i) {
                    std::uint32_t bits;
                    std::memcpy(&bits, &b[i], 4);
                    const bool guard = i < kGuardWords || i >= static_cast<std::size_t>(kGuardWords + n);
                    if (guard && bits != kGuard)
                        found("guard word overwritten");
                    if (!guard && bits == kMarker)
                        found("output frame never written");
                }
            }
            break;
        }
        }
    }
    double meters[64];
    for (std::int32_t g = -1; g <= p->meterGroupCount(); ++g)
        p->getMeterValues(g, meters, 64);
    p->destroy();
    return 0;
}

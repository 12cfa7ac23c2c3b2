// Plugins that each break one rule, so every conformance check is seen to
// fail at least once. Never shipped: they live in a test-only library.
#include <QVDAudioPlugin.h>

#include <cmath>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

std::vector<QVDParameterDefinition> gainTable(const char* id)
{
    QVDParameterDefinition g;
    g.index = 0;
    g.identifier = QString::fromLatin1(id);
    g.label = QStringLiteral("Gain");
    g.minimum = 0.0f;
    g.maximum = 2.0f;
    g.defaultValue = 1.0f;
    g.step = 0.01f;
    return {g};
}

// Base of the broken plugins: a plain per-sample gain that does everything
// right; each subclass overrides the one thing it gets wrong.
template <class T>
class Broken : public QVDAudioPlugin<T> {
public:
    using Base = QVDAudioPlugin<T>;
    Broken(const QVDPluginDescriptor* d, void* c, qvd::HostServices* s) : Base(d, c, s, T::parameterTable()) {}
    static const std::vector<QVDParameterDefinition>& parameterTable()
    {
        static const auto table = gainTable("Broken::GAIN");
        return table;
    }

protected:
    float gain() const { return this->m_parameters[0].value(); }
    void processBlock(const qvd::BlockRecord* block, const float* const* in, float* const* out,
                      std::int32_t frames) noexcept override
    {
        frames = this->prepareBlock(in, this->sequenceOf(block), frames);
        const int channels = std::min(this->activeInputs(), this->activeOutputs());
        for (int c = 0; c < channels; ++c)
            for (int n = 0; n < frames; ++n)
                out[c][n] = sample(c, n, in[c][n]);
        this->completeBlock(in, out, frames, 0);
    }
    virtual float sample(int, int, float x) noexcept { return std::isfinite(gain()) ? x * std::clamp(gain(), 0.0f, 2.0f) : x; }
};

#define BROKEN_DESCRIPTOR(Class, Name, Code)                                                       \
    static const QVDPluginDescriptor& descriptor()                                                 \
    {                                                                                              \
        static const QVDPluginDescriptor d{Name, 1.0, 1, qvdFourCC(Code), 2, 2, #Class, 0, 0, -1};  \
        return d;                                                                                  \
    }

// Leaves the last frame of every block unwritten.
class BrokenUnwritten : public Broken<BrokenUnwritten> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenUnwritten, "Broken Unwritten", "BkUw")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
            for (int n = 0; n + 1 < frames; ++n)
                out[c][n] = in[c][n];
    }
};

// Writes one frame past the end.
class BrokenOverrun : public Broken<BrokenOverrun> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenOverrun, "Broken Overrun", "BkOv")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
            for (int n = 0; n <= frames; ++n)
                out[c][n] = n < frames ? in[c][n] : 0.0f;
        completeBlock(in, out, frames, 0);
    }
};

// Scribbles on its input (cast away const).
class BrokenInputWriter : public Broken<BrokenInputWriter> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenInputWriter, "Broken Input Writer", "BkIw")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c) {
            for (int n = 0; n < frames; ++n) {
                const float x = in[c][n];
                const_cast<float*>(in[c])[n] = 0.0f;
                out[c][n] = x;
            }
        }
        completeBlock(in, out, frames, 0);
    }
};

// Smooths with the previous output sample, read back from the output buffer:
// right out of place, wrong in place... and wrong across blocks.
class BrokenInPlace : public Broken<BrokenInPlace> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenInPlace, "Broken In Place", "BkIp")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c) {
            out[c][0] = in[c][0];
            for (int n = 1; n < frames; ++n)
                out[c][n] = 0.5f * (in[c][n] + in[c][n - 1]);
        }
        completeBlock(in, out, frames, 0);
    }
};

// A ramp restarted at every block: output depends on how audio is split.
class BrokenSplit : public Broken<BrokenSplit> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenSplit, "Broken Split", "BkSp")
protected:
    float sample(int, int n, float x) noexcept override { return x * (n < 8 ? 0.5f : 1.0f); }
};

// Takes a frame count of 0 literally and writes nothing.
class BrokenZeroFrames : public Broken<BrokenZeroFrames> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenZeroFrames, "Broken Zero Frames", "BkZf")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
            for (int n = 0; n < frames; ++n)
                out[c][n] = in[c][n];
        completeBlock(in, out, frames, 0);
    }
};

// Keeps a counter across prepare: a stale state after re-preparing.
class BrokenReprepare : public Broken<BrokenReprepare> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenReprepare, "Broken Reprepare", "BkRp")
protected:
    float sample(int c, int, float x) noexcept override { return c == 0 ? x * static_cast<float>(++m_count % 3) : x; }
private:
    unsigned m_count = 0;
};

// Says 10 frames of latency and delays by 12.
class BrokenLatency : public Broken<BrokenLatency> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenLatency, "Broken Latency", "BkLt")
protected:
    bool prepareProcessing() override
    {
        m_line.assign(2 * 12, 0.0f);
        return setLatency(10);
    }
    void resetState() noexcept override { std::fill(m_line.begin(), m_line.end(), 0.0f); }
    float sample(int c, int, float x) noexcept override
    {
        float* line = m_line.data() + c * 12;
        const float y = line[m_pos[c]];
        line[m_pos[c]] = x;
        m_pos[c] = (m_pos[c] + 1) % 12;
        return y;
    }
private:
    std::vector<float> m_line;
    int m_pos[2] = {0, 0};
};

// Ignores bypass: never hands the block to completion.
class BrokenBypass : public Broken<BrokenBypass> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenBypass, "Broken Bypass", "BkBp")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
            for (int n = 0; n < frames; ++n)
                out[c][n] = in[c][n] * 0.5f;
    }
};

// Uses the parameter raw in a smoother that never recovers from NaN.
class BrokenParameter : public Broken<BrokenParameter> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenParameter, "Broken Parameter", "BkPr")
protected:
    float sample(int, int, float x) noexcept override
    {
        m_smoothed = 0.999f * m_smoothed + 0.001f * gain();
        return x * m_smoothed;
    }
private:
    float m_smoothed = 1.0f;
};

// A feedback filter on the input with no recovery from NaN.
class BrokenFeedback : public Broken<BrokenFeedback> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenFeedback, "Broken Feedback", "BkFb")
protected:
    void resetState() noexcept override { m_state[0] = m_state[1] = 0.0f; }
    float sample(int c, int, float x) noexcept override
    {
        m_state[c] = 0.5f * m_state[c] + x;
        return 0.5f * m_state[c];
    }
private:
    float m_state[2] = {0.0f, 0.0f};
};

// Adds a subnormal offset as a stored constant, which flush-to-zero never touches.
class BrokenDenormal : public Broken<BrokenDenormal> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenDenormal, "Broken Denormal", "BkDn")
protected:
    float sample(int, int, float x) noexcept override
    {
        if (x == 0.0f || std::fabs(x) < 1e-30f) {
            const std::uint32_t bits = 0x00000100u;
            float tiny;
            std::memcpy(&tiny, &bits, 4);
            return tiny;
        }
        return x;
    }
};

// Allocates on the audio thread.
class BrokenAllocator : public Broken<BrokenAllocator> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenAllocator, "Broken Allocator", "BkAl")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        std::vector<float> scratch(static_cast<std::size_t>(std::max(frames, 1)) + 1);
        frames = prepareBlock(in, sequenceOf(b), frames);
        for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
            for (int n = 0; n < frames; ++n)
                out[c][n] = in[c][n] + scratch[0];
        completeBlock(in, out, frames, 0);
    }
};

// Locks a mutex on the audio thread.
class BrokenLock : public Broken<BrokenLock> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenLock, "Broken Lock", "BkLk")
protected:
    void processBlock(const qvd::BlockRecord* b, const float* const* in, float* const* out, std::int32_t frames) noexcept override
    {
        std::lock_guard lock(m_mutex);
        Broken::processBlock(b, in, out, frames);
    }
private:
    std::mutex m_mutex;
};

// Leaks a buffer per instance.
class BrokenLeak : public Broken<BrokenLeak> {
    Q_OBJECT
public:
    BrokenLeak(const QVDPluginDescriptor* d, void* c, qvd::HostServices* s) : Broken(d, c, s) { m_leak = new float[64]; }
    BROKEN_DESCRIPTOR(BrokenLeak, "Broken Leak", "BkLe")
private:
    float* m_leak;
};

// A logarithmic law without a floor: the range's minimum gives -inf.
class BrokenRange : public Broken<BrokenRange> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenRange, "Broken Range", "BkRg")
protected:
    float sample(int, int, float x) noexcept override { return x * (1.0f + std::log(gain())); }
};

// Refuses every preparation although it accepts the formats.
class BrokenFormats : public Broken<BrokenFormats> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenFormats, "Broken Formats", "BkFm")
protected:
    bool prepareProcessing() override { return false; }
};

// Publishes a derived value with a plain store that the audio thread reads:
// a data race ThreadSanitizer reports.
class BrokenRacer : public Broken<BrokenRacer> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenRacer, "Broken Racer", "BkRc")
    bool applyParameter(std::uint32_t index, float value) override
    {
        Broken::applyParameter(index, value);
        m_linear = std::isfinite(value) ? value * 0.5f : 0.5f;
        return true;
    }
protected:
    float sample(int, int, float x) noexcept override { return x * m_linear; }
private:
    float m_linear = 0.5f;
};

// A default outside its range, and a list with fewer labels than values.
class BrokenTable : public Broken<BrokenTable> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenTable, "Broken Table", "BkTb")
    static const std::vector<QVDParameterDefinition>& parameterTable()
    {
        static const auto table = [] {
            auto t = gainTable("Broken::GAIN");
            t[0].defaultValue = 3.0f;
            return t;
        }();
        return table;
    }
};

// Reads the bypass flag twice: a flip in between leaves the block unwritten.
class BrokenBypassRace : public Broken<BrokenBypassRace> {
    Q_OBJECT
public:
    using Broken::Broken;
    BROKEN_DESCRIPTOR(BrokenBypassRace, "Broken Bypass Race", "BkBr")
protected:
    void processBlock(const qvd::BlockRecord* block, const float* const* in, float* const* out,
                      std::int32_t frames) noexcept override
    {
        frames = prepareBlock(in, sequenceOf(block), frames);
        const bool rendered = !bypassed();
        if (rendered)
            for (int c = 0; c < std::min(activeInputs(), activeOutputs()); ++c)
                std::memcpy(out[c], in[c], static_cast<std::size_t>(frames) * sizeof(float));
        // Widens the window in which the other thread flips the flag.
        for (volatile int spin = 0; spin < 100000; ++spin) {
        }
        if (!rendered && !bypassed())
            return;
        completeBlock(in, out, frames, 0);
    }
};

} // namespace

QVD_REGISTER_AUDIO_PLUGIN(BrokenTable)
QVD_REGISTER_AUDIO_PLUGIN(BrokenBypassRace)
QVD_REGISTER_AUDIO_PLUGIN(BrokenRacer)
QVD_REGISTER_AUDIO_PLUGIN(BrokenRange)
QVD_REGISTER_AUDIO_PLUGIN(BrokenFormats)
QVD_REGISTER_AUDIO_PLUGIN(BrokenUnwritten)
QVD_REGISTER_AUDIO_PLUGIN(BrokenOverrun)
QVD_REGISTER_AUDIO_PLUGIN(BrokenInputWriter)
QVD_REGISTER_AUDIO_PLUGIN(BrokenInPlace)
QVD_REGISTER_AUDIO_PLUGIN(BrokenSplit)
QVD_REGISTER_AUDIO_PLUGIN(BrokenZeroFrames)
QVD_REGISTER_AUDIO_PLUGIN(BrokenReprepare)
QVD_REGISTER_AUDIO_PLUGIN(BrokenLatency)
QVD_REGISTER_AUDIO_PLUGIN(BrokenBypass)
QVD_REGISTER_AUDIO_PLUGIN(BrokenParameter)
QVD_REGISTER_AUDIO_PLUGIN(BrokenFeedback)
QVD_REGISTER_AUDIO_PLUGIN(BrokenDenormal)
QVD_REGISTER_AUDIO_PLUGIN(BrokenAllocator)
QVD_REGISTER_AUDIO_PLUGIN(BrokenLock)
QVD_REGISTER_AUDIO_PLUGIN(BrokenLeak)

#include "BrokenPlugins.moc"

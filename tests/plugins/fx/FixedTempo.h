#pragma once
// A host that reports one tempo everywhere, offered to instances created
// while it is attached (from construction until detach() or destruction).

#include <qvd/HostExtensions.h>
#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

class FixedTempo : public qvd::HostExtensions {
public:
    explicit FixedTempo(double bpm) : m_bpm(bpm) { registry()->setHostExtensions(this); }
    ~FixedTempo() { detach(); }
    void detach() { registry()->setHostExtensions(nullptr); }

    std::int32_t extensionsVersion() const override { return 1; }
    bool tempoAt(std::int64_t, double* bpm, std::int32_t* numerator, std::int32_t* denominator) override
    {
        *bpm = m_bpm;
        *numerator = 4;
        *denominator = 4;
        return true;
    }
    bool fetchAudio(std::uint64_t, const char*, std::int64_t, float* const*, std::int32_t, std::int32_t) override
    {
        return false;
    }

private:
    static qvd::PluginInterface* registry() { return static_cast<qvd::PluginInterface*>(GetQVDPluginInterface()); }
    double m_bpm;
};

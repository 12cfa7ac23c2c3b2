#pragma once
// Six-band equaliser: six BiQuad bands in series plus a whole-equaliser in/out
// switch, with input and output peak meters. Each band's user-facing shape
// choice is translated per band into a BiQuad shape and a curve-view code.

#include <QString>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/BiQuad.h>
#include <QVDAudioPlugin.h>

#include "QVDEqKernel.h"

class QVDEq : public QVDAudioPlugin<QVDEq> {
    Q_OBJECT
public:
    static constexpr int kBands = 6;
    // Roles of a band's five parameters at 5b + role.
    enum Role : std::uint32_t { kGain = 0, kQ = 1, kFreq = 2, kShape = 3, kIn = 4 };
    enum Parameter : std::uint32_t { EQ_IN = 30 };
    static constexpr std::uint32_t kParameterCount = 31;
    enum MeterGroup : std::int32_t { kInputMeter = 0, kOutputMeter = 1 };
    // Curve-view shape codes.
    enum ViewShape : std::int32_t {
        kViewLowShelf = 0,
        kViewHighShelf = 1,
        kViewBell = 2,
        kViewNotch = 3,
        kViewLowPass = 4,
        kViewHighPass = 5,
    };

    // What the curve view knows of one band.
    struct BandView {
        bool on = false;
        float gainDb = 0.0f;
        float q = 1.5f; // mapped Q
        float frequency = 1000.0f;
        std::int32_t shape = kViewBell;
    };

    QVDEq(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
    ~QVDEq() override;

    static const QVDPluginDescriptor& descriptor();
    static const std::vector<QVDParameterDefinition>& parameterTable();
    // Index of a band's parameter: 5b + role.
    static constexpr std::uint32_t bandParameter(int band, Role role)
    {
        return static_cast<std::uint32_t>(band) * 5u + role;
    }

    // The per-band tables, row-major, four choices a band: the BiQuad SHAPE
    // value each choice is translated to, and the curve-view code drawn for it.
    static const std::array<std::int32_t, kBands * 4>& shapeTranslation();
    static const std::array<std::int32_t, kBands * 4>& viewCodes();
    // Labels of a band's four shape choices.
    static QStringList shapeLabels(int band);
    // Q as the BiQuad sees it: 0.3..10.3 maps to 0.5..5.5.
    static float mappedQ(float q);

    bool applyParameter(std::uint32_t index, float value) override;
    QWidget* buildEditor(QWidget* parent) override;
    bool hasEditor() const override { return true; }
    bool magnitudeResponse(const double* frequencies, double* decibels, std::int32_t count) const override;

    // [control-thread] The band's filter block (tests, the panel).
    const BiQuad& band(int b) const { return m_bands[static_cast<std::size_t>(b)]; }
    // [control-thread] The panel's copy of the band settings.
    BandView bandView(int b) const { return m_views[static_cast<std::size_t>(b)]; }
    // [any-thread] The "Equalizer In" state.
    bool equalizerIn() const { return m_eqIn.load(std::memory_order_relaxed); }
    // [control-thread] True once since the last call when a setting changed
    // (the panel redraws its curve then).
    bool takeChanged() { return m_changed.exchange(false, std::memory_order_relaxed); }

    // Kernel variant in use ("m256", "m128", "ref"); tests and benchmarks may force one.
    const char* kernelName() const { return m_kernel.name; }
    void setKernel(qvd::eq::Variant variant) { m_kernel = variant; }

protected:
    void processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                      std::int32_t frames) noexcept override;
    bool prepareProcessing() override;
    void channelCountsChanged() override;

private:
    // Forwards a band parameter to its BiQuad and the view copy; false for EQ_IN.
    void applyBand(std::uint32_t index, float value, bool log);

    std::array<BiQuad, kBands> m_bands;
    std::array<BandView, kBands> m_views;
    std::atomic<bool> m_eqIn{true};
    std::atomic<bool> m_changed{true};
    qvd::eq::Variant m_kernel;
    std::int32_t m_maxChannels;
    // Audio thread: the last block ran bypassed.
    bool m_wasBypassed = false;
};

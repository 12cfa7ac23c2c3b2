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
#include <QVDEffect.h>

#include "QVDEqKernel.h"

class QVDEq : public QVDEffect<QVDEq> {
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

    static constexpr QVDPluginDescriptor kDescriptor{.name = "Tarnwick EQ", .fourcc = qvdFourCC("QVEq"),
                                                     .maxInputs = 16, .maxOutputs = 16, .className = "QVDEq"};
    // The bands filter the outputs in place.
    static constexpr QVDEffectOptions kEffect{.copyInput = true};
    static std::vector<QVDParam> parameterRows();

    QVDEq(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);
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
    const char* kernelName() const { return m_kernel->name; }
    void setKernel(const qvd::eq::Variant& variant) { m_kernel = &variant; }

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    // "Equalizer In" off passes audio as the bypass does.
    bool engaged() const noexcept override { return m_eqIn.load(std::memory_order_relaxed); }
    // The bands' history is stale after a bypass: start from silence.
    void resumeAfterBypass() noexcept override;
    bool prepareProcessing() override;
    bool channelCountsChanged() override;

private:
    // Forwards a band parameter to its BiQuad and the view copy.
    void applyBand(std::uint32_t index, float value);

    std::array<BiQuad, kBands> m_bands;
    std::array<BandView, kBands> m_views;
    std::atomic<bool> m_eqIn{true};
    std::atomic<bool> m_changed{true};
    const qvd::eq::Variant* m_kernel;
};

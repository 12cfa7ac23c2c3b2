#pragma once
// De-esser for dialogue and vocals: a band-pass detector on the sibilance,
// wide-band or split-band reduction, Listen to hear what the detector hears.
// The processing is the shared DeEsser block; this plugin is its panel of
// parameters and its gain-reduction readout. Latency 1.2 ms, in every mode.

#include <cstdint>
#include <vector>

#include <Algorithms/DeEsser.h>
#include <QVDEffect.h>

class QVDDeesser : public QVDEffect<QVDDeesser> {
    Q_OBJECT
public:
    // In the block's order, so an index maps straight across.
    enum Parameter : std::uint32_t { FREQ = 0, Q, THRESHOLD, RANGE, ATTACK, RELEASE, MODE, SPLIT, LISTEN, LINK };
    static constexpr QVDPluginDescriptor kDescriptor{.name = "De-Esser", .fourcc = qvdFourCC("QVDs"),
                                                     .maxInputs = 2, .maxOutputs = 2, .className = "QVDDeesser"};
    static constexpr QVDEffectOptions kEffect{.copyInput = true};
    static std::vector<QVDParam> parameterRows();

    QVDDeesser(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

    // Frequencies from 1 kHz read in kHz.
    QString valueText(std::int32_t index, float value) const override;

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;

private:
    DeEsser m_deesser;
    std::int32_t m_reductionReadout = 0;
};

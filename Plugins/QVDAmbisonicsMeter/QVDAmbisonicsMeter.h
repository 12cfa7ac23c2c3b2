#pragma once
// Ambisonics meter for ACN-ordered signals in SN3D or N3D: the energy of
// each order, the first-order pseudo-intensity direction and diffuseness,
// and the energy of a steered beam over a sphere grid, with the grid's
// peak refined between grid points. The audio passes unchanged.
//
// The order comes from the channel count: the largest complete order
// ((order + 1)^2 channels) is analysed and the channels beyond it are
// counted in a readout. Azimuth is counter-clockwise (left positive),
// elevation up, both in degrees.
//
// Everything derives from the channels' covariance, integrated in steps of
// a fixed number of frames so readings do not depend on the host's block
// size. The map is swept a slice per block and refreshed about ten times
// a second.

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include <Algorithms/SphericalHarmonics.h>
#include <QVDEffect.h>

class QVDAmbisonicsMeter : public QVDEffect<QVDAmbisonicsMeter> {
    Q_OBJECT
public:
    enum Parameter : std::uint32_t { NORMALISATION = 0, INTEGRATION };
    enum Readout : std::int32_t {
        kOrder = 0,
        kUnusedChannels,
        kOrderEnergy,
        kAzimuth,
        kElevation,
        kDiffuseness,
        kMap,
        kMapPeakAzimuth,
        kMapPeakElevation,
    };
    static constexpr std::int32_t kMaxOrder = 5;
    static constexpr std::int32_t kMaxChannels = (kMaxOrder + 1) * (kMaxOrder + 1);
    // The map: rows of elevation -90 .. 90 and columns of azimuth -180 .. 170,
    // 10 degrees apart; index row * kColumns + column.
    static constexpr std::int32_t kRows = 19;
    static constexpr std::int32_t kColumns = 36;
    static constexpr std::int32_t kMapPoints = kRows * kColumns;
    static constexpr double kGridStep = 10.0;
    static constexpr float kFloorDb = -200.0f;

    static constexpr QVDPluginDescriptor kDescriptor{.name = "Ambisonics Meter", .fourcc = qvdFourCC("QVAm"),
                                                     .maxInputs = kMaxChannels, .maxOutputs = kMaxChannels,
                                                     .className = "QVDAmbisonicsMeter", .flags = 32};
    static constexpr QVDEffectOptions kEffect{.copyInput = true, .meters = QVDMeters::Standard};
    static std::vector<QVDParam> parameterRows();

    QVDAmbisonicsMeter(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services);

protected:
    void parameterChanged(std::uint32_t index, float value) override;
    void render(const QVDBlock& block) noexcept override;
    bool prepareProcessing() override;
    void resetState() noexcept override;
    void resumeAfterBypass() noexcept override { clearRunning(); }

private:
    static constexpr std::int32_t kChunk = 64; // frames per covariance step
    using Matrix = std::array<double, kMaxChannels * kMaxChannels>;

    void clearRunning() noexcept;
    void accumulate(const QVDBlock& block) noexcept;
    void finishChunk() noexcept;
    void normalised(Matrix& s) const noexcept; // the covariance in SN3D terms
    void publishScalars(const Matrix& s) noexcept;
    void sweepMap(std::int32_t frames) noexcept;
    void finishMap() noexcept;

    std::atomic<bool> m_n3d{false};
    std::atomic<float> m_integrationMs{300.0f};

    // Fixed at construction: SN3D harmonics of the full order at every map point.
    std::vector<double> m_gridHarmonics;

    // Audio thread only.
    std::int32_t m_order = -1;
    std::int32_t m_channels = 0; // (m_order + 1)^2
    std::int32_t m_count = -1;
    bool m_n3dSeen = false;
    float m_poleMs = 0.0f;
    double m_chunkPole = 0.0; // per kChunk frames
    Matrix m_covariance{};    // running mean of the raw products
    Matrix m_chunk{};         // products within the current chunk
    std::int32_t m_chunkFill = 0;
    std::int64_t m_chunks = 0; // since the mean started
    bool m_haveCovariance = false;
    Matrix m_snapshot{};      // the map sweeps this
    std::int32_t m_mapPoint = 0;
    std::array<double, kMapPoints> m_mapPower{};
    std::array<float, kMapPoints> m_mapOut{};
    std::array<float, kMaxOrder + 1> m_orderOut{};
};

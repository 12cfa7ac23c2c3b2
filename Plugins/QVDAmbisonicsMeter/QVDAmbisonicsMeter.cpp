#include "QVDAmbisonicsMeter.h"

#include <algorithm>
#include <cmath>

QVD_REGISTER_AUDIO_PLUGIN(QVDAmbisonicsMeter)

namespace {

constexpr double kDegrees = 180.0 / 3.14159265358979323846;
constexpr std::int32_t N = QVDAmbisonicsMeter::kMaxChannels;

float powerDb(double meanSquare)
{
    return meanSquare > 1e-20 ? static_cast<float>(10.0 * std::log10(meanSquare)) : QVDAmbisonicsMeter::kFloorDb;
}

// Eight float lanes the compiler can keep in one register; a chunk is short
// enough for float sums.
double dot(const float* a, const float* b, std::int32_t n) noexcept
{
    float s[8] = {};
    std::int32_t i = 0;
    for (; i + 8 <= n; i += 8)
        for (std::int32_t k = 0; k < 8; ++k)
            s[k] += a[i + k] * b[i + k];
    double sum = 0.0;
    for (; i < n; ++i)
        sum += static_cast<double>(a[i]) * b[i];
    for (float v : s)
        sum += v;
    return sum;
}

// The vertex of the parabola through (-1, l), (0, c), (1, r), within half a step.
double vertex(double l, double c, double r)
{
    const double den = l - 2.0 * c + r;
    return den < 0.0 ? std::clamp(0.5 * (l - r) / den, -0.5, 0.5) : 0.0;
}

} // namespace

std::vector<QVDParam> QVDAmbisonicsMeter::parameterRows()
{
    return {
        qvdListParam("NORMALISATION", "Normalisation", {"SN3D", "N3D"}, 0),
        {.name = "INTEGRATION", .label = "Integration", .minimum = 10.0f, .maximum = 10000.0f, .defaultValue = 300.0f,
         .step = 1.0f, .unit = "ms", .scale = qvd::kLogarithmic},
    };
}

QVDAmbisonicsMeter::QVDAmbisonicsMeter(const QVDPluginDescriptor* descriptor, void* hostContext,
                                       qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Order"), QString());
    addReadout(QStringLiteral("Unused Channels"), QString());
    addReadout(QStringLiteral("Order Energy"), QStringLiteral("dB"), kMaxOrder + 1);
    addReadout(QStringLiteral("Azimuth"), QStringLiteral("deg"));
    addReadout(QStringLiteral("Elevation"), QStringLiteral("deg"));
    addReadout(QStringLiteral("Diffuseness"), QString());
    addReadout(QStringLiteral("Map"), QStringLiteral("dB"), kMapPoints);
    addReadout(QStringLiteral("Map Peak Azimuth"), QStringLiteral("deg"));
    addReadout(QStringLiteral("Map Peak Elevation"), QStringLiteral("deg"));

    m_gridHarmonics.resize(static_cast<std::size_t>(kMapPoints) * N);
    for (std::int32_t row = 0; row < kRows; ++row) {
        for (std::int32_t col = 0; col < kColumns; ++col) {
            const double el = (-90.0 + kGridStep * row) / kDegrees;
            const double az = (-180.0 + kGridStep * col) / kDegrees;
            SphericalHarmonics::evaluate(kMaxOrder, az, el, SphericalHarmonics::Normalisation::SN3D,
                                         &m_gridHarmonics[static_cast<std::size_t>((row * kColumns + col) * N)]);
        }
    }
}

void QVDAmbisonicsMeter::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    if (index == NORMALISATION)
        m_n3d.store(qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)), std::memory_order_relaxed);
    else if (index == INTEGRATION)
        m_integrationMs.store(std::clamp(value, 10.0f, 10000.0f), std::memory_order_relaxed);
}

bool QVDAmbisonicsMeter::prepareProcessing()
{
    m_order = -1;
    m_count = -1;
    m_poleMs = 0.0f;
    clearRunning();
    return true;
}

void QVDAmbisonicsMeter::clearRunning() noexcept
{
    m_covariance.fill(0.0);
    m_chunk.fill(0.0);
    m_chunkFill = 0;
    m_chunks = 0;
    m_haveCovariance = false;
    m_mapPoint = 0;
}

void QVDAmbisonicsMeter::resetState() noexcept
{
    clearRunning();
}

void QVDAmbisonicsMeter::finishChunk() noexcept
{
    const float ms = m_integrationMs.load(std::memory_order_relaxed);
    if (ms != m_poleMs) {
        m_chunkPole = std::exp(-1000.0 * kChunk / (static_cast<double>(ms) * sampleRate()));
        m_poleMs = ms;
    }
    bool finite = true;
    for (std::int32_t i = 0; i < m_channels; ++i)
        finite = finite && std::isfinite(m_chunk[static_cast<std::size_t>(i * N + i)]);
    if (finite) {
        // A plain mean until it spans the integration time, so the readings
        // need no run-up; an exponential one from then on.
        ++m_chunks;
        const double gain = std::max(1.0 - m_chunkPole, 1.0 / static_cast<double>(m_chunks));
        for (std::int32_t i = 0; i < m_channels; ++i)
            for (std::int32_t j = i; j < m_channels; ++j) {
                const auto k = static_cast<std::size_t>(i * N + j);
                double v = m_covariance[k] + gain * (m_chunk[k] / kChunk - m_covariance[k]);
                if (std::fabs(v) < 1e-30)
                    v = 0.0;
                m_covariance[k] = v;
                m_covariance[static_cast<std::size_t>(j * N + i)] = v;
            }
        m_haveCovariance = true;
    } else {
        m_covariance.fill(0.0);
        m_haveCovariance = false;
        m_chunks = 0;
    }
    m_chunk.fill(0.0);
    m_chunkFill = 0;
}

void QVDAmbisonicsMeter::accumulate(const QVDBlock& block) noexcept
{
    for (std::int32_t done = 0; done < block.frames;) {
        const std::int32_t n = std::min(block.frames - done, kChunk - m_chunkFill);
        for (std::int32_t i = 0; i < m_channels; ++i)
            for (std::int32_t j = i; j < m_channels; ++j)
                m_chunk[static_cast<std::size_t>(i * N + j)] += dot(block.outputs[i] + done, block.outputs[j] + done, n);
        m_chunkFill += n;
        done += n;
        if (m_chunkFill == kChunk)
            finishChunk();
    }
}

void QVDAmbisonicsMeter::normalised(Matrix& s) const noexcept
{
    s = m_covariance;
    if (!m_n3d.load(std::memory_order_relaxed))
        return;
    for (std::int32_t i = 0; i < m_channels; ++i)
        for (std::int32_t j = 0; j < m_channels; ++j)
            s[static_cast<std::size_t>(i * N + j)] /=
                SphericalHarmonics::n3dFactor(SphericalHarmonics::orderOf(i)) *
                SphericalHarmonics::n3dFactor(SphericalHarmonics::orderOf(j));
}

void QVDAmbisonicsMeter::publishScalars(const Matrix& s) noexcept
{
    m_orderOut.fill(kFloorDb);
    for (std::int32_t l = 0; l <= m_order; ++l) {
        double e = 0.0;
        for (std::int32_t i = l * l; i < (l + 1) * (l + 1); ++i)
            e += s[static_cast<std::size_t>(i * N + i)];
        m_orderOut[static_cast<std::size_t>(l)] = powerDb(e);
    }
    publishReadout(kOrderEnergy, m_orderOut.data(), kMaxOrder + 1);

    double azimuth = 0.0, elevation = 0.0, diffuseness = 1.0;
    if (m_order >= 1) {
        // ACN 1, 2, 3 are Y, Z, X; the intensity is W times each.
        const double ix = s[3], iy = s[1], iz = s[2];
        const double energy = 0.5 * (s[0] + s[1 * N + 1] + s[2 * N + 2] + s[3 * N + 3]);
        const double length = std::sqrt(ix * ix + iy * iy + iz * iz);
        if (energy > 1e-30) {
            azimuth = std::atan2(iy, ix) * kDegrees;
            elevation = std::atan2(iz, std::hypot(ix, iy)) * kDegrees;
            diffuseness = std::clamp(1.0 - length / energy, 0.0, 1.0);
        }
    }
    publishReadout(kAzimuth, static_cast<float>(azimuth));
    publishReadout(kElevation, static_cast<float>(elevation));
    publishReadout(kDiffuseness, static_cast<float>(diffuseness));
}

void QVDAmbisonicsMeter::sweepMap(std::int32_t frames) noexcept
{
    if (m_mapPoint == 0)
        normalised(m_snapshot);
    // The whole map about every 100 ms.
    const auto perBlock = static_cast<std::int32_t>(
        std::ceil(static_cast<double>(kMapPoints) * frames / (0.1 * std::max(1, sampleRate()))));
    const std::int32_t end = std::min(kMapPoints, m_mapPoint + std::max(1, perBlock));
    const std::int32_t c = m_channels;
    // The steering vector over SN3D signals: (2l + 1) Y_lm, divided by
    // (order + 1)^2 so a plane wave reads its own power at its direction.
    double v[N];
    const double scale = 1.0 / static_cast<double>(c);
    for (; m_mapPoint < end; ++m_mapPoint) {
        const double* y = &m_gridHarmonics[static_cast<std::size_t>(m_mapPoint * N)];
        for (std::int32_t i = 0; i < c; ++i)
            v[i] = (2.0 * SphericalHarmonics::orderOf(i) + 1.0) * y[i] * scale;
        // v' S v over the upper triangle, in four independent sums.
        double lanes[4] = {};
        for (std::int32_t i = 0; i < c; ++i) {
            const double* row = &m_snapshot[static_cast<std::size_t>(i * N)];
            double z[4] = {0.5 * row[i] * v[i], 0.0, 0.0, 0.0};
            std::int32_t j = i + 1;
            for (; j + 4 <= c; j += 4)
                for (std::int32_t k = 0; k < 4; ++k)
                    z[k] += row[j + k] * v[j + k];
            for (; j < c; ++j)
                z[0] += row[j] * v[j];
            lanes[i & 3] += v[i] * ((z[0] + z[1]) + (z[2] + z[3]));
        }
        const double power = 2.0 * ((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
        m_mapPower[static_cast<std::size_t>(m_mapPoint)] = std::max(power, 0.0);
    }
    if (m_mapPoint == kMapPoints) {
        finishMap();
        m_mapPoint = 0;
    }
}

void QVDAmbisonicsMeter::finishMap() noexcept
{
    std::int32_t best = 0;
    for (std::int32_t k = 0; k < kMapPoints; ++k) {
        m_mapOut[static_cast<std::size_t>(k)] = powerDb(m_mapPower[static_cast<std::size_t>(k)]);
        if (m_mapPower[static_cast<std::size_t>(k)] > m_mapPower[static_cast<std::size_t>(best)])
            best = k;
    }
    publishReadout(kMap, m_mapOut.data(), kMapPoints);
    const std::int32_t row = best / kColumns, col = best % kColumns;
    const auto at = [this](std::int32_t r, std::int32_t c) {
        return static_cast<double>(m_mapOut[static_cast<std::size_t>(r * kColumns + (c + kColumns) % kColumns)]);
    };
    double azimuth = -180.0 + kGridStep * col, elevation = -90.0 + kGridStep * row;
    if (row > 0 && row < kRows - 1) {
        azimuth += kGridStep * vertex(at(row, col - 1), at(row, col), at(row, col + 1));
        elevation += kGridStep * vertex(at(row - 1, col), at(row, col), at(row + 1, col));
    } else {
        azimuth = 0.0; // a pole has no azimuth
    }
    if (azimuth >= 180.0)
        azimuth -= 360.0;
    publishReadout(kMapPeakAzimuth, static_cast<float>(azimuth));
    publishReadout(kMapPeakElevation, static_cast<float>(elevation));
}

void QVDAmbisonicsMeter::render(const QVDBlock& block) noexcept
{
    const std::int32_t count = std::min({block.channels, block.inputCount, kMaxChannels});
    const std::int32_t order = std::min(SphericalHarmonics::orderFor(count), kMaxOrder);
    const bool n3d = m_n3d.load(std::memory_order_relaxed);
    if (order != m_order || n3d != m_n3dSeen) {
        m_order = order;
        m_n3dSeen = n3d;
        m_channels = order >= 0 ? SphericalHarmonics::channelsOf(order) : 0;
        clearRunning();
        publishReadout(kOrder, static_cast<float>(std::max(order, 0)));
    }
    if (count != m_count) {
        m_count = count;
        publishReadout(kUnusedChannels, static_cast<float>(count - m_channels));
    }
    if (m_channels == 0)
        return;
    accumulate(block);
    if (!m_haveCovariance)
        return;
    Matrix s;
    normalised(s);
    publishScalars(s);
    sweepMap(block.frames);
}

#include "QVDJellyFish.h"

#include <algorithm>
#include <cmath>
#include <limits>

QVD_REGISTER_AUDIO_PLUGIN(QVDJellyFish)

namespace {

constexpr double kMinusInf = -std::numeric_limits<double>::infinity();
constexpr double kHalfRoot2 = 0.70710678118654752;
constexpr double kDegrees = 180.0 / 3.14159265358979323846;
constexpr std::int32_t kMomentarySteps = 4;
constexpr double kIntegratedGate = -10.0; // LU

float powerDb(double meanSquare)
{
    return meanSquare > 1e-20 ? static_cast<float>(10.0 * std::log10(meanSquare)) : QVDJellyFish::kFloorDb;
}

} // namespace

std::vector<QVDParam> QVDJellyFish::parameterRows()
{
    return {
        {.name = "INTEGRATION", .label = "Integration", .minimum = 10.0f, .maximum = 10000.0f, .defaultValue = 300.0f,
         .step = 1.0f, .unit = "ms", .scale = qvd::kLogarithmic},
        qvdSwitchParam("RESET", "Reset", false),
    };
}

QVDJellyFish::QVDJellyFish(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Channel Levels"), QStringLiteral("dB"), kMaxChannels);
    addReadout(QStringLiteral("Channel Roles"), QString(), kMaxChannels);
    addReadout(QStringLiteral("Role Levels"), QStringLiteral("dB"), kRoles);
    addReadout(QStringLiteral("Front Correlation"), QString());
    addReadout(QStringLiteral("Surround Correlation"), QString());
    addReadout(QStringLiteral("Direction"), QStringLiteral("deg"));
    addReadout(QStringLiteral("Spread"), QString());
    addReadout(QStringLiteral("Surround Loudness"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Downmix Loudness"), QStringLiteral("LUFS"));
    addReadout(QStringLiteral("Downmix Difference"), QStringLiteral("LU"));
    addReadout(QStringLiteral("LFE Level"), QStringLiteral("dB"));
}

void QVDJellyFish::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    if (index == INTEGRATION)
        m_integrationMs.store(std::clamp(value, 10.0f, 10000.0f), std::memory_order_relaxed);
    else if (index == RESET && qvdSwitchOn(std::clamp(value, 0.0f, 1.0f)))
        m_resetRequests.fetch_add(1, std::memory_order_relaxed);
}

bool QVDJellyFish::roleAngle(std::int32_t format, qvd::ChannelRole role, double& degrees, double& weight) noexcept
{
    const bool sevenOne = format == qvd::kFormat71 || format == qvd::kFormat714;
    // Height loudspeakers at 45 degrees up count with their horizontal share.
    weight = 1.0;
    switch (role) {
    case qvd::kRoleMono:
    case qvd::kRoleCentre: degrees = 0.0; return true;
    case qvd::kRoleLeft: degrees = 30.0; return true;
    case qvd::kRoleRight: degrees = -30.0; return true;
    case qvd::kRoleLeftSurround: degrees = sevenOne ? 90.0 : 110.0; return true;
    case qvd::kRoleRightSurround: degrees = sevenOne ? -90.0 : -110.0; return true;
    case qvd::kRoleCentreSurround: degrees = 180.0; return true;
    case qvd::kRoleLeftBack: degrees = 150.0; return true;
    case qvd::kRoleRightBack: degrees = -150.0; return true;
    case qvd::kRoleTopFrontLeft: degrees = 45.0, weight = kHalfRoot2; return true;
    case qvd::kRoleTopFrontRight: degrees = -45.0, weight = kHalfRoot2; return true;
    case qvd::kRoleTopBackLeft: degrees = 135.0, weight = kHalfRoot2; return true;
    case qvd::kRoleTopBackRight: degrees = -135.0, weight = kHalfRoot2; return true;
    default: return false;
    }
}

void QVDJellyFish::updateLayout(std::int32_t format) noexcept
{
    Layout& l = m_layout;
    l = Layout{};
    l.format = format;
    for (std::int32_t c = 0; c < kMaxChannels; ++c) {
        const auto i = static_cast<std::size_t>(c);
        const qvd::ChannelRole role = qvd::channelRole(format, c);
        l.roles[i] = role;
        double degrees = 0.0, weight = 0.0;
        if (roleAngle(format, role, degrees, weight)) {
            l.x[i] = std::cos(degrees / kDegrees);
            l.y[i] = std::sin(degrees / kDegrees);
            l.vectorWeight[i] = weight;
        }
        // Loudness weights as the loudness meter gives them.
        l.loudnessWeight[i] = role == qvd::kRoleLFE ? 0.0
                              : role == qvd::kRoleLeftSurround || role == qvd::kRoleRightSurround ? 1.41
                                                                                                   : 1.0;
        // The stereo downmix: fronts as they are, centre, surrounds, backs and
        // heights at -3 dB to their side, a rear centre at -6 dB to both.
        switch (role) {
        case qvd::kRoleLeft: l.downLeft[i] = 1.0, l.left = c; break;
        case qvd::kRoleRight: l.downRight[i] = 1.0, l.right = c; break;
        case qvd::kRoleMono:
        case qvd::kRoleCentre: l.downLeft[i] = l.downRight[i] = kHalfRoot2; break;
        case qvd::kRoleCentreSurround: l.downLeft[i] = l.downRight[i] = 0.5; break;
        case qvd::kRoleLeftSurround: l.downLeft[i] = kHalfRoot2, l.leftSurround = c; break;
        case qvd::kRoleRightSurround: l.downRight[i] = kHalfRoot2, l.rightSurround = c; break;
        case qvd::kRoleLeftBack:
        case qvd::kRoleTopFrontLeft:
        case qvd::kRoleTopBackLeft: l.downLeft[i] = kHalfRoot2; break;
        case qvd::kRoleRightBack:
        case qvd::kRoleTopFrontRight:
        case qvd::kRoleTopBackRight: l.downRight[i] = kHalfRoot2; break;
        case qvd::kRoleLFE: l.lfe = c; break;
        default: break;
        }
        if (l.downLeft[i] != 0.0 || l.downRight[i] != 0.0)
            l.hasDownmix = true;
        m_roleOut[i] = static_cast<float>(role);
    }
    publishReadout(kChannelRoles, m_roleOut.data(), kMaxChannels);
    clearLoudness();
}

bool QVDJellyFish::prepareProcessing()
{
    m_filter = KWeighting::design(sampleRate());
    m_step = std::max<std::int32_t>(1, (sampleRate() + 5) / 10);
    m_downmix.assign(2 * static_cast<std::size_t>(std::max(1, blockSize())), 0.0f);
    m_layout.format = -1;
    m_poleMs = 0.0f;
    clearRunning();
    clearLoudness();
    return true;
}

void QVDJellyFish::clearRunning() noexcept
{
    m_energy.fill(0.0);
    m_frontProduct = m_surroundProduct = 0.0;
}

void QVDJellyFish::clearLoudness() noexcept
{
    for (KWeightingState& s : m_states)
        s = KWeightingState{};
    m_downStates[0] = m_downStates[1] = KWeightingState{};
    m_stepFill = 0;
    m_stepSurround = m_stepDownmix = 0.0;
    m_surroundSteps.fill(0.0);
    m_downmixSteps.fill(0.0);
    m_stepPos = 0;
    m_windowSteps = 0;
    m_surroundBlocks.clear();
    m_downmixBlocks.clear();
    m_surroundLoudness = m_downmixLoudness = kMinusInf;
}

void QVDJellyFish::resetState() noexcept
{
    clearRunning();
}

namespace {

// sum of p^(n-1-i) a[i] b[i] over a piece of n <= kPiece frames, with the
// powers of p from a table: the exact one-pole recursion over the piece, in
// independent lanes instead of one serial chain.
double weighted(const float* a, const float* b, const double* powers, std::int32_t n) noexcept
{
    double s[4] = {};
    const double* w = powers + (QVDJellyFish::kPiece - n);
    std::int32_t i = 0;
    for (; i + 4 <= n; i += 4)
        for (std::int32_t k = 0; k < 4; ++k)
            s[k] += w[i + k] * (static_cast<double>(a[i + k]) * b[i + k]);
    for (; i < n; ++i)
        s[0] += w[i] * (static_cast<double>(a[i]) * b[i]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

} // namespace

void QVDJellyFish::integrate(const QVDBlock& block, std::int32_t count) noexcept
{
    const float ms = m_integrationMs.load(std::memory_order_relaxed);
    if (ms != m_poleMs) {
        m_pole = std::exp(-1000.0 / (static_cast<double>(ms) * sampleRate()));
        m_poleMs = ms;
        // m_powers[kPiece - 1 - j] = p^j, so a piece of n frames reads the last n.
        double w = 1.0;
        for (std::int32_t j = 0; j < kPiece; ++j, w *= m_pole)
            m_powers[static_cast<std::size_t>(kPiece - 1 - j)] = w;
        m_piecePole = w;
    }
    const double* powers = m_powers.data();
    bool finite = true;
    const auto run = [&](const float* a, const float* b, double& sum) {
        double s = sum;
        for (std::int32_t done = 0; done < block.frames; done += kPiece) {
            const std::int32_t n = std::min(kPiece, block.frames - done);
            const double decay = n == kPiece ? m_piecePole : powers[kPiece - n] / m_pole;
            s = decay * s + weighted(a + done, b + done, powers, n);
        }
        // Long silence would decay into subnormals.
        sum = std::fabs(s) < 1e-30 ? 0.0 : s;
        finite = finite && std::isfinite(s);
    };
    for (std::int32_t c = 0; c < count; ++c)
        run(block.outputs[c], block.outputs[c], m_energy[static_cast<std::size_t>(c)]);
    const auto product = [&](std::int32_t a, std::int32_t b, double& sum) {
        if (a >= 0 && b >= 0 && a < count && b < count)
            run(block.outputs[a], block.outputs[b], sum);
    };
    product(m_layout.left, m_layout.right, m_frontProduct);
    product(m_layout.leftSurround, m_layout.rightSurround, m_surroundProduct);
    if (!finite)
        clearRunning();
}

void QVDJellyFish::finishStep() noexcept
{
    const bool finite = std::isfinite(m_stepSurround) && std::isfinite(m_stepDownmix);
    m_stepPos = (m_stepPos + 1) % kMomentarySteps;
    m_surroundSteps[static_cast<std::size_t>(m_stepPos)] = finite ? m_stepSurround / m_step : 0.0;
    m_downmixSteps[static_cast<std::size_t>(m_stepPos)] = finite ? m_stepDownmix / m_step : 0.0;
    m_stepSurround = m_stepDownmix = 0.0;
    m_stepFill = 0;
    // Gating blocks of 400 ms every 100 ms, from whole windows only.
    if (++m_windowSteps < kMomentarySteps)
        return;
    double surround = 0.0, downmix = 0.0;
    for (std::int32_t i = 0; i < kMomentarySteps; ++i) {
        surround += m_surroundSteps[static_cast<std::size_t>(i)];
        downmix += m_downmixSteps[static_cast<std::size_t>(i)];
    }
    m_surroundBlocks.add(surround / kMomentarySteps);
    m_downmixBlocks.add(downmix / kMomentarySteps);
    m_surroundLoudness = m_surroundBlocks.gatedLoudness(kIntegratedGate);
    m_downmixLoudness = m_downmixBlocks.gatedLoudness(kIntegratedGate);
}

void QVDJellyFish::measureLoudness(const QVDBlock& block, std::int32_t count) noexcept
{
    const Layout& l = m_layout;
    for (std::int32_t done = 0; done < block.frames;) {
        const std::int32_t n = std::min(block.frames - done, m_step - m_stepFill);
        double programme = 0.0;
        for (std::int32_t c = 0; c < count; ++c) {
            const double w = l.loudnessWeight[static_cast<std::size_t>(c)];
            if (w != 0.0)
                programme +=
                    w * KWeighting::energy(m_filter, m_states[static_cast<std::size_t>(c)], block.outputs[c] + done, n);
        }
        m_stepSurround += programme;
        if (l.format == qvd::kFormatStereo) {
            m_stepDownmix += programme; // stereo is its own downmix
        } else if (l.hasDownmix) {
            float* lo = m_downmix.data();
            float* ro = lo + n;
            std::fill(lo, lo + 2 * n, 0.0f);
            for (std::int32_t c = 0; c < count; ++c) {
                const auto gl = static_cast<float>(l.downLeft[static_cast<std::size_t>(c)]);
                const auto gr = static_cast<float>(l.downRight[static_cast<std::size_t>(c)]);
                const float* x = block.outputs[c] + done;
                if (gl != 0.0f)
                    for (std::int32_t i = 0; i < n; ++i)
                        lo[i] += gl * x[i];
                if (gr != 0.0f)
                    for (std::int32_t i = 0; i < n; ++i)
                        ro[i] += gr * x[i];
            }
            double el = 0.0, er = 0.0;
            KWeighting::energy2(m_filter, m_downStates[0], m_downStates[1], lo, ro, n, el, er);
            m_stepDownmix += el + er;
        }
        m_stepFill += n;
        done += n;
        if (m_stepFill == m_step)
            finishStep();
    }
}

void QVDJellyFish::publish(std::int32_t count) noexcept
{
    const Layout& l = m_layout;
    const double norm = 1.0 - m_pole; // running sums to mean squares
    std::array<double, kRoles> rolePower{};
    std::array<bool, kRoles> roleSeen{};
    double ex = 0.0, ey = 0.0, total = 0.0, mains = 0.0;
    std::int32_t mainCount = 0;
    for (std::int32_t c = 0; c < kMaxChannels; ++c) {
        const auto i = static_cast<std::size_t>(c);
        const double ms = c < count ? m_energy[i] * norm : 0.0;
        m_levelOut[i] = c < count ? powerDb(ms) : kFloorDb;
        if (c >= count)
            continue;
        const qvd::ChannelRole role = l.roles[i];
        if (role >= 0 && role < kRoles) {
            rolePower[static_cast<std::size_t>(role)] += ms;
            roleSeen[static_cast<std::size_t>(role)] = true;
        }
        if (l.vectorWeight[i] > 0.0) {
            ex += ms * l.vectorWeight[i] * l.x[i];
            ey += ms * l.vectorWeight[i] * l.y[i];
            total += ms;
        }
        if (role != qvd::kRoleLFE) {
            mains += ms;
            ++mainCount;
        }
    }
    for (std::size_t r = 0; r < static_cast<std::size_t>(kRoles); ++r)
        m_roleLevelOut[r] = roleSeen[r] ? powerDb(rolePower[r]) : kFloorDb;
    publishReadout(kChannelLevels, m_levelOut.data(), kMaxChannels);
    publishReadout(kRoleLevels, m_roleLevelOut.data(), kRoles);

    const auto correlation = [&](std::int32_t a, std::int32_t b, double product) {
        if (a < 0 || b < 0 || a >= count || b >= count)
            return 1.0;
        const double energy = std::sqrt(m_energy[static_cast<std::size_t>(a)] * m_energy[static_cast<std::size_t>(b)]);
        // Silence reads as fully correlated, as on the phase meter.
        return energy > 1e-30 ? std::clamp(product / energy, -1.0, 1.0) : 1.0;
    };
    publishReadout(kFrontCorrelation, static_cast<float>(correlation(l.left, l.right, m_frontProduct)));
    publishReadout(kSurroundCorrelation,
                   static_cast<float>(correlation(l.leftSurround, l.rightSurround, m_surroundProduct)));

    double direction = 0.0, spread = 1.0;
    if (total > 1e-30) {
        const double r = std::min(1.0, std::hypot(ex, ey) / total);
        direction = std::atan2(ey, ex) * kDegrees;
        spread = std::sqrt(std::max(0.0, 1.0 - r * r));
    }
    publishReadout(kDirection, static_cast<float>(direction));
    publishReadout(kSpread, static_cast<float>(spread));

    publishReadout(kSurroundLoudness, static_cast<float>(m_surroundLoudness));
    publishReadout(kDownmixLoudness, static_cast<float>(l.hasDownmix ? m_downmixLoudness : kMinusInf));
    const bool both = l.hasDownmix && std::isfinite(m_surroundLoudness) && std::isfinite(m_downmixLoudness);
    publishReadout(kDownmixDifference, static_cast<float>(both ? m_downmixLoudness - m_surroundLoudness : 0.0));

    // The LFE against the mean power of the other channels.
    float lfe = kFloorDb;
    if (l.lfe >= 0 && l.lfe < count && mainCount > 0 && mains > 1e-30) {
        const double e = m_energy[static_cast<std::size_t>(l.lfe)] * norm;
        lfe = e > 1e-30 ? static_cast<float>(10.0 * std::log10(e / (mains / mainCount))) : kFloorDb;
    }
    publishReadout(kLfeLevel, lfe);
}

void QVDJellyFish::render(const QVDBlock& block) noexcept
{
    if (m_resetsSeen != m_resetRequests.load(std::memory_order_relaxed)) {
        m_resetsSeen = m_resetRequests.load(std::memory_order_relaxed);
        clearLoudness();
    }
    // A layout can change without its channel count, and no hook says so.
    if (inputFormat() != m_layout.format)
        updateLayout(inputFormat());
    const std::int32_t count = std::min({block.channels, block.inputCount, kMaxChannels});
    integrate(block, count);
    if (block.frames <= static_cast<std::int32_t>(m_downmix.size() / 2))
        measureLoudness(block, count);
    publish(count);
}

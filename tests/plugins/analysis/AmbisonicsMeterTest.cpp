// Ambisonics meter and the spherical harmonics under it. Plane waves and
// diffuse fields are encoded here with harmonics of the test's own: closed
// forms up to order 3 and, above, Legendre polynomials from their explicit
// sums, so neither shares code with the meter.
#include "AnalysisReadouts.h"

#include <Algorithms/SphericalHarmonics.h>

#include <array>

using namespace qvd::test;

namespace {

const std::string kKey = "Ambisonics Meter:1364607341";
constexpr double kRate = 48000.0;
constexpr double kRad = M_PI / 180.0;

double factorial(int n)
{
    double f = 1.0;
    for (int k = 2; k <= n; ++k)
        f *= k;
    return f;
}

double binomial(int n, int k)
{
    return factorial(n) / (factorial(k) * factorial(n - k));
}

// P_l^m(x) without the Condon-Shortley phase: (1 - x^2)^(m/2) times the
// m-th derivative of P_l(x) = 2^-l sum_k (-1)^k C(l,k) C(2l-2k,l) x^(l-2k).
double legendre(int l, int m, double x)
{
    double sum = 0.0;
    for (int k = 0; 2 * k <= l; ++k) {
        const int power = l - 2 * k;
        if (power < m)
            continue;
        sum += (k % 2 ? -1.0 : 1.0) * binomial(l, k) * binomial(2 * l - 2 * k, l) * factorial(power) /
               factorial(power - m) * std::pow(x, power - m);
    }
    return std::pow(1.0 - x * x, 0.5 * m) * sum / std::pow(2.0, l);
}

// SN3D harmonics in ACN order; closed forms up to order 3.
std::vector<double> sn3d(int order, double azDeg, double elDeg)
{
    const double az = azDeg * kRad, el = elDeg * kRad;
    const double x = std::cos(az) * std::cos(el), y = std::sin(az) * std::cos(el), z = std::sin(el);
    const double r3 = std::sqrt(3.0), r15 = std::sqrt(15.0), r58 = std::sqrt(5.0 / 8.0), r38 = std::sqrt(3.0 / 8.0);
    std::vector<double> h = {1.0,
                             y, z, x,
                             r3 * x * y, r3 * y * z, 0.5 * (3 * z * z - 1), r3 * x * z, 0.5 * r3 * (x * x - y * y),
                             r58 * y * (3 * x * x - y * y), r15 * x * y * z, r38 * y * (5 * z * z - 1),
                             0.5 * z * (5 * z * z - 3), r38 * x * (5 * z * z - 1), 0.5 * r15 * z * (x * x - y * y),
                             r58 * x * (x * x - 3 * y * y)};
    h.resize(static_cast<std::size_t>((order + 1) * (order + 1)));
    for (int l = 4; l <= order; ++l)
        for (int m = -l; m <= l; ++m) {
            const int a = std::abs(m);
            const double norm = std::sqrt((a ? 2.0 : 1.0) * factorial(l - a) / factorial(l + a));
            h[static_cast<std::size_t>(l * l + l + m)] =
                norm * legendre(l, a, z) * (m < 0 ? std::sin(a * az) : std::cos(a * az));
        }
    return h;
}

// `sources` plane waves of independent noise from the given directions.
Signal encode(int order, const std::vector<std::pair<double, double>>& directions, std::size_t frames, bool n3d)
{
    const auto channels = static_cast<std::size_t>((order + 1) * (order + 1));
    Signal out = silence(static_cast<int>(channels), frames);
    std::mt19937 rng(17);
    std::normal_distribution<double> d(0.0, 0.1);
    std::vector<double> source(frames);
    for (const auto& [az, el] : directions) {
        std::vector<double> h = sn3d(order, az, el);
        for (std::size_t c = 0; c < channels; ++c)
            if (n3d)
                h[c] *= std::sqrt(2.0 * std::floor(std::sqrt(static_cast<double>(c))) + 1.0);
        for (double& s : source)
            s = d(rng);
        for (std::size_t c = 0; c < channels; ++c)
            for (std::size_t n = 0; n < frames; ++n)
                out[c][n] += static_cast<float>(h[c] * source[n]);
    }
    return out;
}

double angleBetween(double az1, double el1, double az2, double el2)
{
    const double c = std::sin(el1 * kRad) * std::sin(el2 * kRad) +
                     std::cos(el1 * kRad) * std::cos(el2 * kRad) * std::cos((az1 - az2) * kRad);
    return std::acos(std::clamp(c, -1.0, 1.0)) / kRad;
}

struct Meter {
    PluginFixture f{kKey};
    Meter(int channels, bool n3d)
    {
        EXPECT_TRUE(f.prepare(kRate, 512, channels));
        f.set("NORMALISATION", n3d ? 1.0f : 0.0f);
    }
};

} // namespace

TEST(SphericalHarmonics, MatchClosedFormsAndTheExplicitLegendreSums)
{
    using namespace SphericalHarmonics;
    const std::pair<double, double> directions[] = {{0, 0}, {60, 20}, {-135, -50}, {170, 85}, {33, -90}};
    for (const auto& [az, el] : directions) {
        std::array<double, 36> sn{}, n3{};
        evaluate(5, az * kRad, el * kRad, Normalisation::SN3D, sn.data());
        evaluate(5, az * kRad, el * kRad, Normalisation::N3D, n3.data());
        const std::vector<double> ref = sn3d(5, az, el);
        const std::vector<double> closed = sn3d(3, az, el);
        for (std::size_t i = 0; i < 36; ++i) {
            EXPECT_NEAR(sn[i], ref[i], 1e-12) << "ACN " << i << " at " << az << "/" << el;
            EXPECT_NEAR(n3[i], sn[i] * n3dFactor(orderOf(static_cast<int>(i))), 1e-12);
        }
        // The general sums agree with the closed forms where both exist.
        for (int l = 0; l <= 3; ++l)
            for (int m = -l; m <= l; ++m) {
                const auto i = static_cast<std::size_t>(l * l + l + m);
                const double general = std::sqrt((m ? 2.0 : 1.0) * factorial(l - std::abs(m)) /
                                                  factorial(l + std::abs(m))) *
                                       legendre(l, std::abs(m), std::sin(el * kRad)) *
                                       (m < 0 ? std::sin(-m * az * kRad) : std::cos(m * az * kRad));
                EXPECT_NEAR(general, closed[i], 1e-12) << "ACN " << i;
            }
        // The addition theorem: an SN3D order sums to 1 in squares.
        for (int l = 0; l <= 5; ++l) {
            double s = 0.0;
            for (int i = l * l; i < (l + 1) * (l + 1); ++i)
                s += sn[static_cast<std::size_t>(i)] * sn[static_cast<std::size_t>(i)];
            EXPECT_NEAR(s, 1.0, 1e-12);
        }
    }
    EXPECT_EQ(orderFor(1), 0);
    EXPECT_EQ(orderFor(3), 0);
    EXPECT_EQ(orderFor(4), 1);
    EXPECT_EQ(orderFor(35), 4);
    EXPECT_EQ(orderFor(36), 5);
}

TEST(AmbisonicsMeter, PlaneWaveDirectionAtEveryOrderInBothNormalisations)
{
    const std::pair<double, double> targets[] = {{60, 20}, {-117, -33}, {63, 17}};
    for (int order : {1, 2, 3, 4, 5}) {
        const int channels = (order + 1) * (order + 1);
        for (bool n3d : {false, true}) {
            for (const auto& [az, el] : targets) {
                Meter m(channels, n3d);
                const Signal in = encode(order, {{az, el}}, 24000, n3d);
                m.f.run(in);
                const std::string where = "order " + std::to_string(order) + (n3d ? " N3D " : " SN3D ") +
                                          std::to_string(az) + "/" + std::to_string(el);
                EXPECT_EQ(value(m.f, "Order"), order);
                // Pseudo-intensity is exact for one plane wave.
                EXPECT_LT(angleBetween(value(m.f, "Azimuth"), value(m.f, "Elevation"), az, el), 0.1) << where;
                EXPECT_LT(value(m.f, "Diffuseness"), 0.001) << where;
                const double error = angleBetween(value(m.f, "Map Peak Azimuth"), value(m.f, "Map Peak Elevation"), az, el);
                EXPECT_LT(error, order == 1 ? 5.0 : 2.0) << where;
                // SN3D order energies of a plane wave all equal W's.
                const auto energy = values(m.f, "Order Energy");
                for (int l = 1; l <= order; ++l)
                    EXPECT_NEAR(energy[static_cast<std::size_t>(l)], energy[0], 0.01) << where;
                if (order < 5) {
                    EXPECT_LE(energy[static_cast<std::size_t>(order + 1)], -199.0) << "orders not present read the floor";
                }
            }
        }
    }
}

TEST(AmbisonicsMeter, DiffuseFieldReadsAFlatMap)
{
    // Uncorrelated plane waves from a Fibonacci lattice, even over the sphere.
    constexpr int kSources = 600;
    std::vector<std::pair<double, double>> directions;
    const double golden = M_PI * (3.0 - std::sqrt(5.0));
    for (int k = 0; k < kSources; ++k) {
        const double z = 1.0 - (2.0 * k + 1.0) / kSources;
        directions.emplace_back(std::remainder(golden * k / kRad, 360.0), std::asin(z) / kRad);
    }
    for (int order : {1, 3}) {
        Meter m((order + 1) * (order + 1), false);
        m.f.set("INTEGRATION", 10000.0f);
        m.f.run(encode(order, directions, 24000, false));
        const auto map = values(m.f, "Map");
        double mean = 0.0;
        for (double v : map)
            mean += v / static_cast<double>(map.size());
        for (std::size_t k = 0; k < map.size(); ++k)
            ASSERT_NEAR(map[k], mean, 1.0) << "order " << order << " point " << k;
        EXPECT_GT(value(m.f, "Diffuseness"), 0.9) << "order " << order;
    }
}

TEST(AmbisonicsMeter, IncompleteChannelCountsUseTheLargestCompleteOrder)
{
    const std::pair<int, std::pair<int, int>> cases[] = {{1, {0, 0}}, {3, {0, 2}}, {5, {1, 1}}, {20, {3, 4}}, {36, {5, 0}}};
    for (const auto& [channels, expected] : cases) {
        Meter m(channels, false);
        const Signal in = noise(channels, 4096, 3);
        EXPECT_EQ(m.f.run(in, 2), in) << channels << " channels pass unchanged";
        EXPECT_EQ(value(m.f, "Order"), expected.first) << channels;
        EXPECT_EQ(value(m.f, "Unused Channels"), expected.second) << channels;
    }
}

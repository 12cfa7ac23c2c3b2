#pragma once
// Real spherical harmonics in ambisonic channel order (ACN: index l^2 + l + m)
// without the Condon-Shortley phase, in double. Azimuth is counter-clockwise
// from the front (left is +90 degrees), elevation up from the horizontal
// plane; both in radians.

#include <cstdint>

namespace SphericalHarmonics {

constexpr std::int32_t kMaxOrder = 7;

enum class Normalisation : std::int32_t {
    SN3D = 0, // Schmidt semi-normalised: every order of a plane wave has the energy of W
    N3D = 1,  // orthonormal over the sphere (times 4 pi): sqrt(2l + 1) times SN3D
};

constexpr std::int32_t channelsOf(std::int32_t order)
{
    return (order + 1) * (order + 1);
}
// The order of ACN channel `index`.
std::int32_t orderOf(std::int32_t index) noexcept;
// The largest complete order that `channels` channels carry; -1 for none.
std::int32_t orderFor(std::int32_t channels) noexcept;

// [any-thread] Writes the (order + 1)^2 harmonics at the direction into `y`.
// Orders above kMaxOrder are clamped.
void evaluate(std::int32_t order, double azimuth, double elevation, Normalisation n, double* y) noexcept;

// sqrt(2l + 1): the factor that takes an SN3D channel of order l to N3D.
double n3dFactor(std::int32_t l) noexcept;

} // namespace SphericalHarmonics

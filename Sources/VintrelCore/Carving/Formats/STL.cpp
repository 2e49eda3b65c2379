#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>

// Stereolithography, binary form (3D Systems): a title, the number of triangles, and those. It has
// no mark of its own, so that the triangles must be ones.

namespace Formats {

namespace {

constexpr std::uint64_t titleSize = 80;
constexpr std::uint32_t minTriangles = 4; // a body has no fewer
constexpr std::uint32_t maxTriangles = 100'000'000;
constexpr std::uint32_t maxChecked = 10'000;

struct Triangle {
    std::array<LE32, 3> normal;  //  0
    std::array<LE32, 9> corners; // 12
    LE16 attributes;             // 48  colours, in some programs
};
static_assert(sizeof(Triangle) == 50);

float number(LE32 stored) { return std::bit_cast<float>(std::uint32_t { stored }); }

/// Whether it may be the place of a corner: no more than kilometres away, and not so near to zero
/// as small whole numbers are when they are read as this.
bool isCoordinate(float value)
{
    constexpr float maxCoordinate = 1e7F;
    const auto kind = std::fpclassify(value);
    return (kind == FP_NORMAL || kind == FP_ZERO) && std::abs(value) < maxCoordinate;
}

using Vector = std::array<double, 3>;

Vector difference(const Vector& a, const Vector& b)
{
    return { a[0] - b[0], a[1] - b[1], a[2] - b[2] };
}

Vector crossProduct(const Vector& a, const Vector& b)
{
    return { a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0] };
}

double length(const Vector& a) { return std::hypot(a[0], a[1], a[2]); }

/// Whether it is 0 or of length 1, or at a right angle to the sides, as programs leave it that do
/// not shorten it.
bool isNormal(const Vector& normal, const Vector& side, const Vector& other)
{
    constexpr double tolerance = 0.01;
    const auto size = length(normal);
    if (size == 0 || std::abs(size - 1) < tolerance)
        return true;
    const auto right = crossProduct(side, other);
    return length(right) > 0
        && length(crossProduct(normal, right)) < tolerance * size * length(right);
}

/// Whether it has such a normal, and three different corners.
bool isTriangle(const Triangle& triangle)
{
    const bool areClose = std::ranges::all_of(
        triangle.corners, [](const LE32& corner) { return isCoordinate(number(corner)); });
    const auto corner = [&](std::size_t which) {
        return Vector { number(triangle.corners[which * 3]),
            number(triangle.corners[which * 3 + 1]), number(triangle.corners[which * 3 + 2]) };
    };
    const Vector normal { number(triangle.normal[0]), number(triangle.normal[1]),
        number(triangle.normal[2]) };
    const auto side = difference(corner(1), corner(0));
    return areClose && isNormal(normal, side, difference(corner(2), corner(0)))
        && (corner(0) != corner(1) || corner(1) != corner(2));
}

} // namespace

Found stl(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto count = file.u32le(titleSize);
    const std::uint64_t first = titleSize + sizeof(LE32);
    const std::uint64_t size = first + std::uint64_t { count } * sizeof(Triangle);
    if (count < minTriangles || count > maxTriangles || !candidate.fits(size))
        return std::nullopt;
    const std::uint32_t checked = std::min(count, maxChecked);
    for (std::uint32_t i = 0; i < checked; ++i)
        if (!isTriangle(file.load<Triangle>(first + i * sizeof(Triangle))))
            return std::nullopt;
    if (!isTriangle(file.load<Triangle>(size - sizeof(Triangle))))
        return std::nullopt;
    auto found = candidate.found(size, "stl");
    found.isProved = checked == count;
    return found;
}

} // namespace Formats

#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

namespace {

Content rawPhoto(std::uint64_t previewOffset, std::uint64_t previewLength)
{
    return Content().text("FUJIFILMCCD-RAW ").upTo(84).be(previewOffset, 4).be(previewLength, 4);
}

} // namespace

TEST(RAF, EndsWithTheLastOfItsParts)
{
    EXPECT_EQ(carve(rawPhoto(148, 900).zeros(4).be(9'000, 4).be(2'000, 4).be(500, 4)), "raf 2500")
        << "the second part has a length and no place";
    EXPECT_EQ(carve(rawPhoto(148, 876).zeros(16)), "-") << "too small";
}

#include "VintrelCLI/ByteCount.h"

#include <gtest/gtest.h>

#include <string_view>

TEST(ByteCount, HasThreeDigitsAndTheLocalesSeparator)
{
    const std::pair<std::uint64_t, const char*> cases[] = { { 0, "0 bytes" }, { 1, "1 byte" },
        { 999, "999 bytes" }, { 1'499, "1 KB" }, { 1'500, "2 KB" }, { 999'499, "999 KB" },
        { 999'500, "1 MB" }, { 1'049'999, "1 MB" }, { 1'050'000, "1,1 MB" },
        { 10'000'000, "10 MB" }, { 999'949'999, "999,9 MB" }, { 999'950'000, "1 GB" },
        { 1'005'000'000, "1,01 GB" }, { 1'100'000'000, "1,1 GB" }, { 999'995'000'000, "1 TB" },
        { 1'230'000'000'000'000, "1,23 PB" }, { ~std::uint64_t { 0 }, "9,22 EB" } };
    for (const auto& [count, text] : cases)
        EXPECT_EQ(formatBytes(count, ","), text);
}

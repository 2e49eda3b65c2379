#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

namespace {

/// Sound without a length, as a recorder leaves it that lost its power.
Bytes endlessSound()
{
    return Content()
        .text("RIFF")
        .le(0xFFFF'FFFF, 4)
        .text("WAVEfmt ")
        .le(16, 4)
        .zeros(16)
        .text("data")
        .le(0xFFFF'FFFF, 4)
        .upTo(100, 7);
}

Bytes dalvikProgram()
{
    return Content()
        .text("dex\n035")
        .upTo(32)
        .le(600, 4)
        .le(0x70, 4)
        .le(0x1234'5678, 4)
        .upTo(600, 5);
}

} // namespace

TEST(Programs, EndFilesThatHaveNoEndOfTheirOwn)
{
    const auto sample
        = [](const std::string& name) { return readFile(VINTREL_SAMPLES "/programs/" + name); };
    const struct {
        const char* what;
        Bytes program;
        std::size_t telling; ///< a byte without which it is none
    } programs[] = {
        { "elf64-little.o", sample("elf64-little.o"), 40 + 6 },
        { "elf64-big.o", sample("elf64-big.o"), 40 + 2 },
        { "elf32-little.o", sample("elf32-little.o"), 32 + 3 },
        { "elf32-big.o", sample("elf32-big.o"), 46 },
        { "pe.exe", sample("pe.exe"), 0x3C + 3 },
        { "macho64-little.o", sample("macho64-little.o"), 32 + 4 },
        { "macho32-little.o", sample("macho32-little.o"), 28 + 36 + 3 },
        { "macho-universal.o", sample("macho-universal.o"), 8 + 8 },
        { "Program.class", sample("Program.class"), 10 },
        { "classes.dex", dalvikProgram(), 35 },
    };
    const auto resource = pngFile();
    for (const auto& [what, program, telling] : programs) {
        const auto size = Content().add(program).upTo((program.size() + 511) / 512 * 512).size();
        const auto picture
            = "png@" + std::to_string(1 + size / 512) + "+" + std::to_string(resource.size());
        EXPECT_EQ(sweep({ endlessSound(), program, resource }), (Texts { "wav@0~512!", picture }))
            << what;
        auto damaged = program;
        damaged[telling] ^= 0x7F;
        EXPECT_EQ(sweep({ endlessSound(), damaged, resource }),
            (Texts { "wav@0~" + std::to_string(512 + size) + "!", picture }))
            << what;
    }
}

// An archive may hold programs, and says itself how long it is.
TEST(Programs, EndNothingOfAKnownLength)
{
    const Bytes film
        = Content().text("RIFF").le(5'000, 4).text("AVI LIST").le(4'900, 4).text("movi");
    EXPECT_EQ(sweep({ film, dalvikProgram(), Bytes(6'000, 7) }), Texts { "avi@0+5008" });
}

#pragma once

#include "Tests/Images/FATImage.h"
#include "Tests/Support/TestSource.h"
#include "Tests/Support/TimeZone.h"
#include "VintrelCLI/CommandLine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

/// What a command printed.
struct Outcome {
    int status = -1;
    std::string out, err;
};

inline Outcome runWith(std::vector<std::string> arguments)
{
    std::ostringstream out, err;
    const int status = run(arguments, out, err);
    return { status, out.str(), err.str() };
}

/// A memory card with a deleted photo, a damaged file and a name that would play with the terminal.
class Card : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("LC_ALL", "C", 1);
        FATImage image({ .type = FileSystemType::fat16, .label = "KAMERA     " });
        const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " });
        image.addFile(folder, { .name = "IMG_0010JPG" }, patternBytes(2'000));
        image.addFile(folder, { .name = "IMG_0002JPG" }, photo);
        image.addFile(folder, { .name = "IMG_00~1JPG", .longName = u"Sommer ved søen.jpg" }, photo);
        image.remove(folder, "IMG_00~1JPG");
        image.addEntry(FATImage::root, { .name = "KNAEKKETTXT", .cluster = 1, .size = 9 });
        image.addFile(FATImage::root,
            { .name = "ESC     TXT", .longName = u"\u001B[2J\u202Egpj.exe" }, bytesOf("!"));
        photoOffset = image.offsetOf(folder + 1 + 4);
        writeFile(path, image.bytes());
    }
    void TearDown() override
    {
        unsetenv("LC_ALL");
        unsetenv("VINTREL_SIMULATE_BAD");
    }

    TimeZone zone { "UTC" };
    TemporaryFolder folder;
    std::string path = folder / "kort.img";
    Bytes photo = patternBytes(3'000, 7);
    std::uint64_t photoOffset = 0; ///< of IMG_0002.JPG
};

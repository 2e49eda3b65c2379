#pragma once

#include "Tests/Images/CarvedFile.h"
#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

/// What is found where `file` lies, in front of other content: "ext size", with "~" when estimated,
/// or "-".
inline std::string carve(
    const Bytes& file, const std::set<FileCategory>& categories = carvedCategories())
{
    constexpr std::size_t place = 1'024;
    const auto source = Content().upTo(place).add(file).add(Bytes(8_KiB, 0x11)).source();
    Carver carver(*source, categories);
    const auto found = carver.check(source->read(place, 64, ReadMode::fast), place);
    if (!found)
        return "-";
    EXPECT_EQ(found->offset, place);
    return found->ext + (found->exact ? " " : " ~") + std::to_string(found->size);
}

/// Everything that a sweep finds on a disk of these files, each at the next sector:
/// "ext@sector+size", with "~" when that is estimated and "!" when another find begins inside.
inline Texts sweep(
    const std::vector<Bytes>& files, const DeepScanOptions& options = { .findVolumes = false })
{
    Content disk;
    for (const auto& file : files)
        disk.add(file).upTo((disk.size() + 511) / 512 * 512);
    const auto source = disk.add(Bytes(4_KiB, 0x11)).source();
    Texts found;
    for (const auto& file : DeepScanner(*source, options).run(nullptr).carved)
        found.push_back(file.ext + "@" + std::to_string(file.offset / 512)
            + (file.exact ? "+" : "~") + std::to_string(file.size)
            + (file.isInterrupted ? "!" : ""));
    return found;
}

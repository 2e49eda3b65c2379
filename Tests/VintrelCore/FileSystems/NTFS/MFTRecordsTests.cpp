#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSMFTRecords, KeepTheFirstOfThoseWithOneNumberInOrder)
{
    const Image image;
    const auto source = image.source();
    const NTFSContext context(*source, *NTFSGeometry::from(image.bytes(), 0));
    MFTRecords records(context);
    const auto add = [&](std::optional<std::uint64_t> number, std::string name) {
        MFTRecord record;
        record.number = number;
        record.names.push_back(
            { .parent = root, .name = std::move(name), .created = {}, .modified = {} });
        records.add(record);
    };
    add(30, "først");
    add(25, "lavere");
    add(30, "senere");
    add(std::nullopt, "uden nummer");
    records.finish();
    EXPECT_EQ(records.count(), 3u);
    ASSERT_EQ(records.entries().size(), 2u);
    EXPECT_EQ(records.entries()[0].node->name, "lavere");
    EXPECT_EQ(records.entries()[1].node->name, "først");
    EXPECT_EQ(records.find(30), 1u);
    EXPECT_EQ(records.find(29), std::nullopt);
}

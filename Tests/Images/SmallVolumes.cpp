#include "Tests/Images/SmallVolumes.h"

namespace SmallVolumes {

FATImage smallCard(FileSystemType type)
{
    FATImage image({ .type = type, .clusters = type == FileSystemType::fat16 ? 4085u : 120u });
    const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " }, 2);
    for (int i = 0; i < 8; ++i)
        image.addFile(folder,
            { .name = "IMG_00" + std::to_string(10 + i) + "JPG",
                .longName = u"Et noget længere navn.jpg" },
            patternBytes(700));
    const auto deleted = image.addFolder(folder, { .name = "SLETTET    " });
    image.addFile(deleted, { .name = "INDE    TXT" }, patternBytes(600));
    image.remove(folder, "SLETTET    ");
    image.remove(folder, "IMG_0012JPG");
    return image;
}

NTFSImage smallNTFSVolume()
{
    NTFSImage image(
        { .clusterSize = 512, .clusters = 400, .records = 48, .mft = { { 16, 33 }, { 60, 63 } } });
    image.putFolder(20, NTFSImage::root, u"mappe");
    image.putFolder(21, { 20, 1 }, u"inde i mappen", false, 2);
    image.putFile(22, { 21, 1 }, u"slettet.txt", patternBytes(1700), false);
    image.putFile(23, { 20, 1 }, u"lille.txt", bytesOf("lille"));
    const auto runs = image.store(patternBytes(6000));
    const std::uint64_t lcn = *runs[0].lcn;
    const auto file
        = [&](std::uint64_t number, std::u16string_view name, std::vector<Bytes> attributes) {
              attributes.insert(attributes.begin(),
                  { NTFSImage::standardInformation(),
                      NTFSImage::fileName(NTFSImage::root, u"KORT~1.TXT", 2),
                      NTFSImage::fileName({ 20, 1 }, name) });
              image.put(number, { .attributes = std::move(attributes) });
          };
    file(24, u"i stykker",
        { NTFSImage::data(
              { .runs = { { lcn + 6, 3 }, { std::nullopt, 2 }, { lcn, 4 }, { lcn + 5, 1 } },
                  .size = 5000 }),
            NTFSImage::withName(
                NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 2048 }), u"strøm") });
    file(25, u"pakket",
        { NTFSImage::data(
            { .runs = { { lcn, 4 }, { lcn + 4, 2 }, { std::nullopt, 2 }, { std::nullopt, 4 } },
                .size = 5500,
                .initSize = 5000,
                .flags = 1,
                .compressionUnit = 2 }) });
    const auto list = NTFSImage::listContent({ { 0x10, { 26, 1 } }, { 0x30, { 41, 1 } },
        { 0x80, { 26, 1 } }, { 0x80, { 42, 1 }, 4 }, { 0x80, { 43, 1 }, 8 } });
    const auto listRuns = image.store(list);
    file(26, u"lang liste",
        { NTFSImage::nonResident(0x20, { .runs = listRuns, .size = list.size() }),
            NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 6000 }) });
    file(27, u"kort liste",
        { NTFSImage::attribute(0x20, list),
            NTFSImage::data({ .runs = { { lcn, 4 } }, .size = 2048 }) });
    image.put(41,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::fileName(NTFSImage::root, u"andet navn") } });
    image.put(42,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::data({ .runs = { { lcn + 4, 4 } }, .startVCN = 4 }) } });
    image.put(43,
        { .base = { 26, 1 },
            .attributes = { NTFSImage::data({ .runs = { { lcn + 8, 4 } }, .startVCN = 8 }) } });
    for (std::uint64_t number = 28; number < 41; ++number)
        image.putFile(number, { number % 3 == 0 ? 20u : number - 1, 1 }, u"fil",
            patternBytes(number * 20), number % 2 == 0);
    Bytes index(60);
    store<std::uint64_t>(index, 0, 2);
    store<std::uint64_t>(index, 16, NTFSImage::modification);
    store<std::uint64_t>(index, 28, 0x005C'003A'0043); // "C:\"
    store<std::uint64_t>(index, 34, 0x0074'002E'0061); // "a.t"
    image.putFile(44, { 20, 1 }, u"$IABC123.t", index);
    image.putFile(45, { 20, 1 }, u"$RABC123.t", bytesOf("x"));
    Bytes bin(820);
    store<std::uint32_t>(bin, 12, 800);
    store<std::uint64_t>(bin, 20 + 268, NTFSImage::modification);
    store<std::uint64_t>(bin, 20 + 280, 0x005C'003A'0043);
    store<std::uint64_t>(bin, 20 + 286, 0x0061);
    image.putFile(46, { 20, 1 }, u"INFO2", bin);
    image.putFile(47, { 20, 1 }, u"Da0", bytesOf("x"));
    return image;
}

ExFATImage smallExFATCard()
{
    ExFATImage image({ .clusters = 120 });
    const auto folder
        = image.addFolder(image.root(), { .name = u"DCIM", .isContiguous = false }, 3);
    for (int i = 0; i < 8; ++i)
        image.addFile(folder, { .name = u"Et noget længere navn.jpg", .isContiguous = i % 2 == 0 },
            patternBytes(700));
    const auto deleted = image.addFolder(folder, { .name = u"slettet" });
    image.addFile(deleted, { .name = u"inde.txt", .isContiguous = false }, patternBytes(600));
    image.remove(u"slettet");
    return image;
}

ExtImage smallExtVolume()
{
    ExtImage image;
    image.useFastCommits(8);
    for (std::uint32_t number = 13; number < 20; ++number)
        image.putFile(number, 100 + number, "indhold");
    image.putInode(20, { .size = 9000, .extents = { { 0, 200, 2 }, { 4, 300, 5 } }, .node = 131 });
    image.putInode(21,
        { .size = 20'000,
            .extents = { { 0, 210, 1 }, { 3, 220, 1 }, { 12, 230, 1 }, { 13, 230, 1 } },
            .hasLists = true });
    image.putFolder(12, ExtImage::root, 130, { { 13, "en" }, { 14, "to" }, { 20, "knude" } });
    image.putFolder(
        ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" }, { 21, "liste" } });
    image.commit({ ExtImage::tableBlockOf(13), 130, ExtImage::bitmapBlock });
    image.putFolder(12, ExtImage::root, 130, { { 14, "to" } });
    image.removeInode(13);
    image.commit({ ExtImage::tableBlockOf(13), 130, ExtImage::bitmapBlock }, { 150 });
    image.demandReplay();
    image.putFastCommit(3,
        { image.inode(15), ExtImage::blocks(15, { 1, 180, 3 }), ExtImage::name(3, 12, 15, "tre") });
    image.putFastCommit(3, { ExtImage::name(5, 12, 14, "to"), image.inode(14) });
    return image;
}

HFSPlusImage smallHFSPlusVolume()
{
    HFSPlusImage image;
    image.setLeaf(2,
        { { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true },
            { .parent = 2, .name = u"mappe", .id = 20, .isFolder = true },
            { .parent = 20,
                .name = u"fil",
                .id = 21,
                .size = 2000,
                .runs = { { 100, 1 }, { 120, 1 } } } });
    image.setLeaf(
        3, { { .parent = 20, .name = u"fil 2", .id = 22, .size = 9000, .runs = { { 130, 20 } } } });
    image.setLeaf(
        5, { { .parent = 20, .name = u"slettet", .id = 23, .size = 900, .runs = { { 110, 2 } } } });
    image.chain({ 2, 3 });
    image.addOverflow(21, 2, { { 140, 2 } });
    return image;
}

APFSImage smallAPFSContainer()
{
    APFSImage image({ .blocks = 64, .isHashed = false });
    const auto block = image.store(patternBytes(9000));
    APFSImage::Leaf records;
    const auto add = [&](const APFSImage::Leaf& more) {
        records.insert(records.end(), more.begin(), more.end());
    };
    for (std::uint64_t id = 16; id < 22; ++id)
        add(image.folder(id, id % 2 == 0 ? 2 : id - 1, "mappe"));
    for (std::uint64_t id = 22; id < 34; ++id)
        add(image.file({ .id = id, .parent = id - 8, .name = "fil", .size = 9000 }, block));
    add({ APFSImage::attribute(22, "com.apple.fs.symlink", "mål"), image.entry(2, "link", 23) });
    image.commit(APFSImage::split(records, 12));
    records.erase(records.end() - 12, records.end());
    image.commit(APFSImage::split(records, 12));
    image.freeQueue = { { block + 1, 1 } };
    image.commit(APFSImage::split(records, 10));
    return image;
}

PartitionImage partitionedDisk()
{
    PartitionImage disk(256_KiB);
    disk.gpt({ { basicDataGUID, 64, 200 }, { basicDataGUID, 210, 400 } });
    disk.mbr({ { 0x01, 64, 120 }, { 0x05, 40, 20 } });
    for (const std::uint64_t lba : { 40u, 44u })
        disk.ebr(lba, { { 0x0B, 24, 100 }, { 0x05, 4, 4 } });
    disk.volume(64, FileSystemType::fat12);
    return disk;
}

} // namespace SmallVolumes

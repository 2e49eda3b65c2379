#include "Tests/Fuzz/Support/Bases.h"

#include "Tests/Images/ShadowArea.h"
#include "Tests/Images/SmallVolumes.h"

#include <array>
#include <optional>

namespace {

using namespace SmallVolumes;

Bytes shadowCopies()
{
    NTFSImage image({ .clusters = 2600, .mft = { { 64, 64 } } });
    image.putFile(20, NTFSImage::root, u"fil", Bytes(20'000, 'a'));
    const auto before = image.bytes();
    image.putFile(20, NTFSImage::root, u"fil", Bytes(20'000, 'b'));
    ShadowArea area(image, 64 * ShadowArea::blockSize);
    area.addStore(NTFSImage::creation, area.changes(before, image.bytes()));
    area.addStore(NTFSImage::modification, area.changes(before, image.bytes()));
    area.finish();
    return image.bytes();
}

Bytes bytesOfDisk(const PartitionImage& disk)
{
    const auto source = disk.source();
    return source->read(0, static_cast<std::int64_t>(source->size()), ReadMode::thorough);
}

Bases::Base ext()
{
    static auto image = smallExtVolume();
    return { image.bytes(), [](Bytes& bytes) {
                image.bytes().swap(bytes);
                image.renewChecksums();
                image.bytes().swap(bytes);
            } };
}

Bases::Base build(Bases::Number number)
{
    switch (number) {
    case Bases::fat12:
        return { smallCard(FileSystemType::fat12).bytes() };
    case Bases::fat16:
        return { smallCard(FileSystemType::fat16).bytes() };
    case Bases::fat32:
        return { smallCard(FileSystemType::fat32).bytes() };
    case Bases::exFAT:
        return { smallExFATCard().bytes() };
    case Bases::ntfs:
        return { smallNTFSVolume().bytes() };
    case Bases::shadowCopies:
        return { shadowCopies() };
    case Bases::hfsPlus:
        return { smallHFSPlusVolume().bytes() };
    case Bases::apfs:
        return { smallAPFSContainer().bytes() };
    case Bases::ext:
        return ext();
    case Bases::partitions:
        return { bytesOfDisk(partitionedDisk()) };
    default:
        return {};
    }
}

} // namespace

const Bases::Base& Bases::get(Number number)
{
    static std::array<std::optional<Base>, countOfAll> all;
    auto& base = all.at(number);
    if (!base)
        base = build(number);
    return *base;
}

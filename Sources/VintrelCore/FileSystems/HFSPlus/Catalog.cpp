#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <cstring>

using namespace HFSPlusFormat;

namespace {

constexpr std::uint64_t maxCatalogFile = 1'073'741'824; ///< what it may take of memory

/// A structure whose end a short record cuts off; the missing bytes are zeros.
template <class T> T loadCut(ByteView bytes)
{
    T value {};
    if (const auto count = std::min(bytes.size(), sizeof(T)); count > 0)
        std::memcpy(&value, bytes.data(), count);
    return value;
}

/// Whether one of two records of the same ID says what became of the file later. Of equal ones the
/// one that was found first stays.
bool isNewer(const HFSPlusCatalog::Entry& found, const HFSPlusCatalog::Entry& known)
{
    return found.isLive != known.isLive ? found.isLive : found.modified > known.modified;
}

} // namespace

HFSPlusCatalog::HFSPlusCatalog(HFSPlusBTree tree)
    : tree_(std::move(tree))
{
}

std::optional<HFSPlusCatalog> HFSPlusCatalog::load(
    const HFSPlusForks& forks, const VolumeHeader& header)
{
    auto tree
        = HFSPlusBTree::open(forks.readFork(header.catalogFile, catalogFileID, maxCatalogFile));
    if (!tree)
        return std::nullopt;
    HFSPlusCatalog catalog(std::move(*tree));
    const auto lost = forks.lostParts(
        forks.allExtents(header.catalogFile, catalogFileID), catalog.tree_.bytes().size());
    catalog.lostBytes_ = lost.total();
    catalog.tree_.forEachLeafRecord(
        [&](std::uint64_t offset, std::uint64_t length) {
            return lost.intersects(offset, offset + length);
        },
        [&](ByteView record, bool isLive) { catalog.add(record, isLive); });
    catalog.keepBest();
    return catalog;
}

void HFSPlusCatalog::add(ByteView record, bool isLive)
{
    const auto key = record.load<CatalogKey>(0);
    if (!key || key->key.length < minCatalogKeyLength || key->nameLength > maxNameLength
        || key->key.length < 2u * key->nameLength + minCatalogKeyLength)
        return;
    const auto data = HFSPlusBTree::dataOf(record);
    const auto item = loadCut<CatalogItem>(data);
    const bool isFolder = item.type == folderType;
    const bool isFile = item.type == fileType && data.size() >= sizeof(CatalogFile);
    if ((!isFolder && !isFile) || item.id < rootFolderID)
        return;
    entries_.push_back({ .id = item.id,
        .parent = key->parentID,
        .modified = item.modified,
        .at = static_cast<std::uint32_t>(record.data() - tree_.bytes().data()),
        .length = static_cast<std::uint16_t>(record.size()),
        .isLive = isLive,
        .isFolder = isFolder });
}

/// Sorts the records by their IDs, and keeps one of each.
void HFSPlusCatalog::keepBest()
{
    std::ranges::stable_sort(entries_, {}, &Entry::id);
    std::size_t count = 0;
    for (const auto& entry : entries_) {
        if (count == 0 || entries_[count - 1].id != entry.id)
            entries_[count++] = entry;
        else if (isNewer(entry, entries_[count - 1]))
            entries_[count - 1] = entry;
    }
    entries_.resize(count);
    entries_.shrink_to_fit();
}

const HFSPlusCatalog::Entry* HFSPlusCatalog::find(std::uint32_t id) const
{
    const auto found = std::ranges::lower_bound(entries_, id, {}, &Entry::id);
    return found != entries_.end() && found->id == id ? &*found : nullptr;
}

std::string HFSPlusCatalog::nameOf(const Entry& entry) const
{
    const auto record = tree_.bytes().sub(entry.at, entry.length);
    const auto key = record.load<CatalogKey>(0).value_or(CatalogKey {});
    return Unicode::composed(record.utf16be(sizeof(CatalogKey), key.nameLength));
}

CatalogItem HFSPlusCatalog::itemOf(const Entry& entry) const
{
    return loadCut<CatalogItem>(dataOf(entry));
}

CatalogFile HFSPlusCatalog::fileOf(const Entry& entry) const
{
    return dataOf(entry).load<CatalogFile>(0).value_or(CatalogFile {});
}

ByteView HFSPlusCatalog::dataOf(const Entry& entry) const
{
    return HFSPlusBTree::dataOf(tree_.bytes().sub(entry.at, entry.length));
}

#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <cstring>
#include <iterator>

using namespace HFSPlusFormat;

namespace {

constexpr std::int64_t threadParent = 4; ///< in a thread record
constexpr std::int64_t threadName = 8;   ///< in a thread record: the name's length, then the name

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
    return found.use != known.use ? found.use > known.use : found.modified > known.modified;
}

} // namespace

std::size_t HFSPlusCatalog::recordLength(ByteView bytes)
{
    const auto key = bytes.load<CatalogKey>(0);
    if (!key || key->key.length != 2u * key->nameLength + minCatalogKeyLength
        || key->nameLength > maxNameLength || key->parentID == 0)
        return 0;
    const auto keyEnd = sizeof(RecordKey) + key->key.length;
    const auto data = HFSPlusNode::dataOf(bytes);
    std::size_t length = 0;
    switch (data.u16be(0)) {
    case folderType:
        length = folderRecordSize;
        break;
    case fileType:
        length = sizeof(CatalogFile);
        break;
    case folderThreadType:
    case fileThreadType:
        length = threadName + 2 + std::size_t { 2 } * data.u16be(threadName);
        break;
    default:
        return 0;
    }
    return length <= data.size() ? keyEnd + length : 0;
}

std::optional<HFSPlusCatalog> HFSPlusCatalog::load(
    const HFSPlusForks& forks, const VolumeHeader& header, const Options& options)
{
    auto file = forks.open(header.catalogFile, catalogFileID, options.maxBytes);
    HFSPlusCatalog catalog;
    catalog.isCapped_
        = file.size() == options.maxBytes && header.catalogFile.logicalSize > options.maxBytes;
    auto tree = HFSPlusBTree::open(file,
        { .recordLength = recordLength,
            .mayLackHeader = options.mayLackHeader,
            .isCapped = catalog.isCapped_ });
    if (!tree)
        return std::nullopt;
    tree->forEachLeafRecord(
        [&](ByteView record, std::uint32_t node) { catalog.add(record, node); });
    catalog.nodeSize_ = tree->nodeSize();
    catalog.health_ = tree->health(file);
    for (auto* list : { &catalog.entries_, &catalog.threads_ })
        for (auto& entry : *list)
            entry.use = tree->useOf(entry.node);
    catalog.keepBest();
    if (catalog.health_.isCut)
        catalog.addLostFolders();
    catalog.threads_ = {};
    return catalog;
}

void HFSPlusCatalog::add(ByteView record, std::uint32_t node)
{
    if (HFSPlusNode::dataOf(record).u16be(0) == folderThreadType)
        addThread(record, node);
    if (auto entry = decoded(record)) {
        entry->node = node;
        entries_.push_back(kept(*entry, record));
    }
}

/// What a file or folder record says; none for all others.
std::optional<HFSPlusCatalog::Entry> HFSPlusCatalog::decoded(ByteView record) const
{
    const auto key = record.load<CatalogKey>(0);
    if (!key || key->key.length < minCatalogKeyLength || key->nameLength > maxNameLength
        || key->key.length < 2u * key->nameLength + minCatalogKeyLength)
        return std::nullopt;
    const auto data = HFSPlusNode::dataOf(record);
    const auto item = loadCut<CatalogItem>(data);
    const bool isFolder = item.type == folderType;
    const bool isFile = item.type == fileType && data.size() >= sizeof(CatalogFile);
    if ((!isFolder && !isFile) || item.id < rootFolderID)
        return std::nullopt;
    return Entry {
        .id = item.id, .parent = key->parentID, .modified = item.modified, .isFolder = isFolder
    };
}

void HFSPlusCatalog::addLooseLeaf(ByteView node)
{
    HFSPlusNode::forEachRecord(node, [&](ByteView record) {
        if (recordLength(record) != 0)
            addLoose(record);
    });
}

void HFSPlusCatalog::addLoose(ByteView record)
{
    auto entry = decoded(record);
    const auto* known = entry ? find(entry->id) : nullptr;
    if (!entry || (known != nullptr && known->isLive()))
        return;
    *entry = kept(*entry, record);
    const auto name = nameOf(*entry);
    if (known != nullptr && nameOf(*known) == name)
        return;
    const auto [place, isNew] = looseIndex_.try_emplace({ entry->id, name }, loose_.size());
    if (isNew)
        loose_.push_back(*entry);
    else if (isNewer(*entry, loose_[place->second]))
        loose_[place->second] = *entry;
}

/// A folder's thread record lies apart from the record of the folder, with the folder's content.
void HFSPlusCatalog::addThread(ByteView record, std::uint32_t node)
{
    const auto key = record.load<CatalogKey>(0).value_or(CatalogKey {});
    const auto data = HFSPlusNode::dataOf(record);
    if (key.nameLength != 0 || key.parentID < rootFolderID)
        return;
    threads_.push_back(kept({ .id = key.parentID,
                                .parent = data.u32be(threadParent),
                                .node = node,
                                .isFolder = true,
                                .isThread = true },
        record));
}

HFSPlusCatalog::Entry HFSPlusCatalog::kept(Entry entry, ByteView record)
{
    entry.at = records_.size();
    entry.length = static_cast<std::uint16_t>(record.size());
    records_.insert(records_.end(), record.span().begin(), record.span().end());
    return entry;
}

/// Adds the folders whose own live records are lost, with what their thread records say.
void HFSPlusCatalog::addLostFolders()
{
    std::vector<Entry> lost;
    std::ranges::copy_if(threads_, std::back_inserter(lost), [&](const Entry& thread) {
        const auto* known = find(thread.id);
        return thread.isLive() && (known == nullptr || !known->isLive());
    });
    entries_.insert(entries_.end(), lost.begin(), lost.end());
    keepBest();
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
    if (entry.isThread) {
        const auto data = dataOf(entry);
        return Unicode::composed(data.utf16be(
            threadName + 2, std::min<std::int64_t>(data.u16be(threadName), maxNameLength)));
    }
    const auto record = recordOf(entry);
    const auto key = record.load<CatalogKey>(0).value_or(CatalogKey {});
    return Unicode::composed(record.utf16be(sizeof(CatalogKey), key.nameLength));
}

CatalogItem HFSPlusCatalog::itemOf(const Entry& entry) const
{
    return entry.isThread ? CatalogItem {} : loadCut<CatalogItem>(dataOf(entry));
}

CatalogFile HFSPlusCatalog::fileOf(const Entry& entry) const
{
    return dataOf(entry).load<CatalogFile>(0).value_or(CatalogFile {});
}

ByteView HFSPlusCatalog::finderInfoOf(const Entry& entry) const
{
    return entry.isThread ? ByteView() : dataOf(entry).sub(finderInfoOffset, finderInfoSize);
}

ByteView HFSPlusCatalog::recordOf(const Entry& entry) const
{
    return ByteView(records_).sub(static_cast<std::int64_t>(entry.at), entry.length);
}

ByteView HFSPlusCatalog::dataOf(const Entry& entry) const
{
    return HFSPlusNode::dataOf(recordOf(entry));
}

#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/AttributeList.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/StandIn.h"
#include "VintrelCore/FileSystems/NTFS/Streams.h"

#include <algorithm>

// Lists lie in clusters of their own: all of them together are smaller than the source, or made up.
MFTRecords::MFTRecords(const NTFSContext& context)
    : context_(context)
    , listBudget_(context.source().size())
{
}

void MFTRecords::add(MFTRecord& record)
{
    if (!record.number)
        return;
    ++count_;
    const std::uint64_t number = *record.number;
    const bool isFile = number >= NTFSParser::firstUserRecord && !record.isExtension();
    const bool isIncomplete = isFile && record.hasAttributeList();
    if (isFile) {
        Entry entry;
        entry.number = number;
        entry.sequence = record.sequence;
        entry.lastWrite = record.lastWrite;
        entry.inUse = record.inUse;
        entry.isIncomplete = isIncomplete;
        if (!isIncomplete)
            describe(entry, record);
        if (isIncomplete || entry.node)
            entries_.push_back(std::move(entry));
    }
    if (!isFile || isIncomplete)
        whole_.try_emplace(number, std::move(record));
}

void MFTRecords::describe(Entry& entry, MFTRecord& record)
{
    auto* const best = record.bestName();
    auto content = record.isDirectory ? NTFSContent::Content {}
                                      : NTFSContent::assemble(context_, record.data);
    NTFSContent::unpackStandIn(context_, record, content);
    NTFSContent::judgeStandIn(content, NTFSContent::reparseTagOf(context_, record));
    const bool isWorthAName = !record.inUse && content.size > 0;
    if (best == nullptr && !isWorthAName)
        return;

    entry.doubts = content.doubts;
    if (!record.fixupOK)
        entry.doubts.add(Doubt::damagedRecord);
    if (content.doubts.has(Doubt::missingDataAttribute) && best != nullptr)
        content.size = std::min(best->realSize, context_.capacity());
    auto created = record.created;
    auto modified = record.modified;
    std::string name;
    entry.isUnnamed = best == nullptr;
    if (best == nullptr) {
        name = "unavngivet-" + std::to_string(entry.number);
    } else {
        entry.parent = best->parent;
        created = created ? created : best->created;
        modified = modified ? modified : best->modified;
        const auto isOther = [&](const FNInfo& other) {
            return other.parent != best->parent || (!other.isDOS() && &other != best);
        };
        if (std::ranges::any_of(record.names, isOther))
            otherNames_.try_emplace(entry.number, record.names);
        name = std::move(best->name);
    }
    const auto status = record.inUse ? EntryStatus::existing : EntryStatus::deleted;
    entry.node = record.isDirectory ? FileNode::makeFolder(std::move(name), status)
                                    : FileNode::makeFile(std::move(name), content.size, status,
                                        Recoverability::unknown, std::move(content.data));
    entry.node->created = created;
    entry.node->modified = modified;
    entry.node->fsID = entry.number;
    NTFSStreams::attach(context_, record, *entry.node);
    if (record.isDirectory && !record.indexRuns.empty())
        indices_.push_back(std::move(record.indexRuns));
}

void MFTRecords::finish()
{
    for (auto& entry : entries_) {
        if (!entry.isIncomplete)
            continue;
        auto& record = whole_.find(entry.number)->second;
        mergeExtensions(record);
        describe(entry, record);
    }
    // The records of an MFT come in order; those that are gathered from a disk do not.
    if (std::ranges::is_sorted(entries_, std::ranges::less_equal {}, &Entry::number))
        return;
    std::ranges::stable_sort(entries_, {}, &Entry::number);
    const auto repeated = std::unique(entries_.begin(), entries_.end(),
        [](const Entry& one, const Entry& other) { return one.number == other.number; });
    entries_.erase(repeated, entries_.end());
}

void MFTRecords::mergeExtensions(MFTRecord& record)
{
    if (!record.attributeListRuns.empty()) {
        const std::uint64_t size = std::min(record.attributeListSize, NTFSParser::maxAttributeList);
        if (size > listBudget_)
            return;
        listBudget_ -= size;
    }
    const auto list = NTFSParser::loadAttributeList(context_, record);
    auto extensions = NTFSParser::extensionsIn(list, *record.number);
    if (extensions.empty() && !record.attributeListRuns.empty())
        extensions = extensionsNaming(*record.number);
    for (const auto reference : extensions) {
        const auto extension = whole_.find(reference.number);
        if (extension != whole_.end()
            && NTFSParser::isExtensionOf(extension->second, reference, record))
            NTFSParser::mergeExtension(record, extension->second);
    }
}

std::vector<FileReference> MFTRecords::extensionsNaming(std::uint64_t number)
{
    if (extensionsByBase_.empty())
        for (const auto& [own, record] : whole_)
            if (record.isExtension())
                extensionsByBase_.emplace(
                    record.base.number, FileReference { own, record.sequence });
    std::vector<FileReference> extensions;
    const auto [first, last] = extensionsByBase_.equal_range(number);
    for (auto extension = first; extension != last; ++extension)
        extensions.push_back(extension->second);
    std::ranges::sort(extensions, {}, &FileReference::number);
    return extensions;
}

std::optional<std::size_t> MFTRecords::find(std::uint64_t number) const
{
    const auto entry = std::ranges::lower_bound(entries_, number, {}, &Entry::number);
    if (entry == entries_.end() || entry->number != number)
        return std::nullopt;
    return static_cast<std::size_t>(entry - entries_.begin());
}

std::vector<FNInfo>* MFTRecords::otherNames(std::uint64_t number)
{
    const auto names = otherNames_.find(number);
    return names != otherNames_.end() ? &names->second : nullptr;
}

MFTRecord* MFTRecords::systemRecord(std::uint64_t number)
{
    const auto record = whole_.find(number);
    return record != whole_.end() ? &record->second : nullptr;
}

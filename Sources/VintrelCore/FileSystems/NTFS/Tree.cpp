#include "VintrelCore/FileSystems/NTFS/Tree.h"

#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/DeepInfo.h"
#include "VintrelCore/FileSystems/NTFS/DeletedClaims.h"
#include "VintrelCore/FileSystems/NTFS/FormerNames.h"
#include "VintrelCore/FileSystems/NTFS/Streams.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/ParentLinks.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace NTFSParser {

namespace {

using Entry = MFTRecords::Entry;
using Index = ParentLinks::Index;
using Nodes = std::vector<FileNode*>; // of the entries, also when these have handed theirs over

constexpr std::uint64_t volumeRecord = 3;
constexpr std::uint64_t extendRecord = 11; // $Extend, the folder of younger system files

/// What systems keep in $Extend for themselves.
constexpr std::string_view systemNames[]
    = { "$ObjId", "$Quota", "$Reparse", "$UsnJrnl", "$RmMetadata" };
/// The folder in $Extend that files are moved to which are deleted while a program has them open.
constexpr std::string_view openDeletedFolder = "$Deleted";

constexpr std::string_view journalName = "$UsnJrnl";
constexpr std::string_view journalStream = "$J";

/// Of further names of a file so many are told.
constexpr std::size_t maxToldNames = 3;
/// Of the folder of such a name so many bytes are told.
constexpr std::size_t maxToldFolder = 200;

/// Where $Bitmap lies; nowhere when its record is lost.
FileData locateBitmap(const NTFSContext& context, MFTRecords& records)
{
    auto* const bitmap = records.systemRecord(bitmapRecord);
    if (bitmap == nullptr || !bitmap->inUse)
        return {};
    records.mergeExtensions(*bitmap);
    return NTFSContent::assemble(context, bitmap->data).data;
}

/// Lowers the chances of deleted files, and of their streams, whose clusters another deleted file
/// had after them.
void judgeSharing(const NTFSContext& context, const MFTRecords& records)
{
    NTFSDeletedClaims claims;
    std::vector<Attachment*> streams; // numbered behind the files
    const auto& entries = records.entries();
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const auto& entry = entries[index];
        if (!entry.node || entry.inUse)
            continue;
        claims.add(index, entry.node->data, context.geometry(), entry.lastWrite);
        if (!entry.node->attachments)
            continue;
        for (auto& stream : *entry.node->attachments) {
            claims.add(
                entries.size() + streams.size(), stream.data, context.geometry(), entry.lastWrite);
            streams.push_back(&stream);
        }
    }
    std::size_t index = 0;
    for (const auto doubts : claims.judge()) {
        const auto number = index++;
        if (doubts.empty())
            continue;
        if (number >= entries.size())
            judgeFurther(*streams[number - entries.size()], doubts);
        else if (auto& node = *entries[number].node; node.recoverability != Recoverability::poor)
            judgeFurther(node, doubts); // else its note says why
    }
}

/// Gives every node its chance and note.
void judgeAll(const NTFSContext& context, const AllocationMap& map, const MFTRecords& records)
{
    for (const auto& entry : records.entries()) {
        if (!entry.node)
            continue;
        auto& node = *entry.node;
        auto doubts = entry.doubts;
        if (node.isDirectory()) { // a folder has no content to lose
            node.note = chanceOf(doubts).note;
            continue;
        }
        if (!entry.inUse) {
            doubts.add(doubtsOf(map.useOf(node.data, context.geometry()), ntfsReuse));
            NTFSStreams::judgeDeleted(node, map, context.geometry());
        }
        judge(node, doubts);
    }
    judgeSharing(context, records);
}

/// What of the volume's own structures could not be read, in Danish.
std::vector<std::string> notesOf(const MFTRecords& records, const AllocationMap& map)
{
    std::vector<std::string> notes;
    if (const auto count = records.unreadable(); count > 0)
        notes.push_back((count == 1 ? "1 MFT-post" : std::to_string(count) + " MFT-poster")
            + " kunne ikke læses. Filer kan mangle eller være ufuldstændige.");
    if (map.hasGaps())
        notes.push_back((map.isUnreadable() ? "$Bitmap" : "Dele af $Bitmap")
            + std::string(
                " kunne ikke læses. Det vides ikke, om slettede filers plads er genbrugt."));
    return notes;
}

bool isOpenDeletedFolder(const Entry& entry, const FileNode& node)
{
    return entry.parent.number == extendRecord && node.isDirectory()
        && node.name == openDeletedFolder;
}

/// What an entry of $Extend hangs under: what is not the system's own is a user's, and has lost its
/// folder.
Index parentInExtend(const Entry& entry)
{
    return isOpenDeletedFolder(entry, *entry.node)
            || std::ranges::count(systemNames, entry.node->name) > 0
        ? ParentLinks::system
        : ParentLinks::none;
}

/// What the record `number` hangs under when this is its parent; `none` when that folder is not its
/// folder any more.
Index validParent(
    const MFTRecords& records, const Nodes& nodes, std::uint64_t number, FileReference parent)
{
    if (parent.number == number)
        return ParentLinks::none;
    if (parent.number == rootRecord)
        return ParentLinks::root;
    const auto index = parent.number < firstUserRecord ? std::nullopt : records.find(parent.number);
    if (!index)
        return ParentLinks::none;
    const auto& folder = records.entries()[*index];
    const auto* const node = nodes[*index];
    // A slot that was used again belongs to another folder.
    const bool isSame = node != nullptr && node->isDirectory()
        && sequenceMatches(parent.sequence, folder.sequence, folder.inUse);
    return isSame && !isOpenDeletedFolder(folder, *node) ? *index : ParentLinks::none;
}

/// The folder of the name that the entry is shown under; when that one is lost, of another of its
/// names, which it then gets.
Index chooseParent(MFTRecords& records, const Nodes& nodes, Entry& entry)
{
    if (entry.parent.number == extendRecord)
        return parentInExtend(entry);
    const auto parent = validParent(records, nodes, entry.number, entry.parent);
    auto* const others = records.otherNames(entry.number);
    if (parent != ParentLinks::none || others == nullptr)
        return parent;
    for (const bool isDOS : { false, true }) {
        for (auto& name : *others) {
            if (name.isDOS() != isDOS || name.parent == entry.parent)
                continue;
            const auto other = validParent(records, nodes, entry.number, name.parent);
            if (other == ParentLinks::none)
                continue;
            entry.node->name = std::exchange(name.name, {}); // no further one any more
            return other;
        }
    }
    return ParentLinks::none;
}

/// What each entry hangs under.
std::vector<Index> chooseParents(MFTRecords& records, const Nodes& nodes)
{
    std::vector<Index> parents(records.entries().size(), ParentLinks::none);
    for (Index index = 0; auto& entry : records.entries()) {
        if (entry.node)
            parents[index] = chooseParent(records, nodes, entry);
        ++index;
    }
    return parents;
}

/// The change journal of the volume; none when there is none, or it is too short to tell anything.
const ExtentList* journalOf(const MFTRecords& records)
{
    const auto& entries = records.entries();
    const auto journal = std::ranges::find_if(entries, [](const Entry& entry) {
        return entry.parent.number == extendRecord && entry.node && entry.node->name == journalName
            && entry.node->attachments;
    });
    if (journal == entries.end())
        return nullptr;
    const auto& streams = *journal->node->attachments;
    const auto stream = std::ranges::find(streams, journalStream, &Attachment::name);
    return stream != streams.end() ? std::get_if<ExtentList>(&stream->data) : nullptr;
}

/// The number and sequence number under which a file was known; deletion has counted that up.
FileReference referenceTo(const Entry& entry)
{
    return { entry.number,
        static_cast<std::uint16_t>(entry.inUse ? entry.sequence : entry.sequence - 1) };
}

/// Gives files without a name the one that the volume still knows, and returns the names of lost
/// folders.
NTFSFormerNames recallNames(const NTFSContext& context, MFTRecords& records, const Nodes& nodes,
    std::vector<Index>& parents)
{
    // The folders of files whose names become known in the first round are asked for in the second.
    constexpr int rounds = 2;
    NTFSFormerNames names;
    for (int round = 0; round < rounds; ++round) {
        for (Index index = 0; const auto& entry : records.entries())
            if (parents[index++] == ParentLinks::none && entry.node
                && (entry.isUnnamed || entry.parent.number >= firstUserRecord))
                names.want(entry.isUnnamed ? referenceTo(entry) : entry.parent);
        if (!names.isWanting())
            break;
        if (const auto* journal = journalOf(records))
            names.readJournal(context.source(), *journal);
        if (names.isWanting())
            names.readIndices(context, records.indices());
        if (names.isWanting())
            names.readLooseIndices(context.source(), records.looseIndices());
        for (Index index = 0; auto& entry : records.entries()) {
            const auto* const name = entry.isUnnamed ? names.find(referenceTo(entry)) : nullptr;
            if (name != nullptr) {
                entry.isUnnamed = false;
                entry.node->name = name->name;
                entry.parent = name->parent;
                parents[index] = validParent(records, nodes, entry.number, name->parent);
            }
            ++index;
        }
    }
    return names;
}

/// The folders below that of the orphans, one for each lost folder whose name is known.
class NamedOrphanFolders {
public:
    NamedOrphanFolders(const NTFSFormerNames& names, FileNode& orphans)
        : names_(names)
        , orphans_(orphans)
    {
    }

    /// Where an entry hangs whose folder is lost.
    FileNode& folderFor(FileReference lost)
    {
        const auto* const name = names_.find(lost);
        if (name == nullptr)
            return orphans_;
        auto& folder = folders_[name];
        if (folder == nullptr)
            folder = &orphans_.add(FileNode::makeFolder(name->name, EntryStatus::deleted));
        return *folder;
    }

private:
    const NTFSFormerNames& names_;
    FileNode& orphans_;
    std::unordered_map<const NTFSFormerNames::Name*, FileNode*> folders_;
};

/// Hangs every node under its folder, and those whose folder is lost under a folder of their own.
void hangAll(MFTRecords& records, const Nodes& nodes, const ParentLinks& links,
    const NTFSFormerNames& names, FileNode& root)
{
    auto& entries = records.entries();
    auto orphans = FileNode::makeFolder("$Forældreløse filer", EntryStatus::orphaned);
    NamedOrphanFolders named(names, *orphans);
    for (Index index = 0; index < entries.size(); ++index) {
        if (!entries[index].node || links.placeOf(index) == ParentLinks::Place::system)
            continue;
        const auto parent = links.parentOf(index);
        auto* folder = &root;
        if (parent == ParentLinks::none)
            folder = &named.folderFor(entries[index].parent);
        else if (parent != ParentLinks::root)
            folder = nodes[parent];
        folder->add(std::move(entries[index].node));
    }
    if (!orphans->children().empty())
        root.add(std::move(orphans));
}

/// Where a further name of the entry lies: its path, with "…" for what is too long, or the name
/// alone where its folder is lost.
std::string placeOf(
    const MFTRecords& records, const Nodes& nodes, const Entry& entry, const FNInfo& name)
{
    std::string place = name.name;
    const auto parent = validParent(records, nodes, entry.number, name.parent);
    if (parent == ParentLinks::none)
        return place;
    const auto* folder = parent == ParentLinks::root ? nullptr : nodes[parent];
    std::size_t length = 0;
    for (; folder != nullptr && folder->parent() != nullptr; folder = folder->parent()) {
        length += folder->name.size() + 1;
        if (length > maxToldFolder)
            return "…/" + place;
        place.insert(0, folder->name + "/");
    }
    return "/" + place;
}

/// Adds the further names of a file, which is listed once, to its note.
void noteOtherNames(MFTRecords& records, const Nodes& nodes)
{
    for (std::size_t index = 0; const auto& entry : records.entries()) {
        auto* const node = nodes[index++];
        const auto* const names = node ? records.otherNames(entry.number) : nullptr;
        if (names == nullptr || node->isDirectory())
            continue;
        Text::ShortList told(maxToldNames);
        for (const auto& name : *names) {
            const bool isShown = name.parent == entry.parent && name.name == node->name;
            if (!name.isDOS() && !name.name.empty() && !isShown)
                told.add(told.isFull() ? name.name : placeOf(records, nodes, entry, name));
        }
        if (told.count() > 0)
            node->addNote("Har også navnet " + told.text());
    }
}

} // namespace

std::unique_ptr<Volume> buildVolume(
    const NTFSContext& context, MFTRecords records, MappedStream mft, const std::string& origin)
{
    const auto& geometry = context.geometry();
    const auto* const label = records.systemRecord(volumeRecord);
    auto volume = std::make_unique<Volume>(FileSystemType::ntfs,
        label != nullptr ? label->volumeName : std::string(), geometry.base, geometry.volumeSize,
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = geometry.clusterSize;

    records.finish();
    auto bitmap = locateBitmap(context, records);
    const auto map = AllocationMap::load(context, bitmap);
    judgeAll(context, map, records);
    volume->notes = notesOf(records, map);
    Nodes nodes(records.entries().size());
    std::ranges::transform(
        records.entries(), nodes.begin(), [](const Entry& entry) { return entry.node.get(); });
    auto parents = chooseParents(records, nodes);
    const auto names = recallNames(context, records, nodes, parents);
    hangAll(records, nodes, ParentLinks(std::move(parents)), names, *volume->root);
    noteOtherNames(records, nodes);
    for (auto* const node : nodes)
        if (node != nullptr)
            NTFSStreams::note(*node);
    volume->root->sortChildren();
    volume->deepContext
        = std::make_unique<NTFSDeepInfo>(geometry, std::move(mft), std::move(bitmap));
    return volume;
}

} // namespace NTFSParser

#include "VintrelCore/FileSystems/Ext/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/Chances.h"
#include "VintrelCore/FileSystems/Ext/Content.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"
#include "VintrelCore/FileSystems/Ext/FreedBlocks.h"
#include "VintrelCore/FileSystems/Ext/Names.h"
#include "VintrelCore/FileSystems/Ext/Recognition.h"
#include "VintrelCore/FileSystems/Ext/Tree.h"

using namespace ExtFormat;

namespace {

void addNotes(
    Volume& volume, const ExtContext& context, const ExtContent& content, const ExtNames& names)
{
    volume.notes = context.notes();
    if (content.unsoundCount() > 0)
        volume.notes.push_back(
            std::to_string(content.unsoundCount()) + " inoder har en forkert kontrolsum.");
    if (names.damagedCount() > 0)
        volume.notes.push_back(
            std::to_string(names.damagedCount()) + " mappeblokke er beskadiget.");
}

std::vector<ExtContext::SeededFile> namedFiles(const ExtGeometry& geometry, const ExtFiles& files)
{
    std::vector<ExtContext::SeededFile> named;
    named.reserve(geometry.hasChecksums() ? files.entries.size() : 0);
    for (const auto& entry : files.entries)
        if (geometry.hasChecksums() && entry.kind == fileMode && entry.isNamed())
            named.push_back(
                { ExtInodes::seedOf(geometry, entry.number, entry.generation), entry.node.get() });
    return named;
}

std::unique_ptr<Volume> volumeOf(
    std::unique_ptr<ExtContext> context, const std::string& origin, WorkProgress* progress)
{
    ExtContent content(*context);
    auto files = ExtTables::read(*context, content, progress);
    if (files.entries.empty())
        return nullptr;
    ExtFreedBlocks::assign(*context, content, files);
    ExtRecognition(*context).recogniseAll(files);
    ExtNames names(*context, files);
    names.read(progress);

    auto volume = std::make_unique<Volume>(FileSystemType::ext, context->geometry().label(),
        context->geometry().base, context->geometry().volumeSize(),
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize
        = std::uint64_t { context->geometry().blockSize } * context->geometry().clusterBlocks;
    volume->root->fsID = rootInode;
    ExtChances::judge(*context, files);
    addNotes(*volume, *context, content, names);
    context->keepFiles(namedFiles(context->geometry(), files));
    ExtTree::build(std::move(files), names.hardLinks(), *volume->root);
    context->forgetJournal();
    volume->deepContext = std::move(context);
    return volume;
}

} // namespace

namespace ExtParser {

std::optional<FileSystemType> probe(ByteView head)
{
    constexpr auto magicOffset
        = static_cast<std::int64_t>(superblockOffset + offsetof(Superblock, magic));
    const auto magic = head.load<LE16>(magicOffset);
    return magic && *magic == superblockMagic ? std::optional(FileSystemType::ext) : std::nullopt;
}

bool looksLikeSuperblock(ByteView sector)
{
    Bytes whole(sector.span().begin(), sector.span().end());
    whole.resize(sizeof(Superblock));
    return ExtSuperblock::decode(whole).has_value();
}

std::unique_ptr<Volume> parse(
    DiskSource& source, std::uint64_t offset, const std::string& origin, WorkProgress* progress)
{
    const auto own = source.read(offset + superblockOffset,
        static_cast<std::int64_t>(sizeof(Superblock)), ReadMode::thorough);
    const auto superblock = ExtSuperblock::decode(own);
    const auto geometry = superblock ? ExtGeometry::from(*superblock, offset) : std::nullopt;
    return geometry ? build(source, *geometry, ExtTrust::full, origin, progress) : nullptr;
}

std::unique_ptr<Volume> build(DiskSource& source, const ExtGeometry& geometry, ExtTrust trust,
    const std::string& origin, WorkProgress* progress)
{
    return volumeOf(
        std::make_unique<ExtContext>(source, geometry, trust, progress), origin, progress);
}

std::unique_ptr<Volume> build(DiskSource& source, const ExtRemains& remains,
    const std::string& origin, WorkProgress* progress)
{
    return volumeOf(std::make_unique<ExtContext>(source, remains, progress), origin, progress);
}

bool addUsedRanges(DiskSource& /*source*/, const Volume& volume, std::vector<ByteRange>& ranges)
{
    auto* const context = dynamic_cast<ExtContext*>(volume.deepContext.get());
    return context != nullptr && context->allocation().addUsedRanges(ranges);
}

} // namespace ExtParser

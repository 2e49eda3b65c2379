#include "VintrelCore/Recovery/CopyJob.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Recovery/AppleDouble.h"
#include "VintrelCore/Recovery/SafeName.h"

#include <algorithm>
#include <cerrno>
#include <exception>

namespace RecoveryEngine {

namespace {

/// Far below the 4 MiB that a copy may hold at once: what was read is still in the processor's
/// cache when it is written.
constexpr std::size_t copyPiece = 1'048'576;
constexpr std::chrono::milliseconds reportInterval { 150 };

/// Beyond so many failures they are listed in a file.
constexpr std::size_t shownFailures = 10;

bool isOutOfSpace(SystemError error)
{
    return error.number() == ENOSPC || error.number() == EDQUOT;
}

} // namespace

CopyJob::CopyJob(DiskSource& source, FileDescriptor root, const RecoveryOptions& options,
    const Reporter& reporter, const WorkProgress& progress, RecoveryResult& result)
    : source_(source)
    , options_(options)
    , reporter_(reporter)
    , progress_(progress)
    , result_(result)
    , destination_(std::move(root))
    , failureList_(destination_, options.writeReport, shownFailures)
    , report_(destination_, options.writeReport)
{
}

void CopyJob::openPage(std::string_view title)
{
    if (page_.open(destination_, title, options_.pageDamage))
        result_.page = *result_.folder + "/Gendannet.html";
}

void CopyJob::copy(const std::vector<FileNode*>& nodes)
{
    for (const auto* node : nodes) {
        state_.filesTotal += filesFor(*node);
        state_.bytesTotal
            += node->size + (hasCompanion(*node) ? AppleDouble(*node->attachments).size() : 0);
        for (const auto* stream : streamsOf(*node))
            state_.bytesTotal += stream->size;
    }
    for (const auto* node : nodes) {
        result_.cancelled = progress_.isCancelled();
        if (result_.cancelled)
            break;
        if (options_.onlyReport)
            list(*node);
        else if (!(node->isDirectory() ? copyFolder(*node) : copyFile(*node)))
            break;
        state_.filesDone += filesFor(*node);
    }
    page_.close(result_.cancelled || result_.isDestinationFull);
    flushDestination();
    if (reporter_)
        reporter_(state_);
}

/// Waits until what was written is safe. What is not is not recovered, whatever was counted.
void CopyJob::flushDestination()
{
    const auto error = destination_.flush();
    if (!error)
        return;
    const auto line = *result_.folder + ": kunne ikke skrive alt til disken: " + error.message();
    failureList_.add(line);
    result_.failures.insert(result_.failures.begin(), line);
    result_.failed += result_.recovered + result_.withErrors;
    result_.recovered = 0;
    result_.withErrors = 0;
}

/// Whether a file is made of what is attached to a node.
bool CopyJob::hasCompanion(const FileNode& node) const
{
    return options_.streams && node.attachments && AppleDouble::isFor(*node.attachments)
        && (options_.keepFolderStructure || !node.isDirectory());
}

/// The named streams of a file, each of which becomes a file.
std::vector<const Attachment*> CopyJob::streamsOf(const FileNode& node) const
{
    std::vector<const Attachment*> streams;
    if (!options_.streams || !node.attachments || node.isDirectory())
        return streams;
    for (const auto& attachment : *node.attachments)
        if (attachment.kind == Attachment::Kind::stream)
            streams.push_back(&attachment);
    return streams;
}

std::int64_t CopyJob::filesFor(const FileNode& node) const
{
    return (node.isDirectory() ? 0 : 1) + (hasCompanion(node) ? 1 : 0)
        + static_cast<std::int64_t>(streamsOf(node).size());
}

/// False when the job has to end.
bool CopyJob::copyFile(const FileNode& node)
{
    auto& folder = destination_.folderFor(options_.keepFolderStructure ? node.parent() : nullptr);
    std::string name = sanitize(node.name);
    const auto* packed = options_.streams ? packedContentOf(node) : nullptr;
    const auto step = packed != nullptr
        ? copyPacked(node, *packed, folder, name)
        : copyInto(folder, name, { node, { FileReader::contentOf(node) } });
    if (step != Step::copied)
        return step != Step::ended;
    return (!hasCompanion(node) || copyCompanion(node, folder, name))
        && copyStreams(node, folder, name);
}

/// Copies a file whose content is attached to it.
CopyJob::Step CopyJob::copyPacked(
    const FileNode& node, const Attachment& packed, Destination::Folder& folder, std::string& name)
{
    const auto file
        = FileNode::makeFile(node.name, packed.size, node.status, packed.recoverability);
    file->created = node.created;
    file->modified = node.modified;
    file->note = "Var pakket af HFS+ og er pakket ud";
    return copyInto(folder, name, { *file, { { packed.data, packed.size } } });
}

/// Copies what is attached to a folder, which is made even where it stays empty. False when the
/// job has to end.
bool CopyJob::copyFolder(const FileNode& node)
{
    if (!hasCompanion(node))
        return true;
    const auto& made = destination_.folderFor(&node);
    return made.parent == nullptr || copyCompanion(node, *made.parent, made.name);
}

/// `name`: the one that the node got in the folder. False when the job has to end.
bool CopyJob::copyCompanion(
    const FileNode& node, Destination::Folder& folder, const std::string& name)
{
    const AppleDouble file(*node.attachments);
    std::string companionName = "._" + name;
    const auto companion
        = FileNode::makeFile(companionName, file.size(), node.status, file.recoverability());
    companion->created = node.created;
    companion->modified = node.modified;
    companion->note = "Ressourcegren og udvidede attributter (AppleDouble)";
    return copyInto(folder, companionName, { *companion, file.parts() }) != Step::ended;
}

/// `name`: the one that the node got in the folder. False when the job has to end.
bool CopyJob::copyStreams(
    const FileNode& node, Destination::Folder& folder, const std::string& name)
{
    return std::ranges::all_of(streamsOf(node), [&](const Attachment* stream) {
        auto streamName = sanitize(name + "." + stream->name);
        const auto file = makeStreamFile(node, *stream, streamName);
        file->note = "Navngiven datastrøm";
        return copyInto(folder, streamName, { *file, { { stream->data, stream->size } } })
            != Step::ended;
    });
}

/// `name`: the one that is wanted, and afterwards the one that the file got.
CopyJob::Step CopyJob::copyInto(
    Destination::Folder& folder, std::string& name, const Output& output)
{
    if (folder.error)
        return fail(folder, name, ": kunne ikke oprette mappen: ", folder.error);
    // A file that is larger than the destination has room for says nothing about the next one.
    const auto room = destination_.freeBytes();
    const bool isLarger = room && streamedLength(output) > *room;
    if (isLarger && storedLength(output) > *room)
        return failForSize(output.node, folder, name, *room);
    auto created = destination_.createFile(folder, name);
    if (!created)
        return fail(folder, name, ": kunne ikke oprette filen: ", created.error());
    FileWriter writer(std::move(*created));
    if (isLarger && !writer.keepsHoles()) {
        destination_.remove(folder, name);
        return failForSize(output.node, folder, name, *room);
    }

    const auto copied = copyOrRemove(output, std::move(writer), folder, name);
    if (isLarger && isOutOfSpace(copied.error))
        return failForSize(output.node, folder, name, *room);
    if (copied.error)
        return fail(folder, name, ": kunne ikke skrive filen: ", copied.error);
    if (result_.cancelled)
        return Step::ended;
    count(output.node, Destination::path(folder, name), copied);
    return Step::copied;
}

std::uint64_t CopyJob::streamedLength(const Output& output)
{
    std::uint64_t length = 0;
    for (const auto& part : output.parts)
        length += FileReader::streamedLength(part);
    return length;
}

std::uint64_t CopyJob::storedLength(const Output& output) const
{
    std::uint64_t length = 0;
    for (const auto& part : output.parts)
        length += FileReader::storedLength(part, source_);
    return length;
}

void CopyJob::count(const FileNode& node, const std::string& path, const Copied& copied)
{
    ++(copied.badBytes == 0 ? result_.recovered : result_.withErrors);
    result_.bytes += node.size;
    const bool isEmptied = copied.isAllZero && node.status != EntryStatus::existing
        && node.size >= source_.sectorSize();
    tell({ node, true, path, copied.badBytes, isEmptied });
}

void CopyJob::list(const FileNode& node)
{
    if (node.isDirectory())
        return;
    ++result_.listed;
    result_.bytes += node.size;
    std::vector<const FileNode*> folders; // the innermost first
    const auto* folder = options_.keepFolderStructure ? node.parent() : nullptr;
    for (; folder != nullptr && folder->parent() != nullptr; folder = folder->parent())
        folders.push_back(folder);
    std::string path;
    for (auto above = folders.rbegin(); above != folders.rend(); ++above)
        path.append(sanitize((*above)->name)).append("/");
    path += sanitize(node.name);
    tell({ .node = node, .isCopied = false, .path = std::move(path) });
}

void CopyJob::tell(const RecoveredFile& file)
{
    report_.add(file);
    page_.add(file);
    if (options_.fileDone)
        options_.fileDone(file);
}

/// Copies into a file that was just made. Only a whole one stays, also when memory runs out.
CopyJob::Copied CopyJob::copyOrRemove(
    const Output& output, FileWriter writer, Destination::Folder& folder, const std::string& name)
{
    try {
        const auto copied = copyContent(output, std::move(writer), Destination::path(folder, name));
        if (copied.error || result_.cancelled)
            destination_.remove(folder, name);
        return copied;
    } catch (const std::exception&) {
        destination_.remove(folder, name);
        throw;
    }
}

CopyJob::Copied CopyJob::copyContent(
    const Output& output, FileWriter writer, const std::string& path)
{
    Copied copied;
    const auto write = [&](const FileReader::Piece& piece) {
        copied.isAllZero = copied.isAllZero && ByteView(piece.bytes).isAllZero();
        copied.error = writer.write(piece);
        state_.bytesDone += piece.size();
        reportProgress(path);
        result_.cancelled = progress_.isCancelled();
        return !copied.error && !result_.cancelled;
    };
    for (const auto& part : output.parts) {
        copied.badBytes += FileReader::stream(part, source_, copyPiece, std::nullopt, write);
        if (copied.error || result_.cancelled)
            break;
    }
    const auto closed = writer.finish(output.node, options_.restoreDates);
    if (!copied.error)
        copied.error = closed;
    return copied;
}

/// Notes why a file could not be copied. A full destination ends the job.
CopyJob::Step CopyJob::fail(
    const Destination::Folder& folder, const std::string& name, const char* what, SystemError error)
{
    if (isOutOfSpace(error)) {
        result_.isDestinationFull = true;
        addFailure("Destinationen er fuld – gendannelsen blev stoppet.");
        return Step::ended;
    }
    ++result_.failed;
    addFailure(Destination::path(folder, name) + what + error.message());
    return Step::failed;
}

/// Notes that a file alone is larger than the destination has room for. The job goes on.
CopyJob::Step CopyJob::failForSize(const FileNode& node, const Destination::Folder& folder,
    const std::string& name, std::uint64_t room)
{
    ++result_.failed;
    addFailure(Destination::path(folder, name) + ": filen fylder " + std::to_string(node.size)
        + " bytes, og på destinationen er der kun plads til " + std::to_string(room));
    return Step::failed;
}

void CopyJob::addFailure(std::string line)
{
    failureList_.add(line);
    result_.failures.push_back(std::move(line));
}

void CopyJob::reportProgress(const std::string& path)
{
    if (!reporter_)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastReport_ < reportInterval)
        return;
    lastReport_ = now;
    state_.currentFile = path;
    reporter_(state_);
}

} // namespace RecoveryEngine

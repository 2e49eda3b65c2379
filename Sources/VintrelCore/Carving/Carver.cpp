#include "VintrelCore/Carving/Carver.h"

#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/Programs.h"
#include "VintrelCore/Carving/HeadKinds.h"
#include "VintrelCore/Carving/Signatures.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>

namespace {

using enum FileCategory;

/// Whether text inside of such a file is a part of it.
bool consistsOfText(std::string_view extension)
{
    const auto category = categoryOf("x." + std::string(extension));
    return category == document || category == archive || category == other;
}

constexpr std::size_t minHead = 32;

/// The bytes that all candidates together may read in vain: so many, or as many as the source has,
/// and so many times what the sweep itself has passed. Sound disks stay far below. It is the bound
/// that keeps a disk full of beginnings without an end (planted or not) linear, whatever its kind
/// of file; where it is used up a candidate gets only what its headers take, until the sweep has
/// moved on. Searches for end marks do not count: no byte of the source is searched twice for the
/// same one.
constexpr std::uint64_t leastWorkAhead = 1'073'741'824;
constexpr std::uint64_t workPerByteSwept = 4;
constexpr std::uint64_t minWork = 4096;
constexpr std::uint64_t workOfFind = 4096;

} // namespace

const std::set<FileCategory>& carvedCategories()
{
    static const std::set<FileCategory> categories { image, video, audio, document, archive };
    return categories;
}

Carver::Carver(DiskSource& source, std::set<FileCategory> categories, SweepWindow* window)
    : categories_(std::move(categories))
    , reader_(source, 0, window)
    , searches_(std::make_unique<CarverSearches>(source, window))
{
}

Carver::~Carver() = default;

void Carver::windowMoved(std::uint64_t offset)
{
    reader_.windowMoved();
    for (auto* search : { &searches_->pdfStarts, &searches_->pdfEnds, &searches_->zipEnds,
             &searches_->x3fDirectories })
        search->windowMoved(offset);
}

std::optional<CarvedFile> Carver::check(ByteView head, std::uint64_t offset)
{
    if (head.size() < minHead)
        return std::nullopt;
    const auto* const signature = signatureOf(head);
    const auto readByInnerMark = readerByInnerMark(head);
    if (signature == nullptr && readByInnerMark == nullptr && !findsTexts_)
        return std::nullopt;
    return tryReaders(signature, readByInnerMark, head, offset);
}

/// What is found by the readers that the first bytes ask for, the first one that finds something.
std::optional<CarvedFile> Carver::tryReaders(
    const Signature* signature, FormatReader readByInnerMark, ByteView head, std::uint64_t offset)
{
    std::optional<CarvedFile> found;
    if (signature != nullptr && (!signature->gate || categories_.contains(*signature->gate)))
        found = tryFormat(signature->read, offset);
    if (!found && readByInnerMark != nullptr)
        found = tryFormat(readByInnerMark, offset);
    if (!found && findsTexts_)
        found = tryText(head, offset);
    if (found && !wants(found->ext))
        found.reset();
    if (found && findsTexts_ && consistsOfText(found->ext))
        textsFrom_ = std::max(textsFrom_, found->offset + found->size);
    if (!found && brokenHeads_ != nullptr)
        noteBrokenHead(head, offset);
    return found;
}

/// The text that begins at `offset`; none within one that has begun before, nor within a document.
std::optional<CarvedFile> Carver::tryText(ByteView head, std::uint64_t offset)
{
    constexpr std::size_t lookedAt = 8;
    const auto start = head.u16be(0);
    const bool hasMark = start == 0xFFFE || start == 0xFEFF;
    const bool mayBegin = hasMark
        || std::ranges::all_of(head.span().first(lookedAt),
            [](std::uint8_t byte) { return byte >= '\t' && byte != 0x7F; });
    return mayBegin && offset >= textsFrom_ ? tryFormat(Formats::plainText, offset) : std::nullopt;
}

void Carver::noteBrokenHead(ByteView head, std::uint64_t offset)
{
    constexpr std::size_t mostHeads = 1'048'576; // 16 MiB: no disk that files were written to
    const auto* const extension = extensionByHead(head);
    if (extension != nullptr && wants(extension) && brokenHeads_->size() < mostHeads)
        brokenHeads_->push_back({ offset, extension });
}

bool Carver::beginsProgram(ByteView head, std::uint64_t offset)
{
    if (!Formats::mayBeProgram(head))
        return false;
    const auto allowed = beginCandidate(offset);
    const auto size = Formats::program({ reader_, categories_, *searches_ }, head);
    endCandidate(allowed, size ? workOfFind : 0);
    return size.has_value();
}

/// Moves the reader to the candidate at `offset`. How much all candidates together may have cost
/// behind it.
std::uint64_t Carver::beginCandidate(std::uint64_t offset)
{
    const std::uint64_t ahead = std::max(leastWorkAhead, reader_.sourceSize());
    const std::uint64_t allowed = ahead + std::min(offset, UINT64_MAX / 16) * workPerByteSwept;
    reader_.moveTo(offset);
    reader_.limitWork(std::max(allowed - std::min(allowed, work_), minWork));
    return allowed;
}

/// Adds what the candidate cost beyond its credit to the work of all.
void Carver::endCandidate(std::uint64_t allowed, std::uint64_t credit)
{
    work_ = std::min(
        work_ + reader_.work() - std::min(reader_.work(), credit), std::max(allowed, work_));
}

/// Lets a format's reader work on the candidate at `offset`, within what all candidates together
/// may still cost.
std::optional<CarvedFile> Carver::tryFormat(FormatReader read, std::uint64_t offset)
{
    const auto allowed = beginCandidate(offset);
    auto found = read({ reader_, categories_, *searches_ });
    hasRunOut_ |= reader_.isExhausted();
    if (found && (searches_->wasExhausted || found->size == 0))
        found.reset();
    if (found && reader_.isExhausted())
        found->isProved = false;
    if (found && found->size > reader_.size()) { // whatever the format says
        found->size = reader_.size();
        found->exact = false;
        found->isProved = false;
        found->isCut = true;
    }
    // The sweep passes over a file that was proved; what went beyond the limit is no debt. Small
    // files are no vain work even where their ends are estimates.
    if (!found || !found->isProved)
        endCandidate(allowed, found ? workOfFind : 0);
    return found;
}

bool Carver::wants(std::string_view extension) const
{
    if (categories_.contains(categoryOf("x." + std::string(extension))))
        return true;
    // Listed among other files, yet carved as documents.
    constexpr std::string_view others[]
        = { "sqlite", "msg", "db", "msi", "automaticdestinations-ms", "dat", "json" };
    return categories_.contains(document)
        && std::ranges::find(others, extension) != std::end(others);
}

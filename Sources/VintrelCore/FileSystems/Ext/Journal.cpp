#include "VintrelCore/FileSystems/Ext/Journal.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/Checksums.h"

#include <algorithm>
#include <set>
#include <tuple>

using namespace ExtJournalFormat;

namespace {

constexpr std::uint64_t chunkSize = 1'048'576; ///< of the search
/// No system makes longer journals (4 GiB in blocks of 1 KiB), and each block of it takes memory.
constexpr std::uint64_t maxBlocks = 4'194'304;

/// The bytes that a checksum of a block lies over, with zeros in the place of the checksum.
std::uint32_t sumWithout(std::uint32_t seed, ByteView block, std::int64_t at)
{
    constexpr std::array<std::uint8_t, sizeof(BE32)> zeros {};
    const auto behind = at + static_cast<std::int64_t>(sizeof(BE32));
    auto sum = ExtChecksums::crc32c(seed, block.sub(0, at));
    sum = ExtChecksums::crc32c(sum, zeros);
    return ExtChecksums::crc32c(sum, block.sub(behind, static_cast<std::int64_t>(block.size())));
}

} // namespace

ExtJournal::ExtJournal(DiskSource& source, const ExtGeometry& geometry,
    std::vector<ByteRange> pieces, WorkProgress* progress)
    : source_(source)
    , geometry_(geometry)
    , pieces_(std::move(pieces))
{
    std::uint64_t position = 0;
    piecePositions_.reserve(pieces_.size());
    for (const auto& piece : pieces_) {
        piecePositions_.push_back(position);
        position += (piece.end - piece.start) / geometry_.blockSize;
    }
    blockCount_ = static_cast<std::uint32_t>(std::min(position, maxBlocks));
    findSuperblock();
    if (!superblock_)
        return;
    search(progress);
    keepNewestClaims();
    findGap();
}

void ExtJournal::findSuperblock()
{
    if (blockCount_ == 0)
        return;
    const auto block = source_.read(offsetOf(0), geometry_.blockSize, ReadMode::thorough);
    const auto found = ByteView(block).load<Superblock>(0);
    const bool isOne = found && found->header.magic == magicNumber
        && (found->header.type == superblockType || found->header.type == oldSuperblockType)
        && found->blockSize == geometry_.blockSize;
    if (!isOne)
        return;
    superblock_ = found;
    seed_ = ExtChecksums::crc32c(ExtChecksums::start, found->uuid);
    if (found->blockCount > 0)
        blockCount_ = std::min<std::uint32_t>(blockCount_, found->blockCount);
}

bool ExtJournal::hasFeature(std::uint32_t feature) const
{
    return superblock_->header.type == superblockType && (superblock_->incompatible & feature) != 0;
}

bool ExtJournal::hasChecksums() const { return hasFeature(checksum2Feature | checksum3Feature); }

std::uint64_t ExtJournal::offsetOf(std::uint32_t position) const
{
    const auto next = std::ranges::upper_bound(piecePositions_, position);
    const auto piece = static_cast<std::size_t>(next - piecePositions_.begin()) - 1;
    return pieces_[piece].start + (position - piecePositions_[piece]) * geometry_.blockSize;
}

/// Behind the log one block is left out, and then fast commits have the journal's last blocks.
std::uint32_t ExtJournal::logEnd() const
{
    constexpr std::uint32_t usualFastCommitBlocks = 256;
    if (!hasFeature(fastCommitFeature))
        return blockCount_;
    const std::uint32_t named = superblock_->fastCommitBlocks;
    return blockCount_ - std::min(named != 0 ? named : usualFastCommitBlocks, blockCount_);
}

/// The position that follows the log's end is its beginning.
std::uint32_t ExtJournal::wrap(std::uint64_t position) const
{
    const std::uint64_t end = logEnd();
    const std::uint64_t first = std::max<std::uint32_t>(superblock_->first, 1);
    return static_cast<std::uint32_t>(
        position < end ? position : std::min<std::uint64_t>(first + (position - end), blockCount_));
}

void ExtJournal::search(WorkProgress* progress)
{
    std::uint32_t position = 0;
    for (const auto& piece : pieces_) {
        for (auto at = piece.start; at < piece.end && !isCancelled(progress); at += chunkSize) {
            const auto chunk = source_.read(at,
                static_cast<std::int64_t>(std::min(chunkSize, piece.end - at)), ReadMode::thorough);
            const ByteView bytes(chunk);
            for (std::int64_t in = 0; in < static_cast<std::int64_t>(chunk.size());
                 in += geometry_.blockSize, ++position)
                if (position < blockCount_ && bytes.u32be(in) == magicNumber)
                    take(position, bytes.sub(in, geometry_.blockSize));
        }
    }
}

bool ExtJournal::isTailSound(ByteView block) const
{
    const auto tail = static_cast<std::int64_t>(block.size() - tailSize);
    return !hasChecksums() || sumWithout(seed_, block, tail) == block.u32be(tail);
}

void ExtJournal::take(std::uint32_t position, ByteView block)
{
    const auto header = block.load<Header>(0).value_or(Header {});
    Control control { .type = header.type, .sequence = header.sequence };
    if (header.type == descriptorType && isTailSound(block)) {
        readTags(position, block, control);
    } else if (header.type == revokeType && isTailSound(block)) {
        readRevoked(block, control);
    } else if (header.type == commitType) {
        const auto commit = block.load<Commit>(0).value_or(Commit {});
        constexpr std::int64_t sumOffset = offsetof(Commit, checksums);
        if (hasChecksums() && sumWithout(seed_, block, sumOffset) != block.u32be(sumOffset))
            return;
        commitSeconds_[header.sequence] = commit.seconds;
    } else {
        return;
    }
    controls_.emplace(position, control);
}

void ExtJournal::readTags(std::uint32_t position, ByteView block, Control& control)
{
    const bool isThird = hasFeature(checksum3Feature);
    const bool isWide = hasFeature(wideFeature);
    const auto end = static_cast<std::int64_t>(block.size())
        - (hasChecksums() ? static_cast<std::int64_t>(tailSize) : 0);
    // Version 2 makes the tags two bytes longer, and uses none of them.
    const std::int64_t tagSize = isThird ? static_cast<std::int64_t>(sizeof(Tag3))
                                         : static_cast<std::int64_t>(sizeof(Tag)) + (isWide ? 4 : 0)
            + (hasFeature(checksum2Feature) ? 2 : 0);
    control.firstClaim = claims_.size();
    std::uint32_t flags = 0;
    for (std::int64_t at = sizeof(Header); at + tagSize <= end && (flags & lastFlag) == 0;) {
        const auto tag = block.load<Tag>(at).value_or(Tag {});
        const auto tag3 = block.load<Tag3>(at).value_or(Tag3 {});
        flags = isThird ? std::uint32_t { tag3.flags } : std::uint32_t { tag.flags };
        std::uint64_t number = tag.blockLow;
        if (isWide)
            number |= std::uint64_t { block.u32be(at + 8) } << 32;
        control.length += 1;
        claims_.push_back({ wrap(std::uint64_t { position } + control.length - 1),
            { .block = number,
                .sequence = control.sequence,
                .checksum
                = isThird ? std::uint32_t { tag3.checksum } : std::uint32_t { tag.checksum },
                .isEscaped = (flags & escapedFlag) != 0 } });
        at += tagSize + ((flags & sameUUIDFlag) != 0 ? 0 : static_cast<std::int64_t>(uuidSize));
    }
    control.claimCount = claims_.size() - control.firstClaim;
}

void ExtJournal::readRevoked(ByteView block, Control& control)
{
    const auto used = block.load<Revoke>(0).value_or(Revoke {}).used;
    const auto end = std::min<std::int64_t>(used, static_cast<std::int64_t>(block.size()));
    const std::int64_t size = hasFeature(wideFeature) ? 8 : 4;
    control.firstRevoked = revoked_.size();
    for (std::int64_t at = sizeof(Revoke); at + size <= end; at += size)
        revoked_.push_back(size == 8 ? block.u64be(at) : block.u32be(at));
    control.revokedCount = revoked_.size() - control.firstRevoked;
}

/// Of what several transactions wrote to the same place of the log only the last is left there.
void ExtJournal::keepNewestClaims()
{
    std::vector<ExtSequence> newestAt(std::size_t { blockCount_ } + 1);
    for (const auto& [position, control] : controls_)
        newestAt[position] = std::max(newestAt[position], control.sequence);
    for (const auto& claim : claims_)
        newestAt[claim.position] = std::max(newestAt[claim.position], claim.copy.sequence);
    const auto newestCommit = commitSeconds_.empty() ? 0 : commitSeconds_.rbegin()->first;
    newest_ = newestCommit;
    copies_.reserve(claims_.size());
    for (auto& claim : claims_) {
        const bool isInLog
            = claim.position < blockCount_ && newestAt[claim.position] == claim.copy.sequence;
        claim.copy.offset = isInLog ? offsetOf(claim.position) : 0;
        if (isInLog && claim.copy.sequence <= newestCommit
            && claim.copy.block < geometry_.blockCount)
            copies_.push_back(claim.copy);
    }
    std::ranges::stable_sort(copies_, {},
        [](const ExtJournalCopy& copy) { return std::tuple(copy.block, copy.sequence); });
}

std::span<const ExtJournalCopy> ExtJournal::copiesOf(std::uint64_t block) const
{
    const auto first = std::ranges::lower_bound(copies_, block, {}, &ExtJournalCopy::block);
    const auto last = std::ranges::upper_bound(copies_, block, {}, &ExtJournalCopy::block);
    return { first, last };
}

Bytes ExtJournal::content(const ExtJournalCopy& copy) const
{
    const ExtBlocks blocks(source_, geometry_);
    const auto raw = blocks.readCopy({ copy.offset, false });
    if (hasChecksums()) {
        const auto number
            = std::bit_cast<std::array<std::uint8_t, sizeof(BE32)>>(BE32(copy.sequence));
        const auto sum = ExtChecksums::crc32c(ExtChecksums::crc32c(seed_, number), raw);
        const auto kept = hasFeature(checksum3Feature) ? sum : sum & 0xFFFF;
        if (kept != copy.checksum)
            return {};
    }
    return copy.isEscaped ? blocks.readCopy({ copy.offset, true }) : raw;
}

std::optional<ExtSequence> ExtJournal::firstSince(std::uint64_t seconds) const
{
    for (const auto& [sequence, time] : commitSeconds_)
        if (time >= seconds)
            return sequence;
    return std::nullopt;
}

/// Unmounting, and replaying a journal, each skip a number.
void ExtJournal::findGap()
{
    constexpr ExtSequence mostSkipped = 3;
    completeSince_ = newest_;
    for (auto commit = commitSeconds_.rbegin(); commit != commitSeconds_.rend(); ++commit) {
        if (completeSince_ - commit->first > mostSkipped)
            return;
        completeSince_ = commit->first;
    }
    completeSince_ = 0; // what came before is not missed
}

bool ExtJournal::reachesBackTo(std::uint64_t seconds) const
{
    return !commitSeconds_.empty() && commitSeconds_.begin()->second <= seconds;
}

bool ExtJournal::isIntact(const Claim& claim) const
{
    return claim.position < blockCount_ && claim.copy.offset != 0 && !content(claim.copy).empty();
}

/// The checksum of version 1 of a transaction so far: over its descriptors, each with its copies.
std::uint32_t ExtJournal::sumWith(
    std::uint32_t sum, std::uint32_t position, const Control& control) const
{
    if (control.type != descriptorType || (superblock_->compatible & checksum1Feature) == 0)
        return sum;
    const ExtBlocks blocks(source_, geometry_);
    for (std::uint64_t index = 0; index < control.length; ++index)
        sum = ExtChecksums::crc32(
            sum, blocks.readCopy({ offsetOf(wrap(position + index)), false }));
    return sum;
}

/// Whether the commit at this place has the checksum of its transaction, or none of version 1.
bool ExtJournal::isVouchedFor(std::uint32_t position, std::uint32_t sum) const
{
    if ((superblock_->compatible & checksum1Feature) == 0 || hasChecksums())
        return true;
    const auto block = source_.read(
        offsetOf(position), static_cast<std::int64_t>(sizeof(Commit)), ReadMode::thorough);
    const auto commit = ByteView(block).load<Commit>(0).value_or(Commit {});
    return commit.checksumType != crc32Type || commit.checksums[0] == sum;
}

ExtBlocks::Overlay ExtJournal::replay()
{
    ExtBlocks::Overlay overlay;
    if (!superblock_)
        return overlay;
    next_ = superblock_->sequence;
    if (superblock_->start == 0)
        return overlay;
    struct Write {
        const ExtJournalCopy* copy;
    };
    std::vector<Write> writes; // of whole transactions, in their order
    std::map<std::uint64_t, ExtSequence> revokedIn;
    std::vector<Write> pending;
    std::vector<std::uint64_t> revoked;
    ExtSequence sequence = superblock_->sequence;
    std::uint32_t position = superblock_->start;
    std::uint32_t sum = ExtChecksums::start;
    for (std::uint32_t passed = 0; passed < blockCount_;) {
        const auto found = controls_.find(position);
        if (found == controls_.end() || found->second.sequence != sequence)
            break;
        const auto& control = found->second;
        bool isWhole = true;
        for (std::size_t index = 0; index < control.claimCount && isWhole; ++index) {
            const auto& claim = claims_[control.firstClaim + index];
            isWhole = isIntact(claim);
            pending.push_back({ &claim.copy });
        }
        sum = isWhole ? sumWith(sum, position, control) : sum;
        if (!isWhole || (control.type == commitType && !isVouchedFor(position, sum)))
            break;
        const auto first = revoked_.begin() + static_cast<std::ptrdiff_t>(control.firstRevoked);
        revoked.insert(
            revoked.end(), first, first + static_cast<std::ptrdiff_t>(control.revokedCount));
        if (control.type == commitType) {
            writes.insert(writes.end(), pending.begin(), pending.end());
            for (const auto block : revoked)
                revokedIn[block] = sequence;
            pending.clear();
            revoked.clear();
            sum = ExtChecksums::start;
            ++sequence;
        }
        passed += control.length;
        position = wrap(std::uint64_t { position } + control.length);
    }
    next_ = sequence;
    for (const auto& write : writes) {
        const auto revocation = revokedIn.find(write.copy->block);
        if (write.copy->block < geometry_.blockCount
            && (revocation == revokedIn.end() || revocation->second < write.copy->sequence))
            overlay.insert_or_assign(
                write.copy->block, ExtBlockCopy { write.copy->offset, write.copy->isEscaped });
    }
    return overlay;
}

Bytes ExtJournal::fastCommitBlock(std::uint32_t index) const
{
    const auto position = std::uint64_t { logEnd() } + 1 + index;
    if (!hasFeature(fastCommitFeature) || position >= blockCount_)
        return {};
    return source_.read(
        offsetOf(static_cast<std::uint32_t>(position)), geometry_.blockSize, ReadMode::thorough);
}

#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/JPEGBits.h"
#include "VintrelCore/Content/JPEGFrame.h"
#include "VintrelCore/Content/JPEGRefinement.h"

#include <algorithm>
#include <cstdlib>

// ITU-T T.81: Annex B for the segments, Annexes F and G for what is decoded of a scan.

namespace Content {

namespace {

using namespace JPEG;

constexpr std::uint32_t mostComponents = 4;

/// Follows the segments of a picture, and every code of its scans. Of the values only those of the
/// means of blocks (DC) are kept, for one row of the picture: wrong ones leave the range that eight
/// bits a sample allow, or show as a step between rows. Of a progressive picture it is also kept
/// which coefficients are not zero.
class JPEGChecker final : public Checker {
public:
    JPEGChecker() = default;
    JPEGChecker& operator=(const JPEGChecker&) = delete;
    ~JPEGChecker() override = default;

    std::unique_ptr<Checker> copy() const override
    {
        return std::unique_ptr<Checker>(new JPEGChecker(*this));
    }
    void advance(FileBytes& file) override;
    const Finding& finding() const override { return finding_; }

private:
    enum class Step : std::uint8_t { done, waits, contradiction };

    JPEGChecker(const JPEGChecker&) = default;

    Step readSegment(ByteReader& bytes);
    Step readEnd();
    Step beginScan(ByteView segment);
    Step readScan(ByteReader& bytes);
    Step skipScan(ByteReader& bytes);
    Step endScan(ByteReader& bytes);
    Step readRestart(ByteReader& bytes);
    BitState decodeUnit(ByteReader& bytes);
    BitState decodeBlock(ByteReader& bytes, const ScanComponent& component);
    BitState decodeDC(ByteReader& bytes, const ScanComponent& component);
    BitState decodeAC(ByteReader& bytes, const ScanComponent& component);
    BitState decodeMoreAC(ByteReader& bytes, const ScanComponent& component);
    void compareWithRowAbove();

    /// What decoding a unit changes, to go back to where the bytes run out inside it.
    struct Coding {
        BitReader bits;
        std::array<std::int32_t, mostComponents> means {}; ///< DC values, before the shift
        std::uint32_t blocksToSkip = 0;                    ///< of a run of ends of blocks (G.1.2.2)
    };

    Finding finding_;
    std::shared_ptr<const Settings> settings_ = std::make_shared<const Settings>();
    std::shared_ptr<const Scan> scan_; ///< none between scans
    Coding coding_;
    std::uint64_t position_ = 0; ///< of the next segment; in a scan the bits know
    std::uint64_t unit_ = 0;
    std::uint64_t restartAt_ = 0; ///< the unit in front of which the next restart is; 0: none
    std::uint64_t unitsCompared_ = 0;
    double sumOfSteps_ = 0;
    std::uint8_t nextRestart_ = firstRestart;
    std::uint8_t scanned_ = 0; ///< a bit for each component of which a scan was read
    std::vector<std::int16_t> rowAbove_;
    std::array<std::int16_t, mostComponents> lowestMeans_ {}; ///< of the unit's lowest blocks
    std::array<std::int16_t, mostComponents> topMeans_ {};
    std::array<CoefficientMap, mostComponents> coefficients_; ///< of a progressive picture
};

void JPEGChecker::advance(FileBytes& file)
{
    ByteReader bytes(file);
    while (!finding_.brokenAt && !finding_.length) {
        const auto step = scan_ == nullptr ? readSegment(bytes) : readScan(bytes);
        const auto reached = scan_ == nullptr ? position_ : coding_.bits.position();
        finding_.checked = std::max(finding_.checked, std::min(reached, file.size()));
        if (step == Step::contradiction)
            finding_.brokenAt
                = std::max(finding_.firm, std::min(std::max(reached, bytes.end()), file.size()));
        if (step != Step::waits)
            continue;
        if (file.isWhole())
            finding_.brokenAt = file.size();
        return;
    }
}

JPEGChecker::Step JPEGChecker::readSegment(ByteReader& bytes)
{
    constexpr std::uint64_t mostFill = 64; // FFs in front of a marker
    const auto first = bytes.at(position_);
    const auto marker = bytes.at(position_ + 1);
    if (!first || !marker)
        return Step::waits;
    if (position_ == 0) {
        position_ = 2;
        return *first == escape && *marker == startOfImage ? Step::done : Step::contradiction;
    }
    if (*first != escape)
        return Step::contradiction;
    if (*marker == escape) {
        ++position_;
        return position_ > finding_.firm + mostFill ? Step::contradiction : Step::done;
    }
    if (*marker == endOfImage)
        return readEnd();
    if (*marker < baselineFrame || (*marker >= firstRestart && *marker <= startOfImage))
        return Step::contradiction;
    const auto high = bytes.at(position_ + 2);
    const auto low = bytes.at(position_ + 3);
    if (!high || !low)
        return Step::waits;
    const std::size_t length = *high * 256U + *low; // its own two bytes included
    if (length < 2)
        return Step::contradiction;
    if (!bytes.at(position_ + 1 + length))
        return Step::waits;
    // That a marker stands here vouches for the length of the segment before it.
    finding_.firm = position_;
    const auto segment = bytes.copyOf(position_ + 4, length - 2);
    if (*marker == startOfScan) {
        position_ += 2 + length;
        return beginScan(segment);
    }
    auto settings = std::make_shared<Settings>(*settings_);
    if (!settings->take(*marker, segment))
        return Step::contradiction;
    settings_ = std::move(settings);
    position_ += 2 + length;
    return Step::done;
}

JPEGChecker::Step JPEGChecker::readEnd()
{
    const auto* const frame = settings_->frame.get();
    const bool hasAll = frame != nullptr && scanned_ == (1U << frame->components.size()) - 1;
    if (!hasAll)
        return Step::contradiction;
    position_ += 2;
    finding_.length = position_;
    finding_.checked = position_;
    finding_.proof = frame->isProgressive() ? Proof::chain : Proof::decoded;
    return Step::done;
}

JPEGChecker::Step JPEGChecker::beginScan(ByteView segment)
{
    constexpr std::uint64_t mostUnits = 1U << 24; // 4 gigapixels in units of 16 x 16
    const auto scan = Scan::from(segment, *settings_);
    if (!scan || scan->units > mostUnits)
        return Step::contradiction;
    for (const auto& component : scan->components) {
        const auto bit = static_cast<std::uint8_t>(1U << component.index);
        if (!settings_->frame->isProgressive() && (scanned_ & bit) != 0)
            return Step::contradiction;
        scanned_ |= bit;
    }
    finding_.firm = position_;
    auto known = std::make_shared<Scan>(*scan);
    if (scan->kind == ScanKind::moreAC && scan->units > CoefficientMap::mostBlocks)
        known->kind = ScanKind::skipped;
    scan_ = std::move(known);
    coding_ = {};
    coding_.bits.moveTo(position_);
    unit_ = 0;
    restartAt_ = scan_->restartInterval;
    nextRestart_ = firstRestart;
    rowAbove_.clear();
    return Step::done;
}

JPEGChecker::Step JPEGChecker::readScan(ByteReader& bytes)
{
    if (scan_->kind == ScanKind::skipped)
        return skipScan(bytes);
    while (unit_ < scan_->units) {
        if (restartAt_ == unit_ && restartAt_ != 0)
            if (const auto step = readRestart(bytes); step != Step::done)
                return step;
        const auto before = coding_;
        const auto state = decodeUnit(bytes);
        if (state == BitState::runOut) {
            coding_ = before;
            return Step::waits;
        }
        if (state == BitState::wrong)
            return Step::contradiction;
        if (scan_->kind == ScanKind::wholeBlocks || scan_->kind == ScanKind::firstDC)
            compareWithRowAbove();
        ++unit_;
    }
    return endScan(bytes);
}

/// A scan of which too much would have to be remembered ends at the next marker.
JPEGChecker::Step JPEGChecker::skipScan(ByteReader& bytes)
{
    auto& bits = coding_.bits;
    for (;;) {
        bits.drop();
        bits.fill(bytes);
        if (!bits.isAtMarker() && bits.isEmpty())
            return Step::waits;
        if (!bits.isAtMarker())
            continue;
        bits.drop();
        const auto marker = bytes.at(bits.position() + 1);
        if (!marker)
            return Step::waits;
        if (*marker < firstRestart || *marker > lastRestart)
            break;
        bits.moveTo(bits.position() + 2);
    }
    position_ = bits.position();
    scan_.reset();
    return Step::done;
}

JPEGChecker::Step JPEGChecker::endScan(ByteReader& bytes)
{
    auto& bits = coding_.bits;
    bits.fill(bytes);
    if (coding_.blocksToSkip != 0 || bits.count() >= 8 || !bits.areAllOnes())
        return Step::contradiction;
    if (!bits.isAtMarker())
        return bits.hasRunOut(bytes) ? Step::waits : Step::contradiction;
    position_ = bits.position();
    scan_.reset();
    return Step::done;
}

JPEGChecker::Step JPEGChecker::readRestart(ByteReader& bytes)
{
    auto& bits = coding_.bits;
    bits.fill(bytes);
    if (coding_.blocksToSkip != 0 || bits.count() >= 8 || !bits.areAllOnes())
        return Step::contradiction;
    if (!bits.isAtMarker())
        return bits.hasRunOut(bytes) ? Step::waits : Step::contradiction;
    if (bytes.at(bits.position() + 1) != nextRestart_)
        return Step::contradiction;
    nextRestart_ = nextRestart_ == lastRestart ? std::uint8_t { firstRestart }
                                               : static_cast<std::uint8_t>(nextRestart_ + 1);
    finding_.firm = bits.position();
    coding_ = { .bits = {}, .means = {}, .blocksToSkip = 0 };
    coding_.bits.moveTo(finding_.firm + 2);
    restartAt_ += scan_->restartInterval;
    return Step::done;
}

BitState JPEGChecker::decodeUnit(ByteReader& bytes)
{
    for (const auto& component : scan_->components) {
        // The first block of the lowest row of blocks, which the next unit below lies against.
        const auto& place = settings_->frame->components[component.index];
        const auto lowest
            = component.blocks == 1 ? 0U : std::uint32_t { place.across } * (place.down - 1U);
        for (std::uint32_t block = 0; block < component.blocks; ++block) {
            if (const auto state = decodeBlock(bytes, component); state != BitState::good)
                return state;
            const auto mean = static_cast<std::int16_t>(std::clamp(
                coding_.means[component.index] * int { component.dcStep } * (1 << scan_->shift),
                INT16_MIN, INT16_MAX));
            if (block == 0)
                topMeans_[component.index] = mean;
            if (block == lowest)
                lowestMeans_[component.index] = mean;
        }
    }
    return BitState::good;
}

BitState JPEGChecker::decodeBlock(ByteReader& bytes, const ScanComponent& component)
{
    if (scan_->kind == ScanKind::moreDC)
        return coding_.bits.take(bytes, 1).state;
    if (scan_->kind == ScanKind::moreAC)
        return decodeMoreAC(bytes, component);
    if (scan_->firstCoefficient == 0)
        if (const auto state = decodeDC(bytes, component); state != BitState::good)
            return state;
    return scan_->kind == ScanKind::firstDC ? BitState::good : decodeAC(bytes, component);
}

BitState JPEGChecker::decodeDC(ByteReader& bytes, const ScanComponent& component)
{
    constexpr int mostSize = 11;
    // What 64 samples of -128 give (A.3.3), and some more: coders that round differently.
    constexpr std::int64_t mostMean = 1024 + 128;
    const auto size = coding_.bits.symbol(bytes, *component.dc);
    if (size.state != BitState::good)
        return size.state;
    if (size.value > mostSize)
        return BitState::wrong;
    const auto difference = coding_.bits.number(bytes, size.value);
    if (difference.state != BitState::good)
        return difference.state;
    auto& mean = coding_.means[component.index];
    mean += difference.value;
    const std::int64_t step = component.dcStep;
    const auto value = std::abs(std::int64_t { mean } * step * (1 << scan_->shift));
    return value <= mostMean + step * (1 << scan_->shift) ? BitState::good : BitState::wrong;
}

BitState JPEGChecker::decodeAC(ByteReader& bytes, const ScanComponent& component)
{
    constexpr int mostSize = 10;
    constexpr int longRun = 15; // of zeros, without a value behind
    if (coding_.blocksToSkip != 0) {
        --coding_.blocksToSkip;
        return BitState::good;
    }
    const bool hasRunsOfBlocks = scan_->kind == ScanKind::firstAC;
    const bool isRemembered = hasRunsOfBlocks && unit_ < CoefficientMap::mostBlocks;
    auto& map = coefficients_[component.index];
    for (int at = std::max<int>(scan_->firstCoefficient, 1); at <= scan_->lastCoefficient; ++at) {
        const auto symbol = coding_.bits.symbol(bytes, *component.ac);
        if (symbol.state != BitState::good)
            return symbol.state;
        const int run = symbol.value >> 4;
        const int size = symbol.value & 15;
        if (size == 0 && run != longRun) {
            if (!hasRunsOfBlocks)
                return run == 0 ? BitState::good : BitState::wrong;
            const auto more = coding_.bits.take(bytes, run);
            coding_.blocksToSkip = (1U << run) + static_cast<std::uint32_t>(more.value) - 1;
            return more.state;
        }
        at += run;
        if (at > scan_->lastCoefficient || size > mostSize)
            return BitState::wrong;
        if (const auto value = coding_.bits.take(bytes, size); value.state != BitState::good)
            return value.state;
        if (isRemembered && size != 0)
            map.set(unit_, map.at(unit_) | std::uint64_t { 1 } << at);
    }
    return BitState::good;
}

BitState JPEGChecker::decodeMoreAC(ByteReader& bytes, const ScanComponent& component)
{
    auto& map = coefficients_[component.index];
    auto block = map.at(unit_);
    Refinement refinement(coding_.bits, bytes, block);
    const auto state = refinement.decode(
        *component.ac, scan_->firstCoefficient, scan_->lastCoefficient, coding_.blocksToSkip);
    // A block that is read again when more bytes are there begins with what was known before it.
    if (state == BitState::good)
        map.set(unit_, block);
    return state;
}

/// A step between a block and the one above it is small in most of a picture. Where a wrong piece
/// begins it is large for a whole row.
void JPEGChecker::compareWithRowAbove()
{
    constexpr double memory = 24; // units that count
    const auto column = static_cast<std::size_t>(unit_ % scan_->unitsAcross);
    const auto count = scan_->components.size();
    if (rowAbove_.empty())
        rowAbove_.resize(std::size_t { scan_->unitsAcross } * count);
    double step = 0;
    for (std::size_t i = 0; i < count; ++i) {
        auto& above = rowAbove_[column * count + i];
        const auto index = scan_->components[i].index;
        step += std::abs(topMeans_[index] - above);
        above = lowestMeans_[index];
    }
    if (unit_ < scan_->unitsAcross)
        return;
    ++unitsCompared_;
    sumOfSteps_ += step;
    finding_.usualRoughness = sumOfSteps_ / static_cast<double>(unitsCompared_);
    const auto weight = std::min(memory, static_cast<double>(unitsCompared_));
    finding_.roughness += (step - finding_.roughness) / weight;
}

} // namespace

std::unique_ptr<Checker> Formats::jpeg() { return std::make_unique<JPEGChecker>(); }

} // namespace Content

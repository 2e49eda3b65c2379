#include "VintrelCLI/CommandLine.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/DiskListing.h"
#include "VintrelCLI/Signals.h"
#include "VintrelCLI/StateLine.h"
#include "VintrelCLI/TreeListing.h"
#include "VintrelCLI/WriteSignals.h"
#include "VintrelCore/Devices/DeviceStack.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Recovery/Recovery.h"
#include "VintrelCore/Scanning/FullScan.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <ostream>
#include <stdexcept>
#include <unistd.h>

namespace {

using Arguments = std::span<const std::string>;

constexpr std::string_view usage = R"(vintrel-cli – datagendannelse fra kommandolinjen

  vintrel-cli list                          Vis tilsluttede diske
  vintrel-cli scan <kilde>                  Hurtig scanning (partitioner og filsystemer)
  vintrel-cli tree <kilde> [--deep]         Vis alle fundne filer
  vintrel-cli deep <kilde> [--no-carve]     Dyb scanning (tabte partitioner + signaturer)
  vintrel-cli recover <kilde> <mappe> [--deep] [--deleted]
                                            Gendan filer til <mappe>
  vintrel-cli image <kilde> <fil.img>       Lav et diskbillede (ddrescue-strategi)

<kilde> er en billedfil eller et disknavn som disk4.
)";

constexpr std::size_t maxFailureLines = 10;
constexpr std::chrono::seconds imagingLineInterval { 1 };

/// What a command works with.
struct Session {
    Arguments arguments; ///< the command word first
    std::ostream& out;
    std::ostream& err;
    StateLine& state;
    WorkProgress progress; ///< of every operation; shown by `state` alone
    std::unique_ptr<DiskSource> source;
    std::string reached {};     ///< Danish: how far the command has come, for when it is stopped
    SystemError outputError {}; ///< why the first line that could not be printed was lost

    bool has(std::string_view option) const { return std::ranges::count(arguments, option) != 0; }

    /// Each line leaves in one write, so that it is seen at once and whole.
    void print(std::string line)
    {
        write(out, std::move(line));
        noteOutput();
    }
    /// To be called at once after something was written to `out`.
    void noteOutput()
    {
        if (!out && !outputError)
            outputError = SystemError::last();
    }
    void complain(std::string line) const { write(err, std::move(line)); }

private:
    void write(std::ostream& stream, std::string line) const
    {
        state.clear();
        line += '\n';
        stream.write(line.data(), static_cast<std::streamsize>(line.size())).flush();
    }
};

std::string number(std::uint64_t value) { return std::to_string(value); }

std::unique_ptr<DiskSource> open(const std::string& name)
{
    std::error_code error;
    const bool isDeviceName = name.starts_with("disk") && !std::filesystem::exists(name, error);
    auto source
        = isDeviceName ? SourceOpener::openDevice(name, name) : SourceOpener::openImage(name);
    return source;
}

/// A variable that was left over from an experiment would make a healthy disk look damaged.
void simulateDamage(const Session& session)
{
    const char* const text = std::getenv("VINTREL_SIMULATE_BAD");
    const auto ranges = parseByteRanges(text != nullptr ? text : "");
    for (const auto& range : ranges)
        session.source->addSimulatedBadRange(range);
    if (!ranges.empty())
        session.complain("Advarsel: VINTREL_SIMULATE_BAD er sat. Det, den nævner, regnes som "
                         "ulæseligt.");
}

/// An image of a failing disk holds zeros where nothing was rescued. Where its mapfile lies beside
/// it they count as what they are: unreadable.
void markHolesOfImage(const Session& session)
{
    auto& source = *session.source;
    const auto map = source.isDevice()
        ? nullptr
        : RangeMap::readWhole(RangeMap::pathFor(source.path()), source.size());
    const auto finished = map ? map->total(RangeMap::Status::finished) : source.size();
    if (finished == source.size())
        return;
    for (const auto& block : map->snapshot())
        if (block.status != RangeMap::Status::finished)
            source.addSimulatedBadRange({ block.position, block.end() });
    session.complain("Advarsel: " + Unicode::escaped(source.displayName())
        + " er et ufuldstændigt diskbillede. Efter "
        + Unicode::escaped(RangeMap::pathFor(source.displayName())) + " mangler "
        + formatBytes(source.size() - finished) + " af " + formatBytes(source.size())
        + ". Det regnes som ulæseligt.");
}

/// What the deep scan of a command looks for; none when the command wants no deep scan.
std::optional<DeepScanOptions> deepScanByOption(const Session& session)
{
    return session.has("--deep") ? std::optional(DeepScanOptions()) : std::nullopt;
}

std::string describe(const DeepScanResult& finds)
{
    std::string text;
    for (const auto& kind : findCounts(finds))
        text.append(text.empty() ? "Dyb scanning: " : ", ")
            .append(number(kind.count))
            .append(" ")
            .append(kind.words);
    return text;
}

/// What the tables of the source name, and with a deep scan what is found beyond them.
VolumeList allVolumes(Session& session, const std::optional<DeepScanOptions>& deep)
{
    session.reached = "Den hurtige scanning blev ikke færdig.";
    FullScan::Listener listener;
    listener.quickScanDone = [&](const std::vector<std::string>& notes) {
        for (const auto& note : notes)
            session.print("! " + Unicode::escaped(note));
    };
    listener.sweeping = [&](const DeepScanStats& stats) {
        session.state.show([&] { return StateLine::describe(stats); });
    };
    listener.sweepDone = [&](const DeepScanResult& finds) {
        session.print(describe(finds));
        session.reached = "Den dybe scanning nåede " + formatBytes(finds.scannedUpTo) + " af "
            + formatBytes(session.source->size()) + ".";
    };
    const FullScan::Options options { .deep = deep, .fragments = session.has("--fragments") };
    auto volumes = FullScan::run(*session.source, options, &session.progress, listener);
    if (volumes.empty() && !deep && !session.progress.isCancelled())
        session.complain("Der blev ikke fundet noget filsystem, der kan læses. En dyb scanning "
                         "(--deep) kan finde mere.");
    return volumes;
}

void list(Session& session)
{
    printDisks(DiskList::load(), session.out);
    session.noteOutput();
}

/// What is written to the disk that is read may take the place of what is to be recovered.
void warnOfDestination(const Session& session)
{
    const auto& destination = session.arguments[2];
    if (DeviceStack::holds(*session.source, destination))
        session.complain("Advarsel: " + Unicode::escaped(destination)
            + " ligger på den disk, der læses (" + Unicode::escaped(session.source->displayName())
            + "). Det, der skrives, kan overskrive det, der skal gendannes.");
}

void scan(Session& session)
{
    auto& source = *session.source;
    session.print(Unicode::escaped(source.displayName()) + ": " + formatBytes(source.size())
        + ", sektor " + number(source.sectorSize()) + " B");
    session.reached = "Den hurtige scanning blev ikke færdig.";
    const auto result = QuickScanner::run(source, &session.progress);
    session.print("Partitionering: " + result.layout.scheme);
    for (const auto& entry : result.layout.entries)
        session.print("  #" + number(static_cast<std::uint64_t>(entry.index)) + " " + entry.typeName
            + " @ " + number(entry.offset) + " " + formatBytes(entry.size) + " "
            + std::string(displayName(entry.detected.value_or(FileSystemType::unknown))));
    for (const auto& note : result.notes)
        session.print("! " + Unicode::escaped(note));
    for (const auto& volume : result.volumes) {
        const auto totals = volume->root->totals();
        session.print("  " + Unicode::escaped(volume->title()) + ": " + number(totals.files)
            + " filer, " + number(totals.folders) + " mapper, " + number(totals.deleted)
            + " slettede, " + formatBytes(totals.bytes));
        for (const auto& note : volume->notes)
            session.print("     note: " + Unicode::escaped(note));
    }
}

void tree(Session& session)
{
    for (const auto& volume : allVolumes(session, deepScanByOption(session))) {
        printTree(*volume, session.out);
        session.noteOutput();
    }
}

void deep(Session& session)
{
    DeepScanOptions options;
    options.carve = !session.has("--no-carve");
    for (const auto& volume : allVolumes(session, options)) {
        const auto totals = volume->root->totals();
        session.print(Unicode::escaped(volume->title()) + " [" + Unicode::escaped(volume->origin)
            + "] @ " + number(volume->offset) + ": " + number(totals.files) + " filer, "
            + number(totals.deleted) + " slettede/fundne");
    }
}

void recover(Session& session)
{
    warnOfDestination(session);
    std::int64_t copied = 0; // files
    for (const auto& volume : allVolumes(session, deepScanByOption(session))) {
        if (session.progress.isCancelled())
            break;
        std::vector<FileNode*> nodes;
        if (session.has("--deleted")) {
            nodes = volume->root->allFiles();
            std::erase_if(
                nodes, [](const FileNode* node) { return node->status == EntryStatus::existing; });
        } else {
            for (const auto& child : volume->root->children())
                nodes.push_back(child.get());
        }
        const auto reporter = [&, start = StateLine::Clock::now()](const RecoveryProgress& done) {
            session.state.show(
                [&] { return StateLine::describe(done, StateLine::Clock::now() - start); });
        };
        const auto result = RecoveryEngine::recover(nodes, volume->title(), *session.source,
            session.arguments[2], {}, reporter, session.progress);
        copied += result.recovered + result.withErrors;
        session.reached = "Gendannelsen nåede " + std::to_string(copied) + " filer.";
        session.print(Unicode::escaped(volume->title()) + ": " + std::to_string(result.recovered)
            + " gendannet, " + std::to_string(result.withErrors) + " med fejl, "
            + std::to_string(result.failed) + " mislykkedes → "
            + Unicode::escaped(result.folder.value_or("-")));
        for (std::size_t i = 0; i < std::min(result.failures.size(), maxFailureLines); ++i)
            session.print("   " + Unicode::escaped(result.failures[i]));
        if (result.isDestinationFull)
            break;
    }
}

void image(Session& session)
{
    using Clock = std::chrono::steady_clock;
    warnOfDestination(session);
    DiskImager imager(*session.source, session.arguments[2]);
    std::optional<Clock::time_point> lastLine;
    const auto print = [&](const ImagingStats& stats) {
        if (session.progress.isCancelled())
            imager.cancel();
        const auto line = [&] {
            return stats.phase + ": " + formatBytes(stats.rescued) + " reddet, "
                + formatBytes(stats.bad) + " dårlige, " + formatBytes(stats.pending) + " tilbage";
        };
        if (!stats.finished)
            session.state.show(line);
        const auto now = Clock::now();
        if (lastLine && now - *lastLine <= imagingLineInterval && !stats.finished)
            return;
        lastLine = now;
        session.print(line());
    };
    imager.run(print, [&](const std::string& warning) {
        session.complain("Advarsel: " + Unicode::escaped(warning) + ".");
    });
    if (const auto message = imager.currentStats().message)
        session.print(Unicode::escaped(*message));
}

struct Command {
    std::string_view word;
    std::size_t needed; ///< arguments, the word among them
    void (*perform)(Session&);
    bool readsSource;
    bool tellsThatItWasStopped; ///< in words of its own, or does not last
    /// What a command copies is worth more than what it prints.
    WriteSignals::BrokenPipe brokenPipe = WriteSignals::BrokenPipe::endsProgram;
};

constexpr Command commands[] = {
    { "list", 1, list, false, true },
    { "scan", 2, scan, true, false },
    { "tree", 2, tree, true, false },
    { "deep", 2, deep, true, false },
    { "recover", 3, recover, true, false, WriteSignals::BrokenPipe::failsWrite },
    { "image", 3, image, true, true, WriteSignals::BrokenPipe::failsWrite },
};

/// The exit status of a command that has ended. What a signal ended must not pass for the whole
/// result, neither with a reader nor with a script.
int statusOf(const Command& command, const Session& session)
{
    const auto signal = SignalCancellation::received();
    const bool hasSourceLeft = session.source && session.source->hasLeft();
    if (hasSourceLeft)
        session.complain("Advarsel: " + Unicode::escaped(session.source->displayName())
            + " svarer ikke længere, og læsningen blev stoppet.");
    if ((!signal && !hasSourceLeft) || command.tellsThatItWasStopped)
        return exitDone;
    session.complain("Stoppet: resultatet er ufuldstændigt. " + session.reached);
    return signal ? exitBySignal + *signal : exitNoSource;
}

int endWithoutMemory(const Session& session)
{
    session.complain("Fejl: " + SystemError(ENOMEM).message() + ". Resultatet er ufuldstændigt. "
        + session.reached);
    return exitOutOfMemory;
}

/// Opens the source that the command wants and performs it. Returns the exit status.
int perform(const Command& command, Session& session)
{
    try {
        if (command.readsSource) {
            session.source = open(session.arguments[1]);
            session.source->whenLeaving([&session] { session.progress.cancel(); });
            simulateDamage(session);
            markHolesOfImage(session);
        }
        command.perform(session);
    } catch (const SourceError& error) {
        session.complain("Fejl: " + Unicode::escaped(error.what()));
        return exitNoSource;
    } catch (const std::bad_alloc&) {
        return endWithoutMemory(session);
    } catch (const std::length_error&) { // more than any memory holds was asked for
        return endWithoutMemory(session);
    }
    return statusOf(command, session);
}

} // namespace

int run(std::span<const std::string> arguments, std::ostream& out, std::ostream& err)
{
    const auto* const command = arguments.empty()
        ? std::end(commands)
        : std::ranges::find(commands, arguments[0], &Command::word);
    if (command == std::end(commands) || arguments.size() < command->needed) {
        out << usage << std::flush;
        return exitUsage;
    }
    StateLine state(
        err, std::ranges::count(arguments, "--progress") != 0 && ::isatty(STDERR_FILENO));
    const auto show = [&state](double fraction, const std::string& message) {
        state.show([&] { return StateLine::describe(fraction, message); });
    };
    Session session { .arguments = arguments,
        .out = out,
        .err = err,
        .state = state,
        .progress = WorkProgress(show),
        .source = nullptr };
    const StateRequests requests;
    const SignalCancellation cancellation(session.progress);
    const WriteSignals writeSignals(command->brokenPipe);
    const int status = perform(*command, session);
    if (session.outputError)
        session.complain("Advarsel: ikke alt kunne skrives ud: " + session.outputError.message());
    return status;
}

std::vector<ByteRange> parseByteRanges(std::string_view text)
{
    const auto split = [](std::string_view whole, char separator) {
        std::vector<std::string_view> pieces;
        while (!whole.empty()) {
            const auto piece = whole.substr(0, whole.find(separator));
            whole.remove_prefix(std::min(piece.size() + 1, whole.size()));
            if (!piece.empty())
                pieces.push_back(piece);
        }
        return pieces;
    };

    std::vector<ByteRange> ranges;
    for (const auto piece : split(text, ',')) {
        std::vector<std::uint64_t> numbers;
        for (const auto part : split(piece, '-')) {
            if (const auto value = Text::number(part))
                numbers.push_back(*value);
        }
        if (numbers.size() == 2 && numbers[0] < numbers[1])
            ranges.push_back({ numbers[0], numbers[1] });
    }
    return ranges;
}

#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/Commands.h"
#include "VintrelCLI/Session.h"
#include "VintrelCLI/VolumeSearch.h"
#include "VintrelCore/Devices/DeviceStack.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <chrono>
#include <vector>

namespace {

constexpr std::chrono::seconds imagingLineInterval { 1 };

/// What is written to the disk that is read may take the place of what is to be recovered.
void warnOfDestination(const Session& session)
{
    const auto& destination = session.arguments[2];
    if (DeviceStack::holds(*session.source, destination))
        session.console.complain("Advarsel: " + Unicode::escaped(destination)
            + " ligger på den disk, der læses (" + Unicode::escaped(session.source->displayName())
            + "). Det, der skrives, kan overskrive det, der skal gendannes.");
}

/// What of a volume the options ask for.
std::vector<FileNode*> chosenNodes(const Session& session, const Volume& volume)
{
    if (session.has("--deleted")) {
        auto nodes = volume.root->allFiles();
        std::erase_if(
            nodes, [](const FileNode* node) { return node->status == EntryStatus::existing; });
        return nodes;
    }
    std::vector<FileNode*> nodes;
    for (const auto& child : volume.root->children())
        nodes.push_back(child.get());
    return nodes;
}

} // namespace

void Commands::recover(Session& session)
{
    warnOfDestination(session);
    std::int64_t copied = 0; // files
    for (const auto& volume : allVolumes(session, deepScanByOption(session))) {
        if (session.progress.isCancelled())
            break;
        const auto nodes = chosenNodes(session, *volume);
        const auto reporter = [&, start = StateLine::Clock::now()](const RecoveryProgress& done) {
            session.console.state().show(
                [&] { return StateLine::describe(done, StateLine::Clock::now() - start); });
        };
        RecoveryOptions options;
        options.fileDone = session.output.fileListener();
        const auto result = RecoveryEngine::recover(nodes, volume->title(), *session.source,
            session.arguments[2], options, reporter, session.progress);
        copied += result.recovered + result.withErrors;
        session.reached = "Gendannelsen nåede " + std::to_string(copied) + " filer.";
        session.output.recovered(*volume, result);
        if (result.isDestinationFull)
            break;
    }
}

void Commands::image(Session& session)
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
            session.console.state().show(line);
        const auto now = Clock::now();
        if (lastLine && now - *lastLine <= imagingLineInterval && !stats.finished)
            return;
        lastLine = now;
        session.console.print(line());
    };
    imager.run(print, [&](const std::string& warning) {
        session.console.complain("Advarsel: " + Unicode::escaped(warning) + ".");
    });
    if (const auto message = imager.currentStats().message)
        session.console.print(Unicode::escaped(*message));
}

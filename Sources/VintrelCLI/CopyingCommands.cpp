#include "VintrelCLI/Advice.h"
#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/Commands.h"
#include "VintrelCLI/Session.h"
#include "VintrelCLI/VolumeSearch.h"
#include "VintrelCore/Devices/DeviceStack.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Imaging/DamagePicture.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <chrono>
#include <filesystem>
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

/// Draws what an imaging run did, however it ended.
void writeImagePage(const Session& session, const DiskImager& imager)
{
    const auto& image = session.arguments[2];
    if (imager.currentStats().total == 0) // no image could be made
        return;
    const auto page = DamagePicture::pathFor(image);
    const auto name = std::filesystem::path(image).filename().string();
    if (const auto error = DamagePicture::writePage(page, name, imager.map()))
        session.console.complain(
            "Advarsel: kunne ikke skrive siden " + Unicode::escaped(page) + ": " + error.message());
    else
        session.console.print("Side: " + Unicode::escaped(page));
}

} // namespace

void Commands::recover(Session& session)
{
    warnOfDestination(session);
    std::int64_t copied = 0;  // files
    std::uint64_t number = 0; // of the volume
    bool hasChosen = false;
    for (const auto& volume : allVolumes(session, deepScanByOption(session))) {
        if (session.progress.isCancelled())
            break;
        if (!session.selection.takesVolume(++number))
            continue;
        const auto nodes = session.selection.nodes(*volume);
        if (nodes.empty() && session.selection.isNarrowed())
            continue;
        hasChosen = true;
        const auto reporter = [&, start = StateLine::Clock::now()](const RecoveryProgress& done) {
            session.console.state().show(
                [&] { return StateLine::describe(done, StateLine::Clock::now() - start); });
        };
        RecoveryOptions options;
        options.streams = session.options.has("--streams");
        options.onlyReport = session.options.has("--list-only");
        options.writePage = session.options.has("--page");
        if (options.writePage && session.sourceMap)
            options.pageDamage = DamagePicture::section(*session.sourceMap);
        options.fileDone = session.output.recovering(*volume);
        const auto result = RecoveryEngine::recover(nodes, volume->title(), *session.source,
            session.arguments[2], options, reporter, session.progress);
        copied += result.recovered + result.withErrors;
        session.reached = "Gendannelsen nåede " + std::to_string(copied) + " filer.";
        session.output.recovered(*volume, result);
        if (options.writePage && !result.page)
            session.console.complain("Advarsel: siden Gendannet.html kunne ikke laves.");
        if (const auto advice = Advice::after(result); !advice.empty())
            session.console.complain(std::string(advice));
        if (result.isDestinationFull)
            break;
    }
    if (!hasChosen && session.selection.isNarrowed())
        session.console.complain("Ingen fil passer til det, der er valgt. »vintrel-cli tree« viser "
                                 "volumener, stier og chancer.");
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
    const auto advice = Advice::after(imager.currentStats(), session.progress.isCancelled());
    if (!advice.empty())
        session.console.complain(std::string(advice));
    if (session.options.has("--page"))
        writeImagePage(session, imager);
}

#include "VintrelCLI/VolumeSearch.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/KeptToTheEnd.h"
#include "VintrelCLI/Session.h"
#include "VintrelCore/Scanning/FullScan.h"

std::optional<DeepScanOptions> deepScanByOption(const Session& session)
{
    if (!session.options.has("--deep"))
        return std::nullopt;
    return DeepScanOptions { .findTexts = session.options.has("--text") };
}

const VolumeList& allVolumes(Session& session, const std::optional<DeepScanOptions>& deep)
{
    session.reached = "Den hurtige scanning blev ikke færdig.";
    FullScan::Listener listener;
    listener.quickScanDone = [&](const QuickScanner::ScanResult& result) {
        session.output.context(*session.source, result.layout);
        for (const auto& note : result.notes)
            session.output.note(note);
    };
    listener.sweeping = [&](const DeepScanStats& stats) {
        session.console.state().show([&] { return StateLine::describe(stats); });
    };
    listener.sweepDone = [&](const DeepScanResult& finds) {
        session.output.sweep(finds);
        session.reached = "Den dybe scanning nåede " + formatBytes(finds.scannedUpTo) + " af "
            + formatBytes(session.source->size()) + ".";
    };
    const FullScan::Options options { .deep = deep,
        .fragments = session.options.has("--fragments"),
        // What is copied is read anyhow; a listing shall come soon.
        .look
        = session.arguments[0] == "tree" ? Fragments::Look::heads : Fragments::Look::contents };
    const auto& volumes
        = keptToTheEnd(FullScan::run(*session.source, options, &session.progress, listener));
    if (volumes.empty() && !deep && !session.progress.isCancelled())
        session.console.complain(
            "Der blev ikke fundet noget filsystem, der kan læses. En dyb scanning "
            "(--deep) kan finde mere.");
    return volumes;
}

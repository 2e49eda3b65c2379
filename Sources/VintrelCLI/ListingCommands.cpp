#include "VintrelCLI/Commands.h"
#include "VintrelCLI/KeptToTheEnd.h"
#include "VintrelCLI/Session.h"
#include "VintrelCLI/VolumeSearch.h"
#include "VintrelCore/Devices/DiskList.h"
#include "VintrelCore/Scanning/QuickScan.h"

void Commands::list(Session& session) { session.output.disks(DiskList::load()); }

void Commands::scan(Session& session)
{
    session.output.source(*session.source);
    session.reached = "Den hurtige scanning blev ikke færdig.";
    const auto& result = keptToTheEnd(QuickScanner::run(*session.source, &session.progress));
    session.output.layout(result.layout);
    for (const auto& note : result.notes)
        session.output.note(note);
    for (const auto& volume : result.volumes)
        session.output.volume(*volume);
    if (result.volumes.empty() && !session.progress.isCancelled())
        session.console.complain("Der blev ikke fundet noget filsystem, der kan læses. "
                                 "»vintrel-cli deep« leder videre på hele kilden.");
}

void Commands::tree(Session& session)
{
    const auto streams = session.options.has("--streams") ? ListedStreams::yes : ListedStreams::no;
    for (const auto& volume : allVolumes(session, deepScanByOption(session)))
        session.output.tree(*volume, streams);
}

void Commands::deep(Session& session)
{
    DeepScanOptions options;
    options.carve = !session.options.has("--no-carve");
    options.findTexts = session.options.has("--text");
    for (const auto& volume : allVolumes(session, options))
        session.output.summary(*volume);
}

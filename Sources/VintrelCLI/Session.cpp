#include "VintrelCLI/Session.h"

#include "VintrelCLI/ByteCount.h"
#include "VintrelCLI/CommandLine.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

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
        session.console.complain(
            "Advarsel: VINTREL_SIMULATE_BAD er sat. Det, den nævner, regnes som "
            "ulæseligt.");
}

/// An image of a failing disk holds zeros where nothing was rescued. Where its mapfile lies beside
/// it they count as what they are: unreadable.
void markHolesOfImage(Session& session)
{
    auto& source = *session.source;
    if (!source.isDevice())
        session.sourceMap = RangeMap::readWhole(RangeMap::pathFor(source.path()), source.size());
    const auto& map = session.sourceMap;
    const auto finished = map ? map->total(RangeMap::Status::finished) : source.size();
    if (finished == source.size())
        return;
    for (const auto& block : map->snapshot())
        if (block.status != RangeMap::Status::finished)
            source.addSimulatedBadRange({ block.position, block.end() });
    session.console.complain("Advarsel: " + Unicode::escaped(source.displayName())
        + " er et ufuldstændigt diskbillede. Efter "
        + Unicode::escaped(RangeMap::pathFor(source.displayName())) + " mangler "
        + formatBytes(source.size() - finished) + " af " + formatBytes(source.size())
        + ". Det regnes som ulæseligt.");
}

} // namespace

void openSource(Session& session)
{
    session.source = open(session.arguments[1]);
    session.source->whenLeaving([&session] { session.progress.cancel(); });
    simulateDamage(session);
    markHolesOfImage(session);
}

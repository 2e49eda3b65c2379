#include "VintrelCLI/Advice.h"

#include "VintrelCore/Devices/SourceError.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <cerrno>

namespace {

std::string_view afterOpening(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
        return "Du må ikke læse den. Prøv igen med sudo foran kommandoen.";
    case EISDIR:
        return "Giv en billedfil eller en disk som kilde. »vintrel-cli list« viser diskene.";
    case EBUSY:
        return "Et andet program bruger den. Afmontér disken, og prøv igen.";
    case ENXIO:
    case ENODEV:
    case EIO:
        return "Disken svarer ikke. Sæt den i igen, prøv et andet stik eller kabel, og se med "
               "»vintrel-cli list«, om den er der.";
    default:
        return "Se med »vintrel-cli list«, hvilke diske der er, og om kilden er skrevet rigtigt.";
    }
}

} // namespace

std::string_view Advice::after(const SourceError& error)
{
    switch (error.kind()) {
    case SourceError::Kind::openFailed:
        return afterOpening(error.systemError().number());
    case SourceError::Kind::authorizationFailed:
        return "Kør kommandoen igen, og skriv adgangskoden for en administrator.";
    case SourceError::Kind::notFound:
        return "Se efter, om navnet er skrevet rigtigt. »vintrel-cli list« viser diskene.";
    case SourceError::Kind::attachFailed:
        return "Er diskbilledet beskadiget, så prøv med en anden kopi af det, eller lav et nyt med "
               "»vintrel-cli image«.";
    }
    return {};
}

std::string_view Advice::after(const RecoveryResult& result)
{
    if (result.isDestinationFull)
        return "Vælg en destination med mere plads, eller gendan i mindre dele med --only, --type "
               "eller --volume.";
    if (!result.folder)
        return "Vælg en mappe, som du må skrive i, på en anden disk end kilden.";
    if (result.failed > 0)
        return "Prøv det, der mislykkedes, igen med en mappe på en anden disk.";
    return {};
}

std::string_view Advice::after(const ImagingStats& stats, bool wasStopped)
{
    if (!stats.message)
        return {};
    if (wasStopped)
        return "Den samme kommando fortsætter, hvor den slap.";
    return "Billedet skal ligge i en mappe, som du må skrive i, på en anden disk med plads til "
           "hele kilden. Den samme kommando fortsætter, hvor den slap.";
}

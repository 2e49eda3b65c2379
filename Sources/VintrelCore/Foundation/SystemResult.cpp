#include "VintrelCore/Foundation/SystemResult.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <system_error>

namespace {

struct Reason {
    int number;
    std::string_view words;
};

/// What users meet, in their language. A switch would not do: some systems give two of these names
/// one number.
constexpr Reason reasons[] = {
    { EACCES, "Adgang nægtet" },
    { EBADF, "Ugyldig filbeskrivelse" },
    { EBUSY, "Filen eller enheden er i brug" },
    { EDQUOT, "Diskkvoten er brugt op" },
    { EEXIST, "Filen eller mappen findes allerede" },
    { EFBIG, "Filen er for stor" },
    { EILSEQ, "Navnet har tegn, som filsystemet ikke kan gemme" },
    { EINVAL, "Filsystemet eller enheden tager ikke imod det" },
    { EIO, "Læse- eller skrivefejl på disken" },
    { EISDIR, "Det er en mappe" },
    { ELOOP, "For mange symbolske links" },
    { EMFILE, "For mange åbne filer" },
    { ENAMETOOLONG, "Navnet er for langt" },
    { ENFILE, "For mange åbne filer i hele systemet" },
    { ENODEV, "Enheden findes ikke" },
    { ENOENT, "Filen eller mappen findes ikke" },
    { ENOMEM, "Der er ikke hukommelse nok" },
    { ENOSPC, "Der er ikke mere plads" },
    { ENOTDIR, "Det er ikke en mappe" },
    { ENOTSUP, "Det understøttes ikke" },
    { ENXIO, "Enheden findes ikke eller svarer ikke" },
    { EOPNOTSUPP, "Det understøttes ikke" },
    { EOVERFLOW, "Størrelsen er for stor" },
    { EPERM, "Handlingen er ikke tilladt" },
    { EPIPE, "Modtageren læser ikke mere" },
    { EROFS, "Filsystemet er skrivebeskyttet" },
    { ESPIPE, "Det kan kun læses fra ende til anden" },
    { ETIMEDOUT, "Tiden løb ud" },
    { ETXTBSY, "Programfilen er i brug" },
};

/// Linux has a number of its own for this, by a name that other systems lack. Its words are known.
constexpr std::string_view noMedium = "No medium found";

} // namespace

std::string SystemError::message() const
{
    const auto* const reason = std::ranges::find(reasons, number_, &Reason::number);
    if (reason != std::end(reasons))
        return std::string(reason->words);
    const auto words = std::generic_category().message(number_);
    return words == noMedium ? "Der er intet medie i drevet" : Unicode::escaped(words);
}

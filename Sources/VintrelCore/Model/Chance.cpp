#include "VintrelCore/Model/Chance.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

struct DoubtRow {
    Doubt doubt;
    Recoverability best;    ///< the best chance that it allows; `unknown` when it allows no saying
    std::string_view words; ///< empty: the chance says enough
};

using enum Recoverability;

constexpr DoubtRow rows[] = {
    { Doubt::damagedDirectoryEntry, partial, "Mappeposten er beskadiget" },
    { Doubt::olderRecord, good,
        "Filens nyeste poster er beskadiget; en ældre udgave af dem er brugt" },
    { Doubt::missingInode, poor, "Filens inode blev ikke fundet" },
    { Doubt::missingDataAttribute, poor, "Dataattributten mangler" },
    { Doubt::missingRuns, partial, "Dele af filens placering mangler" },
    { Doubt::unknownPlace, poor, "Filens placering kendes ikke" },
    { Doubt::uncertainPlace, partial, "Filsystemets placering er usikker" },
    { Doubt::invalidStartCluster, poor, "Ugyldig startklynge" },
    { Doubt::halfStartCluster, good, "Startklyngens nummer kan mangle sin øvre halvdel" },
    { Doubt::sizeBeyondVolume, poor, "Filens størrelse er større end diskens" },
    { Doubt::brokenChain, partial, "Klyngekæden er afbrudt" },
    { Doubt::guessedClusters, unknown, "Filens klynger kendes ikke; de antages at ligge samlet" },
    { Doubt::missingExtents, partial, "" },
    { Doubt::missingLaterExtents, partial, "Filen var fragmenteret – kun de første dele kendes" },
    { Doubt::unknownBlocks, poor, "Filens blokke kendes ikke" },
    { Doubt::partlyUnknownBlocks, partial, "Kun dele af filens blokke kendes" },
    { Doubt::lostBlocks, poor, "Kun dele af filens blokke kendes" },
    { Doubt::guessedBlocks, partial,
        "Filens blokke er sluttet af, hvad der blev frit, da den blev slettet" },
    { Doubt::guessedBeginning, partial, "Hvor filens første blokke lå, er gættet" },
    { Doubt::unknownSize, unknown, "Filens størrelse kendes ikke" },
    { Doubt::overclaimedBlocks, poor, "For mange filer deler de samme blokke" },
    { Doubt::missingLinkedFile, poor, "Filen, som linket peger på, blev ikke fundet" },
    { Doubt::sharedContent, poor, "Indholdet er kun taget med ved andre hårde links til filen" },
    { Doubt::missingLinkTarget, poor, "Linkets mål blev ikke fundet" },
    { Doubt::reusedFirstCluster, poor, "Startklyngen er genbrugt af en anden fil" },
    { Doubt::reusedBlocks, poor, "Blokkene er genbrugt af andre filer" },
    { Doubt::reusedClusters, poor, "Klyngerne er genbrugt af andre filer" },
    { Doubt::partlyReused, partial, "Dele af filen kan være overskrevet" },
    { Doubt::fewReusedClusters, partial, "Nogle af klyngerne er genbrugt af andre filer" },
    { Doubt::unknownAllocation, unknown, "" },
    { Doubt::unknownReuse, unknown, "Det vides ikke, om pladsen er genbrugt" },
    { Doubt::reusedFirstByDeleted, poor, "Begyndelsen er genbrugt af en anden slettet fil" },
    { Doubt::partlyReusedByDeleted, partial,
        "Dele af filen kan være overskrevet af en anden slettet fil" },
    { Doubt::contestedByDeleted, partial,
        "En anden slettet fil har haft noget af den samme plads, og det vides ikke, hvis indhold "
        "der ligger" },
    { Doubt::beyondSource, partial, "Filen rækker ud over kildens slutning" },
    { Doubt::encrypted, poor, "EFS-krypteret – kan ikke dekrypteres" },
    { Doubt::encryptedByExt, poor, "Krypteret af filsystemet – kan ikke dekrypteres" },
    { Doubt::compressedByHFS, poor,
        "HFS-komprimeret fil – indholdet ligger i en skjult ressource og kan ikke gendannes "
        "direkte" },
    { Doubt::compressedByAPFS, poor,
        "APFS-komprimeret fil – indholdet ligger i en skjult attribut og kan ikke gendannes "
        "direkte" },
    { Doubt::compressedByWindows, poor,
        "Windows-komprimeret fil – indholdet ligger i en skjult datastrøm og kan ikke gendannes "
        "direkte" },
    { Doubt::deduplicated, poor,
        "Deduplikeret fil – indholdet ligger i filsystemets fælles lager og kan ikke gendannes "
        "direkte" },
    { Doubt::onlyInCloud, poor, "Filens indhold ligger kun i skyen og kan ikke gendannes herfra" },
    { Doubt::partlyElsewhere, partial, "Dele af filens indhold ligger et andet sted" },
    { Doubt::damagedRecord, partial, "MFT-posten er delvist beskadiget" },
};
static_assert(std::size(rows) == static_cast<std::size_t>(Doubt::count));
static_assert(std::ranges::is_sorted(rows, {}, &DoubtRow::doubt));

/// Nothing is known of the one and something bad of the other: the bad is certain.
void lower(Recoverability& chance, Doubts doubts)
{
    const auto severity = [](Recoverability level) {
        return level == poor ? 3 : level == unknown ? 2 : level == partial ? 1 : 0;
    };
    const auto level = chanceOf(doubts).level;
    if (severity(level) > severity(chance))
        chance = level;
}

} // namespace

Doubts doubtsOf(const ClusterUse& use, const ReuseRule& rule)
{
    const bool isMostForeign = rule.mostCountAsFirst && use.foreign > use.checked / 2;
    if (use.isFirstForeign || isMostForeign)
        return rule.first;
    if (use.isUnknown)
        return rule.unknown;
    return use.foreign > 0 ? Doubts(rule.some) : Doubts();
}

Chance chanceOf(Doubts doubts)
{
    Chance chance;
    bool isUnknown = false;
    for (const auto& row : rows) {
        if (!doubts.has(row.doubt))
            continue;
        if (row.best == unknown)
            isUnknown = true;
        else
            chance.level = std::min(chance.level, row.best);
        if (row.words.empty())
            continue;
        if (chance.note)
            chance.note->append("; ").append(row.words);
        else
            chance.note = row.words;
    }
    if (isUnknown && chance.level != poor)
        chance.level = unknown;
    return chance;
}

void judge(FileNode& node, Doubts doubts)
{
    const auto chance = chanceOf(doubts);
    node.recoverability = chance.level;
    if (chance.note)
        node.addNote(*chance.note);
}

void judgeFurther(FileNode& node, Doubts doubts)
{
    lower(node.recoverability, doubts);
    noteDoubts(node, doubts);
}

void judgeFurther(Attachment& attachment, Doubts doubts)
{
    lower(attachment.recoverability, doubts);
}

void noteDoubts(FileNode& node, Doubts doubts)
{
    for (const auto& row : rows)
        if (doubts.has(row.doubt) && !row.words.empty()
            && (!node.note || node.note->find(row.words) == std::string::npos))
            node.addNote(row.words);
}

#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSDeletedClaims, LeaveSharedClustersToTheFileWrittenLast)
{
    struct State {
        Image::Runs runs;
        std::uint64_t logSequence = 0;
        std::uint64_t changed = 0;
    };
    const std::string first = "Ringe: Begyndelsen er genbrugt af en anden slettet fil";
    const std::string some = "Delvis: Dele af filen kan være overskrevet af en anden slettet fil";
    const std::string undecided = "Delvis: En anden slettet fil har haft noget af den samme plads, "
                                  "og det vides ikke, hvis indhold der ligger";
    const struct {
        const char* what;
        State one, other;
        std::string fateOfOne, fateOfOther;
    } cases[] = {
        { "neighbours", { { { 200, 4 } }, 1 }, { { { 204, 4 } }, 2 }, "God", "God" },
        { "the log says which", { { { 200, 4 } }, 1 }, { { { 200, 4 } }, 2 }, first, "God" },
        { "in the other order", { { { 200, 4 } }, 2 }, { { { 200, 4 } }, 1 }, "God", first },
        { "the end of one", { { { 200, 4 } }, 1 }, { { { 203, 4 } }, 2 }, some, "God" },
        { "the beginning of one", { { { 203, 4 } }, 1 }, { { { 200, 4 } }, 2 }, first, "God" },
        { "a later run that lies in front", { { { 300, 2 }, { 200, 2 } }, 1 },
            { { { 200, 2 } }, 2 }, some, "God" },
        { "the beginning and more", { { { 200, 2 }, { 300, 2 } }, 1 },
            { { { 200, 2 }, { 300, 2 } }, 2 }, first, "God" },
        { "a cluster within", { { { 200, 4 } }, 2 }, { { { 202, 1 } }, 3 }, some, "God" },
        { "the dates where there is no log", { { { 200, 4 } }, 0, 50 }, { { { 200, 4 } }, 0, 40 },
            "God", first },
        { "neither", { { { 200, 4 } } }, { { { 203, 4 } } }, undecided, undecided },
        { "one date alone", { { { 200, 4 } }, 0, 50 }, { { { 200, 4 } } }, undecided, undecided },
        { "a log and dates that differ", { { { 200, 4 } }, 5, 40 }, { { { 200, 4 } }, 0, 50 },
            undecided, undecided },
        { "what a file that exists has overwritten", { { { 250, 2 } }, 1 }, { { { 251, 2 } }, 2 },
            "Ringe: Klyngerne er genbrugt af andre filer", "God" },
    };
    for (const auto& [what, one, other, fateOfOne, fateOfOther] : cases) {
        Image image;
        image.markUsed(250, 1);
        std::uint64_t number = 20;
        for (const auto* state : { &one, &other }) {
            std::uint64_t clusters = clusterCount(state->runs);
            image.put(number,
                { .inUse = false,
                    .attributes = { Image::standardInformation(
                                        Image::creation, Image::modification, state->changed),
                        Image::fileName(root, state == &one ? u"A" : u"B"),
                        Image::data({ .runs = state->runs, .size = clusters * 1024 }) },
                    .logSequence = state->logSequence });
            ++number;
        }
        const auto disk = parse(image);
        EXPECT_EQ(chance(disk["/A"]), fateOfOne) << what;
        EXPECT_EQ(chance(disk["/B"]), fateOfOther) << what;
    }
}

TEST(NTFSDeletedClaims, TellNothingWhereTooManyFilesShareACluster)
{
    Image image({ .clusters = 700, .records = 128 });
    for (std::uint64_t number = 20; number < 120; ++number)
        image.put(number,
            { .inUse = false,
                .attributes = { Image::fileName(root, u"fil"),
                    Image::data({ .runs = { { 300, 2 } }, .size = 2000 }) },
                .logSequence = number });
    const auto disk = parse(image);
    for (const auto& node : disk.volume->root->children())
        EXPECT_NE(node->recoverability, Recoverability::good) << node->fsID;
}

TEST(NTFSDeletedClaims, TakeStreamsToo)
{
    Image image;
    const auto put = [&](std::uint64_t number, std::uint64_t own, std::uint64_t stream) {
        const auto data = [](std::uint64_t lcn) {
            return Image::data(Image::Data { .runs = { { lcn, 4 } }, .size = 4096 });
        };
        image.put(number,
            { .inUse = false,
                .attributes = { Image::fileName(root, u"fil"), data(own),
                    Image::withName(data(stream), u"strøm") },
                .logSequence = number });
    };
    put(20, 200, 300);
    put(21, 400, 200); // its stream lies over the first file
    put(22, 300, 500); // lies over the first stream
    const auto disk = parse(image);
    std::string levels;
    for (const auto* file : disk.volume->root->allFiles())
        levels += std::string(label(file->recoverability)) + "+"
            + std::string(label(file->attachments->front().recoverability)) + " ";
    EXPECT_EQ(levels, "Ringe+Ringe God+God God+God ");
}

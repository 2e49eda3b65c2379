#include "Tests/Images/NTFSImage.h"
#include "Tests/VintrelCLI/Card.h"
#include "VintrelCLI/Console.h"
#include "VintrelCLI/Output.h"

#include <algorithm>
#include <iostream>

namespace {

bool hasJSON()
{
    StateLine state(std::cerr, false);
    Console console(std::cout, std::cerr, state);
    return makeJSONOutput(console) != nullptr;
}

/// Whether every byte may be shown as it is.
bool isPlain(const std::string& text)
{
    return std::ranges::all_of(
        text, [](char byte) { return byte == '\n' || (byte >= ' ' && byte <= '~'); });
}

} // namespace

TEST_F(Card, IsToldToProgramsLineByLine)
{
    if (!hasJSON()) {
        EXPECT_EQ(runWith({ "scan", path, "--json" }).status, 1);
        GTEST_SKIP() << "built without a library that writes JSON";
    }
    const std::string source
        = R"({"type":"source","name":"kort.img","size":2140672,"sectorSize":512})"
          "\n";
    const std::string partition
        = R"({"type":"partition","index":1,"scheme":"Ingen","typeName":"Hele disken","name":"",)"
          R"("offset":0,"size":2140672,"fileSystem":"FAT16"})"
          "\n";
    const std::string end = R"({"type":"end","complete":true})"
                            "\n";
    const std::string volume = R"~({"type":"volume","volume":1,"title":"KAMERA (FAT16)",)~";
    const auto scan = runWith({ "scan", path, "--json" }).out;
    EXPECT_TRUE(scan.starts_with(source + partition + volume)) << scan;
    EXPECT_TRUE(scan.ends_with(R"("files":5,"folders":1,"deleted":1,"bytes":8010,"notes":[]})"
                               "\n"
        + end))
        << scan;

    const auto tree = runWith({ "tree", path, "--json" }).out;
    EXPECT_TRUE(isPlain(tree));
    EXPECT_EQ(std::count(tree.begin(), tree.end(), '\n'), 3 + 6 + 1);
    const std::string summer
        = R"("path":"/DCIM/Sommer ved s\u00f8en.jpg","directory":false,"size":3000,"created":null,)"
          R"("modified":"2025-10-03T12:00:00Z","status":"deleted","chance":"good","note":"",)";
    for (const std::string& part : { summer, std::string(R"("path":"/\u001b[2J\u202egpj.exe",)"),
             std::string(R"("note":"Ugyldig startklynge",)"),
             std::string(R"("stored":"plain","extents":[{"offset":)") })
        EXPECT_NE(tree.find(part), std::string::npos) << part << "\n" << tree;

    setenv("VINTREL_SIMULATE_BAD",
        (std::to_string(photoOffset) + "-" + std::to_string(photoOffset + 1)).c_str(), 1);
    const auto recovered = runWith({ "recover", path, folder / "ud", "--json" }).out;
    EXPECT_NE(recovered.find(R"("copied":true,"unreadable":512})"), std::string::npos) << recovered;
    EXPECT_NE(recovered.find(R"("recovered":4,"withErrors":1,"failed":0,)"), std::string::npos);
    EXPECT_TRUE(recovered.ends_with(end));
    const auto deep = runWith({ "deep", path, "--json" }).out;
    EXPECT_NE(
        deep.find(R"("completed":true,"finds":{"files":0,"bootSectors":1,)"), std::string::npos)
        << deep;
}

TEST_F(Card, TellsStreamsToProgramsBehindTheirFile)
{
    if (!hasJSON())
        GTEST_SKIP() << "built without a library that writes JSON";
    NTFSImage image;
    const auto runs = image.store(Bytes(2'000, 'x'));
    image.put(20,
        { .attributes = { NTFSImage::fileName(NTFSImage::root, u"fil"),
              NTFSImage::data(bytesOf("a")),
              NTFSImage::withName(NTFSImage::data({ .runs = runs, .size = 2'000 }), u"skjult") } });
    writeFile(path, image.bytes());
    const std::string stream = R"({"type":"stream","volume":1,"path":"/fil:skjult",)"
                               R"("directory":false,"size":2000,)";
    const auto told = runWith({ "tree", path, "--json", "--streams" }).out;
    EXPECT_NE(told.find(stream), std::string::npos) << told;
    EXPECT_EQ(
        runWith({ "tree", path, "--json" }).out.find(R"("type":"stream")"), std::string::npos);
}

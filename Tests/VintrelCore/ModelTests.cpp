#include "VintrelCore/Model.h"
#include "VintrelCore/Unicode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

namespace {

using enum EntryStatus;

std::unique_ptr<FileNode> file(std::string name, std::uint64_t size = 0, EntryStatus status = existing)
{
    return FileNode::makeFile(std::move(name), size, status);
}

std::unique_ptr<FileNode> folder(std::string name, EntryStatus status = existing)
{
    return FileNode::makeFolder(std::move(name), status);
}

std::vector<std::string> names(const auto& nodes)
{
    std::vector<std::string> names;
    for (const auto& node : nodes)
        names.push_back(node->name);
    return names;
}

using Names = std::vector<std::string>;

} // namespace

TEST(Model, TextsOfTheEnumerations)
{
    Names types;
    for (const auto type : allFileSystemTypes)
        types.emplace_back(displayName(type));
    EXPECT_EQ(types,
        (Names { "FAT12", "FAT16", "FAT32", "exFAT", "NTFS", "HFS+", "APFS", "ext2/3/4", "Signaturer", "Ukendt" }));

    Names labels;
    for (const auto status : { existing, deleted, orphaned, carved })
        labels.emplace_back(label(status));
    EXPECT_EQ(labels, (Names { "Eksisterende", "Slettet", "Forældreløs", "Signaturfund" }));

    labels.clear();
    using enum Recoverability;
    for (const auto chance : { unknown, poor, partial, good })
        labels.emplace_back(label(chance));
    EXPECT_EQ(labels, (Names { "Ukendt", "Ringe", "Delvis", "God" }));
    EXPECT_LT(unknown, poor);
    EXPECT_LT(partial, good);

    Names categories;
    for (const auto category : allFileCategories)
        categories.push_back(
            std::string(identifier(category)).append("/").append(label(category)).append("/").append(symbol(category)));
    EXPECT_EQ(categories,
        (Names { "image/Billeder/photo", "video/Video/film", "audio/Lyd/waveform", "document/Dokumenter/doc.text",
            "archive/Arkiver/archivebox", "other/Andet/doc" }));
}

TEST(Model, CategoriesByExtension)
{
    using enum FileCategory;
    const std::pair<FileCategory, Names> table[] = {
        { image,
            { "jpg", "png", "gif", "bmp", "tif", "heic", "avif", "webp", "cr2", "cr3", "nef", "arw", "dng", "orf",
                "rw2", "raf", "pef", "jpeg", "tiff" } },
        { video, { "mp4", "mov", "m4v", "3gp", "avi", "mkv", "webm", "ogv", "mpg" } },
        { audio, { "mp3", "m4a", "wav", "aiff", "ogg", "opus", "flac", "aif" } },
        { document, { "pdf", "docx", "xlsx", "pptx", "doc", "xls", "ppt", "odt", "ods", "odp", "epub", "rtf", "txt" } },
        { archive, { "zip", "7z", "rar", "jar" } },
        { other, { "sqlite", "msg", "", "exe", "zzz", "0", "jp", "jpgg" } },
    };
    for (const auto& [category, extensions] : table)
        for (const auto& extension : extensions)
            EXPECT_EQ(categoryOf("navn." + extension), category) << extension;

    EXPECT_EQ(categoryOf("FERIE.JPG"), image);
    EXPECT_EQ(categoryOf("jpg"), other); // no dot
    EXPECT_EQ(categoryOf("billeder.jpg/læsmig"), other);
    EXPECT_EQ(file("arkiv.tar.GZ")->category(), archive);
    EXPECT_EQ(file("arkiv.tar.GZ")->fileExtension(), "gz");
    EXPECT_EQ(fileExtension("slut."), "");
    EXPECT_EQ(fileExtension("a.ÆØ"), "ÆØ");
}

TEST(Model, FormatsByteCounts)
{
    const std::pair<std::uint64_t, const char*> cases[]
        = { { 0, "0 bytes" }, { 1, "1 byte" }, { 2, "2 bytes" }, { 999, "999 bytes" }, { 1'000, "1 KB" },
              { 1'499, "1 KB" }, { 1'500, "2 KB" }, { 999'499, "999 KB" }, { 999'500, "1 MB" }, { 1'049'999, "1 MB" },
              { 1'050'000, "1.1 MB" }, { 1'440'000, "1.4 MB" }, { 10'000'000, "10 MB" }, { 999'949'999, "999.9 MB" },
              { 999'950'000, "1 GB" }, { 1'004'999'999, "1 GB" }, { 1'005'000'000, "1.01 GB" },
              { 1'100'000'000, "1.1 GB" }, { 7'948'206'080, "7.95 GB" }, { 999'994'999'999, "999.99 GB" },
              { 999'995'000'000, "1 TB" }, { 4'000'787'030'016, "4 TB" }, { 1'230'000'000'000'000, "1.23 PB" },
              { 9'223'372'036'854'775'807, "9.22 EB" }, { 18'446'744'073'709'551'615u, "9.22 EB" } };
    for (const auto& [count, text] : cases) {
        EXPECT_EQ(formatBytes(count, "."), text);
        std::string danish = text;
        std::ranges::replace(danish, '.', ',');
        EXPECT_EQ(formatBytes(count, ","), danish);
    }
}

TEST(FileNode, KnowsItsPlace)
{
    const auto root = folder("");
    auto& photos = root->add(folder("Billeder"));
    auto& picture = photos.add(file("a.jpg", 10));
    root->add(file("b.txt", 5, deleted));
    auto& gone = root->add(folder("Slettet", deleted));
    gone.add(file("c.txt", 7));
    photos.add(file("a.jpg", 20, carved)); // names may repeat

    EXPECT_EQ(root->path(), "/");
    EXPECT_EQ(photos.path(), "/Billeder");
    EXPECT_EQ(picture.path(), "/Billeder/a.jpg");
    EXPECT_EQ(picture.parent(), &photos);
    EXPECT_EQ(root->parent(), nullptr);
    EXPECT_EQ(names(root->files()), (Names { "b.txt" }));
    EXPECT_EQ(names(root->folders()), (Names { "Billeder", "Slettet" }));
    EXPECT_EQ(names(root->allFiles()), (Names { "a.jpg", "a.jpg", "b.txt", "c.txt" }));
    EXPECT_EQ(root->totals(), (Totals { .files = 4, .folders = 2, .bytes = 42, .deleted = 2 }));
    EXPECT_EQ(gone.totals(), (Totals { .files = 1, .folders = 0, .bytes = 7, .deleted = 0 }));
    EXPECT_EQ(picture.totals(), Totals {});
    EXPECT_LT(root->id(), photos.id());
    EXPECT_EQ(picture.id(), photos.id() + 1);

    root->removeAllChildren();
    EXPECT_EQ(root->totals(), Totals {});

    EXPECT_EQ(Volume(FileSystemType::carved, "", 0, 0, folder(""), "").title(), "Uden navn (Signaturer)");
    EXPECT_EQ(Volume(FileSystemType::fat32, "KAMERA", 0, 0, folder(""), "").title(), "KAMERA (FAT32)");
}

TEST(FileNode, SortsAsPeopleDo)
{
    Names expected { "10 ting", "ålen", // folders first
        "", "-", "0", "00", "001", "01", "1", "1a", "2", "10", "99999999999999999999998", "99999999999999999999999",
        "[", "a", "IMG_2.jpg", "img_3.jpg", "IMG_10.jpg", "IMG_10a.jpg", "Z", "z", "zz", "\xFF" };
    if (Unicode::foldedCase(U'Æ') == U'æ') {
        const Names danish { "Æble", "æBLER", "ø", "Øl" };
        expected.insert(expected.end() - 1, danish.begin(), danish.end());
    }
    const auto isFolder = [](const std::string& name) { return name == "10 ting" || name == "ålen"; };
    auto shuffled = expected;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::ranges::shuffle(shuffled, std::mt19937(seed));
        const auto root = folder("");
        auto& inner = root->add(folder("indre")).add(folder("inderst"));
        for (const auto& name : shuffled)
            inner.add(isFolder(name) ? folder(name) : file(name));
        root->sortChildren(); // down the whole subtree
        ASSERT_EQ(names(inner.children()), expected) << seed;
    }
}

TEST(FileNode, EqualNamesKeepADefiniteOrder)
{
    const auto root = folder("");
    auto& later = root->add(file("a", 1, deleted));
    auto& latest = root->add(file("a", 2, deleted));
    auto& lost = root->add(file("A", 3, orphaned));
    auto& upper = root->add(file("A", 4, deleted));
    auto& live = root->add(file("a", 5));
    root->sortChildren();
    const FileNode* const expected[] = { &live, &upper, &later, &latest, &lost };
    EXPECT_TRUE(std::ranges::equal(root->children(), expected, {}, &std::unique_ptr<FileNode>::get));
}

TEST(FileNode, TreesAsDeepAsTheDiskClaims)
{
    constexpr std::size_t depth = 200'000; // recursion would have less than 42 bytes of stack a level
    auto root = folder("");
    auto* node = root.get();
    for (std::size_t i = 0; i < depth; ++i)
        node = &node->add(folder("x"));
    auto& bottom = node->add(file("bund", 3));
    root->sortChildren();
    EXPECT_EQ(root->totals(), (Totals { .files = 1, .folders = depth, .bytes = 3, .deleted = 0 }));
    EXPECT_EQ(root->allFiles(), std::vector<FileNode*> { &bottom });
    EXPECT_EQ(bottom.path().size(), 2 * depth + 5);
    std::size_t deepest = 0;
    root->forEachDescendant([&](const FileNode&, std::size_t level) { deepest = std::max(deepest, level); });
    EXPECT_EQ(deepest, depth + 1);
    root->removeAllChildren(); // and the destructor's own way below
    root->add(folder("x")).add(folder("y"));
    root.reset();
}

TEST(FileNode, TreesAsWideAsTheDiskClaims)
{
    constexpr std::size_t width = 50'000; // what is quadratic in it would take minutes
    const auto root = folder("");
    for (std::size_t i = 0; i < width; ++i)
        root->add(file("FIL" + std::to_string((i * 7919) % width)));
    root->sortChildren();
    EXPECT_EQ(root->children()[12'345]->name, "FIL12345");
    EXPECT_EQ(root->allFiles().size(), width);
    EXPECT_EQ(root->totals().files, width);
}

TEST(WorkProgress, ReportsAndCancels)
{
    std::vector<std::pair<double, std::string>> reports;
    WorkProgress progress([&](double fraction, const std::string& text) { reports.emplace_back(fraction, text); });
    progress.report(0.25, "Læser …");
    progress.report(1.5, "Slut …");
    EXPECT_EQ(reports, (std::vector<std::pair<double, std::string>> { { 0.25, "Læser …" }, { 1.0, "Slut …" } }));
    EXPECT_FALSE(isCancelled(&progress));
    std::thread([&] { progress.cancel(); }).join();
    EXPECT_TRUE(isCancelled(&progress));
    EXPECT_FALSE(isCancelled(nullptr));
    WorkProgress().report(0.5, "ingen lytter");
}

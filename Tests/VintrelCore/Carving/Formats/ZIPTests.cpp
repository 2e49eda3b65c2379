#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

namespace {

std::string textOf(const Bytes& bytes) { return { bytes.begin(), bytes.end() }; }

} // namespace

TEST(ZIP, TellsItsKindByTheNamesOfItsEntries)
{
    const std::string long64(70'000, 'x');
    const struct {
        std::vector<ZIPMember> members;
        std::string_view ext;
    } kinds[] = {
        { { { "[Content_Types].xml" }, { "word/document.xml" } }, "docx" },
        { { { "xl/workbook.xml" }, { "word/x" } }, "docx" },
        { { { "a", long64 }, { "word/document.xml" }, { "b", long64 } }, "docx" },
        { { { "ppt/slides/1.xml", "x", true } }, "pptx" },
        { { { "META-INF/MANIFEST.MF" } }, "jar" },
        { { { "notes", "word/ xl/ ppt/" }, { "old/word/a" } },
            "zip" }, // letters in a text, or deeper down, say nothing
        { { { "mimetype", "application/epub+zip" }, { "word/x" } }, "epub" },
        { { { "mimetype", "application/vnd.oasis.opendocument.textual" } }, "odt" },
        { { { "mimetype", "application/x-else" }, { "word/x" } }, "zip" },
        { { { "document.json" }, { "meta.json" } }, "zip" }, // of many programs
        { { { "Index/Document.iwa", "a document of another type" } }, "zip" },
        { { { "index.apxl" } }, "key" },
        { { { "index.xml", "<?xml version='1.0'?>\n<sl:document xmlns:sl=''/>" } }, "pages" },
        { { { "index.xml", "<?xml version='1.0'?>\n<document/>" } }, "zip" },
        { { { "bilag.docx", textOf(zipFile({ { "word/document.xml" } })) } }, "zip" },
        { { { "ppt/presentation.xml" },
              { "ppt/embeddings/a.xlsx", textOf(zipFile({ { "xl/workbook.xml" } })) } },
            "pptx" },
    };
    for (const auto& [members, ext] : kinds) {
        const auto file = zipFile(members);
        EXPECT_EQ(carve(file), std::string(ext) + " " + std::to_string(file.size()))
            << members[0].name;
        const bool isArchive = ext == "zip" || ext == "jar";
        EXPECT_EQ(carve(file, { FileCategory::archive }) != "-", isArchive);
        EXPECT_EQ(carve(file, { FileCategory::document }) != "-", !isArchive);
    }
}

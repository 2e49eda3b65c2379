#include "Tests/VintrelCore/Recovery/RecoveryFixture.h"
#include "VintrelCore/Foundation/Text.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// A file system of this kind on a small disk, mounted over a folder for the length of a test.
class Mount {
public:
    Mount(const std::string& kind, std::string folder)
        : folder_(std::move(folder))
    {
        const std::string exfat = "mkfs.exfat '" + disk_ + "'; loop=$(losetup -f --show '" + disk_
            + "'); mount.exfat-fuse $loop '" + folder_ + "'; losetup -d $loop";
        const std::string ntfs = "mkfs.ntfs -q -F '" + disk_ + "'; ntfs-3g -o windows_names '"
            + disk_ + "' '" + folder_ + "'";
        stands_ = runCommand("set -e; truncate -s 64M '" + disk_ + "'; "
                      + (kind == "exfat" ? exfat : ntfs))
            == 0;
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    ~Mount()
    {
        if (stands_)
            runCommand("umount '" + folder_ + "'");
    }
    explicit operator bool() const { return stands_; }

private:
    const TemporaryFolder scratch_;
    const std::string disk_ = scratch_ / "disk";
    const std::string folder_;
    bool stands_ = false;
};

/// Recoveries to the disks that people have.
class RecoveryTo : public Recovery, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override
    {
        if (!mount)
            GTEST_SKIP() << "needs to make and mount " << GetParam();
    }

    const Mount mount { GetParam(), target.path() };
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Disks, RecoveryTo, ::testing::Values("exfat", "ntfs"));

TEST_P(RecoveryTo, RenamesWhatTheDestinationRefuses)
{
    for (const char* name : { "a/b.txt", "a<b.txt", "a_b.txt", "nul.txt", "slut." })
        addFile(*root, name);
    addFile(addFolder(addFolder(*root, "hvad?"), "ja|nej"), "side\n1");
    const auto result = recover(nullptr, "Foto: 2024?");
    EXPECT_EQ(result.recovered, 6);
    EXPECT_EQ(result.failures, std::vector<std::string> {});
    ASSERT_EQ(result.folder, target / "Foto_ 2024_");
    const bool isStrict = std::string_view(GetParam()) == "ntfs";
    EXPECT_EQ(filesIn(*result.folder),
        (std::vector<std::string> { "a_b (2).txt", "a_b (3).txt", "a_b.txt", "hvad_/ja_nej/side_1",
            isStrict ? "nul_.txt" : "nul.txt", isStrict ? "slut" : "slut." }));
    EXPECT_NE(text(*result.folder + "/Gendannelsesrapport.csv").find("\nhvad_/ja_nej/side_1;1;OK"),
        std::string::npos);
    EXPECT_EQ(*recover(nullptr, "Foto: 2024?").folder, target / "Foto_ 2024_ (2)");
}

TEST_P(RecoveryTo, NumbersNamesThatDifferInCaseOnly)
{
    for (int i = 0; i < 1'024; ++i) {
        std::string name = "abcdefghij.txt";
        for (std::size_t bit = 0; bit < 10; ++bit)
            if ((i >> bit & 1) != 0)
                name[bit] = Text::upperCase(name.substr(bit, 1))[0];
        addFile(*root, name, NoData {});
    }
    addFile(*root, "ABCDEFGHIJ.txt", NoData {});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(recover().recovered, 1'025);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    const bool knowsCase = std::string_view(GetParam()) == "ntfs"; // as this driver mounts it
    EXPECT_TRUE(
        fs::exists(target / (knowsCase ? "r/ABCDEFGHIJ (2).txt" : "r/ABCDEFGHIJ (1025).txt")));
}

TEST_P(RecoveryTo, LetsOnlyTheFileFailThatIsTooLarge)
{
    const std::uint64_t huge = std::uint64_t { 1 } << 40;
    addFile(*root, "1.bin", ExtentList { { 0, 4'096 }, { std::nullopt, huge } }, huge);
    addFile(*root, "2.txt");
    const auto result = recover();
    const bool keepsHoles = std::string_view(GetParam()) == "ntfs";
    EXPECT_EQ(result.recovered, keepsHoles ? 2 : 1);
    EXPECT_EQ(result.failed, keepsHoles ? 0 : 1);
    EXPECT_EQ(text(target / "r/2.txt"), "x");
    EXPECT_EQ(fs::exists(target / "r/1.bin"), keepsHoles);
}

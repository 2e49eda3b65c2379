#include "Tests/Support/TestSource.h"
#include "VintrelCore/Devices/HelperProgram.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>

using namespace std::chrono_literals;

namespace {

/// Runs a shell script as the helper program.
HelperProgram::Outcome runScript(
    const TemporaryFolder& folder, const std::string& text, HelperProgram::Limits limits)
{
    return HelperProgram::run({ writeScript(folder / "helper", text), "et ord", "$HOME" }, limits);
}

} // namespace

TEST(HelperProgram, TellsHowItEnded)
{
    const TemporaryFolder folder;
    const struct {
        std::string script;
        int status;
        std::string output, complaints;
    } cases[] = {
        { "printf '%s|' \"$@\"; read line || echo nej >&2", 0, "et ord|$HOME|", "nej\n" },
        { "echo en; exit 3", 3, "en\n", "" },
        { "echo en; kill -9 $$", -1, "en\n", "" },
        { "exec >&- 2>&-; sleep 0.1; exit 4", 4, "", "" },
        { "yes nej | head -c 100000 >&2; echo ja", 0, "ja\n", std::string(4'096, '.') },
        { "sleep 20 & echo forældreløs", 0, "forældreløs\n", "" }, // and keeps the output open
        { "(echo x >&9) 2>/dev/null && echo arvet; exit 5", 5, "", "" },
    };
    ASSERT_EQ(::fcntl(STDERR_FILENO, F_DUPFD, 9), 9); // one that exec would pass on
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [script, status, output, complaints] : cases) {
        const auto outcome = runScript(folder, script, { .time = 20s });
        EXPECT_EQ(outcome.status, status) << script;
        EXPECT_EQ(outcome.output, output) << script;
        EXPECT_EQ(outcome.complaints.size(), complaints.size()) << script;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 15s);
    ::close(9);
    EXPECT_EQ(HelperProgram::run({ folder / "mangler" }, { .time = 20s }).error.number(), ENOENT);
}

TEST(HelperProgram, IsEndedWhenItGoesOnForEver)
{
    const TemporaryFolder folder;
    for (const char* script :
        { "exec sleep 1000", "exec >&- 2>&- sleep 1000", "trap '' TERM; while :; do :; done" }) {
        const auto outcome
            = runScript(folder, "echo $$ >'" + folder / "id" + "'; " + script, { .time = 300ms });
        EXPECT_EQ(outcome.error.number(), ETIMEDOUT) << script;
        const auto process = readFile(folder / "id");
        EXPECT_NE(::kill(std::stoi(std::string(process.begin(), process.end())), 0), 0) << script;
    }
    const auto outcome = runScript(folder, "exec yes", { .time = 20s, .output = 100'000 });
    EXPECT_EQ(outcome.error.number(), EFBIG);
    EXPECT_LT(outcome.output.size(), 200'000u);
}

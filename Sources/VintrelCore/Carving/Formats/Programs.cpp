#include "VintrelCore/Carving/Formats/Programs.h"

#include <algorithm>

namespace Formats {

namespace {

struct ProgramKind {
    std::string_view magic;
    ProgramSize (*read)(const Candidate& candidate);
};

constexpr ProgramKind programKinds[] = {
    { "\x7F"
      "ELF",
        elf },
    { "MZ", portableExecutable },
    { "\xFE\xED\xFA\xCE", machO },
    { "\xFE\xED\xFA\xCF", machO },
    { "\xCE\xFA\xED\xFE", machO },
    { "\xCF\xFA\xED\xFE", machO },
    { "\xCA\xFE\xBA\xBE", universalMachO },
    { "\xCA\xFE\xBA\xBE", javaClass },
    { "dex\n", dex },
};

} // namespace

bool mayBeProgram(ByteView head)
{
    return std::ranges::any_of(
        programKinds, [&](const ProgramKind& kind) { return head.matches(kind.magic, 0); });
}

ProgramSize program(const Candidate& candidate, ByteView head)
{
    for (const auto& [magic, read] : programKinds)
        if (head.matches(magic, 0))
            if (const auto size = read(candidate))
                return size;
    return std::nullopt;
}

} // namespace Formats

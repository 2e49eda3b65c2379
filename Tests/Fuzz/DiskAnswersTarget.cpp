// What lsblk, smartctl and diskutil answer: the first byte says who speaks.

#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Support/Exercise.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCLI/DiskListing.h"
#include "VintrelCore/Devices/DeviceStack.h"
#include "VintrelCore/Devices/DiskList.h"

namespace {

/// A program that answers what lies in a file, whatever it is asked.
struct Answer {
    Answer()
        : file(folder / "svar")
        , program(writeScript(folder / "program", "exec cat '" + file + "'"))
        , silence(writeScript(folder / "tavs", "exit 1"))
    {
    }

    TemporaryFolder folder;
    std::string file, program, silence;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Answer answer;
    if (size == 0)
        return 0;
    writeFile(answer.file, { data + 1, size - 1 });
    std::vector<DiskRecord> disks;
    switch (data[0] % 4) {
    case 0:
        disks = DiskList::fromDiskutil(answer.program);
        break;
    case 1:
        disks = DiskList::fromLsblk(answer.program, answer.program);
        break;
    case 2:
        DeviceStack::liesOnByDiskutil("disk3s1", "disk0", answer.program);
        break;
    default:
        disks = DiskList::fromLsblk(answer.program, answer.silence);
    }
    expect(disks.size() <= size, "there are no more disks than bytes");
    report(Exercise::harmlessText(describeDisks(disks)));
    return 0;
}

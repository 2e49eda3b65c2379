// The checkers of content: the first byte chooses one, the second the size of the slices in which
// the file comes.

#include "Tests/Fuzz/Support/ContentKinds.h"
#include "Tests/Fuzz/Support/Finding.h"
#include "Tests/Support/GrowingFile.h"
#include "VintrelCore/Content/Content.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    auto checker = Content::checkerFor(contentKinds[data[0] % contentKinds.size()]);
    if (!checker)
        return 0;
    const Bytes bytes(data + 2, data + size);
    const std::size_t slice = 64 + data[1] * std::size_t { 64 };
    GrowingFile file(bytes);
    for (std::size_t read = 0; read < bytes.size() + slice; read += slice) {
        file.grow(slice);
        if (read >= bytes.size())
            file.end();
        const auto before = checker->finding();
        const auto twin = checker->copy();
        twin->advance(file);
        checker->advance(file);
        const auto& after = checker->finding();
        expect(after.firm >= before.firm && after.firm <= after.checked, "what is firm stays firm");
        expect(!after.brokenAt || after.firm <= *after.brokenAt, "nothing firm is broken");
        expect(!after.isComplete() || *after.length <= bytes.size(), "a file ends in its bytes");
        expect(twin->finding().checked == after.checked && twin->finding().length == after.length
                && twin->finding().brokenAt == after.brokenAt,
            "a copy finds what its original does");
    }
    return 0;
}

// Property lists, down to every value.

#include "Tests/Fuzz/Support/Finding.h"
#include "VintrelCore/Devices/PropertyList/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto list = PropertyList::parse({ reinterpret_cast<const char*>(data), size });
    if (!list)
        return 0;
    std::size_t count = 0;
    std::vector<PropertyList::Value> open { list->root() };
    while (!open.empty()) {
        const auto value = open.back();
        open.pop_back();
        expect(++count <= 4 * size, "a list has no more values than bytes");
        expect(value.text().size() <= size, "no text is longer than its list");
        value.number();
        for (const auto* key : { "AllDisksAndPartitions", "Size", "a" })
            value[key].text();
        for (const auto& item : value.items())
            open.push_back(item);
        open.push_back(value["Partitions"]);
        if (!value["Partitions"].items().size())
            open.pop_back();
    }
    return 0;
}

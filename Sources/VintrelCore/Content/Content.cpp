#include "VintrelCore/Content/Content.h"

#include "VintrelCore/Content/Formats.h"

#include <algorithm>
#include <iterator>

namespace Content {

namespace {

/// A kind of file and who can follow it. A new format is a row here and a checker in Formats.h.
struct Kind {
    std::string_view extension;
    std::unique_ptr<Checker> (*make)();
};

constexpr Kind kinds[] = {
    { "jpg", Formats::jpeg },
};

} // namespace

std::unique_ptr<Checker> checkerFor(std::string_view extension)
{
    const auto* const kind = std::ranges::find(kinds, extension, &Kind::extension);
    return kind == std::end(kinds) ? nullptr : kind->make();
}

} // namespace Content

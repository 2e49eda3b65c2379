#pragma once

#include "VintrelCore/Recovery/ReservedFile.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

class Destination;
struct RecoveredFile;

/// The page "Gendannet.html": the report to look at in a browser, with the pictures, the films and
/// the sound among the files. Rows are written as files are done; a page that was cut short by a
/// kill is still readable and says what it is.
class RecoveryPage {
public:
    /// Makes nothing and writes nothing until it is opened.
    RecoveryPage() = default;

    /// `title`: of what is recovered. `damage`: HTML that stands above the files; may be empty.
    /// False when the file could not be made.
    bool open(Destination& destination, std::string_view title, std::string_view damage);
    /// Adds the row of a file that was copied or listed.
    void add(const RecoveredFile& file);
    /// Ends the page with what the files come to. `isStopped`: not all files are in it.
    void close(bool isStopped);

private:
    struct Sum {
        std::uint64_t files = 0;
        std::uint64_t bytes = 0;
    };

    ReservedFile file_;
    std::array<Sum, 3> sums_ {}; // by how much of a file is there
};

// Lists every file that the tables of a disk image still know, deleted ones with their chance.
#include <VintrelCore/Devices/SourceError.h>
#include <VintrelCore/Devices/SourceOpener.h>
#include <VintrelCore/Disk/DiskSource.h>
#include <VintrelCore/Foundation/Unicode/Unicode.h>
#include <VintrelCore/Scanning/QuickScan.h>
#include <iostream>

int main(int count, char** words)
{
    if (count != 2) {
        std::cerr << "usage: list-files IMAGE\n";
        return 1;
    }
    try {
        const auto source = SourceOpener::openImage(words[1]);
        const auto result = QuickScanner::run(*source, nullptr);
        for (const auto& volume : result.volumes)
            for (const auto* file : volume->root->allFiles()) {
                // Names come from the disk: escaped, they cannot play with the terminal.
                std::cout << Unicode::escaped(file->path()) << '\t' << file->size;
                if (file->status != EntryStatus::existing)
                    std::cout << '\t' << label(file->status) << ", " << label(file->recoverability);
                std::cout << '\n';
            }
    } catch (const SourceError& error) {
        std::cerr << error.what() << '\n';
        return 2;
    }
}

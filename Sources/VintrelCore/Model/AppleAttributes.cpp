#include "VintrelCore/Model/AppleAttributes.h"

#include "VintrelCore/Model/FileNode.h"

#include <string>

namespace AppleAttributes {

bool isHidden(std::string_view name) { return name.starts_with("com.apple.system."); }

void noteResourceFork(FileNode& node, std::uint64_t size)
{
    node.addNote((node.size == 0 ? "Filen har kun en ressourcegren på " : "Ressourcegren på ")
        + std::to_string(size) + " bytes");
}

} // namespace AppleAttributes

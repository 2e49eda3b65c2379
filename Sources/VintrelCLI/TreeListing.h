#pragma once

#include <functional>
#include <string_view>

class Volume;

/// Hands a volume to `write`, whole lines at a time: a line with its title, origin and offset, its
/// notes, and then one line a node, two blanks deeper for each level up to the 64th. Folders end in
/// "/"; files show size and modification time; what is not existing shows its status and chance.
void listTree(const Volume& volume, const std::function<void(std::string_view)>& write);

#pragma once

#include <iosfwd>

class Volume;

/// Prints a volume: a line with its title, origin and offset, its notes, and then one line a node,
/// two blanks deeper for each level up to the 64th. Folders end in "/"; files show size and
/// modification time; what is not existing shows its status and chance.
void printTree(const Volume& volume, std::ostream& out);

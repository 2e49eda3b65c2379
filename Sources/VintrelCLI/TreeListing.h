#pragma once

#include <functional>
#include <string_view>

class Volume;

/// Whether named streams are listed as files below the one that they belong to.
enum class ListedStreams { no, yes };

/// Hands a volume to `write`, whole lines at a time: a line with its title, origin and offset, its
/// notes, and then one line a node, two blanks deeper for each level up to the 64th. Folders end in
/// "/"; files show size and modification time; what is not existing shows its status and chance.
/// A named stream shows as a child "file:stream" of its file.
void listTree(const Volume& volume, const std::function<void(std::string_view)>& write,
    ListedStreams streams = ListedStreams::no);

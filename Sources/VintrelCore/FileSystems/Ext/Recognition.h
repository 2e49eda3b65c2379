#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"

#include <string>

/// Deleted files of which blocks are known, and of their size only that it ends in the last one:
/// formats tell theirs. Used by one thread at a time.
namespace ExtRecognition {

/// Gives a file the size that its content has, and its date where it has none, where the content is
/// of a known kind and ends in the last block. Returns its extension; empty, and nothing changed,
/// where it does not.
std::string recognise(const ExtContext& context, FileNode& node);

/// Does so for all that have ended and whose size is not known; nothing else is doubtful about the
/// blocks of those either.
void recogniseAll(const ExtContext& context, ExtFiles& files);

} // namespace ExtRecognition

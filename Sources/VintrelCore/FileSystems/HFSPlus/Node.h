#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstddef>
#include <cstdint>
#include <functional>

/// One node of a B-tree, and the records in it. Pure: any thread may ask.
namespace HFSPlusNode {

/// How long the record is that begins with these bytes, 0 when none does.
using RecordLength = std::size_t (*)(ByteView bytes);
using Visit = std::function<void(ByteView record)>;

bool isSize(std::uint32_t size);

/// Goes through the records of a whole node. Their offsets stand backwards at its end; the first
/// one that does not ascend or lies outside the node ends them.
void forEachRecord(ByteView node, const Visit& visit);

/// Goes through the records that are left of a damaged node: those that one of its offsets leads
/// to, and those that follow on such a one or on the node's start.
void forEachRemainingRecord(ByteView node, RecordLength lengthOf, const Visit& visit);

/// The data of a record: it begins behind the key, at an even offset.
ByteView dataOf(ByteView record);

/// Whether the header node of a tree may begin with these bytes.
bool looksLikeHeader(ByteView node);

/// Whether a leaf of a tree with nodes of this size may lie here: what its descriptor and the
/// offsets of its records say.
bool looksLikeLeaf(ByteView node, std::uint32_t nodeSize);

} // namespace HFSPlusNode

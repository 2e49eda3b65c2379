#pragma once

/// Who called the program through sudo. Disks are read that way, and what is written is still that
/// user's.
namespace CallingUser {

/// Gives an open file or folder to that user. Does nothing when there is none, or where the file
/// system has no owners.
void own(int descriptor);

} // namespace CallingUser

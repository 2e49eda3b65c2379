#pragma once

struct Session;

/// The six commands. Each prints through the session's output, and leaves in `reached` how far it
/// came. All but `list` read the session's source.
namespace Commands {

void list(Session& session);
void scan(Session& session);
void tree(Session& session);
void deep(Session& session);
void recover(Session& session);
void image(Session& session);

} // namespace Commands

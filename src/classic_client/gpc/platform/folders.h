// Per-user and temporary folders.
#pragma once
#include <string>

namespace platform {

// The user's application-support folder: $XDG_DATA_HOME when it is an absolute path, else
// $HOME/.local/share (the password database's home when HOME is unset). Created, with its
// parents, when missing. Returns an empty string when no folder can be had or made.
std::string UserApplicationSupportDir();

// The temporary folder, always ending in "/": $TMPDIR when it is an absolute path to a
// folder, else "/tmp/". Returns an empty string when neither exists.
std::string TempDir();

// Creates `path` and any missing parents with the given mode. True when the folder exists after.
bool MakeDirectories(const std::string& path, unsigned mode);

}  // namespace platform

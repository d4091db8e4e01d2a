// Per-user and temporary folders.
#pragma once
#include <cstddef>
#include <string>

namespace platform {

// The user's application-support folder: $XDG_DATA_HOME when it is an absolute path, else
// $HOME/.local/share (the password database's home when HOME is unset). Created, with its
// parents, when missing. Returns an empty string when no folder can be had or made.
std::string UserApplicationSupportDir();

// The temporary folder, always ending in "/": $TMPDIR when it is an absolute path to a
// folder, else "/tmp/". Returns an empty string when neither exists.
std::string TempDir();

// The system's shared temporary folder, "/tmp", without a trailing "/". The download client's
// files ("gpc_tmp_<n>"), the shared download folder ("talvo/") and the trace file ("tlvgpc.tvt")
// have fixed names there, whatever TMPDIR says: other processes (the local client, tlvtracer, a
// second browser of another user) look for them by those names.
constexpr char kSharedTempFolder[] = "/tmp";

// Creates the folder `path` (its parent must exist) with the given mode. Returns 0 when it is a
// folder afterwards, else the failure as a negated errno value (-ENOTDIR when a file has the name).
int MakeFolder(const std::string& path, unsigned mode);
// MakeFolder for `path` and any missing parents.
int MakeFolders(const std::string& path, unsigned mode);
// MakeFolders as a yes or no.
bool MakeDirectories(const std::string& path, unsigned mode);

// The plug-in's own folder of the user, below the application-support folder.
constexpr char kTalvoFolderName[] = "Talvo Folder";
// The longest application-support folder path the plug-in works below.
constexpr size_t kLongestSupportPath = 1023;

// "<application support>/Talvo Folder", not created. Empty when there is no application-support
// folder; `tooLong` (when given) tells whether that folder's path is longer than
// kLongestSupportPath, in which case the callers refuse it.
std::string TalvoFolderPath(bool* tooLong = nullptr);

}  // namespace platform

// The plug-in's own bundle folder and the layout inside it.
#pragma once
#include <string>

namespace platform {

constexpr const char* kPluginBundleIdentifier = "com.vantrel.talvo.plugin.gpc64";

// The bundle folder that contains the loaded module: the nearest ancestor of the module's real
// path that holds Contents/Info.plist with the plug-in's bundle identifier. Returns an empty
// string when the module lies in no such bundle (a test program, for instance) and no
// override is set.
std::string PluginBundlePath();

// Makes PluginBundlePath() return `path`; an empty string removes the override.
void SetPluginBundlePathOverride(const std::string& path);

// The "CFBundleIdentifier" (or any other string key) of a bundle's Contents/Info.plist;
// empty when the file or the key is missing or unreadable.
std::string BundleInfoString(const std::string& bundle_path, const char* key);

// The string under `key` of the property list `data` when it is a dictionary, as C text (up to a
// NUL) of at most `longest` bytes; false when there is none. Strings are read in place: libplist
// aborts the process when asked for a copy of a string that holds a NUL, and a file can hold one.
bool PlistDictString(const std::string& data, const char* key, std::string* value,
                     size_t longest = std::string::npos);
// The same for one node of a property list (a plist_t); empty for any other kind of node.
std::string PlistNodeText(void* node, size_t longest = std::string::npos);

// The executable's file name inside Contents/MacOS: `declared` (the bundle's "CFBundleExecutable")
// when it names one file, else the bundle folder's name `folderName` without its suffix.
std::string BundleExecutableName(const std::string& declared, const std::string& folderName);

// The real path of the module (shared object or program) that holds `address`; empty on error.
std::string ModulePathOf(const void* address);

}  // namespace platform

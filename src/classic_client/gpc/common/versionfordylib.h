// Version strings of installed bundles and libraries, in one normal form: comma-separated
// components, compared for equality only.
#pragma once

#include <cstddef>
#include <string>

// The normal form of a version text given by a page or caller: pieces split at blanks, commas,
// tabs, CRs and LFs (empty pieces between adjacent separators kept, a trailing one dropped),
// joined with single commas. `out` is left unchanged for a null text or one without pieces.
void FormalizeVersionString(std::string& out, const char* text);

// Whether the comma-separated version `a` is newer than `b`, compared number by number, trailing
// zeros ignored ("2,10" > "2,9,9"; "2,1,0" equals "2,1"). False when either holds a piece that is
// not all digits ("2.1", "2,,1"): such versions are not ordered.
bool IsVersionNewer(const std::string& a, const std::string& b);

// Stores the version of the bundle, application or framework folder at `path` (from its
// Info.plist "CFBundleVersion", dots turned to commas), or of the loose library file at `path`
// (from its name-version.extension file name), in `dest`. `dest` is emptied first; callers pass
// 256 bytes. False when the path, the executable or the version is missing.
bool GetFileVersionString(const char* path, char* dest, size_t size);

// The "CFBundleVersion" string of the property list `data` as the plug-in reads it: up to a NUL,
// at most 255 bytes. Logs and returns false when `data` is no dictionary or the key is missing.
bool BundleVersionOfPlist(const std::string& data, std::string& version);

// The version of the library at `path` by the name-version.extension convention: the first
// file of its folder, in listing order, with the same name and extension. Dots become commas.
bool GetVersionFromDylib(const char* path, std::string& version);

// Maintains the unversioned name of a versioned library: "dir/libfoo-2.1.so" has the
// unversioned name "dir/libfoo.so" ("libfoo-2.1.dylib": "libfoo.dylib"). A link or folder at the
// versioned path is removed (and with `makeLink` the unversioned entry too); false. For a file,
// with `makeLink`, an existing unversioned entry is replaced by a symbolic link to the file and
// the result is whether that link was made; no link is made where no unversioned entry existed.
bool IsDylibFileExists(const char* versionedPath, bool makeLink);

// The extension bundle as a package carries it: the folder "<name>.bundle" with
// Contents/Info.plist and Contents/MacOS/<name>, packed as the single top folder of a 7z archive,
// and what a package's archive holds, read back without unpacking it.
#pragma once

#include <string>

// What the plug-in learns of a bundle folder, and so what a page must say of it.
struct BundleFacts {
  std::string folder;   // the folder as given, without trailing slashes
  std::string name;     // its name less ".bundle": "GpcExtName"
  std::string version;  // "CFBundleVersion" with dots turned into commas: "GpcExtVersion"
};

// Reads the facts of the bundle folder at `path`. False with a message in `error` when the folder
// is no bundle the plug-in could install and then recognise as installed: a name not ending in
// ".bundle" or too long for the plug-in, no readable Contents/Info.plist with a "CFBundleVersion"
// string, a version no page value can match, a name ExtensionNameRefusal refuses, or no
// Contents/MacOS/<name>.
bool ReadBundleFacts(const std::string& path, BundleFacts* facts, std::string* error);

// Why the plug-in could not install an extension of this name and find it again, or empty: the
// package's URL is the root, the name and ".bundle.7z", unescaped, so "#", "?" and "%" would
// change it; and in a path holding ".framework" the plug-in reads a framework's layout.
std::string ExtensionNameRefusal(const std::string& name);

// Writes the bundle folder as the top folder "<name>.bundle" of a 7z archive (LZMA2 when
// libarchive offers it) to the open file `fd`, which stays open. Modes and modification times
// are kept, symbolic links are stored as links. False with a message when a file cannot be read,
// a link leads out of the bundle or an entry is neither file, folder nor link.
bool WriteBundleArchive(const BundleFacts& bundle, int fd, std::string* error);

// What a package's archive holds.
struct ArchiveFacts {
  std::string topFolder;  // the one folder every entry lies in; empty when there is no single one
  bool hasInfoPlist = false;
  std::string version;    // its Info.plist "CFBundleVersion", dots turned into commas
  std::string executable;  // its file name in Contents/MacOS, as the plug-in finds it
  bool hasExecutable = false;  // <top>/Contents/MacOS/<executable>
};

// Reads the headers of the 7z archive at `path`, and the Info.plist below its top folder. False
// with a message when the file is no readable 7z archive.
bool InspectArchive(const std::string& path, ArchiveFacts* facts, std::string* error);

// The "GpcExtVersion" a page must give for a bundle whose "CFBundleVersion" is `bundleVersion`:
// dots turned into commas.
std::string PageVersionOf(const std::string& bundleVersion);

// Loading extension bundles: where a bundle's executable lies, whether it was built for this
// process's machine, and opening, looking up and closing it.
//
// A bundle keeps the layout X.bundle/Contents/{Info.plist, MacOS/<executable>}; the executable is
// an ELF shared object named by "CFBundleExecutable" in Info.plist.
#pragma once
#include <string>

namespace platform {

// The path of the bundle's executable: Contents/MacOS/ followed by its "CFBundleExecutable", or
// by the bundle's own name less its extension when Info.plist names none. Empty when the bundle
// folder or that file does not exist.
std::string BundleExecutablePath(const std::string& bundle_path);

// True when the file at `executable` is an ELF object of the same class (32/64-bit) and machine
// as the module that runs this code. False for any other machine, a short or foreign file, or a
// file that cannot be read.
bool ExecutableMatchesOwnArchitecture(const std::string& executable);

// True when `path` is an ELF file holding every loadable segment its header promises. The loader
// maps segments without that check, and touching a page past the end of a cut-off file (a download
// or extraction that stopped half-way) kills the whole process.
bool IsCompleteElfFile(const std::string& path);

// Opens the shared object at `path` with every symbol resolved now and kept local to it. Returns
// the handle, or null with the loader's message in `error` (when given). A file cut short of the
// segments its header names is refused before the loader sees it.
void* OpenLibrary(const std::string& path, std::string* error);

// The exported symbol `name` of an open library; null when either argument is null or the
// symbol is missing.
void* LibrarySymbol(void* library, const char* name);

// Closes a handle from OpenLibrary; a null handle is ignored.
void CloseLibrary(void* library);

}  // namespace platform

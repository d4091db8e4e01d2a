// Version strings and Info.plist files (versionfordylib.h).
//
// Input: the Info.plist of a bundle and of a framework, rewritten in place in every run; the same
// bytes, as C text, are a version text to normalise; and its first line, when it can be a file
// name, names a versioned library ("libfoo-1.2.so") whose version is read from its name.
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "versionfordylib.h"

namespace {

constexpr size_t kVersionBufferSize = 256;
constexpr size_t kLongestLibraryName = 200;

struct Layout {
  std::string bundle;
  std::string bundlePlist;
  std::string framework;
  std::string frameworkPlist;
  std::string libraries;
};

Layout* g_layout = nullptr;
fuzz::ScratchTrace* g_trace = nullptr;

Layout MakeLayout(const std::string& folder) {
  Layout layout;
  layout.bundle = folder + "/Test.bundle";
  fuzz::MakeFolder(layout.bundle + "/Contents/MacOS");
  fuzz::WriteFile(layout.bundle + "/Contents/MacOS/Test", "", 0);
  layout.bundlePlist = layout.bundle + "/Contents/Info.plist";
  layout.framework = folder + "/Test.framework";
  fuzz::MakeFolder(layout.framework + "/Versions/A/Resources");
  fuzz::WriteFile(layout.framework + "/Versions/A/Test", "", 0);
  layout.frameworkPlist = layout.framework + "/Versions/A/Resources/Info.plist";
  layout.libraries = folder + "/lib";
  fuzz::MakeFolder(layout.libraries);
  return layout;
}

// A version read into the callers' 256 bytes: terminated, dots turned to commas.
void CheckVersion(const char* path, const char* dest, bool found) {
  const size_t length = strnlen(dest, kVersionBufferSize);
  if (length >= kVersionBufferSize) fuzz::Fail("version of %s left unterminated", path);
  if (!found && length != 0) fuzz::Fail("no version of %s, yet the buffer holds %s", path, dest);
  if (found && strchr(dest, '.') != nullptr) fuzz::Fail("version of %s keeps a dot: %s", path, dest);
}

void ReadBundleVersion(const std::string& path) {
  char dest[kVersionBufferSize];
  memset(dest, 'x', sizeof dest);
  CheckVersion(path.c_str(), dest, GetFileVersionString(path.c_str(), dest, sizeof dest));
}

void Normalise(const char* text) {
  std::string out = "unchanged";
  FormalizeVersionString(out, text);
  if (out.find_first_of(" \t\r\n") != std::string::npos) fuzz::Fail("normal form keeps a separator: [%s]", out.c_str());
}

bool CanBeFileName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestLibraryName && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

void ReadLibraryVersion(const std::string& name) {
  const std::string path = g_layout->libraries + "/" + name;
  fuzz::WriteFile(path, "", 0);
  std::string version;
  if (GetVersionFromDylib(path.c_str(), version) && version.find('.') != std::string::npos) {
    fuzz::Fail("library version keeps a dot: %s", version.c_str());
  }
  char dest[kVersionBufferSize];
  CheckVersion(path.c_str(), dest, GetFileVersionString(path.c_str(), dest, sizeof dest));
  (void)IsDylibFileExists(path.c_str(), false);
  (void)IsDylibFileExists(path.c_str(), true);
  fuzz::EmptyFolder(g_layout->libraries);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string folder = fuzz::MakeScratchFolder("version");
  g_layout = new Layout(MakeLayout(folder));
  g_trace = new fuzz::ScratchTrace(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::WriteFile(g_layout->bundlePlist, data, size);
  fuzz::WriteFile(g_layout->frameworkPlist, data, size);
  ReadBundleVersion(g_layout->bundle);
  ReadBundleVersion(g_layout->framework);

  const std::string text = fuzz::AsText(data, size);
  Normalise(text.c_str());
  const std::string firstLine = text.substr(0, text.find('\n'));
  if (CanBeFileName(firstLine)) ReadLibraryVersion(firstLine);
  g_trace->Tick();
  return 0;
}

// Version strings and Info.plist files. Input: a bundle's Info.plist; the same bytes as a version
// text to normalise; its first line, when it can be a file name, names a library ("libfoo-1.2.so").
#include <cstring>
#include <string>

#include "common/versionfordylib.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"

namespace {

std::string* g_folder = nullptr;
fuzz::ScratchTrace* g_trace = nullptr;

// A version read into the callers' 256 bytes: terminated, empty when not found, dots turned to commas.
void ReadVersion(const std::string& path) {
  char dest[256];
  memset(dest, 'x', sizeof dest);
  const bool found = GetFileVersionString(path.c_str(), dest, sizeof dest);
  const size_t length = strnlen(dest, sizeof dest);
  if (length >= sizeof dest || (!found && length != 0) || (found && strchr(dest, '.') != nullptr))
    fuzz::Fail("version of %s: %.*s", path.c_str(), static_cast<int>(length), dest);
}

bool IsFileName(const std::string& name) {
  return !name.empty() && name.size() <= 200 && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_folder = new std::string(fuzz::MakeScratchFolder("version"));
  g_trace = new fuzz::ScratchTrace(*g_folder);
  fuzz::MakeFolder(*g_folder + "/T.bundle/Contents/MacOS");
  fuzz::WriteFile(*g_folder + "/T.bundle/Contents/MacOS/T", "", 0);
  fuzz::MakeFolder(*g_folder + "/lib");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::WriteFile(*g_folder + "/T.bundle/Contents/Info.plist", data, size);
  ReadVersion(*g_folder + "/T.bundle");
  const std::string text = fuzz::AsText(data, size), name = text.substr(0, text.find('\n'));
  std::string out;
  FormalizeVersionString(out, text.c_str());
  if (out.find_first_of(" \t\r\n") != std::string::npos) fuzz::Fail("normal form keeps a separator: [%s]", out.c_str());
  if (IsFileName(name)) {
    const std::string path = *g_folder + "/lib/" + name;
    fuzz::WriteFile(path, "", 0);
    ReadVersion(path);  // from the library's name
    (void)IsDylibFileExists(path.c_str(), true);
    fuzz::EmptyFolder(*g_folder + "/lib");
  }
  g_trace->Tick();
  return 0;
}

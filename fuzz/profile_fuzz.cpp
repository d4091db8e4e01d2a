// The profile-file reader and the text helpers of gpcutil.h. Input: a section line, a key line, then
// the profile file's contents, which the helpers see too: trimmed, split at the key's characters,
// and with the section name replaced by the key.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "common/gpcutil.h"

namespace {

std::string* g_path = nullptr;
fuzz::ScratchTrace* g_trace = nullptr;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string folder = fuzz::MakeScratchFolder("profile");
  g_path = new std::string(folder + "/profile.ini");
  g_trace = new fuzz::ScratchTrace(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::AsText(data, size);
  const size_t first = text.find('\n');
  const size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
  const std::string section = text.substr(0, first);
  const std::string key = first == std::string::npos ? std::string() : text.substr(first + 1, second - first - 1);
  std::string contents = second == std::string::npos ? std::string() : text.substr(second + 1);
  fuzz::WriteFile(*g_path, contents.data(), contents.size());

  // Buffers of exactly the size given, so that a write past them is caught.
  for (size_t bufferSize : {size_t{1}, size % 64 + 1, size_t{256}, size_t{2048}, key.size() % 300 + 1}) {
    std::unique_ptr<char[]> dest(new char[bufferSize]);
    const size_t length = ZRGetPrivateProfileString(section.c_str(), key.c_str(), "default", dest.get(), bufferSize, g_path->c_str());
    if (length >= bufferSize || strlen(dest.get()) != length) fuzz::Fail("value of length %zu in %zu bytes", length, bufferSize);
    FILE* file = fopen(g_path->c_str(), "r");
    if (file != nullptr && ZRReadIni(file, section.c_str(), key.c_str(), dest.get(), bufferSize)) {
      const size_t n = strnlen(dest.get(), bufferSize);
      if (n >= bufferSize || (n > 0 && n + 1 < bufferSize && (IsBlank(dest[0]) || IsBlank(dest[n - 1]))))
        fuzz::Fail("value unterminated or untrimmed: [%.*s]", static_cast<int>(n), dest.get());
    }
    if (file != nullptr) fclose(file);
  }
  (void)ZRGetPrivateProfileInt(section.c_str(), key.c_str(), -7, g_path->c_str());

  std::string copy(contents.c_str());
  const char* trimmed = ZRTrimStringA(&copy[0]);
  const size_t left = strlen(trimmed);
  if (trimmed < copy.c_str() || trimmed > copy.c_str() + copy.size() || (left > 0 && (IsBlank(trimmed[0]) || IsBlank(trimmed[left - 1]))))
    fuzz::Fail("text not trimmed");
  for (const std::string& piece : divideStr(contents, key))
    if (piece.find_first_of(key) != std::string::npos || contents.empty() || key.empty()) fuzz::Fail("bad piece");
  const std::string before = contents;
  if (&replaceall(contents, section, key) != &contents || ((section.empty() || section == key) && contents != before))
    fuzz::Fail("replaceall changed what it must keep");
  g_trace->Tick();
  return 0;
}

// The profile-file reader and the text helpers of gpcutil.h.
//
// Input: a section name line, a key line, then the profile file's contents. The file is written
// to the same scratch path in every run. The helpers see the contents too: trimmed, split at the
// key's characters, and with every section name in it replaced by the key.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "gpcutil.h"

namespace {

std::string* g_profilePath = nullptr;
fuzz::ScratchTrace* g_trace = nullptr;

bool IsTrimCharacter(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The profile value in a buffer of exactly `size` bytes, so that a write past it is caught.
void ReadString(const std::string& section, const std::string& key, size_t size) {
  std::unique_ptr<char[]> dest(new char[size]);
  memset(dest.get(), 'x', size);
  const size_t length =
      ZRGetPrivateProfileString(section.c_str(), key.c_str(), "default value", dest.get(), size, g_profilePath->c_str());
  if (length >= size || dest[length] != '\0' || strlen(dest.get()) != length) {
    fuzz::Fail("profile value of length %zu in a buffer of %zu", length, size);
  }
}

void ReadFromOpenFile(const std::string& section, const std::string& key, size_t size) {
  FILE* file = fopen(g_profilePath->c_str(), "r");
  if (file == nullptr) fuzz::Fail("cannot open %s", g_profilePath->c_str());
  std::unique_ptr<char[]> dest(new char[size]);
  if (ZRReadIni(file, section.c_str(), key.c_str(), dest.get(), size)) {
    if (strnlen(dest.get(), size) >= size) fuzz::Fail("profile value left unterminated");
    // A value that was not cut to fit is trimmed.
    const size_t length = strlen(dest.get());
    if (length > 0 && length + 1 < size && (IsTrimCharacter(dest[0]) || IsTrimCharacter(dest[length - 1]))) {
      fuzz::Fail("profile value not trimmed: [%s]", dest.get());
    }
  }
  fclose(file);
}

void Trim(const std::string& contents) {
  std::unique_ptr<char[]> text(new char[contents.size() + 1]);
  memcpy(text.get(), contents.data(), contents.size());
  text[contents.size()] = '\0';
  const size_t length = strlen(text.get());
  char* first = ZRTrimStringA(text.get());
  if (first < text.get() || first > text.get() + length) fuzz::Fail("trimmed text starts outside the text");
  const size_t left = strlen(first);
  if (left > 0 && (IsTrimCharacter(first[0]) || IsTrimCharacter(first[left - 1]))) fuzz::Fail("text not trimmed");
}

void Divide(const std::string& contents, const std::string& separators) {
  std::vector<std::string> pieces = divideStr(contents, separators);
  size_t cuts = 0;
  for (char c : contents) cuts += !separators.empty() && separators.find(c) != std::string::npos;
  if (contents.empty() || separators.empty()) {
    if (!pieces.empty()) fuzz::Fail("pieces of nothing");
    return;
  }
  if (pieces.size() > cuts + 1) fuzz::Fail("%zu pieces from %zu separators", pieces.size(), cuts);
  for (const std::string& piece : pieces) {
    if (piece.find_first_of(separators) != std::string::npos) fuzz::Fail("a piece holds a separator");
  }
}

void Replace(std::string contents, const std::string& from, const std::string& to) {
  const std::string before = contents;
  std::string& result = replaceall(contents, from, to);
  if (&result != &contents) fuzz::Fail("replaceall returned another string");
  if (from.empty() && result != before) fuzz::Fail("an empty pattern changed the text");
  if (from == to && result != before) fuzz::Fail("replacing a text by itself changed it");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::string folder = fuzz::MakeScratchFolder("profile");
  g_profilePath = new std::string(folder + "/profile.ini");
  g_trace = new fuzz::ScratchTrace(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::AsText(data, size);
  const size_t first = text.find('\n');
  const size_t second = first == std::string::npos ? std::string::npos : text.find('\n', first + 1);
  const std::string section = text.substr(0, first);
  const std::string key = first == std::string::npos ? std::string() : text.substr(first + 1, second - first - 1);
  const std::string contents = second == std::string::npos ? std::string() : text.substr(second + 1);
  fuzz::WriteFile(*g_profilePath, contents.data(), contents.size());

  // Buffers from one byte up, the sizes callers pass among them.
  for (size_t bufferSize : {size_t{1}, size % 64 + 1, size_t{256}, size_t{2048}}) ReadString(section, key, bufferSize);
  ReadFromOpenFile(section, key, key.size() % 300 + 1);
  (void)ZRGetPrivateProfileInt(section.c_str(), key.c_str(), -7, g_profilePath->c_str());

  Trim(contents);
  Divide(contents, key);
  Replace(contents, section, key);
  g_trace->Tick();
  return 0;
}

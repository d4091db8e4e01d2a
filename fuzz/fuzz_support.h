// Helpers of the fuzz targets: scratch folders under $TMPDIR, files, the input as text, lines or a
// stream of fields, and a broken property that stops the fuzzer.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace fuzz {

// A broken property: libFuzzer records the abort as a crash with its input.
[[noreturn]] inline void Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "FUZZ PROPERTY FAILED: ");
  vfprintf(stderr, format, args);
  fprintf(stderr, "\n");
  va_end(args);
  abort();
}

inline std::string TempBase() {
  const char* tmp = getenv("TMPDIR");
  return (tmp != nullptr && tmp[0] == '/') ? std::string(tmp) : std::string("/tmp");
}
inline std::string MakeScratchFolder(const char* name) {
  std::string pattern = TempBase() + "/gpcfuzz-" + name + "-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) Fail("cannot make a scratch folder at %s", pattern.c_str());
  return pattern;
}
inline void MakeFolder(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::create_directories(path, error) && error) Fail("cannot make %s", path.c_str());
}
inline void RemoveTree(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}
// Removes everything inside `folder`, keeping the folder itself.
inline void EmptyFolder(const std::string& folder) {
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    RemoveTree(it->path());
}
inline void WriteFile(const std::string& path, const void* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr || (size > 0 && fwrite(data, 1, size, file) != size) || fclose(file) != 0)
    Fail("cannot write %s", path.c_str());
}
inline std::string AsText(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }
// The text cut at each "\n" (a last empty line is dropped).
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0, end; start < text.size(); start = end + 1) {
    end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

// Reads the input front to back; past its end every read gives zeros.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool empty() const { return m_at >= m_size; }
  uint8_t Byte() { return m_at < m_size ? m_data[m_at++] : 0; }
  uint16_t Word() {
    const uint16_t high = Byte();
    return static_cast<uint16_t>(high << 8 | Byte());
  }
  // Up to `longest` bytes, as many as the next byte says.
  std::string Text(size_t longest) {
    const size_t length = std::min<size_t>(Byte() % (longest + 1), m_size - m_at);
    m_at += length;
    return std::string(reinterpret_cast<const char*>(m_data + m_at - length), length);
  }

 private:
  const uint8_t* m_data;
  size_t m_size, m_at = 0;
};

}  // namespace fuzz

// Small helpers shared by the fuzz targets: a private scratch folder under $TMPDIR, files written
// from an input, the input cut into lines, and a failed property that stops the fuzzer.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace fuzz {

// Reports a broken property and aborts, which libFuzzer records as a crash with its input.
[[noreturn]] inline void Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "FUZZ PROPERTY FAILED: ");
  vfprintf(stderr, format, args);
  fprintf(stderr, "\n");
  va_end(args);
  abort();
}

// $TMPDIR when it is an absolute path, else /tmp.
inline std::string TempBase() {
  const char* tmp = getenv("TMPDIR");
  return (tmp != nullptr && tmp[0] == '/') ? std::string(tmp) : std::string("/tmp");
}

// A new folder of this process under $TMPDIR; aborts when none can be made.
inline std::string MakeScratchFolder(const char* name) {
  std::string pattern = TempBase() + "/gpcfuzz-" + name + "-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) Fail("cannot make a scratch folder at %s", pattern.c_str());
  return pattern;
}

inline void MakeFolder(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) Fail("cannot make %s: %s", path.c_str(), error.message().c_str());
}

// Removes everything inside `folder`, keeping the folder itself.
inline void EmptyFolder(const std::string& folder) {
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    std::filesystem::remove_all(it->path(), ignored);
  }
}

inline void RemoveTree(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

inline void WriteFile(const std::string& path, const void* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) Fail("cannot write %s", path.c_str());
  if (size > 0 && fwrite(data, 1, size, file) != size) Fail("short write to %s", path.c_str());
  if (fclose(file) != 0) Fail("cannot close %s", path.c_str());
}

inline std::string AsText(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The text cut at each "\n" (a last empty line is dropped).
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
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
    uint16_t high = Byte();
    return static_cast<uint16_t>(high << 8 | Byte());
  }
  // Up to `longest` bytes, as many as the next byte says.
  std::string Text(size_t longest) {
    size_t length = Byte() % (longest + 1);
    if (length > m_size - (m_at < m_size ? m_at : m_size)) length = m_size - (m_at < m_size ? m_at : m_size);
    std::string text(reinterpret_cast<const char*>(m_data + m_at), length);
    m_at += length;
    return text;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_at = 0;
};

}  // namespace fuzz

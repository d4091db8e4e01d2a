// An independent reader of the binary trace file for tests, written from the file layout alone:
// every field is taken from its byte offset, little-endian, with no use of the writer's code.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace tvttest {

inline uint32_t Le(const uint8_t* at, int size) {
  uint32_t value = 0;
  for (int i = size - 1; i >= 0; --i) value = value << 8 | at[i];
  return value;
}

struct Record {
  size_t offset = 0;           // in the file
  std::vector<uint8_t> bytes;  // the whole record, padding included
  uint32_t level() const { return Le(&bytes[8], 4); }
  // The NUL-ended string whose offset the head holds at `field`: 30 module, 32 function, 34 text.
  std::string String(size_t field) const {
    std::string out;
    for (size_t i = Le(&bytes[field], 2); i < bytes.size() && bytes[i] != 0; ++i) out += static_cast<char>(bytes[i]);
    return out;
  }
  // "level module|function|text"
  std::string Describe() const {
    return std::to_string(level()) + " " + String(30) + "|" + String(32) + "|" + String(34);
  }
};

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The records after the 48-byte header, up to the first that is not whole.
inline std::vector<Record> ParseTraceFile(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadBytes(path);
  std::vector<Record> records;
  for (size_t at = 48, length; at + 48 <= bytes.size(); at += length) {
    length = Le(&bytes[at], 2);
    if (length < 48 || length % 4 != 0 || bytes.size() - at < length) break;
    records.push_back({at, std::vector<uint8_t>(bytes.begin() + at, bytes.begin() + at + length)});
  }
  return records;
}

}  // namespace tvttest

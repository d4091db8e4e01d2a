// An independent reader of the binary trace file for tests, written from the file layout alone:
// every field is taken from its byte offset, little-endian, with no use of the writer's code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tvttest {

struct Record {
  size_t offset = 0;           // in the file
  std::vector<uint8_t> bytes;  // the whole record, padding included
  uint16_t length = 0;
  uint32_t level = 0;
  uint32_t pid = 0;
  uint32_t thread = 0;
  uint32_t seconds = 0;
  uint16_t milliseconds = 0;
  uint16_t module_offset = 0;
  uint16_t function_offset = 0;
  uint16_t text_offset = 0;
  std::string module;
  std::string function;
  std::string text;
};

struct File {
  std::vector<uint8_t> header;  // the first 48 bytes (fewer when the file is shorter)
  std::vector<Record> records;
  size_t size = 0;
  std::string error;  // empty when every byte belonged to a whole record
};

std::vector<uint8_t> ReadBytes(const std::string& path);
File ParseTraceFile(const std::string& path);

uint16_t Le16(const uint8_t* at);
uint32_t Le32(const uint8_t* at);

// A folder for a test's files: $GPC_TEST_HOME/<name> when ctest gave one, else a new /tmp folder.
std::string TestFolder(const std::string& name);

}  // namespace tvttest

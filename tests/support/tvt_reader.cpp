#include "tvt_reader.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace tvttest {

uint16_t Le16(const uint8_t* at) { return static_cast<uint16_t>(at[0] | (at[1] << 8)); }

uint32_t Le32(const uint8_t* at) {
  return uint32_t{at[0]} | (uint32_t{at[1]} << 8) | (uint32_t{at[2]} << 16) | (uint32_t{at[3]} << 24);
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

namespace {
std::string StringAt(const std::vector<uint8_t>& bytes, size_t start, size_t end) {
  std::string out;
  for (size_t i = start; i < end && bytes[i] != 0; ++i) out += static_cast<char>(bytes[i]);
  return out;
}
}  // namespace

File ParseTraceFile(const std::string& path) {
  File file;
  const std::vector<uint8_t> bytes = ReadBytes(path);
  file.size = bytes.size();
  file.header.assign(bytes.begin(), bytes.begin() + static_cast<long>(std::min<size_t>(48, bytes.size())));
  if (bytes.size() < 48) {
    file.error = "short header";
    return file;
  }
  size_t at = 48;
  while (at < bytes.size()) {
    if (bytes.size() - at < 48) {
      file.error = "short record head at " + std::to_string(at);
      return file;
    }
    Record record;
    record.offset = at;
    record.length = Le16(&bytes[at]);
    if (record.length < 48 || record.length % 4 != 0 || bytes.size() - at < record.length) {
      file.error = "bad record length at " + std::to_string(at);
      return file;
    }
    const uint8_t* head = &bytes[at];
    record.bytes.assign(head, head + record.length);
    record.level = Le32(head + 8);
    record.pid = Le32(head + 12);
    record.thread = Le32(head + 16);
    record.seconds = Le32(head + 24);
    record.milliseconds = Le16(head + 28);
    record.module_offset = Le16(head + 30);
    record.function_offset = Le16(head + 32);
    record.text_offset = Le16(head + 34);
    const size_t end = at + record.length;
    record.module = StringAt(bytes, at + record.module_offset, end);
    record.function = StringAt(bytes, at + record.function_offset, end);
    record.text = StringAt(bytes, at + record.text_offset, end);
    file.records.push_back(std::move(record));
    at = end;
  }
  return file;
}

std::string TestFolder(const std::string& name) {
  const char* home = getenv("GPC_TEST_HOME");
  std::string folder;
  if (home != nullptr && home[0] == '/') {
    folder = std::string(home) + "/" + name;
    mkdir(folder.c_str(), 0700);
  } else {
    std::string templ = "/tmp/" + name + "XXXXXX";
    folder = mkdtemp(templ.data());
  }
  return folder;
}

}  // namespace tvttest

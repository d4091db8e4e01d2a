#include "platform/processes.h"

#include <cctype>
#include <dirent.h>
#include <fstream>

namespace platform {

namespace {
bool IsNumber(const char* text) {
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (!std::isdigit(static_cast<unsigned char>(*text))) return false;
  }
  return true;
}
}  // namespace

bool ListProcesses(std::vector<ProcessInfo>* out) {
  out->clear();
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return false;
  while (struct dirent* entry = readdir(proc)) {
    if (!IsNumber(entry->d_name)) continue;
    std::ifstream comm(std::string("/proc/") + entry->d_name + "/comm");
    std::string name;
    if (!comm || !std::getline(comm, name)) continue;  // ended meanwhile
    out->push_back(ProcessInfo{static_cast<pid_t>(std::stol(entry->d_name)), name});
  }
  closedir(proc);
  return true;
}

}  // namespace platform

// The table of running processes.
#pragma once
#include <string>
#include <sys/types.h>
#include <vector>

namespace platform {

struct ProcessInfo {
  pid_t pid;
  std::string name;  // the short command name, as the kernel keeps it (at most 15 characters)
};

// Fills `out` with every process that can be seen. Returns false, leaving `out` empty, when the
// process table cannot be read at all; processes that end while being read are skipped.
bool ListProcesses(std::vector<ProcessInfo>* out);

}  // namespace platform

// What the benchmarks share: running gpc-host or a command as a child and reading its peak memory.
#pragma once
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

// Runs gpc-host with `args`, its output thrown away; returns its exit code and its peak resident
// set in KiB.
inline int RunHost(const std::vector<std::string>& args, long* peakKib) {
  const std::string host = std::string(GPC_BIN_DIR) + "/gpc-host";
  std::vector<char*> argv = {const_cast<char*>(host.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
    execv(host.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  *peakKib = usage.ru_maxrss;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Peak resident set in KiB of the shell command `command`, run as one process.
inline long PeakOfCommand(const std::string& command) {
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  return usage.ru_maxrss;
}

}  // namespace bench

// The host's command line.
#pragma once
#include <string>
#include <utility>
#include <vector>

struct HostOptions {
  std::string plugin;                                     // module to load
  std::vector<std::pair<std::string, std::string>> params;  // embed parameters, page order
  std::string page_url;                                   // delivered as the host-page stream
  long run_ms = 10000;                                    // the loop ends after this long
  std::string exit_on_navigate;                           // ... or at a navigation containing this
  bool models = false;                                    // offer Core Graphics and Cocoa events
  unsigned width = 640, height = 480;                     // the window given to SetWindow
  bool native_messaging = false;                          // serve a browser extension's embeds
  bool help = false;
};

// Parses argv into `out`. Returns false with a message in `error` on a bad command line.
bool ParseHostOptions(int argc, char** argv, HostOptions* out, std::string* error);

// Reads NAME=VALUE lines from `path` and appends them to `params`. Each line is split at its first
// "="; the value is kept byte for byte up to the line feed. Empty lines and lines starting with
// "#" are skipped. Returns false with a message in `error` when the file cannot be read or a line
// has no "=".
bool ReadParamsFile(const std::string& path, std::vector<std::pair<std::string, std::string>>* params,
                    std::string* error);

extern const char kHostHelp[];

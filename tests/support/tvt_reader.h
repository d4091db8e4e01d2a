// Trace files read back with the tlvtracer tool, so that a test of the writer checks both ends.
#pragma once

#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"

namespace tvttest {

// tlvtracer run with `args` to its end.
inline gpctest::ToolRun Tlvtracer(std::vector<std::string> args) {
  args.insert(args.begin(), GPC_BIN_DIR "/tlvtracer");
  return gpctest::RunTool(args);
}

// "level module|function|text" of each record of the file at `path`, then why tlvtracer failed if it did.
inline std::vector<std::string> Records(const std::string& path) {
  const gpctest::ToolRun run = Tlvtracer({"--json", path});
  std::vector<std::string> out;
  for (const gpchost::JsonEvent& record : gpchost::ParseJsonLines(run.out)) {
    out.push_back(std::to_string(record.Int("level_value")) + " " + record.Str("module") + "|" +
                  record.Str("function") + "|" + record.Str("text"));
  }
  if (run.exitCode != 0) out.push_back("exit " + std::to_string(run.exitCode) + " " + run.err);
  return out;
}

}  // namespace tvttest

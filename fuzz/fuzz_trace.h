// The trace file of a fuzz target: in its scratch folder, started again every so many runs, so
// that the texts the input puts into trace lines are written without the file growing for ever.
#pragma once

#include <string>

#include "fuzz_support.h"
#include "tlvtrace/tlvtrace_testing.h"

namespace fuzz {

class ScratchTrace {
 public:
  explicit ScratchTrace(const std::string& folder) : m_path(folder + "/trace.tvt") { Restart(); }
  // Call once per run.
  void Tick() {
    if (++m_runs % kRunsPerFile == 0) Restart();
  }

 private:
  static constexpr unsigned kRunsPerFile = 512;
  void Restart() {
    if (!tlvtra_reopen_for_testing(m_path.c_str())) Fail("cannot make the trace file %s", m_path.c_str());
  }
  std::string m_path;
  unsigned m_runs = 0;
};

}  // namespace fuzz

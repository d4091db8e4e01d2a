// A fuzz target's trace file in its scratch folder, started again every 512 runs so that the texts
// an input puts into trace lines are written without the file growing for ever.
#pragma once

#include <string>

#include "common/tlvtrace/tlvtrace_testing.h"
#include "fuzz_support.h"

namespace fuzz {

class ScratchTrace {
 public:
  explicit ScratchTrace(const std::string& folder) : m_path(folder + "/trace.tvt") { Tick(); }
  void Tick() {  // once per run
    if (m_runs++ % 512 == 0 && !tlvtra_reopen_for_testing(m_path.c_str())) Fail("cannot make %s", m_path.c_str());
  }

 private:
  std::string m_path;
  unsigned m_runs = 0;
};

}  // namespace fuzz

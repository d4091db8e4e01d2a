// The trace entries this process posts, as the trace catcher sees them, so that tests can check
// which log lines a call produced. Capture starts on first use and lasts for the program's life.
#pragma once

#include <string>
#include <vector>

struct CapturedTrace {
  int level;
  std::string text;
};

std::vector<CapturedTrace> CapturedTracesSnapshot();
void ClearCapturedTraces();
bool TraceContains(int level, const std::string& fragment);

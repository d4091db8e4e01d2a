// Collects the trace entries this process posts, as the trace catcher sees them, so that tests can
// check which log lines a call produced.
#pragma once

#include <mutex>
#include <string>
#include <vector>

struct CapturedTrace {
  int level;
  std::string text;
};

// Each of these starts listening on first use; it lasts for the life of the program.
void StartTraceCapture();
std::vector<CapturedTrace> CapturedTracesSnapshot();
void ClearCapturedTraces();
bool TraceContains(int level, const std::string& fragment);

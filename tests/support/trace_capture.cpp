#include "trace_capture.h"

#include <algorithm>
#include <mutex>

#include "common/gpcnotification.h"

namespace {

std::mutex g_mutex;
auto* g_traces = new std::vector<CapturedTrace>;  // never freed: entries may arrive during exit

// Starts listening on first use; the lock is held on return.
std::unique_lock<std::mutex> Lock() {
  [[maybe_unused]] static const auto observer = gpc::GPCNotificationCenter::defaultCenter().addObserver(
      "TRACENOTIFICATIONNotification", [](const gpc::GPCNotification& note) {
        const auto level = note.userInfo ? note.userInfo->GetNumber("Levelkey") : std::nullopt;
        const auto text = note.userInfo ? note.userInfo->GetString("ContentKey") : std::nullopt;
        std::lock_guard<std::mutex> lock(g_mutex);
        if (level && text) g_traces->push_back({static_cast<int>(*level), *text});
      });
  return std::unique_lock<std::mutex>(g_mutex);
}

}  // namespace

std::vector<CapturedTrace> CapturedTracesSnapshot() {
  const auto lock = Lock();
  return *g_traces;
}

void ClearCapturedTraces() {
  const auto lock = Lock();
  g_traces->clear();
}

bool TraceContains(int level, const std::string& fragment) {
  const std::vector<CapturedTrace> traces = CapturedTracesSnapshot();
  return std::any_of(traces.begin(), traces.end(),
                     [&](const CapturedTrace& t) { return t.level == level && t.text.find(fragment) != std::string::npos; });
}

// The process-wide trace catcher. It observes trace entries posted to the notification hub, keeps
// them in an in-memory list (oldest first, growing until a reset or shutdown) and writes them to
// the binary trace file; it answers queries for the recent warnings and errors.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "gpc/gpc_trace.h"
#include "common/gpcnotification.h"

namespace gpc {

// Trace entry accessors: the "Levelkey" value (-1 when absent) and the "ContentKey" text.
int traceLevel(const GPCUserInfo& entry);
std::string traceContent(const GPCUserInfo& entry);

// True when `text` is well-formed UTF-8 without NUL bytes (no overlong forms, surrogates or code
// points past U+10FFFF): the texts a trace entry may carry, and paths the utilities accept. The
// plug-in's one UTF-8 check.
bool IsValidUtf8(std::string_view text);

class GPCTraceCatcher {
 public:
  using TraceList = std::vector<std::shared_ptr<GPCUserInfo>>;

  // The global catcher, created when there is none (without adding a reference).
  static GPCTraceCatcher* sharedInstance();
  // Creates the global catcher, or adds one reference to the existing one.
  static void initGlobal();
  // Stops the global catcher's observation, drops one reference and forgets it. One call ends
  // the global whatever number of initGlobal calls came before.
  static void releaseGlobal();

  // A new catcher with one reference, observing both notifications.
  static GPCTraceCatcher* create();
  void retain();
  // The last one clears the list, logs "Gpctracecatcher dealloc" and stops observing; the catcher
  // is freed once no delivery on another thread is still under way in it.
  void release();
  int retainCount() const { return m_nRetainCount.load(); }

  // Receives one posted trace entry.
  void _traceCatcherEntery(const GPCNotification& notification);
  // Answers a warnings query by writing into the poster's mutable dictionary.
  void handleQueryTraces(const GPCNotification& notification);

  // Entries whose level is neither debug (0) nor info (1), in list order. `condition` is unused.
  TraceList filterAllTraceWithCondition(int condition) const;
  // The newest entries of `list` that fit under `sizeLimit`, percent-encoded, oldest first, one
  // per line; the walk stops at the first entry that does not fit.
  std::string stringValueForAllTrace(const TraceList& list, size_t sizeLimit) const;

  // A copy of the kept entries (empty once the list has been set to none).
  TraceList allTraceInfo() const;
  // Replaces the list; null sets it to none, after which entries are no longer kept.
  void setAllTraceInfo(const TraceList* list);
  // Empties the list (so that each error report carries only the trace since the previous one).
  void removeAllTraceInfo();

  GPCTraceCatcher(const GPCTraceCatcher&) = delete;
  GPCTraceCatcher& operator=(const GPCTraceCatcher&) = delete;

 private:
  GPCTraceCatcher();
  ~GPCTraceCatcher() = default;
  void startObserving();
  void stopObserving();

  std::atomic<int> m_nRetainCount{1};
  // Owns the catcher while it has references; each delivery holds it too, through the observers'
  // weak references, so that a release on another thread never frees it under a delivery.
  std::shared_ptr<GPCTraceCatcher> m_pSelf;
  mutable std::mutex m_mutex;  // guards the list against writers on other threads
  std::unique_ptr<TraceList> myAllTraceInfo;
  GPCNotificationCenter::ObserverId m_nTraceObserver = 0;
  GPCNotificationCenter::ObserverId m_nQueryObserver = 0;
};

}  // namespace gpc

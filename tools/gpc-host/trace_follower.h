// Follows the plug-in's trace file while the host runs, through `tlvtracer --json --follow`
// (the tool that reads the binary trace format, found beside gpc-host), and hands on the text of
// every record this process wrote. The file is the one the plug-in writes: $GPC_TRACE_FILE when
// it is an absolute path, else the default; tlvtracer applies the same rule.
#pragma once
#include <glib.h>
#include <sys/types.h>

#include <functional>
#include <string>

class TraceFollower {
 public:
  explicit TraceFollower(std::function<void(const std::string& text)> on_record);
  // Stops tlvtracer and waits for it.
  ~TraceFollower();
  TraceFollower(const TraceFollower&) = delete;
  TraceFollower& operator=(const TraceFollower&) = delete;

  // Starts tlvtracer; false (with the reason on standard error) when it cannot run. Records
  // arrive from the default main context, within tlvtracer's poll interval of being written.
  bool Start();

 private:
  static gboolean OnOutput(gint fd, GIOCondition condition, gpointer self);
  void TakeLine(const std::string& line);

  std::function<void(const std::string&)> on_record_;
  pid_t m_child = -1;
  int m_output = -1;
  guint m_watch = 0;
  std::string m_pending;  // an incomplete last line
};

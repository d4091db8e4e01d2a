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
  // Should tlvtracer end while the host runs, it is started again, once a second at most, and the
  // records it shows again are not handed on twice.
  bool Start();

 private:
  static gboolean OnOutput(gint fd, GIOCondition condition, gpointer self);
  static gboolean OnRestart(gpointer self);
  bool Launch(const std::string& tracer);
  void Stop();
  void ScheduleRestart();
  void TakeLine(const std::string& line);

  std::function<void(const std::string&)> on_record_;
  std::string m_tracer;
  pid_t m_child = -1;
  int m_output = -1;
  guint m_watch = 0;
  guint m_restart = 0;
  gint64 m_started_at = 0;  // monotonic microseconds of the last launch
  std::string m_pending;    // an incomplete last line
  // The offset of the last record handed on. This process's writer only appends, so a record of
  // it at or before this offset was handed on already, unless the file has been started anew
  // since: tlvtracer says so when it sees it, and a restarted tlvtracer shows another first
  // record. Times play no part: the clock may be set back.
  double m_last_offset = -1;
  std::string m_first_record;  // the record at the file's start, as last shown
  bool m_relaunched = false;   // no record shown yet by a tlvtracer started again
};

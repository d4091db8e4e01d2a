#include "trace_follower.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "json_value.h"

namespace {

// tlvtracer beside this program's own file.
std::string TracerPath() {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return std::string();
  std::string path(self, static_cast<size_t>(length));
  return path.substr(0, path.rfind('/') + 1) + "tlvtracer";
}

}  // namespace

TraceFollower::TraceFollower(std::function<void(const std::string&)> on_record) : on_record_(std::move(on_record)) {}

TraceFollower::~TraceFollower() {
  if (m_restart != 0) g_source_remove(m_restart);
  Stop();
}

void TraceFollower::Stop() {
  if (m_watch != 0) g_source_remove(m_watch);
  m_watch = 0;
  if (m_output >= 0) close(m_output);
  m_output = -1;
  if (m_child > 0) {
    kill(m_child, SIGTERM);
    while (waitpid(m_child, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  m_child = -1;
  m_pending.clear();
}

bool TraceFollower::Start() {
  m_tracer = TracerPath();
  if (m_tracer.empty() || access(m_tracer.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "gpc-host: no tlvtracer beside gpc-host; stages are not followed\n");
    return false;
  }
  return Launch(m_tracer);
}

bool TraceFollower::Launch(const std::string& tracer) {
  m_relaunched = m_started_at != 0;
  m_started_at = g_get_monotonic_time();
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  const pid_t parent = getpid();
  const long open_max = sysconf(_SC_OPEN_MAX) > 0 ? std::min(sysconf(_SC_OPEN_MAX), 65536L) : 1024;
  m_child = fork();
  if (m_child == 0) {
    // Only async-signal-safe calls until exec. The tracer ends with the host, however it ends.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(0);
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Its notices come through the same pipe, in order with the records.
    if (null_fd < 0 || dup2(null_fd, STDIN_FILENO) < 0 || dup2(pipe_fds[1], STDOUT_FILENO) < 0 ||
        dup2(pipe_fds[1], STDERR_FILENO) < 0)
      _exit(127);
    // Nothing else of the host's: a download's connection, libcurl's own pairs.
    if (close_range(3, ~0U, 0) != 0)
      for (int fd = 3; fd < open_max; ++fd) close(fd);  // a kernel before 5.9
    const char* argv[] = {tracer.c_str(), "--json", "--follow", nullptr};
    execv(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }
  close(pipe_fds[1]);
  if (m_child < 0) {
    close(pipe_fds[0]);
    std::fprintf(stderr, "gpc-host: cannot start tlvtracer: %s\n", std::strerror(errno));
    return false;
  }
  m_output = pipe_fds[0];
  m_watch = g_unix_fd_add(m_output, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &TraceFollower::OnOutput, this);
  return true;
}

// tlvtracer only closes its output when it ends: it is reaped and, a second after its last start
// at the soonest, started again.
void TraceFollower::ScheduleRestart() {
  m_watch = 0;  // removed by returning G_SOURCE_REMOVE
  Stop();
  std::fprintf(stderr, "gpc-host: tlvtracer ended; starting it again\n");
  const gint64 due = m_started_at + G_USEC_PER_SEC - g_get_monotonic_time();
  m_restart = g_timeout_add(due > 0 ? static_cast<guint>(due / 1000) : 0, &TraceFollower::OnRestart, this);
}

gboolean TraceFollower::OnRestart(gpointer self) {
  auto* follower = static_cast<TraceFollower*>(self);
  follower->m_restart = 0;
  if (!follower->Launch(follower->m_tracer)) follower->ScheduleRestart();
  return G_SOURCE_REMOVE;
}

gboolean TraceFollower::OnOutput(gint fd, GIOCondition, gpointer self) {
  auto* follower = static_cast<TraceFollower*>(self);
  char buffer[16 * 1024];
  ssize_t got = read(fd, buffer, sizeof buffer);
  if (got < 0 && errno == EINTR) return G_SOURCE_CONTINUE;
  if (got <= 0) {
    follower->ScheduleRestart();
    return G_SOURCE_REMOVE;
  }
  follower->m_pending.append(buffer, static_cast<size_t>(got));
  size_t end;
  while ((end = follower->m_pending.find('\n')) != std::string::npos) {
    std::string line = follower->m_pending.substr(0, end);
    follower->m_pending.erase(0, end + 1);
    follower->TakeLine(line);
  }
  return G_SOURCE_CONTINUE;
}

void TraceFollower::TakeLine(const std::string& line) {
  JsonValue record;
  std::string error;
  if (!ParseJson(line, &record, &error)) {
    // One of tlvtracer's notices: passed on. After "started anew" every record is new.
    if (line.find(" started anew; ") != std::string::npos) m_last_offset = -1;
    std::fprintf(stderr, "%s\n", line.c_str());
    return;
  }
  const JsonValue* pid = record.Find("pid");
  const JsonValue* text = record.Find("text");
  const JsonValue* offset = record.Find("offset");
  constexpr double kFirstRecordOffset = 48;  // just past the file's header
  if (offset != nullptr && offset->kind == JsonValue::Kind::kNumber && offset->number == kFirstRecordOffset) {
    // A tlvtracer started again shows the file from its start: another first record than the
    // one last shown means the file was started anew meanwhile, and all of it is new.
    if (m_relaunched && line != m_first_record) m_last_offset = -1;
    m_first_record = line;
  }
  m_relaunched = false;
  // The file is shared by every process that loads the plug-in; only this one's records count.
  if (pid == nullptr || pid->kind != JsonValue::Kind::kNumber || pid->number != getpid()) return;
  if (offset != nullptr && offset->kind == JsonValue::Kind::kNumber) {
    if (offset->number <= m_last_offset) return;  // shown again by a restarted tlvtracer
    m_last_offset = offset->number;
  }
  if (text != nullptr && text->IsString()) on_record_(text->text);
}

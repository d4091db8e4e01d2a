// Download tasks against the loopback server: their files, their failures and the stall watchdog.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/gpcdownloadtask.h"
#include "common/gpctimerproxy.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "platform/clock.h"
#include "scoped_env.h"

namespace {

using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Connections of this process (the server runs in another) that a program it starts would keep.
int InheritableConnections() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    count += getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && (domain == AF_INET || domain == AF_INET6) &&
             (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0;
  }
  return count;
}

struct Notify : IGPCDownloadNotify {
  void OnDataReceived(unsigned int size, void* item) override {
    received += size;
    lastItem = item;
  }
  void OnDownloadCompleate() override { ++completions; }
  unsigned long long received = 0;
  void* lastItem = nullptr;
  int completions = 0;
};

// A clock the test moves by hand: the monotonic one by default, or the wall clock.
class FakeClock {
 public:
  explicit FakeClock(void (*set)(std::function<int64_t()>) = platform::SetMonotonicClockOverride,
                     int64_t start = platform::MonotonicMicros())
      : set_(set), micros_(start) {
    set_([this] { return micros_; });
  }
  ~FakeClock() { set_(nullptr); }
  void AdvanceSeconds(int64_t seconds) { micros_ += seconds * 1000000; }

 private:
  void (*set_)(std::function<int64_t()>);
  int64_t micros_;
};

void* GrowUpTo1MiB(void* buffer, size_t size) { return size > 1024 * 1024 ? nullptr : realloc(buffer, size); }

class DownloadTaskTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
      unsetenv(name);
    ASSERT_TRUE(server_.Start()) << server_.error();
  }
  static bool WaitForStatus(GPCDownloadTask& task, int status) {
    return RunMainLoopUntil([&] { return task.GetStatus() == status; });
  }
  static inline gpctest::LoopbackServer server_;
};

// The file goes with the task (also after the extension changed its mode), unless (names under /tmp
// being shared) another process's download took the name after the package was deleted; memory mode saves the body under a counted name ending
// in the wall-clock second, kept after the task. Either file is readable by its user alone.
TEST_F(DownloadTaskTest, DownloadsIntoATemporaryFileRemovedWithTheTask) {
  FakeClock wall(platform::SetWallClockOverride, platform::WallClockMicros());
  const std::string content = PatternBytes(5 * 1024 * 1024 + 3, 21);
  const std::string seconds = "_" + std::to_string(platform::WallClockMicros() / 1000000);
  ASSERT_TRUE(server_.AddFile("task.bin", content));
  for (const char* row : {"own file", "own file, made executable", "name taken by another file", "memory mode"}) {
    SCOPED_TRACE(row);
    const bool taken = row[0] == 'n', memory = row[0] == 'm';
    Notify notify;
    int item = 0;
    auto task = std::make_unique<GPCDownloadTask>(server_.HttpsUrl("task.bin").c_str(), false, &notify);
    task->SetItem(&item);
    task->SetFileMode(memory ? 0 : 1);
    const std::string planted = "/tmp/gpc_tmp_1" + seconds;  // another user's file at a name to come
    ASSERT_TRUE(!memory || gpctest::WriteFile(planted, "planted"));
    ASSERT_EQ(task->Start(), 0u);
    ASSERT_TRUE(WaitForStatus(*task, kDownloadFinished));
    EXPECT_EQ(notify.received, content.size());
    EXPECT_EQ(notify.lastItem, &item);
    EXPECT_EQ(task->GetDownloadedSize(), content.size());
    const std::string local = task->GetLocalFile();
    EXPECT_EQ(local.rfind("/tmp/gpc_tmp_", 0), 0u) << local;
    EXPECT_EQ(local.size() > seconds.size() && local.substr(local.size() - seconds.size()) == seconds, memory);
    EXPECT_TRUE(ReadFile(local) == content);
    struct stat info {};
    EXPECT_TRUE(stat(local.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600) << "for its user's eyes alone";
    task->Start();  // a task that still has its client only refreshes its counters
    EXPECT_EQ(task->GetCheckTimes(), 2);
    RunMainLoopFor(50);
    EXPECT_EQ(notify.completions, 1);
    ASSERT_TRUE(!taken || (unlink(local.c_str()) == 0 && gpctest::WriteFile(local, "another's")));
    ASSERT_TRUE(strstr(row, "executable") == nullptr || chmod(local.c_str(), 0755) == 0);
    if (taken) {
      task.reset();  // the destructor, like Stop, lets the task's own file go
    } else {
      task->Stop();
      EXPECT_EQ(task->GetStatus(), kDownloadStopped);
    }
    const std::string kept = taken ? "another's" : memory ? content : "";
    EXPECT_TRUE(ReadFile(local) == kept);
    EXPECT_EQ(Exists(local), !kept.empty());
    EXPECT_TRUE(!memory || ReadFile(planted) == "planted");
    unlink(local.c_str());
    if (memory) unlink(planted.c_str());
  }
}

// Bad addresses, empty and cut bodies, challenges and bodies that cannot be stored: no notification,
// no file, no piece left behind.
TEST_F(DownloadTaskTest, FailuresEndWithoutNotificationOrFile) {
  const std::string content = PatternBytes(6 * 1024 * 1024, 12);
  ASSERT_TRUE(server_.AddFile("full.bin", content));
  const unsigned kFailed = 0xFFFFFFFF;
  const struct {
    std::string url;
    int fileMode;
    rlim_t diskLimit;  // 0: none
    bool memoryShort;
    unsigned started;
    int status;
  } kCases[] = {{"", 1, 0, false, kFailed, kDownloadFailed},
                {"http://a/", 1, 0, false, kFailed, kDownloadFailed},
                {server_.Url("/bytes?n=0"), 1, 0, false, 0, kDownloadFailed},
                {server_.Url("/bytes?n=0"), 0, 0, false, 0, kDownloadFailed},
                {server_.Url("/reset"), 1, 0, false, 0, kDownloadFailed},
                {server_.Url("/status/401"), 1, 0, false, 0, kDownloadNeedProxy},
                {server_.Url("/status/403"), 1, 0, false, 0, kDownloadNeedProxy},
                {server_.Url("/status/407"), 1, 0, false, 0, kDownloadNeedProxy},
                {server_.HttpUrl("full.bin"), 1, 4 * 1024 * 1024, false, 0, kDownloadFailed},  // while receiving
                {server_.HttpUrl("full.bin"), 1, 6 * 1024 * 1024 - 1, false, 0, kDownloadFailed},  // its last byte
                {server_.HttpUrl("full.bin"), 0, 0, true, 0, kDownloadFailed},
                {server_.HttpUrl("full.bin"), 0, 4 * 1024 * 1024, false, 0, kDownloadFailed}};  // while saving
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.url + " mode " + std::to_string(c.fileMode));
    Notify notify;
    GPCDownloadTask task(c.url.empty() ? nullptr : c.url.c_str(), false, &notify);
    task.SetFileMode(c.fileMode);
    {
      const ScopedFileSizeLimit disk(c.diskLimit);
      GPCNetworkHttp::SetBufferGrowthForTesting(c.memoryShort ? &GrowUpTo1MiB : nullptr);
      EXPECT_EQ(task.Start(), c.started);
      EXPECT_TRUE(WaitForStatus(task, c.status));
      GPCNetworkHttp::SetBufferGrowthForTesting(nullptr);
    }
    EXPECT_TRUE(c.status != kDownloadNeedProxy || task.GetDownloadedSize() == 0);  // the client is gone
    EXPECT_EQ(notify.completions, 0);
    EXPECT_TRUE(task.GetLocalFile().empty());
    task.Stop();
    EXPECT_EQ(gpctest::PiecesInTmp(content), std::vector<std::string>());
  }
}

// Stands in for the instance's heartbeat: every 50 ms the watchdog of a running task.
void Beat(GPCTimerProxy*, void* task) {
  auto* t = static_cast<GPCDownloadTask*>(task);
  if (t->GetStatus() == kDownloading) t->CheckTask();
}

// 17 seconds without data on the monotonic clock (the wall clock may jump meanwhile): a server that
// never sent anything gets one restart, a stall after data fails at once; the partial file goes.
// Of a gap the heartbeat did not watch (a main thread blocked, a machine asleep), 5 s count.
TEST_F(DownloadTaskTest, StalledDownloadsFail) {
  for (const std::string path : {"/never", "/stall"}) {
    SCOPED_TRACE(path);
    const bool restarts = path == "/never";
    FakeClock clock;
    Notify notify;
    GPCDownloadTask task(server_.Url(path).c_str(), false, &notify);
    GPCTimerProxy heartbeat(0.05, &Beat, &task);
    const auto watched = [&](int seconds) {  // a check at least every 4 seconds
      for (; seconds > 0; seconds -= 4) {
        clock.AdvanceSeconds(std::min(seconds, 4));
        Beat(nullptr, &task);
      }
    };
    const int before = server_.RequestCount(path);
    ASSERT_EQ(task.Start(), 0u);
    watched(16);  // before any data: a stall counts from the last data
    ASSERT_TRUE(RunMainLoopUntil([&] { return server_.RequestCount(path) == before + 1; }));
    ASSERT_TRUE(restarts || RunMainLoopUntil([&] { return notify.received == 4096; }));
    const std::string partial = "/tmp/gpc_tmp_" + std::to_string(GPCNetworkHttp::GetTempFileCounter());
    EXPECT_TRUE(restarts || Exists(partial));
    EXPECT_EQ(InheritableConnections(), 0);
    if (!restarts) {
      clock.AdvanceSeconds(30);  // of which 5 s count
      Beat(nullptr, &task);
      EXPECT_EQ(task.GetStatus(), kDownloading) << "30 s unwatched";
      watched(11);
    }
    for (const int64_t step : {-1, -3600, 86400}) {
      FakeClock wall(platform::SetWallClockOverride, platform::WallClockMicros());
      wall.AdvanceSeconds(step);
      RunMainLoopFor(150);
      EXPECT_EQ(task.GetStatus(), kDownloading) << "wall clock moved by " << step;
    }
    watched(1);
    if (restarts) {
      ASSERT_TRUE(RunMainLoopUntil([&] { return task.GetCheckTimes() == 2; }));
      EXPECT_EQ(task.GetStatus(), kDownloading);
      ASSERT_TRUE(RunMainLoopUntil([&] { return server_.RequestCount(path) == before + 2; }));
      watched(17);
    }
    ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
    RunMainLoopFor(100);
    EXPECT_EQ(task.GetCheckTimes(), restarts ? 2 : 1);
    EXPECT_EQ(server_.RequestCount(path), before + (restarts ? 2 : 1));
    EXPECT_EQ(notify.completions, 0);
    EXPECT_TRUE(restarts || !Exists(partial));
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
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

namespace {

using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

const unsigned kFailed = 0xFFFFFFFF;

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
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

// A clock the test moves by hand: the monotonic clock, so that stalls of 17 seconds pass at once,
// or the wall clock, which the watchdog must not heed.
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

// Stands in for the instance's heartbeat: every 50 ms the watchdog of a running task.
void Beat(GPCTimerProxy*, void* task) {
  auto* t = static_cast<GPCDownloadTask*>(task);
  if (t->GetStatus() == kDownloading) t->CheckTask();
}

class DownloadTaskTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                             "ALL_PROXY"})
      unsetenv(name);
    server_ = new gpctest::LoopbackServer;
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  static void TearDownTestSuite() { delete server_; }
  static bool WaitForStatus(GPCDownloadTask& task, int status) {
    return RunMainLoopUntil([&] { return task.GetStatus() == status; });
  }
  static inline gpctest::LoopbackServer* server_ = nullptr;
};

// The task's file goes with the task, unless (names under /tmp being shared) another process's
// download took the name after the package was deleted.
TEST_F(DownloadTaskTest, DownloadsIntoATemporaryFileRemovedWithTheTask) {
  const std::string content = PatternBytes(5 * 1024 * 1024 + 3, 21);
  ASSERT_TRUE(server_->AddFile("task.bin", content));
  for (const bool taken : {false, true}) {
    SCOPED_TRACE(taken ? "name taken by another file" : "own file");
    Notify notify;
    int item = 0;
    std::string local;
    {
      GPCDownloadTask task(server_->HttpsUrl("task.bin").c_str(), false, &notify);
      task.SetItem(&item);
      ASSERT_EQ(task.Start(), 0u);
      EXPECT_EQ(task.GetStatus(), kDownloading);
      ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
      EXPECT_EQ(notify.received, content.size());
      EXPECT_EQ(notify.lastItem, &item);
      EXPECT_EQ(task.GetDownloadedSize(), content.size());
      local = task.GetLocalFile();
      EXPECT_TRUE(ReadFile(local) == content);
      task.Start();  // a task that still has its client only refreshes its counters
      EXPECT_EQ(task.GetStatus(), kDownloadFinished);
      EXPECT_EQ(task.GetCheckTimes(), 2);
      RunMainLoopFor(50);
      EXPECT_EQ(notify.completions, 1);
      ASSERT_TRUE(!taken || (unlink(local.c_str()) == 0 && gpctest::WriteFile(local, "another's")));
    }
    EXPECT_EQ(ReadFile(local), taken ? "another's" : "");
    EXPECT_EQ(Exists(local), taken);
    unlink(local.c_str());
  }
}

TEST_F(DownloadTaskTest, FailuresEndWithoutNotificationOrFile) {
  ASSERT_TRUE(server_->AddFile("empty.bin", ""));
  const struct {
    std::string url;
    unsigned started;
    int status;
  } kCases[] = {{"", kFailed, kDownloadFailed},
                {"http://a/", kFailed, kDownloadFailed},
                {server_->HttpUrl("empty.bin"), 0, kDownloadFailed},
                {server_->Url("/reset"), 0, kDownloadFailed},
                {server_->Url("/status/401"), 0, kDownloadNeedProxy},
                {server_->Url("/status/403"), 0, kDownloadNeedProxy},
                {server_->Url("/status/407"), 0, kDownloadNeedProxy}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.url);
    Notify notify;
    GPCDownloadTask task(c.url.empty() ? nullptr : c.url.c_str(), false, &notify);
    EXPECT_EQ(task.Start(), c.started);
    ASSERT_TRUE(WaitForStatus(task, c.status));
    EXPECT_TRUE(c.status != kDownloadNeedProxy || task.GetDownloadedSize() == 0);  // the client is gone
    EXPECT_EQ(notify.completions, 0);
    EXPECT_TRUE(task.GetLocalFile().empty());
  }
}

TEST_F(DownloadTaskTest, SilentServerGetsOneRestartThenFails) {
  FakeClock clock;
  Notify notify;
  GPCDownloadTask task(server_->Url("/never").c_str(), false, &notify);
  GPCTimerProxy heartbeat(0.05, &Beat, &task);
  const int before = server_->RequestCount("/never");
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return server_->RequestCount("/never") == before + 1; }));
  clock.AdvanceSeconds(16);
  RunMainLoopFor(150);
  EXPECT_EQ(task.GetCheckTimes(), 1);
  clock.AdvanceSeconds(1);  // 17 seconds without data: stopped and started again
  ASSERT_TRUE(RunMainLoopUntil([&] { return task.GetCheckTimes() == 2; }));
  EXPECT_EQ(task.GetStatus(), kDownloading);
  ASSERT_TRUE(RunMainLoopUntil([&] { return server_->RequestCount("/never") == before + 2; }));
  clock.AdvanceSeconds(17);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  RunMainLoopFor(100);
  EXPECT_EQ(task.GetCheckTimes(), 2);
  EXPECT_EQ(server_->RequestCount("/never"), before + 2);
  EXPECT_EQ(notify.completions, 0);
}

// The watchdog counts from the last data, on the monotonic clock; a stall after data fails at
// once, without a restart, and takes the partial file with it.
TEST_F(DownloadTaskTest, StallAfterDataFailsAtOnceAndRemovesThePartialFile) {
  FakeClock clock;
  Notify notify;
  GPCDownloadTask task(server_->Url("/stall").c_str(), false, &notify);
  GPCTimerProxy heartbeat(0.05, &Beat, &task);
  const int before = server_->RequestCount("/stall");
  clock.AdvanceSeconds(100);
  ASSERT_EQ(task.Start(), 0u);
  clock.AdvanceSeconds(16);
  ASSERT_TRUE(RunMainLoopUntil([&] { return notify.received == 4096; }));
  const std::string partial = "/tmp/gpc_tmp_" + std::to_string(GPCNetworkHttp::GetTempFileCounter());
  EXPECT_TRUE(Exists(partial));
  EXPECT_GE(task.GetTotalPackage(), 1);
  clock.AdvanceSeconds(16);  // 32 s after the start, 16 s after the data
  for (const int64_t step : {-1, -3600, 86400}) {
    FakeClock wall(platform::SetWallClockOverride, platform::WallClockMicros());
    wall.AdvanceSeconds(step);
    RunMainLoopFor(150);
    EXPECT_EQ(task.GetStatus(), kDownloading) << "wall clock moved by " << step;
  }
  clock.AdvanceSeconds(1);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  EXPECT_EQ(task.GetCheckTimes(), 1);
  EXPECT_EQ(server_->RequestCount("/stall"), before + 1);
  EXPECT_FALSE(Exists(partial));
}

TEST_F(DownloadTaskTest, StopDropsTheRequestAndTheFile) {
  ASSERT_TRUE(server_->AddFile("stopped.bin", PatternBytes(100000, 4)));
  Notify notify;
  GPCDownloadTask task(server_->HttpUrl("stopped.bin").c_str(), false, &notify);
  task.Stop();
  EXPECT_EQ(task.GetStatus(), kDownloadStopped);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
  const std::string local = task.GetLocalFile();
  ASSERT_TRUE(Exists(local));
  task.Stop();
  EXPECT_EQ(task.GetStatus(), kDownloadStopped);
  EXPECT_FALSE(Exists(local));
}

// Memory mode saves the body under a counted name ending in the wall-clock second, kept after the
// task; an empty body fails.
TEST_F(DownloadTaskTest, MemoryModeSavesTheBodyUnderACountedName) {
  FakeClock wall(platform::SetWallClockOverride, platform::WallClockMicros());
  const std::string content = PatternBytes(40000, 8);
  ASSERT_TRUE(server_->AddFile("memory.bin", content));
  Notify notify;
  std::string local;
  {
    GPCDownloadTask task(server_->HttpUrl("memory.bin").c_str(), false, &notify);
    task.SetFileMode(0);
    ASSERT_EQ(task.Start(), 0u);
    ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
    local = task.GetLocalFile();
    const std::string seconds = "_" + std::to_string(platform::WallClockMicros() / 1000000);
    EXPECT_EQ(local.rfind("/tmp/gpc_tmp_", 0), 0u) << local;
    EXPECT_EQ(local.substr(local.size() - seconds.size()), seconds) << local;
    EXPECT_TRUE(ReadFile(local) == content);
  }
  EXPECT_TRUE(Exists(local));
  unlink(local.c_str());
  GPCDownloadTask empty(server_->Url("/bytes?n=0").c_str(), false, &notify);
  empty.SetFileMode(0);
  ASSERT_EQ(empty.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(empty, kDownloadFailed));
  EXPECT_EQ(notify.completions, 1);
}

// Limits the size of the files this process may write (SIGXFSZ ignored, so a write past the
// limit fails with EFBIG as on a full disk) while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old_);
    struct rlimit limit = old_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, handler_);
  }

 private:
  void (*handler_)(int);
  struct rlimit old_;
};

void* GrowUpTo1MiB(void* buffer, size_t size) { return size > 1024 * 1024 ? nullptr : realloc(buffer, size); }

// A body that cannot be kept whole fails the task, and no part of it is left behind.
TEST_F(DownloadTaskTest, BodyThatCannotBeStoredFailsTheTask) {
  const std::string content = PatternBytes(6 * 1024 * 1024, 12);
  ASSERT_TRUE(server_->AddFile("full.bin", content));
  const struct {
    const char* name;
    int fileMode;
    bool diskFull, memoryShort;
  } kCases[] = {{"disk full while receiving", 1, true, false},
                {"no memory while receiving", 0, false, true},
                {"disk full while saving", 0, true, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Notify notify;
    GPCDownloadTask task(server_->HttpUrl("full.bin").c_str(), false, &notify);
    task.SetFileMode(c.fileMode);
    {
      std::unique_ptr<FileSizeLimit> disk(c.diskFull ? new FileSizeLimit(4 * 1024 * 1024) : nullptr);
      GPCNetworkHttp::SetBufferGrowthForTesting(c.memoryShort ? &GrowUpTo1MiB : nullptr);
      ASSERT_EQ(task.Start(), 0u);
      EXPECT_TRUE(RunMainLoopUntil([&] { return task.GetStatus() != kDownloading; }));
      GPCNetworkHttp::SetBufferGrowthForTesting(nullptr);
    }
    EXPECT_EQ(task.GetStatus(), kDownloadFailed);
    EXPECT_EQ(notify.completions, 0);
    EXPECT_TRUE(task.GetLocalFile().empty());
    task.Stop();
    EXPECT_EQ(gpctest::PiecesInTmp(content), std::vector<std::string>());
  }
}

}  // namespace

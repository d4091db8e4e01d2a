#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "gpcdownloadtask.h"
#include "gpctimerproxy.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "platform/clock.h"
#include "trace_capture.h"

namespace {

using gpctest::NginxTestServer;
using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;
using gpctest::ScriptedHttpServer;

const char* const kProxyVariables[] = {"http_proxy", "https_proxy", "all_proxy",
                                       "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"};

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

class RecordingNotify : public IGPCDownloadNotify {
 public:
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
  using Setter = void (*)(std::function<int64_t()>);
  explicit FakeClock(Setter set = platform::SetMonotonicClockOverride,
                     int64_t start = platform::MonotonicMicros())
      : set_(set), micros_(start) {
    set_([this] { return micros_; });
  }
  ~FakeClock() { set_(nullptr); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  void AdvanceSeconds(int seconds) { AdvanceMicros(static_cast<int64_t>(seconds) * 1000000); }
  void AdvanceMicros(int64_t micros) { micros_ += micros; }

 private:
  Setter set_;
  int64_t micros_;
};

FakeClock FakeWallClock() { return FakeClock(platform::SetWallClockOverride, platform::WallClockMicros()); }

// Stands in for the instance's heartbeat: every 50 ms the watchdog of a running task.
class Heartbeat {
 public:
  explicit Heartbeat(GPCDownloadTask* task)
      : timer_(0.05, [](GPCTimerProxy*, void* task) {
          auto* t = static_cast<GPCDownloadTask*>(task);
          if (t->GetStatus() == kDownloading) t->CheckTask();
        }, task) {}

 private:
  GPCTimerProxy timer_;
};

class DownloadTaskTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* name : kProxyVariables) unsetenv(name);
    nginx_ = new NginxTestServer;
    scripted_ = new ScriptedHttpServer;
    ASSERT_TRUE(nginx_->Start()) << nginx_->error();
    ASSERT_TRUE(scripted_->Start()) << scripted_->error();
  }
  static void TearDownTestSuite() {
    delete nginx_;
    delete scripted_;
  }

  bool WaitForStatus(GPCDownloadTask& task, int status) {
    return RunMainLoopUntil([&] { return task.GetStatus() == status; });
  }

  static NginxTestServer* nginx_;
  static ScriptedHttpServer* scripted_;
};

NginxTestServer* DownloadTaskTest::nginx_ = nullptr;
ScriptedHttpServer* DownloadTaskTest::scripted_ = nullptr;

TEST_F(DownloadTaskTest, DownloadsIntoATemporaryFileRemovedWithTheTask) {
  std::string content = PatternBytes(5 * 1024 * 1024 + 3, 21);
  ASSERT_TRUE(nginx_->AddFile("task.bin", content));
  RecordingNotify notify;
  int item = 0;
  std::string local;
  {
    GPCDownloadTask task(nginx_->HttpsUrl("task.bin").c_str(), false, &notify);
    task.SetItem(&item);
    EXPECT_EQ(task.GetStatus(), kDownloadNone);
    ASSERT_EQ(task.Start(), 0u);
    EXPECT_EQ(task.GetStatus(), kDownloading);
    ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
    EXPECT_EQ(notify.completions, 1);
    EXPECT_EQ(notify.received, content.size());
    EXPECT_EQ(notify.lastItem, &item);
    EXPECT_EQ(task.GetDownloadedSize(), content.size());
    local = task.GetLocalFile();
    EXPECT_TRUE(ReadFile(local) == content);

    // A task that still has its client only refreshes its counters.
    task.Start();
    EXPECT_EQ(task.GetStatus(), kDownloadFinished);
    EXPECT_EQ(task.GetCheckTimes(), 2);
    RunMainLoopFor(50);
    EXPECT_EQ(notify.completions, 1);
  }
  EXPECT_FALSE(Exists(local));
}

// Names under /tmp are shared by every process: once the package was deleted (installed), another
// process's download may take its name, and the task's end must leave that file alone.
TEST_F(DownloadTaskTest, AFileThatTookTheNameIsNotRemovedWithTheTask) {
  ASSERT_TRUE(nginx_->AddFile("taken.bin", "first"));
  RecordingNotify notify;
  std::string local;
  {
    GPCDownloadTask task(nginx_->HttpsUrl("taken.bin").c_str(), false, &notify);
    ASSERT_EQ(task.Start(), 0u);
    ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
    local = task.GetLocalFile();
    ASSERT_EQ(unlink(local.c_str()), 0);
    ASSERT_TRUE(gpctest::WriteFile(local, "another process's download"));
  }
  EXPECT_EQ(ReadFile(local), "another process's download");
  unlink(local.c_str());
}

TEST_F(DownloadTaskTest, EmptyBodyFailsWithoutNotification) {
  ASSERT_TRUE(nginx_->AddFile("empty.bin", ""));
  RecordingNotify notify;
  GPCDownloadTask task(nginx_->HttpUrl("empty.bin").c_str(), false, &notify);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  EXPECT_EQ(notify.completions, 0);
  EXPECT_TRUE(task.GetLocalFile().empty());
}

TEST_F(DownloadTaskTest, UnusableUrlFailsAtStart) {
  RecordingNotify notify;
  GPCDownloadTask none(nullptr, false, &notify);
  EXPECT_EQ(none.Start(), 0xFFFFFFFFu);
  EXPECT_EQ(none.GetStatus(), kDownloadFailed);
  GPCDownloadTask tooShort("http://a/", false, &notify);
  EXPECT_EQ(tooShort.Start(), 0xFFFFFFFFu);
  EXPECT_EQ(tooShort.GetStatus(), kDownloadFailed);
}

class ChallengedTaskTest : public DownloadTaskTest, public ::testing::WithParamInterface<int> {};

TEST_P(ChallengedTaskTest, GivesUpAsNeedProxy) {
  RecordingNotify notify;
  GPCDownloadTask task(scripted_->Url("/status/" + std::to_string(GetParam())).c_str(), false, &notify);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(task, kDownloadNeedProxy));
  EXPECT_EQ(task.GetDownloadedSize(), 0u);  // the client is gone
  EXPECT_EQ(notify.completions, 0);
}

INSTANTIATE_TEST_SUITE_P(Codes, ChallengedTaskTest, ::testing::Values(401, 403, 407));

TEST_F(DownloadTaskTest, ResetMidBodyFails) {
  RecordingNotify notify;
  GPCDownloadTask task(scripted_->Url("/reset").c_str(), false, &notify);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  EXPECT_EQ(notify.completions, 0);
}

TEST_F(DownloadTaskTest, SilentServerGetsOneRestartThenFails) {
  FakeClock clock;
  ClearCapturedTraces();
  RecordingNotify notify;
  std::string url = scripted_->Url("/never");
  GPCDownloadTask task(url.c_str(), false, &notify);
  Heartbeat heartbeat(&task);
  int before = scripted_->RequestCount("/never");
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return scripted_->RequestCount("/never") == before + 1; }));

  clock.AdvanceSeconds(16);
  RunMainLoopFor(150);
  EXPECT_EQ(task.GetStatus(), kDownloading);
  EXPECT_EQ(task.GetCheckTimes(), 1);

  clock.AdvanceSeconds(1);  // 17 seconds without data: stopped and started again
  ASSERT_TRUE(RunMainLoopUntil([&] { return task.GetCheckTimes() == 2; }));
  EXPECT_EQ(task.GetStatus(), kDownloading);
  ASSERT_TRUE(RunMainLoopUntil([&] { return scripted_->RequestCount("/never") == before + 2; }));

  clock.AdvanceSeconds(17);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  EXPECT_EQ(task.GetCheckTimes(), 2);
  RunMainLoopFor(100);
  EXPECT_EQ(scripted_->RequestCount("/never"), before + 2);
  EXPECT_EQ(notify.completions, 0);
  EXPECT_TRUE(TraceContains(3, "CheckTask timeout, set it to failded, m_totalPackage = 0, url = " + url));
  EXPECT_TRUE(TraceContains(1, "still waiting, do it again!"));
  EXPECT_TRUE(TraceContains(
      3, "CheckTask timeout, m_totalPackage = 0, m_checkTimes = 2,set task status to kDownloadFailed!"));
}

TEST_F(DownloadTaskTest, StallAfterDataFailsAtOnceAndRemovesThePartialFile) {
  FakeClock clock;
  RecordingNotify notify;
  GPCDownloadTask task(scripted_->Url("/stall").c_str(), false, &notify);
  Heartbeat heartbeat(&task);
  int before = scripted_->RequestCount("/stall");
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return notify.received == 4096; }));
  std::string partial = "/tmp/gpc_tmp_" + std::to_string(GPCNetworkHttp::GetTempFileCounter());
  EXPECT_TRUE(Exists(partial));
  EXPECT_GE(task.GetTotalPackage(), 1);

  clock.AdvanceSeconds(17);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
  EXPECT_EQ(task.GetCheckTimes(), 1);
  EXPECT_EQ(scripted_->RequestCount("/stall"), before + 1);
  EXPECT_FALSE(Exists(partial));
}

TEST_F(DownloadTaskTest, WallClockSteppedBackIsNoStall) {
  FakeClock clock;
  RecordingNotify notify;
  GPCDownloadTask task(scripted_->Url("/stall").c_str(), false, &notify);
  Heartbeat heartbeat(&task);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return notify.received == 4096; }));
  const int64_t kSecond = 1000000;
  for (int64_t step : {-kSecond / 1000, -3600 * kSecond, 86400 * kSecond}) {
    FakeClock wall = FakeWallClock();
    wall.AdvanceMicros(step);
    RunMainLoopFor(150);
    EXPECT_EQ(task.GetStatus(), kDownloading) << step;
  }
  EXPECT_EQ(task.GetCheckTimes(), 1);
  clock.AdvanceSeconds(17);  // the real stall is still caught
  ASSERT_TRUE(WaitForStatus(task, kDownloadFailed));
}

TEST_F(DownloadTaskTest, DataKeepsTheWatchdogQuiet) {
  FakeClock clock;
  RecordingNotify notify;
  GPCDownloadTask task(scripted_->Url("/stall").c_str(), false, &notify);
  Heartbeat heartbeat(&task);
  clock.AdvanceSeconds(100);
  ASSERT_EQ(task.Start(), 0u);
  clock.AdvanceSeconds(16);
  ASSERT_TRUE(RunMainLoopUntil([&] { return notify.received == 4096; }));
  clock.AdvanceSeconds(16);  // 32 s after the start, 16 s after the data
  RunMainLoopFor(150);
  EXPECT_EQ(task.GetStatus(), kDownloading);
  task.Stop();
  EXPECT_EQ(task.GetStatus(), kDownloadStopped);
}

TEST_F(DownloadTaskTest, StopDropsTheRequestAndTheFile) {
  std::string content = PatternBytes(100000, 4);
  ASSERT_TRUE(nginx_->AddFile("stopped.bin", content));
  RecordingNotify notify;
  GPCDownloadTask task(nginx_->HttpUrl("stopped.bin").c_str(), false, &notify);
  task.Stop();
  EXPECT_EQ(task.GetStatus(), kDownloadStopped);
  ASSERT_EQ(task.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
  std::string local = task.GetLocalFile();
  ASSERT_TRUE(Exists(local));
  task.Stop();
  EXPECT_EQ(task.GetStatus(), kDownloadStopped);
  EXPECT_FALSE(Exists(local));
}

TEST_F(DownloadTaskTest, MemoryModeSavesTheBodyUnderACountedName) {
  FakeClock wall = FakeWallClock();
  std::string content = PatternBytes(40000, 8);
  ASSERT_TRUE(nginx_->AddFile("memory.bin", content));
  RecordingNotify notify;
  std::string local;
  {
    GPCDownloadTask task(nginx_->HttpUrl("memory.bin").c_str(), false, &notify);
    task.SetFileMode(0);
    ASSERT_EQ(task.Start(), 0u);
    ASSERT_TRUE(WaitForStatus(task, kDownloadFinished));
    local = task.GetLocalFile();
    std::string seconds = std::to_string(platform::WallClockMicros() / 1000000);
    EXPECT_EQ(local.rfind("/tmp/gpc_tmp_", 0), 0u) << local;
    EXPECT_EQ(local.substr(local.size() - seconds.size() - 1), "_" + seconds) << local;
    EXPECT_TRUE(ReadFile(local) == content);
    EXPECT_EQ(notify.completions, 1);
  }
  // Only file mode removes the file with the task.
  EXPECT_TRUE(Exists(local));
  unlink(local.c_str());

  ClearCapturedTraces();
  GPCDownloadTask empty(scripted_->Url("/bytes?n=0").c_str(), false, &notify);
  empty.SetFileMode(0);
  ASSERT_EQ(empty.Start(), 0u);
  ASSERT_TRUE(WaitForStatus(empty, kDownloadFailed));
  EXPECT_EQ(notify.completions, 1);
  EXPECT_TRUE(TraceContains(3, "GPCDownloadTask::OnHttpReturn return content length <= 0 "));
}

// Limits the size of the files this process may write (SIGXFSZ ignored, so a write past the
// limit fails with EFBIG as on a full disk) while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &old_);
    oldHandler_ = signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = old_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, oldHandler_);
  }

 private:
  struct rlimit old_;
  void (*oldHandler_)(int);
};

// Files in /tmp named by the client or the task ("gpc_tmp_...") whose content starts like
// `content`: those this test made, whatever other processes write meanwhile.
std::vector<std::string> TempFilesStartingLike(const std::string& content) {
  std::vector<std::string> found;
  DIR* dir = opendir("/tmp");
  if (dir == nullptr) return found;
  while (dirent* entry = readdir(dir)) {
    if (std::string(entry->d_name).compare(0, 8, "gpc_tmp_") != 0) continue;
    const std::string path = std::string("/tmp/") + entry->d_name;
    const std::string head = ReadFile(path);
    if (!head.empty() && content.compare(0, head.size(), head) == 0) found.push_back(path);
  }
  closedir(dir);
  return found;
}

// A body that cannot be kept whole fails the task, and no part of it is left behind.
TEST_F(DownloadTaskTest, BodyThatCannotBeStoredFailsTheTask) {
  const std::string content = PatternBytes(6 * 1024 * 1024, 12);
  ASSERT_TRUE(nginx_->AddFile("full.bin", content));
  const struct {
    const char* name;
    int fileMode;
    bool diskFull;
    bool memoryShort;
  } kCases[] = {{"disk full while receiving", 1, true, false},
                {"no memory while receiving", 0, false, true},
                {"disk full while saving", 0, true, false}};
  for (const auto& c : kCases) {
    RecordingNotify notify;
    GPCDownloadTask task(nginx_->HttpUrl("full.bin").c_str(), false, &notify);
    task.SetFileMode(c.fileMode);
    {
      std::unique_ptr<FileSizeLimit> disk(c.diskFull ? new FileSizeLimit(4 * 1024 * 1024) : nullptr);
      if (c.memoryShort) {
        GPCNetworkHttp::SetBufferGrowthForTesting([](void* buffer, size_t size) {
          return size > 1024 * 1024 ? nullptr : realloc(buffer, size);
        });
      }
      ASSERT_EQ(task.Start(), 0u) << c.name;
      EXPECT_TRUE(RunMainLoopUntil([&] { return task.GetStatus() != kDownloading; })) << c.name;
      GPCNetworkHttp::SetBufferGrowthForTesting(nullptr);
    }
    EXPECT_EQ(task.GetStatus(), kDownloadFailed) << c.name;
    EXPECT_EQ(notify.completions, 0) << c.name;
    EXPECT_TRUE(task.GetLocalFile().empty()) << c.name;
    task.Stop();
    EXPECT_TRUE(TempFilesStartingLike(content).empty()) << c.name;
  }
}

TEST_F(DownloadTaskTest, FiveTasksRunSideBySide) {
  RecordingNotify notify;
  std::vector<std::unique_ptr<GPCDownloadTask>> tasks;
  std::vector<std::string> contents;
  for (int i = 0; i < 5; ++i) {
    std::string name = "parallel" + std::to_string(i) + ".bin";
    contents.push_back(PatternBytes(700000 + i, 30 + i));
    ASSERT_TRUE(nginx_->AddFile(name, contents.back()));
    tasks.emplace_back(new GPCDownloadTask(nginx_->HttpsUrl(name).c_str(), false, &notify));
    ASSERT_EQ(tasks.back()->Start(), 0u);
  }
  ASSERT_TRUE(RunMainLoopUntil([&] { return notify.completions == 5; }));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(tasks[i]->GetStatus(), kDownloadFinished);
    EXPECT_TRUE(ReadFile(tasks[i]->GetLocalFile()) == contents[i]) << i;
  }
}

}  // namespace

// Direct download speed: one 50 MB file fetched over https from the loopback test server on 127.0.0.1 by
// GPCDownloadTask (file mode, as the plug-in fetches packages) against `curl -k -o` of the same
// file in the same run. Best of 3 each; the goal is at most 1.2 times curl's time.
//
// Usage: download_bench [megabytes]

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <string>
#include <sys/stat.h>

#include "common/gpcdownloadtask.h"

#include "http_test_server.h"

namespace {

const int kRuns = 3;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

class CountingNotify : public IGPCDownloadNotify {
 public:
  void OnDataReceived(unsigned int, void*) override {}
  void OnDownloadCompleate() override {}
};

// Returns the seconds one task took, or a negative value when it did not finish intact.
double TimeTask(const std::string& url, long long expected) {
  CountingNotify notify;
  GPCDownloadTask task(url.c_str(), false, &notify);
  Clock::time_point start = Clock::now();
  if (task.Start() != 0) return -1;
  while (task.GetStatus() == kDownloading) g_main_context_iteration(nullptr, TRUE);
  double seconds = Seconds(start);
  if (task.GetStatus() != kDownloadFinished || FileSize(task.GetLocalFile()) != expected) return -1;
  return seconds;
}

double TimeCurl(const std::string& url, const std::string& out, const std::string& log, long long expected) {
  const char* argv[] = {"curl", "-s", "-k", "-o", out.c_str(), url.c_str(), nullptr};
  Clock::time_point start = Clock::now();
  int rc = gpctest::RunCommand(argv, log);
  double seconds = Seconds(start);
  bool intact = rc == 0 && FileSize(out) == expected;
  remove(out.c_str());
  return intact ? seconds : -1;
}

double Best(double best, double sample) {
  if (sample < 0) return best;
  return best < 0 || sample < best ? sample : best;
}

}  // namespace

int main(int argc, char** argv) {
  long long megabytes = argc > 1 ? atoll(argv[1]) : 50;
  if (megabytes <= 0) megabytes = 50;
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
    unsetenv(name);
  }
  gpctest::LoopbackServer server;
  if (!server.Start()) {
    fprintf(stderr, "download_bench: %s\n", server.error().c_str());
    return 1;
  }
  long long size = megabytes * 1024 * 1024;
  if (!server.AddFile("package.bin", gpctest::PatternBytes(static_cast<size_t>(size)))) {
    fprintf(stderr, "download_bench: cannot write the test file\n");
    return 1;
  }
  std::string url = server.HttpsUrl("package.bin");
  gpctest::TempFolder work("download_bench");
  std::string out = work.path() + "/curl.out";
  std::string log = work.path() + "/curl.log";

  double bestTask = -1, bestCurl = -1;
  for (int run = 0; run < kRuns; ++run) {
    double curl = TimeCurl(url, out, log, size);
    double task = TimeTask(url, size);
    printf("run %d: curl %.3f s, GPCDownloadTask %.3f s\n", run + 1, curl, task);
    bestCurl = Best(bestCurl, curl);
    bestTask = Best(bestTask, task);
  }
  if (bestTask < 0 || bestCurl < 0) {
    fprintf(stderr, "download_bench: a download failed (see %s)\n", log.c_str());
    return 1;
  }
  double ratio = bestTask / bestCurl;
  printf("download %lld MB over https from 127.0.0.1, best of %d\n", megabytes, kRuns);
  printf("curl -k -o:       %.3f s (%.0f MB/s)\n", bestCurl, megabytes / bestCurl);
  printf("GPCDownloadTask:  %.3f s (%.0f MB/s)\n", bestTask, megabytes / bestTask);
  printf("ratio: %.2f (goal <= 1.20) %s\n", ratio, ratio <= 1.2 ? "met" : "NOT MET");
  return 0;
}

// File fetching speed: 20 files of 5 MB fetched over https from the loopback test server on
// 127.0.0.1 by one plug-in instance (CGpcWindow::GetFileAtUrl: five parallel GPCDownloadTasks, new ones started by the
// 50 ms heartbeat on the GLib main loop) against `curl -k --parallel --parallel-max 5` of the same
// files. Run once with the server unthrottled and once with every connection limited to 10 MB/s; best
// of 3 each. Goal: the throttled batch at most 1.1 times curl's. The unthrottled ratio shows what
// starting tasks only on heartbeats costs when the network is not the limit.
//
// The instance runs in this process, with a minimal browser call table (no browser is needed:
// nothing goes through browser streams unless a direct download fails).
//
// Usage: fetch_bench [files] [megabytes-per-file]
#include <glib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"

#include "fake_browser.h"
#include "http_test_server.h"

namespace {

const int kRuns = 3;
const int kSlots = 5;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

double Best(double best, double sample) {
  if (sample < 0) return best;
  return best < 0 || sample < best ? sample : best;
}

// The browser the instance needs: URL requests are refused, memory is the C heap.
void InstallBrowserTable() {
  gpctest::InstallFakeBrowser();
  gpctest::Browser().otherwise = NPERR_GENERIC_ERROR;
}

struct Batch {
  long long expected = 0;
  int completed = 0;
  int intact = 0;
};

void OnFetch(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  if (type != GPC_GETFILE_COMPLETE) return;
  auto* batch = static_cast<Batch*>(context);
  ++batch->completed;
  if (data != nullptr && FileSize(static_cast<const char*>(data)) == batch->expected) ++batch->intact;
}

// Seconds for the whole batch through one fresh instance, or a negative value when a file did
// not arrive intact, or arrived through anything but direct downloads.
double TimeInstance(const std::vector<std::string>& urls, long long size) {
  NPP_t npp{};
  auto window = std::make_unique<CGpcWindow>(&npp);
  window->m_bHalted = 0;
  window->m_bExtMgrStarted = 1;  // no page, no extension: only the fetching
  Batch batch;
  batch.expected = size;
  Clock::time_point start = Clock::now();
  for (const std::string& url : urls) window->GetFileAtUrl(OnFetch, &batch, url.c_str());
  while (batch.completed < static_cast<int>(urls.size()) && window->m_nFetchReady == 1) {
    g_main_context_iteration(nullptr, TRUE);
  }
  double seconds = Seconds(start);
  bool ok = batch.intact == static_cast<int>(urls.size()) && window->m_nFetchReady == 1;
  window.reset();  // removes the downloaded files
  return ok ? seconds : -1;
}

double TimeCurl(const std::vector<std::string>& urls, const std::string& dir, long long size) {
  std::vector<std::string> args = {"curl", "-s", "-k", "--parallel", "--parallel-max", std::to_string(kSlots)};
  std::vector<std::string> outputs;
  for (size_t i = 0; i < urls.size(); ++i) {
    outputs.push_back(dir + "/curl" + std::to_string(i) + ".out");
    args.push_back("-o");
    args.push_back(outputs.back());
    args.push_back(urls[i]);
  }
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  argv.push_back(nullptr);
  Clock::time_point start = Clock::now();
  int rc = gpctest::RunCommand(argv.data(), dir + "/curl.log");
  double seconds = Seconds(start);
  bool intact = rc == 0;
  for (const std::string& output : outputs) {
    intact = intact && FileSize(output) == size;
    remove(output.c_str());
  }
  return intact ? seconds : -1;
}

// Best times of both over one server; false when the server does not start or a batch fails.
bool Measure(const char* limitRate, int files, long long size, double* instance, double* curl) {
  gpctest::LoopbackServer server;
  if (limitRate != nullptr) server.SetLimitRate(limitRate);
  if (!server.Start()) {
    fprintf(stderr, "fetch_bench: %s\n", server.error().c_str());
    return false;
  }
  std::vector<std::string> urls;
  for (int i = 0; i < files; ++i) {
    const std::string name = "files/f" + std::to_string(i) + ".bin";
    if (!server.AddFile(name, gpctest::PatternBytes(static_cast<size_t>(size), static_cast<unsigned>(i + 1)))) {
      fprintf(stderr, "fetch_bench: cannot write the test files\n");
      return false;
    }
    urls.push_back(server.HttpsUrl(name));
  }
  gpctest::TempFolder work("fetch_bench");
  *instance = -1;
  *curl = -1;
  for (int run = 0; run < kRuns; ++run) {
    double c = TimeCurl(urls, work.path(), size);
    double w = TimeInstance(urls, size);
    printf("  run %d: curl %.3f s, GetFileAtUrl %.3f s\n", run + 1, c, w);
    *curl = Best(*curl, c);
    *instance = Best(*instance, w);
  }
  if (*instance < 0 || *curl < 0) {
    fprintf(stderr, "fetch_bench: a batch failed (see %s/curl.log)\n", work.path().c_str());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int files = argc > 1 ? atoi(argv[1]) : 20;
  long long megabytes = argc > 2 ? atoll(argv[2]) : 5;
  if (files <= 0) files = 20;
  if (megabytes <= 0) megabytes = 5;
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
    unsetenv(name);
  }
  gpctest::TempFolder home("fetch_bench_home");
  // The instance's trace and data stay out of the user's folders.
  setenv("GPC_TRACE_FILE", (home.path() + "/tlvgpc.tvt").c_str(), 1);
  setenv("XDG_DATA_HOME", (home.path() + "/data").c_str(), 1);
  InstallBrowserTable();
  const long long size = megabytes * 1024 * 1024;

  struct Case {
    const char* title;
    const char* limitRate;
    double goal;  // 0: reported only
  } cases[] = {{"unthrottled", nullptr, 0}, {"10 MB/s per connection", "10m", 1.1}};
  for (const Case& c : cases) {
    printf("%d files of %lld MB over https from 127.0.0.1, %s, best of %d\n", files, megabytes, c.title, kRuns);
    double instance = -1, curl = -1;
    if (!Measure(c.limitRate, files, size, &instance, &curl)) return 1;
    double ratio = instance / curl;
    printf("  curl --parallel-max 5: %.3f s (%.0f MB/s)\n", curl, files * megabytes / curl);
    printf("  GetFileAtUrl (5 tasks): %.3f s (%.0f MB/s)\n", instance, files * megabytes / instance);
    if (c.goal > 0) {
      printf("  ratio: %.2f (goal <= %.2f) %s\n", ratio, c.goal, ratio <= c.goal ? "met" : "NOT MET");
    } else {
      printf("  ratio: %.2f (reported; new tasks start only on the 50 ms heartbeat)\n", ratio);
    }
  }
  return 0;
}

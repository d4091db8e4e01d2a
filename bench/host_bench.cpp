// gpc-host's memory for bodies the plug-in does not take at once, against a page that stops at once:
//
// - Stream: the shipped extension reads a 100 MB body from the loopback test server on 127.0.0.1
//   as the browser's copy, through a stream access point. gpc-host holds about a megabyte of a body
//   the plug-in has not taken and pauses the transfer meanwhile.
// - Error body: a failed page sends its error report to a "LoggingURL" that answers 404 with a
//   100 MB body. gpc-host drops the bodies of failed requests as they arrive.
//
// Best of 3 each. Goal: each adds under 8 MB to the host's peak resident set.
// Usage: host_bench [megabytes]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "http_test_server.h"

namespace {

const int kRuns = 3;
using Clock = std::chrono::steady_clock;

// The lowest peak (KiB) and time of kRuns runs of gpc-host with `args`; false when a run fails.
bool BestRun(const std::vector<std::string>& args, long* peakKib, double* seconds) {
  *peakKib = 1L << 40;
  *seconds = 1e9;
  for (int run = 0; run < kRuns; ++run) {
    long peak = 0;
    const auto start = Clock::now();
    if (bench::RunHost(args, &peak) != 0) return false;
    *seconds = std::min(*seconds, std::chrono::duration<double>(Clock::now() - start).count());
    *peakKib = std::min(*peakKib, peak);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const long bytes = (argc > 1 ? std::atol(argv[1]) : 100) * 1000000L;
  gpctest::LoopbackServer server;
  gpctest::TempFolder home("hostbench");
  if (!server.Start()) {
    fprintf(stderr, "host_bench: %s\n", server.error().c_str());
    return 1;
  }
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);
  setenv("GPC_TRACE_FILE", (home.path() + "/trace.tvt").c_str(), 1);
  const std::string body = std::to_string(bytes);
  const std::vector<std::string> page = {"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=http://127.0.0.1:9/client/",
                                         "--param", "GpcProductVersion=3,1,0,7", "--param", "GpcErrorPageUrl=" + server.Url("/page/error")};
  auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), page.begin(), page.end());
    return more;
  };
  long idle = 0, stream = 0, error = 0;
  double idleTime = 0, streamTime = 0, errorTime = 0;
  // A page that stops at once: no product version, straight to the error page.
  const bool ok =
      BestRun({"--param", "GpcProductVersion=3,1,0,7", "--param", "GpcErrorPageUrl=" + server.Url("/page/error"), "--exit-on-navigate", "/page/", "--run-ms",
               "5000"},
              &idle, &idleTime) &&
      BestRun(with({"--param", "GpcSampleStream=" + server.Url("/bytes?n=" + body), "--param",
                    "GpcSampleDoneUrl=" + server.Url("/done"), "--exit-on-navigate", "/done?fetched=1&failed=0",
                    "--run-ms", "60000"}),
              &stream, &streamTime) &&
      BestRun(with({"--param", "GpcExtVersion=3.1", "--param", "GpcUnpackVersion=1,0", "--param", "MeetingID=1",
                    "--param", "SessionID=2", "--param", "LoggingURL=" + server.Url("/status/404?n=" + body + "&"),
                    "--run-ms", "6000"}),
              &error, &errorTime);
  if (!ok) {
    fprintf(stderr, "host_bench: a gpc-host run failed\n");
    return 1;
  }
  printf("peak resident set of a page that stops at once: %.1f MB (%.2f s)\n", idle / 1024.0, idleTime);
  printf("stream of %.0f MB read by the extension: %.1f MB, added %.1f MB (goal < 8), %.2f s\n", bytes / 1e6,
         stream / 1024.0, (stream - idle) / 1024.0, streamTime);
  printf("error report answered by a 404 of %.0f MB: %.1f MB, added %.1f MB (goal < 8), %.2f s\n", bytes / 1e6,
         error / 1024.0, (error - idle) / 1024.0, errorTime);
  return 0;
}

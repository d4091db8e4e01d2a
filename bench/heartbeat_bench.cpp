// Heartbeat of one plug-in instance: loads the bundled module as a browser does, runs the GLib
// main loop for about one second and reports how many heartbeats ran, their mean period and its
// jitter against the 50 ms target.
//
// The heartbeat is observed from outside, without touching the plug-in: the instance queues its
// start report, and this browser refuses every URL request, so the navigation step of each
// heartbeat asks again, exactly once per heartbeat.
//
// Usage: heartbeat_bench [--plugin PATH] [--ms N]
#include <glib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <ftw.h>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "platform/folders.h"

namespace {

using Clock = std::chrono::steady_clock;
std::vector<Clock::time_point> g_requests;

void RemoveTree(const char* path) {
  nftw(path, [](const char* name, const struct stat*, int, struct FTW*) { return remove(name); }, 16,
       FTW_DEPTH | FTW_PHYS);
}

}  // namespace

int main(int argc, char** argv) {
  std::string plugin = std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS/libnpgpc.so";
  long run_ms = 1000;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--plugin") == 0) plugin = argv[i + 1];
    if (std::strcmp(argv[i], "--ms") == 0) run_ms = std::atol(argv[i + 1]);
  }
  // The instance writes its parameter file; keep it out of the user's folders.
  std::string data_home = platform::TempDir() + "gpcheartbeatXXXXXX";
  if (mkdtemp(data_home.data()) == nullptr) return 1;
  setenv("XDG_DATA_HOME", data_home.c_str(), 1);

  void* module = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "heartbeat_bench: %s\n", dlerror());
    return 1;
  }
  auto initialize = reinterpret_cast<NP_InitializeFunc>(dlsym(module, "NP_Initialize"));
  auto shutdown = reinterpret_cast<NP_ShutdownFunc>(dlsym(module, "NP_Shutdown"));
  // This browser refuses every URL request, noting when it was asked.
  NPNetscapeFuncs browser = gpctest::BrowserTable(0x0013);
  gpctest::Browser().otherwise = NPERR_GENERIC_ERROR;
  gpctest::Browser().onRequest = [] { g_requests.push_back(Clock::now()); };
  NPPluginFuncs funcs;
  std::memset(&funcs, 0, sizeof funcs);
  funcs.size = sizeof funcs;
  if (initialize == nullptr || shutdown == nullptr || initialize(&browser, &funcs) != NPERR_NO_ERROR) {
    std::fprintf(stderr, "heartbeat_bench: the module did not start\n");
    return 1;
  }

  const char* names[] = {"GpcProductVersion", "MeetingID", "SessionID", "LoggingURL"};
  const char* values[] = {"3,1,0,7", "bench", "bench", "http://127.0.0.1:9/log?"};
  NPP_t npp = {nullptr, nullptr};
  char mime[] = "application/x-talvo-gpc";
  NPError created = funcs.newp(mime, &npp, NP_EMBED, 4, const_cast<char**>(names), const_cast<char**>(values), nullptr);
  if (created != NPERR_NO_ERROR) {
    std::fprintf(stderr, "heartbeat_bench: NPP_New answered %d\n", created);
    return 1;
  }

  Clock::time_point start = Clock::now();
  Clock::time_point end = start + std::chrono::milliseconds(run_ms);
  while (Clock::now() < end) g_main_context_iteration(nullptr, TRUE);
  double loop_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();

  funcs.destroy(&npp, nullptr);
  shutdown();
  dlclose(module);
  RemoveTree(data_home.c_str());

  std::vector<double> periods;
  for (size_t i = 1; i < g_requests.size(); ++i)
    periods.push_back(std::chrono::duration<double, std::milli>(g_requests[i] - g_requests[i - 1]).count());
  double mean = 0, deviation = 0, worst = 0;
  for (double period : periods) mean += period;
  if (!periods.empty()) mean /= static_cast<double>(periods.size());
  for (double period : periods) {
    deviation += (period - mean) * (period - mean);
    worst = std::max(worst, std::fabs(period - 50.0));
  }
  if (!periods.empty()) deviation = std::sqrt(deviation / static_cast<double>(periods.size()));

  std::printf("heartbeat_bench: %.0f ms of loop time\n", loop_ms);
  std::printf("  heartbeats        %zu (expected about %.0f)\n", g_requests.size(), loop_ms / 50.0);
  std::printf("  mean period       %.2f ms (target 50 ms)\n", mean);
  std::printf("  jitter (std dev)  %.2f ms\n", deviation);
  std::printf("  worst deviation   %.2f ms\n", worst);
  return g_requests.empty() ? 1 : 0;
}

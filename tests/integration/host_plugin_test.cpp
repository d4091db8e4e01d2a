// The plug-in as a browser meets it: loaded by gpc-host, with its reports and error pages going to a
// loopback HTTP server that records every request.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "gpc_host_run.h"
#include "scoped_env.h"

namespace {

using gpchost::HostRun;

class HostPlugin : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_DATA_HOME", data_.path().c_str(), 1);
    setenv("TMPDIR", data_.path().c_str(), 1);  // where the host keeps the copies of as-file streams
  }

  // Starts the server for the page's reports and error page, answering "ok" to every path but those of
  // `failRules` (SUBSTRING=STATUS[xCOUNT]).
  void Serve(const std::vector<std::string>& failRules = {}) {
    std::vector<std::string> options = {"--answer-ok"};
    for (const std::string& rule : failRules) options.insert(options.end(), {"--fail", rule});
    server_ = std::make_unique<gpctest::LoopbackServer>();
    EXPECT_TRUE(server_->Start(options)) << server_->error();
  }
  // Runs a meeting page on the server started last, or on a new one.
  HostRun RunPage(const std::vector<std::string>& extra) {
    if (server_ == nullptr) Serve();
    std::vector<std::string> args = {"--param", "GpcProductVersion=3,1,0,7", "--param", "MeetingID=m 42",
                                     "--param", "SessionID=s7", "--param", "LoggingURL=" + server_->Url("/log?"),
                                     "--param", "GpcErrorPageUrl=" + server_->Url("/error"), "--param", "gpclocalsetting=1"};
    args.insert(args.end(), extra.begin(), extra.end());
    const HostRun run = gpchost::RunHost(args);
    EXPECT_EQ(run.exit_code, 0) << run.stderr_text;
    return run;
  }
  static std::string Str(const HostRun& run, int index, const char* key) {
    return index < 0 ? "" : run.events[static_cast<size_t>(index)].Str(key);
  }

  gpctest::TempFolder data_{"hostdata"};
  std::unique_ptr<gpctest::LoopbackServer> server_;
};

// One navigation at a time: each starts only after the one before it has been delivered. A space in
// a report's URL goes out percent-encoded, as from a browser.
TEST_F(HostPlugin, PageWithoutUrlRootReportsStartThenErrorThenShowsTheErrorPage) {
  const HostRun run = RunPage({"--exit-on-navigate", "/error", "--run-ms", "8000"});
  const int start = run.Find("request", "url", "/log?ConfID=m 42&SessionID=s7&Module=1&ErrorCode=1000&OptInfo3=");
  const int startDone = run.Find("stream_end", "url", "ErrorCode=1000"), error = run.Find("request", "url", "&ErrorCode=100&");
  const int page = run.Find("navigate", "url", "/error?"), errorDone = run.Find("stream_end", "url", "ErrorCode=100&");
  EXPECT_TRUE(0 <= start && start < startDone && startDone < error && error < errorDone && errorDone < page);
  EXPECT_EQ(Str(run, start, "target"), "");
  EXPECT_EQ(Str(run, page, "target"), "_top");
  EXPECT_EQ(Str(run, page, "url"), server_->Url("/error?ErrorType=1&ErrorMsg=") +
                                       "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again"
                                       "%2E%0A%0A%0AError%20%5B100%5D");
  EXPECT_EQ(gpchost::ParseJsonLines(gpctest::ReadFile(server_->AccessLogPath())).size(), 2u);
}

// Halted instances still serve navigations: the start report goes out and nothing else, a refused
// package folder is never fetched from. A report the server fails is answered with NPRES_NETWORK_ERR and
// no stream; it stays requested and holds the queue behind it, so the error page never shows.
TEST_F(HostPlugin, RefusedUrlRootHaltsAndAFailedReportHoldsTheQueue) {
  for (const bool failReports : {false, true}) {
    SCOPED_TRACE(failReports ? "failed report" : "refused root");
    Serve(failReports ? std::vector<std::string>{"/log=500"} : std::vector<std::string>{});
    const HostRun run = failReports ? RunPage({"--run-ms", "1500"})
                                    : RunPage({"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--param",
                                               "GpcExtVersion=1,0,0,1", "--run-ms", "1500"});
    ASSERT_EQ(run.Of("request").size(), 1u);
    EXPECT_GE(run.Find("request", "url", "ErrorCode=1000"), 0);
    EXPECT_TRUE(run.Of("navigate").empty());
    if (!failReports) continue;
    EXPECT_EQ(run.Of("url_notify").at(0).Int("reason"), 1);
    EXPECT_TRUE(run.Of("stream_start").empty());
  }
}

// The host hands the module the page's parameters as they stand; the module writes them down.
TEST_F(HostPlugin, ParameterFileHoldsThePageParametersByteForByte) {
  const std::vector<std::pair<std::string, std::string>> params = {
      {"GpcProductVersion", "3,1,0,7"}, {"Odd Name", "a=b = c%d \"quoted\" [VALUE]"}, {"Unicode", "Grüße, 会议"},
      {"Empty", ""}, {"LoggingURL", "http://127.0.0.1:9/log?"}};
  std::string file = "# comment lines and empty ones are no parameters\n\n", expected;
  for (const auto& [name, value] : params) {
    file += name + "=" + value + "\n";
    expected += "[NAME]-=-" + name + "-=-[VALUE]-=-" + value + "-=-\r";
  }
  ASSERT_TRUE(gpctest::WriteFile(data_.path() + "/page.params", file));
  ASSERT_EQ(gpchost::RunHost({"--params", data_.path() + "/page.params", "--run-ms", "300"}).exit_code, 0);
  EXPECT_EQ(gpctest::ReadFile(data_.path() + "/Talvo Folder/3,1,0,7/talvoparameters.txt").substr(0, expected.size()),
            expected);
}

TEST_F(HostPlugin, ModuleStartsLikeABrowserLoadsItAndTheHostRefusesWhatItCannotLoad) {
  const HostRun run = gpchost::RunHost({"--param", "GpcProductVersion=3,1,0,7", "--models", "--run-ms", "100"});
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  ASSERT_EQ(run.Of("instance").size(), 1u);
  EXPECT_EQ(run.Of("instance")[0].Int("result"), 0);
  EXPECT_EQ(run.Of("set_value").size(), 2u) << "the models offered are taken";
  EXPECT_EQ(run.Of("destroy").size(), 1u);
  std::string lines;
  for (int i = 0; i <= 32767; ++i) lines += "p=v\n";
  const std::string many = data_.path() + "/many.params";
  ASSERT_TRUE(gpctest::WriteFile(many, lines));
  struct Case {
    std::vector<std::string> args;
    int exitCode;
  } const cases[] = {
      {{"--plugin", data_.path() + "/none.so", "--run-ms", "10"}, 1},
      {{"--param", "novalue"}, 2},
      {{"--param", "GpcProductVersion=3", "--exit-on-navigate", "never", "--run-ms", "50"}, 3},
      {{"--param", "=value", "--run-ms", "10"}, 2},
      {{"--window", "65536x480", "--run-ms", "10"}, 2},
      {{"--run-ms", "-5", "--plugin", data_.path() + "/none.so"}, 2},
      {{"--run-ms", "4294967296", "--plugin", data_.path() + "/none.so"}, 2},
      {{"chrome-extension://id/"}, 0},  // started by a browser: native messaging until its input ends
      {{"--param", "GpcProductVersion=3", "GpcUrlRoot=x", "--run-ms", "10"}, 2},  // a word without --param
      {{"--params", data_.path(), "--run-ms", "10"}, 2},
      {{"--params", many, "--run-ms", "10"}, 2},  // more than the browser's 16-bit count
  };
  for (const Case& c : cases) EXPECT_EQ(gpchost::RunHost(c.args).exit_code, c.exitCode) << c.args[0];
}

// The host page's URL arrives as the stream marked 100: a page off the approved sites shows error 111,
// even for an instance that is halted already.
TEST_F(HostPlugin, RefusedHostPageShowsError111) {
  const std::string page = "https://meetings.example.org/j/1";
  const HostRun run = RunPage({"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--page-url", page,
                               "--exit-on-navigate", "/error?", "--run-ms", "8000"});
  ASSERT_EQ(run.Of("page_url").size(), 1u);
  EXPECT_EQ(run.Of("page_url")[0].Int("written"), static_cast<long long>(page.size()));
  EXPECT_NE(Str(run, run.Find("navigate", "url", "/error?"), "url").find("Error%20%5B111%5D"), std::string::npos);
  EXPECT_GE(run.Find("request", "url", "ErrorCode=111&"), 0);
}

// Without a version on the page the extension on disk runs: the one shipped with the plug-in. Its fetch
// that meets a challenge goes through the browser, which drops the blanks at the end of a URL; a file
// missing there fails. Its stream, whose URL is relative to the page and holds a tab the browser drops
// and whose body (3 MB) is more than the host holds at once, counts only when it arrived as the
// browser's copy, which is gone once the stream ends.
TEST_F(HostPlugin, ShippedExtensionRunsAndItsChallengedFetchGoesThroughTheBrowser) {
  Serve({"readme=401x1", "none=401x1", "none=404"});
  const std::string files = server_->Url("/files/readme.txt") + "  |" + server_->Url("/files/none.txt");
  const HostRun run = RunPage({"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=http://127.0.0.1:9/client/", "--param",
                               "GpcSampleFiles=" + files, "--param", "GpcSampleStream=../by\ttes?n=3000000",
                               "--page-url", server_->Url("/meeting/page.html#/join/now"),
                               "--param", "GpcSampleDoneUrl=" + server_->Url("/done"), "--exit-on-navigate", "/done",
                               "--run-ms", "8000"});
  EXPECT_NE(Str(run, run.Find("navigate", "url", "/done?"), "url").find("/done?fetched=2&failed=1"), std::string::npos)
      << run.stderr_text;
  EXPECT_EQ(server_->RequestCount("/files/readme.txt"), 1) << "the browser drops the blanks";
  const int stream = run.Find("stream_end", "url", "tes?n=3000000");
  EXPECT_EQ(stream < 0 ? -1 : run.events[static_cast<size_t>(stream)].Int("bytes"), 3000000) << run.stderr_text;
  for (const auto& entry : std::filesystem::directory_iterator(data_.path()))
    EXPECT_NE(entry.path().filename().string().rfind("gpc-host-", 0), 0u) << entry.path();
  // Loaded privately, as browsers load plug-ins, the sample still finds the plug-in's trace function.
  const char* trace = getenv("GPC_TRACE_FILE");  // ctest names one; run by hand, the machine's
  EXPECT_NE(gpctest::ReadFile(trace ? trace : "/tmp/tlvgpc.tvt").find("GPCSample: GpcInitInstance"), std::string::npos);
}

// A disk too full for the browser's copy of a stream: the cut-short copy is never handed on, and the
// stream ends as a network error (1).
TEST_F(HostPlugin, AStreamWhoseCopyTheDiskCannotHoldFails) {
  Serve();
  const ScopedFileSizeLimit disk(1 << 20);  // inherited by the host
  const HostRun run = RunPage({"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=http://127.0.0.1:9/client/", "--param",
                               "GpcSampleStream=" + server_->Url("/bytes?n=3000000"), "--param",
                               "GpcSampleDoneUrl=" + server_->Url("/done"), "--exit-on-navigate", "/done", "--run-ms", "8000"});
  EXPECT_NE(Str(run, run.Find("navigate", "url", "/done?"), "url").find("/done?fetched=0&failed=1"), std::string::npos)
      << run.stderr_text;
  const int end = run.Find("stream_end", "url", "/bytes?");
  EXPECT_EQ(end < 0 ? -1 : run.events[static_cast<size_t>(end)].Int("reason"), 1);
}

// A challenge moves the package fetch to the browser, whose fetch is redirected to something else: the
// fetch still ends, and the page shows the error instead of waiting for ever.
TEST_F(HostPlugin, PackageFetchRedirectedByTheBrowserEndsAndShowsTheErrorPage) {
  gpctest::LoopbackServer packages;
  ASSERT_TRUE(packages.Start()) << packages.error();
  const std::string root = packages.Url("/client/moved-after/403/");
  const HostRun run = RunPage({"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=" + root, "--param", "GpcExtVersion=3.1",
                               "--param", "GpcUnpackVersion=1,0", "--exit-on-navigate", "/error", "--run-ms", "15000"});
  const int request = run.Find("request", "url", root + "zrgpcext64.bundle");
  const std::string package = Str(run, request, "url");
  const int stream = run.Find("stream_start", "stream_url", "/bytes?n=64", request);
  const int notified = run.Find("url_notify", "url", package, stream);
  ASSERT_GE(request, 0);
  EXPECT_GT(stream, request);
  EXPECT_GT(notified, stream);
  EXPECT_GT(run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=", notified), notified);
  EXPECT_EQ(packages.RequestCount(package.substr(package.find("/client/"))), 2);
}

// A redirected request ends as a browser ends it: one still open when the run ends, as the user
// leaving the page would end it, the redirects before it followed, its stream opened once the
// headers are in, before any of the body; a chain one hop past the tenth,
// as a network error at its last 302, with no stream opened. A scheme other than http and https
// is a network error before anything is sent.
TEST_F(HostPlugin, RedirectedRequestsEndAsABrowserEndsThem) {
  Serve();
  const struct {
    const char* path;
    int reason, status;
    bool stream;
  } cases[] = {{"/redirect?n=3&to=/hold", 2, 200, true}, {"/redirect?n=11&to=/bytes?n=10", 1, 302, false},
               {"gopher:/redirect?n=1", 1, 0, false}};
  for (const auto& c : cases) {
    const std::string path = c.path, url = path[0] == '/' ? server_->Url(c.path) : "gopher" + server_->Url(c.path + 7).substr(4);
    const HostRun run = RunPage({"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=http://127.0.0.1:9/client/", "--param",
                                 "GpcSampleStream=" + url, "--run-ms", "2000"});
    const int end = run.Find("fetch_end", "url", "/redirect?"), notified = run.Find("url_notify", "url", "/redirect?");
    ASSERT_GE(end, 0) << run.stderr_text;
    EXPECT_EQ(run.events[static_cast<size_t>(end)].Int("reason"), c.reason) << c.path;
    EXPECT_EQ(run.events[static_cast<size_t>(end)].Int("status"), c.status) << c.path;
    EXPECT_EQ(notified < 0 ? -1 : run.events[static_cast<size_t>(notified)].Int("reason"), c.reason) << c.path;
    EXPECT_EQ(run.Find("stream_start", "url", "/redirect?") >= 0, c.stream) << c.path;
  }
}

}  // namespace

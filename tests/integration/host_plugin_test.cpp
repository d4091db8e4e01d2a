// The plug-in as a browser meets it: loaded by gpc-host, with its reports and error pages going to a
// loopback HTTP server that records every request.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "gpc_host_run.h"
#include "http_test_server.h"

namespace {

using gpchost::HostRun;

class HostPlugin : public ::testing::Test {
 protected:
  void SetUp() override { setenv("XDG_DATA_HOME", data_.path().c_str(), 1); }

  // Runs a meeting page whose reports and error page go to the server, started with `failRules`.
  HostRun RunPage(const std::vector<std::string>& extra, const std::vector<std::string>& failRules = {}) {
    server_ = std::make_unique<gpchost::RecordingServer>();
    EXPECT_TRUE(server_->Start(failRules));
    std::vector<std::string> args = {"--param", "GpcProductVersion=3,1,0,7", "--param", "MeetingID=m42",
                                     "--param", "SessionID=s7", "--param", "LoggingURL=" + server_->Url("/log?"),
                                     "--param", "GpcErrorPageUrl=" + server_->Url("/error"), "--param", "gpclocalsetting=1"};
    args.insert(args.end(), extra.begin(), extra.end());
    const HostRun run = gpchost::RunHost(args);
    EXPECT_EQ(run.exit_code, 0) << run.stderr_text;
    return run;
  }
  std::string Event(const HostRun& run, int index, const char* key) const {
    return index < 0 ? "" : run.events[static_cast<size_t>(index)].Str(key);
  }
  size_t Requests() const { return server_->Requests().size(); }

  gpctest::TempFolder data_{"hostdata"};
  std::unique_ptr<gpchost::RecordingServer> server_;
};

TEST_F(HostPlugin, PageWithoutUrlRootReportsStartThenErrorThenShowsTheErrorPage) {
  const HostRun run = RunPage({"--exit-on-navigate", "/error", "--run-ms", "8000"});
  const int start = run.Find("request", "url", "/log?ConfID=m42&SessionID=s7&Module=1&ErrorCode=1000&OptInfo3=");
  const int error = run.Find("request", "url", "&ErrorCode=100&OptInfo3=");
  const int page = run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=");
  // One navigation at a time: each starts only after the one before it has been delivered.
  const int startDone = run.Find("stream_end", "url", "ErrorCode=1000", start);
  const int errorDone = run.Find("stream_end", "url", "ErrorCode=100&", error);
  ASSERT_GE(start, 0);
  EXPECT_GT(startDone, start);
  EXPECT_GT(error, startDone);
  EXPECT_GT(errorDone, error);
  EXPECT_GT(page, errorDone);
  EXPECT_TRUE(run.events[static_cast<size_t>(start)].IsNull("target"));
  EXPECT_EQ(Event(run, page, "target"), "_top");
  EXPECT_EQ(Event(run, page, "url"), server_->Url("/error?ErrorType=1&ErrorMsg=") +
                                         "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again"
                                         "%2E%0A%0A%0AError%20%5B100%5D");
  // The reports reached the server in that order; the error page is the browser's to load.
  const std::vector<gpchost::JsonEvent> requests = server_->Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_NE(requests[0].Str("path").find("ErrorCode=1000"), std::string::npos);
  EXPECT_NE(requests[1].Str("path").find("ErrorCode=100&"), std::string::npos);
}

// Halted instances still serve navigations: the start report goes out and nothing else, a refused
// package folder is never fetched from. A report the server fails is answered with NPRES_NETWORK_ERR and
// no stream; it stays requested and holds the queue behind it, so the error page never shows.
TEST_F(HostPlugin, RefusedUrlRootHaltsAndAFailedReportHoldsTheQueue) {
  for (const bool failReports : {false, true}) {
    SCOPED_TRACE(failReports ? "failed report" : "refused root");
    const HostRun run = failReports ? RunPage({"--run-ms", "1500"}, {"/log=500"})
                                    : RunPage({"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--param",
                                               "GpcExtVersion=1,0,0,1", "--run-ms", "1500"});
    ASSERT_EQ(run.Of("request").size(), 1u);
    EXPECT_GE(run.Find("request", "url", "ErrorCode=1000"), 0);
    EXPECT_TRUE(run.Of("navigate").empty());
    EXPECT_EQ(Requests(), 1u);
    if (!failReports) continue;
    const int notify = run.Find("url_notify", "url", "ErrorCode=1000");
    EXPECT_EQ(notify >= 0 ? run.events[static_cast<size_t>(notify)].Int("reason") : -1, 1);
    EXPECT_TRUE(run.Of("stream_start").empty());
  }
}

TEST_F(HostPlugin, ParameterFileHoldsThePageParametersByteForByte) {
  const std::vector<std::pair<std::string, std::string>> params = {
      {"GpcProductVersion", "3,1,0,7"}, {"MeetingID", "m42"}, {"Odd Name", "a=b = c%d \"quoted\" [VALUE]"},
      {"Unicode", "Grüße, 会议"}, {"Empty", ""}, {"LoggingURL", "http://127.0.0.1:9/log?"}};
  std::string file, expected;
  for (const auto& [name, value] : params) {
    file += name + "=" + value + "\n";
    expected += "[NAME]-=-" + name + "-=-[VALUE]-=-" + value + "-=-\r";
  }
  ASSERT_TRUE(gpctest::WriteFile(data_.path() + "/page.params", file));
  ASSERT_EQ(gpchost::RunHost({"--params", data_.path() + "/page.params", "--run-ms", "300"}).exit_code, 0);
  const std::string written = gpctest::ReadFile(data_.path() + "/Talvo Folder/3,1,0,7/talvoparameters.txt");
  ASSERT_EQ(written.substr(0, expected.size()), expected);
  EXPECT_TRUE(std::regex_match(written.substr(expected.size()),
                               std::regex("\\[NAME\\]-=-gpcstartworktime-=-\\[VALUE\\]-=-[0-9]+\\.[0-9]{6}-=-\r")))
      << written;
}

TEST_F(HostPlugin, ModuleStartsLikeABrowserLoadsItAndTheHostRefusesWhatItCannotLoad) {
  const HostRun run = gpchost::RunHost({"--param", "GpcProductVersion=3,1,0,7", "--run-ms", "100"});
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  const int init = run.Find("entry", "name", "NP_Initialize");
  ASSERT_GE(init, 0);
  EXPECT_NE(run.events[static_cast<size_t>(init)].line.find(
                "\"result\":0,\"plugin_table_size\":120,\"plugin_version\":18,\"urlnotify\":true"),
            std::string::npos) << run.events[static_cast<size_t>(init)].line;
  EXPECT_GE(run.Find("entry", "value", "application/x-talvo-gpc:"), 0);
  ASSERT_EQ(run.Of("instance").size(), 1u);
  EXPECT_EQ(run.Of("instance")[0].Int("result"), 0);
  EXPECT_TRUE(run.Of("set_value").empty()) << "models are offered only with --models";
  EXPECT_EQ(run.Of("destroy").size(), 1u);
  EXPECT_EQ(run.events.back().Name(), "exit");
  EXPECT_EQ(run.events.back().Int("code"), 0);
  const HostRun models = gpchost::RunHost({"--param", "GpcProductVersion=3,1,0,7", "--models", "--run-ms", "50"});
  ASSERT_EQ(models.Of("set_value").size(), 2u);
  EXPECT_EQ(models.Of("set_value")[0].Int("variable"), 1000);
  EXPECT_EQ(models.Of("set_value")[1].Int("variable"), 1001);

  const HostRun missing = gpchost::RunHost({"--plugin", data_.path() + "/none.so", "--run-ms", "10"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.events.front().line.find("\"ok\":false"), std::string::npos);
  EXPECT_EQ(gpchost::RunHost({"--param", "novalue"}).exit_code, 2);
  EXPECT_EQ(gpchost::RunHost({"--param", "GpcProductVersion=3", "--exit-on-navigate", "never", "--run-ms", "50"}).exit_code, 3);
  // Started by a browser as a native-messaging host: its origin argument selects that mode, and the
  // closed input (no browser) ends it cleanly.
  EXPECT_EQ(gpchost::RunHost({"chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/"}).exit_code, 0);
}

// The host page's URL arrives as the stream marked 100: a page off the approved sites shows error 111,
// even for an instance that is halted already.
TEST_F(HostPlugin, RefusedHostPageShowsError111) {
  const std::string page = "https://meetings.example.org/j/1";
  const HostRun run = RunPage({"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--page-url", page,
                               "--exit-on-navigate", "/error?", "--run-ms", "8000"});
  ASSERT_EQ(run.Of("page_url").size(), 1u);
  EXPECT_EQ(run.Of("page_url")[0].Int("new_stream"), 0);
  EXPECT_EQ(run.Of("page_url")[0].Int("written"), static_cast<long long>(page.size()));
  EXPECT_NE(Event(run, run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg="), "url").find("Error%20%5B111%5D"),
            std::string::npos);
  EXPECT_GE(run.Find("request", "url", "ErrorCode=111&"), 0);
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
  const std::string package = Event(run, request, "url");
  const int stream = run.Find("stream_start", "stream_url", "/bytes?n=64", request);
  const int notified = run.Find("url_notify", "url", package, stream);
  ASSERT_GE(request, 0);
  EXPECT_GT(stream, request);
  EXPECT_GT(notified, stream);
  EXPECT_GT(run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=", notified), notified);
  EXPECT_EQ(packages.RequestCount(package.substr(package.find("/client/"))), 2);
}

}  // namespace

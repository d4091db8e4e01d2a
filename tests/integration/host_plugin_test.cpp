// The plug-in as a browser meets it: loaded by gpc-host, with its reports and error pages going to
// a real HTTP server on 127.0.0.1 that records every request.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "gpc_host_run.h"
#include "http_test_server.h"

namespace {

using gpchost::HostRun;
using gpchost::JsonEvent;

const char kEnglishMessage100[] =
    "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again%2E%0A%0A%0A"
    "Error%20%5B100%5D";

class HostPlugin : public ::testing::Test {
 protected:
  void SetUp() override {
    data_home_ = gpchost::MakeTempFolder("hostdata");
    ASSERT_FALSE(data_home_.empty());
    // The plug-in writes its parameter file under the data folder it inherits.
    setenv("XDG_DATA_HOME", data_home_.c_str(), 1);
  }
  void TearDown() override { gpchost::RemoveTree(data_home_); }

  // The parameters of a meeting page whose reports and error page go to `server`.
  std::vector<std::string> PageParams(const gpchost::RecordingServer& server) {
    return {"--param", "GpcProductVersion=3,1,0,7",
            "--param", "MeetingID=m42",
            "--param", "SessionID=s7",
            "--param", "LoggingURL=" + server.Url("/log?"),
            "--param", "GpcErrorPageUrl=" + server.Url("/error"),
            "--param", "gpclocalsetting=1"};
  }

  std::vector<std::string> Paths(const gpchost::RecordingServer& server) {
    std::vector<std::string> paths;
    for (const JsonEvent& request : server.Requests()) paths.push_back(request.Str("path"));
    return paths;
  }

  std::string data_home_;
};

TEST_F(HostPlugin, PageWithoutUrlRootReportsStartThenErrorThenShowsTheErrorPage) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start());
  std::vector<std::string> args = PageParams(server);
  args.insert(args.end(), {"--exit-on-navigate", "/error", "--run-ms", "8000"});
  HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;

  int start_report = run.Find("request", "url", "/log?ConfID=m42&SessionID=s7&Module=1&ErrorCode=1000&OptInfo3=");
  int error_report = run.Find("request", "url", "&ErrorCode=100&OptInfo3=");
  int error_page = run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=");
  ASSERT_GE(start_report, 0);
  ASSERT_GE(error_report, 0);
  ASSERT_GE(error_page, 0);
  // One navigation at a time: each starts only after the one before it has been delivered.
  int start_done = run.Find("stream_end", "url", "ErrorCode=1000", start_report);
  ASSERT_GT(start_done, start_report);
  EXPECT_GT(error_report, start_done);
  int error_done = run.Find("stream_end", "url", "ErrorCode=100&", error_report);
  ASSERT_GT(error_done, error_report);
  EXPECT_GT(error_page, error_done);
  EXPECT_EQ(run.events[static_cast<size_t>(start_report)].IsNull("target"), true);
  EXPECT_EQ(run.events[static_cast<size_t>(error_page)].Str("target"), "_top");
  EXPECT_EQ(run.events[static_cast<size_t>(error_page)].Str("url"),
            server.Url("/error?ErrorType=1&ErrorMsg=") + kEnglishMessage100);

  // The reports reached the server in the same order; the error page is the browser's to load.
  std::vector<std::string> paths = Paths(server);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_NE(paths[0].find("ErrorCode=1000"), std::string::npos);
  EXPECT_NE(paths[1].find("ErrorCode=100&"), std::string::npos);
}

TEST_F(HostPlugin, RefusedUrlRootKeepsTheInstanceHalted) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start());
  std::vector<std::string> args = PageParams(server);
  args.insert(args.end(), {"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--param",
                           "GpcExtVersion=1,0,0,1", "--run-ms", "1500"});
  HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;

  // The start report still goes out (navigations are served while halted); nothing else does.
  ASSERT_EQ(run.Of("request").size(), 1u);
  EXPECT_GE(run.Find("request", "url", "ErrorCode=1000"), 0);
  EXPECT_TRUE(run.Of("navigate").empty());
  EXPECT_EQ(run.Find("request", "url", "example.org"), -1) << "a refused root is never fetched from";
  EXPECT_EQ(Paths(server).size(), 1u);
}

TEST_F(HostPlugin, ParameterFileHoldsThePageParametersByteForByte) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start());
  std::vector<std::pair<std::string, std::string>> params = {
      {"GpcProductVersion", "3,1,0,7"},
      {"MeetingID", "m42"},
      {"Odd Name", "a=b = c%d \"quoted\" [VALUE]"},
      {"Unicode", "Grüße, 会议"},
      {"Empty", ""},
      {"LoggingURL", server.Url("/log?")}};
  std::string params_path = data_home_ + "/page.params";
  {
    std::ofstream out(params_path, std::ios::binary);
    for (auto& param : params) out << param.first << "=" << param.second << "\n";
  }
  HostRun run = gpchost::RunHost({"--params", params_path, "--run-ms", "300"});
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;

  std::string expected;
  for (auto& param : params) expected += "[NAME]-=-" + param.first + "-=-[VALUE]-=-" + param.second + "-=-\r";
  std::string written = gpchost::ReadWholeFile(data_home_ + "/Talvo Folder/3,1,0,7/talvoparameters.txt");
  ASSERT_GE(written.size(), expected.size());
  EXPECT_EQ(written.substr(0, expected.size()), expected);
  EXPECT_TRUE(std::regex_match(written.substr(expected.size()),
                               std::regex("\\[NAME\\]-=-gpcstartworktime-=-\\[VALUE\\]-=-[0-9]+\\.[0-9]{6}-=-\r")))
      << written.substr(expected.size());
}

// A report that the server fails is answered with NPRES_NETWORK_ERR and no stream. The plug-in
// matches such an answer to nothing, so the report stays requested and everything queued behind
// it waits: it is asked for once, never again, and the error page is not shown.
TEST_F(HostPlugin, FailedReportIsAskedForOnceAndHoldsTheQueue) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start({"/log=500"}));
  std::vector<std::string> args = PageParams(server);
  args.insert(args.end(), {"--run-ms", "1500"});
  HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;

  ASSERT_EQ(run.Of("request").size(), 1u);
  int notify = run.Find("url_notify", "url", "ErrorCode=1000");
  ASSERT_GE(notify, 0);
  EXPECT_EQ(run.events[static_cast<size_t>(notify)].Int("reason"), 1);
  EXPECT_TRUE(run.Of("stream_start").empty());
  EXPECT_TRUE(run.Of("navigate").empty());
  EXPECT_EQ(Paths(server).size(), 1u);
}

TEST_F(HostPlugin, ModuleStartsLikeABrowserLoadsIt) {
  HostRun run = gpchost::RunHost({"--param", "GpcProductVersion=3,1,0,7", "--run-ms", "100"});
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  int init = run.Find("entry", "name", "NP_Initialize");
  ASSERT_GE(init, 0);
  const JsonEvent& event = run.events[static_cast<size_t>(init)];
  EXPECT_EQ(event.Int("result"), 0);
  EXPECT_EQ(event.Int("plugin_table_size"), 120);
  EXPECT_EQ(event.Int("plugin_version"), 18);
  EXPECT_NE(event.line.find("\"urlnotify\":true"), std::string::npos);
  EXPECT_GE(run.Find("entry", "value", "application/x-talvo-gpc:"), 0);
  ASSERT_EQ(run.Of("instance").size(), 1u);
  EXPECT_EQ(run.Of("instance")[0].Int("result"), 0);
  // Models are offered only with --models: the plug-in asks and sets nothing.
  EXPECT_TRUE(run.Of("set_value").empty());
  ASSERT_EQ(run.Of("destroy").size(), 1u);
  EXPECT_EQ(run.events.back().Name(), "exit");
  EXPECT_EQ(run.events.back().Int("code"), 0);

  HostRun with_models = gpchost::RunHost({"--param", "GpcProductVersion=3,1,0,7", "--models", "--run-ms", "50"});
  ASSERT_EQ(with_models.Of("set_value").size(), 2u);
  EXPECT_EQ(with_models.Of("set_value")[0].Int("variable"), 1000);
  EXPECT_EQ(with_models.Of("set_value")[1].Int("variable"), 1001);
}

TEST_F(HostPlugin, HostRefusesWhatItCannotLoad) {
  HostRun missing = gpchost::RunHost({"--plugin", data_home_ + "/none.so", "--run-ms", "10"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.events.front().line.find("\"ok\":false"), std::string::npos);
  HostRun bad = gpchost::RunHost({"--param", "novalue"});
  EXPECT_EQ(bad.exit_code, 2);
  HostRun unmatched = gpchost::RunHost({"--param", "GpcProductVersion=3", "--exit-on-navigate", "never", "--run-ms", "50"});
  EXPECT_EQ(unmatched.exit_code, 3);
  // Started by a browser as a native-messaging host: its origin argument selects that mode, and
  // the closed input (no browser) ends it cleanly.
  HostRun started = gpchost::RunHost({"chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/"});
  EXPECT_EQ(started.exit_code, 0) << started.stderr_text;
}

}  // namespace

namespace {

// The host page's URL arrives as the stream marked 100: a page off the approved sites shows
// error 111, even for an instance that is halted already.
TEST_F(HostPlugin, RefusedHostPageShowsError111) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start());
  std::vector<std::string> args = PageParams(server);
  args.insert(args.end(), {"--param", "GpcUrlRoot=https://downloads.example.org/client/", "--page-url",
                           "https://meetings.example.org/j/1", "--exit-on-navigate", "/error?", "--run-ms", "8000"});
  HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  ASSERT_EQ(run.Of("page_url").size(), 1u);
  EXPECT_EQ(run.Of("page_url")[0].Int("new_stream"), 0);
  EXPECT_EQ(run.Of("page_url")[0].Int("written"), static_cast<long long>(strlen("https://meetings.example.org/j/1")));
  int page = run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=");
  ASSERT_GE(page, 0);
  EXPECT_NE(run.events[static_cast<size_t>(page)].Str("url").find("Error%20%5B111%5D"), std::string::npos);
  EXPECT_GE(run.Find("request", "url", "ErrorCode=111&"), 0);
}

// The direct download of the package meets a challenge, so the package comes through the
// browser, whose fetch is redirected: the stream opens under another URL and is not the
// package's. The fetch still ends, and the page shows the error instead of waiting for ever.
TEST_F(HostPlugin, PackageFetchRedirectedByTheBrowserEndsAndShowsTheErrorPage) {
  gpchost::RecordingServer server;
  ASSERT_TRUE(server.Start());
  gpctest::ScriptedHttpServer packages;
  ASSERT_TRUE(packages.Start()) << packages.error();
  const std::string root = packages.Url("/client/moved-after/403/");
  std::vector<std::string> args = PageParams(server);
  args.insert(args.end(), {"--param", "gpcsitelock=0", "--param", "GpcUrlRoot=" + root, "--param",
                           "GpcExtVersion=3.1", "--param", "GpcUnpackVersion=1,0", "--exit-on-navigate",
                           "/error", "--run-ms", "15000"});
  HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;

  int request = run.Find("request", "url", root + "zrgpcext64.bundle");
  ASSERT_GE(request, 0);
  const std::string package = run.events[static_cast<size_t>(request)].Str("url");
  int stream = run.Find("stream_start", "stream_url", "/bytes?n=64", request);
  ASSERT_GT(stream, request);
  int notified = run.Find("url_notify", "url", package, stream);
  ASSERT_GT(notified, stream);
  EXPECT_GT(run.Find("navigate", "url", "/error?ErrorType=1&ErrorMsg=", notified), notified);
  EXPECT_EQ(packages.RequestCount(package.substr(package.find("/client/"))), 2);
}

}  // namespace

// File fetching of a live instance, driven by its own heartbeat on the GLib main loop against a
// server on 127.0.0.1: the fall-back to the browser when a direct download fails, and instances
// going away in the middle of downloads. The browser is the fake call table; the test delivers its
// streams through the NPP_* handlers, as a browser would.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/gpctracecatcher.h"
#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "trace_capture.h"

using gpctest::Browser;
using gpctest::BusySlots;
using gpctest::UrlRequest;
using Environment = gpctest::BrowserEnvironment;
using PageParams = gpctest::EmbedArgs;

namespace {

struct Requester {
  int completions = 0;
  unsigned progressBytes = 0;
  std::string content;  // of the file handed over with the last completion; "null" for none
};

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->progressBytes += static_cast<unsigned>(reinterpret_cast<uintptr_t>(data));
  } else {
    ++requester->completions;
    requester->content = data ? gpctest::ReadFile(static_cast<const char*>(data)) : "null";
  }
}

class WindowDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name :
         {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
      unsetenv(name);
  }
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
    gpctest::RunMainLoopFor(20);  // whatever a destroyed instance left on the loop must not fire into it
  }

  // An instance as the browser makes it, past its extension check, asking for `urls`.
  CGpcWindow* Create(const std::vector<std::string>& urls, NPP instance, decltype(&NPP_New) newp = NPP_New) {
    PageParams page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}};
    EXPECT_EQ(newp(const_cast<char*>("application/x-talvo-gpc"), instance, NP_EMBED, page.argc(), page.argn(),
                   page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(instance->pdata)->gpcWindow;
    window->m_bExtMgrStarted = 1;
    for (size_t i = 0; i < urls.size(); ++i) window->GetFileAtUrl(Record, &requesters[i], urls[i].c_str());
    return window;
  }

  gpctest::LoopbackServer server;
  Environment env;
  NPP_t npp{};
  Requester requesters[6];
};

// A reset, a refusal and a proxy's credentials challenge: the file is fetched again through the
// browser, completed once, with the bytes of the failed attempt still counted.
class FailedDirectDownloadTest : public WindowDownloadTest,
                                 public ::testing::WithParamInterface<const char*> {};

TEST_P(FailedDirectDownloadTest, IsFetchedAgainThroughTheBrowserAndCompletedOnce) {
  ASSERT_TRUE(server.Start() && server.AddFile("good.bin", gpctest::PatternBytes(64 * 1024)))
      << server.error();
  const std::string failing = server.Url(GetParam()), good = server.HttpUrl("good.bin");
  CGpcWindow* window = Create({failing, good}, &npp);
  ClearCapturedTraces();
  size_t delivered = 0;
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] {
    for (; delivered < Browser().requests.size(); ++delivered) {  // the browser answers each request
      const UrlRequest request = Browser().requests[delivered];
      NPStream stream{};
      stream.url = request.url.c_str();
      stream.notifyData = request.notifyData;
      uint16_t stype = 0;
      std::string body = "browser:" + request.url;
      if (NPP_NewStream(&npp, nullptr, &stream, 0, &stype) != NPERR_NO_ERROR) continue;
      NPP_Write(&npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]);
      NPP_DestroyStream(&npp, &stream, NPRES_DONE);
    }
    return requesters[0].completions > 0 && requesters[1].completions > 0;
  }));
  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_EQ(gpctest::LogCount("CGpcWindow::CheckFileDownloading,need use old download mode!"), 1);
  EXPECT_EQ(requesters[0].completions, 1);
  EXPECT_EQ(requesters[0].content, "browser:" + failing);
  EXPECT_EQ(requesters[1].completions, 1);
  EXPECT_EQ(std::count_if(Browser().requests.begin(), Browser().requests.end(),
                          [&](const UrlRequest& r) { return r.url == failing; }),
            1);
  // Nothing is left that could complete a second time.
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_EQ(window->m_streamSapId, nullptr);
  if (std::string(GetParam()) == "/reset") {
    EXPECT_GT(requesters[0].progressBytes, ("browser:" + failing).size());
  }
}

INSTANTIATE_TEST_SUITE_P(ResetOrChallenge, FailedDirectDownloadTest,
                         ::testing::Values("/reset", "/status/403", "/status/407"));

// Two instances in one browser process, driven through the module's table: the first goes away in
// the middle of its downloads and leaves no piece of them behind; the second still completes, its
// lines still reach the process's trace, and its finished file goes with it.
TEST_F(WindowDownloadTest, InstancesGoingAwayInTheMiddleOfDownloadsLeaveNothingBehind) {
  server.SetLimitRate("512k");
  ASSERT_TRUE(server.Start()) << server.error();
  // Content of this run alone: pieces left in /tmp by earlier runs cannot be taken for ours.
  const std::string first = gpctest::PatternBytes(2 * 1024 * 1024, static_cast<unsigned>(getpid()));
  const std::string second = gpctest::PatternBytes(1024 * 1024, static_cast<unsigned>(getpid()) + 1);
  std::vector<std::string> urls;
  for (int i = 0; i < 5; ++i) urls.push_back(server.HttpsUrl("first" + std::to_string(i)));
  ASSERT_TRUE(server.AddFile("first0", first) && server.AddFile("first1", first) &&
              server.AddFile("first2", first) && server.AddFile("first3", first) &&
              server.AddFile("first4", first) && server.AddFile("second", second));
  NPNetscapeFuncs browser = gNetscapeFuncs;
  NPPluginFuncs table{};
  table.size = sizeof table;
  gpc::GPCTraceCatcher::releaseGlobal();  // the module starts its own
  ASSERT_EQ(NP_Initialize(&browser, &table), NPERR_NO_ERROR);
  NPP_t other{}, last{};
  Create(urls, &other, table.newp);
  Requester secondRequester;
  Create({}, &last, table.newp)->GetFileAtUrl(Record, &secondRequester, server.HttpUrl("second").c_str());
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] {
    return secondRequester.progressBytes > 0 &&
           std::all_of(requesters, requesters + 5, [](const Requester& r) { return r.progressBytes > 0; });
  }));
  EXPECT_EQ(gpctest::PiecesInTmp(first).size(), 5u);
  EXPECT_EQ(table.destroy(&other, nullptr), NPERR_NO_ERROR);
  gpctest::RunMainLoopFor(50);
  EXPECT_TRUE(gpctest::PiecesInTmp(first).empty());
  EXPECT_TRUE(std::none_of(requesters, requesters + 5, [](const Requester& r) { return r.completions > 0; }));

  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] { return secondRequester.completions > 0; }));
  EXPECT_TRUE(secondRequester.content == second);
  bool caught = false;
  for (const auto& entry : gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo())
    caught = caught || gpc::traceContent(*entry) == "CGpcWindow::CheckDownloadingTasks,end handle stream[0]";
  EXPECT_TRUE(caught) << "the second instance's lines reach the process's trace";
  EXPECT_EQ(gpctest::PiecesInTmp(second).size(), 1u) << "a finished file lasts as long as its instance";
  EXPECT_EQ(table.destroy(&last, nullptr), NPERR_NO_ERROR);
  EXPECT_TRUE(gpctest::PiecesInTmp(second).empty());
  EXPECT_EQ(NP_Shutdown(), NPERR_NO_ERROR);
}

}  // namespace

// File fetching of a live instance, driven by its own heartbeat on the GLib main loop against
// servers on 127.0.0.1: five direct downloads at once, the fall-back to the browser when one
// fails, StopDownload, teardown in the middle of downloads, and the extension package fetch that
// the update decision starts. The browser is the fake call table; its streams are delivered by
// the test through the NPP_* handlers, as a browser would.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "../unit/window_fake_browser.h"
#include "extension_package.h"
#include "http_test_server.h"
#include "main_loop.h"

using namespace window_test;

namespace {

const int kDeadlineMs = 20000;

struct Requester {
  int completions = 0;
  unsigned progressBytes = 0;
  std::string content;  // of the file handed over with the completion
  std::string path;
  bool nullCompletion = false;
};

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->progressBytes += static_cast<unsigned>(reinterpret_cast<uintptr_t>(data));
    return;
  }
  ++requester->completions;
  if (data == nullptr) {
    requester->nullCompletion = true;
    return;
  }
  requester->path = static_cast<const char*>(data);
  requester->content = gpctest::ReadFile(requester->path);
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

int IndexOfLine(const LogCapture& log, const std::string& text, int from = 0) {
  const std::vector<std::string>& lines = log.lines();
  for (size_t i = static_cast<size_t>(from); i < lines.size(); ++i)
    if (lines[i] == text) return static_cast<int>(i);
  return -1;
}

class WindowDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
      unsetenv(name);
  }
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
    RunMainLoop(20);  // whatever a destroyed instance left on the loop must not fire into it
  }

  // An instance as the browser makes it. With `skipExtensionCheck` it goes straight to fetching.
  CGpcWindow* Create(PageParams page, bool skipExtensionCheck = true) {
    EXPECT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, NP_EMBED, page.argc(), page.argn(),
                      page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(npp.pdata)->gpcWindow;
    if (skipExtensionCheck) window->m_bExtMgrStarted = 1;
    window->CleanupFrameTargets();
    Browser().requests.clear();
    return window;
  }
  CGpcWindow* Create() {
    return Create(PageParams{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}});
  }

  // Answers every file request the browser received since the last call with a finished stream
  // whose body is "browser:" and the URL.
  void DeliverNewStreams() {
    while (delivered < Browser().requests.size()) {
      const UrlRequest request = Browser().requests[delivered++];
      NPStream stream{};
      stream.url = request.url.c_str();
      stream.notifyData = request.notifyData;
      uint16_t stype = 0;
      if (NPP_NewStream(&npp, nullptr, &stream, 0, &stype) != NPERR_NO_ERROR) continue;
      std::string body = "browser:" + request.url;
      NPP_Write(&npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]);
      NPP_DestroyStream(&npp, &stream, NPRES_DONE);
    }
  }


  Environment env;
  NPP_t npp{};
  size_t delivered = 0;
};

TEST_F(WindowDownloadTest, SixFilesRunFiveAtATimeAndTheSixthTakesTheFirstFreedSlot) {
  gpctest::NginxTestServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  std::vector<std::string> contents, urls;
  for (int i = 0; i < 6; ++i) {
    contents.push_back(gpctest::PatternBytes(256 * 1024 + static_cast<size_t>(i), static_cast<unsigned>(i + 1)));
    ASSERT_TRUE(server.AddFile("files/f" + std::to_string(i), contents.back()));
    urls.push_back(server.HttpsUrl("files/f" + std::to_string(i)));
  }
  CGpcWindow* window = Create();
  LogCapture log;
  Requester requesters[6];
  for (int i = 0; i < 6; ++i) window->GetFileAtUrl(Record, &requesters[i], urls[static_cast<size_t>(i)].c_str());

  // The first heartbeat, as the timer would run it.
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 5);
  EXPECT_EQ(log.Count("create new download task!"), 5);
  int mostBusy = 0;
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] {
        mostBusy = std::max(mostBusy, BusySlots(window));
        for (const Requester& requester : requesters)
          if (requester.completions == 0) return false;
        return true;
      },
      kDeadlineMs));
  EXPECT_EQ(mostBusy, 5);
  EXPECT_EQ(window->m_nFetchReady, 1);
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_EQ(window->m_vectorDownloadTask.size(), 6u);
  for (size_t i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(requesters[i].completions, 1);
    EXPECT_EQ(requesters[i].progressBytes, contents[i].size());
    EXPECT_TRUE(requesters[i].content == contents[i]);
  }
  EXPECT_TRUE(Browser().requests.empty());

  // The sixth started only after a slot was handed back, and in the first one handed back.
  const int sixthStart = IndexOfLine(log, "CGpcWindow::CheckFileDownloading,url=[" + urls[5] + "]");
  int firstEnd = -1, freedSlot = -1;
  for (int slot = 0; slot < 5; ++slot) {
    const int end = IndexOfLine(log, "CGpcWindow::CheckDownloadingTasks,end handle stream[" + std::to_string(slot) + "]");
    if (end >= 0 && (firstEnd < 0 || end < firstEnd)) {
      firstEnd = end;
      freedSlot = slot;
    }
  }
  ASSERT_GE(sixthStart, 0);
  ASSERT_GE(firstEnd, 0);
  EXPECT_GT(sixthStart, firstEnd);
  EXPECT_EQ(log.lines()[static_cast<size_t>(sixthStart - 1)],
            "CGpcWindow::CheckFileDownloading,index[" + std::to_string(freedSlot) +
                "] stream is nil,create new download task!");

  // Finished files stay until the instance goes.
  for (const Requester& requester : requesters) EXPECT_TRUE(Exists(requester.path));
  NPP_Destroy(&npp, nullptr);
  for (const Requester& requester : requesters) EXPECT_FALSE(Exists(requester.path));
}

class FailedDirectDownloadTest : public WindowDownloadTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(FailedDirectDownloadTest, IsFetchedAgainThroughTheBrowserAndCompletedOnce) {
  gpctest::ScriptedHttpServer failing;
  ASSERT_TRUE(failing.Start()) << failing.error();
  gpctest::NginxTestServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string good = gpctest::PatternBytes(64 * 1024);
  ASSERT_TRUE(server.AddFile("good.bin", good));
  const std::string failingUrl = failing.Url(GetParam());
  const std::string goodUrl = server.HttpUrl("good.bin");

  CGpcWindow* window = Create();
  LogCapture log;
  Requester failed, other;
  window->GetFileAtUrl(Record, &failed, failingUrl.c_str());
  window->GetFileAtUrl(Record, &other, goodUrl.c_str());
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] {
        DeliverNewStreams();
        return failed.completions > 0 && other.completions > 0;
      },
      kDeadlineMs));

  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckFileDownloading,need use old download mode!"), 1);
  EXPECT_EQ(failed.completions, 1);
  EXPECT_FALSE(failed.nullCompletion);
  EXPECT_EQ(failed.content, "browser:" + failingUrl);
  EXPECT_EQ(other.completions, 1);
  EXPECT_TRUE(other.content == good || other.content == "browser:" + goodUrl);
  // Nothing is left that could complete a second time.
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_EQ(window->m_streamSapId, nullptr);
  // The browser was asked for the failed file, once; bytes of the failed attempt stay counted.
  int asked = 0;
  for (const UrlRequest& request : Browser().requests) asked += request.url == failingUrl;
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(log.CountExact("CGpcWindow::FinishDownloadingStreamFile,dwonloaded file=" + failingUrl + "," +
                           std::to_string(failed.progressBytes) + " bytes"),
            1);
  if (std::string(GetParam()) == "/reset") {
    EXPECT_GT(failed.progressBytes, ("browser:" + failingUrl).size());
  }
}

INSTANTIATE_TEST_SUITE_P(ResetOrChallenge, FailedDirectDownloadTest,
                         ::testing::Values("/reset", "/status/403", "/status/407"));

TEST_F(WindowDownloadTest, StopDownloadLetsRunningTasksEndAndStartsNoMore) {
  gpctest::NginxTestServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  std::vector<std::string> urls;
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(server.AddFile("s" + std::to_string(i), gpctest::PatternBytes(32 * 1024)));
    urls.push_back(server.HttpUrl("s" + std::to_string(i)));
  }
  CGpcWindow* window = Create();
  LogCapture log;
  Requester requesters[6];
  for (int i = 0; i < 6; ++i) window->GetFileAtUrl(Record, &requesters[i], urls[static_cast<size_t>(i)].c_str());
  window->OnTimer();
  ASSERT_EQ(BusySlots(window), 5);
  window->StopDownload();
  EXPECT_EQ(log.CountExact("CGpcWindow::StopDownload"), 1);

  // Heartbeats are counted by a navigation the browser keeps refusing: asked again on each one.
  const std::string beacon = "https://www.talvo.us/beacon";
  for (int i = 0; i < 1000; ++i) Browser().answers.push_back(NPERR_GENERIC_ERROR);
  window->ChangeLocation(nullptr, beacon.c_str());
  auto heartbeats = [&] {
    int count = 0;
    for (const UrlRequest& request : Browser().requests) count += request.url == beacon;
    return count;
  };
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] {
        for (int i = 0; i < 5; ++i)
          if (requesters[i].completions == 0) return false;
        return true;
      },
      kDeadlineMs));
  const int seen = heartbeats();
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] { return heartbeats() >= seen + 4; }, kDeadlineMs));
  EXPECT_EQ(requesters[5].completions, 0);
  EXPECT_EQ(BusySlots(window), 0);
  ASSERT_EQ(window->m_vectorFileItem.size(), 1u);
  EXPECT_EQ(window->m_vectorFileItem[0]->m_strUrl, urls[5]);
  EXPECT_EQ(log.Count("create new download task!"), 5);
}

TEST_F(WindowDownloadTest, TeardownInTheMiddleOfDownloadsFreesTasksAndFiles) {
  gpctest::NginxTestServer server;
  server.SetLimitRate("256k");
  ASSERT_TRUE(server.Start()) << server.error();
  std::vector<std::string> urls;
  // Content of this run alone: pieces left in /tmp by earlier runs cannot be taken for ours.
  const std::string content = gpctest::PatternBytes(4 * 1024 * 1024, static_cast<unsigned>(getpid()));
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(server.AddFile("t" + std::to_string(i), content));
    urls.push_back(server.HttpsUrl("t" + std::to_string(i)));
  }
  CGpcWindow* window = Create();
  Requester requesters[6];
  for (int i = 0; i < 6; ++i) window->GetFileAtUrl(Record, &requesters[i], urls[static_cast<size_t>(i)].c_str());
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] {
        for (int i = 0; i < 5; ++i)
          if (requesters[i].progressBytes == 0) return false;
        return true;
      },
      kDeadlineMs));
  EXPECT_EQ(BusySlots(window), 5);
  const std::vector<std::string> partial = gpctest::PiecesInTmp(content);
  EXPECT_EQ(partial.size(), 5u);

  NPP_Destroy(&npp, nullptr);
  RunMainLoop(50);
  for (const std::string& path : partial) EXPECT_FALSE(Exists(path)) << path;
  EXPECT_TRUE(gpctest::PiecesInTmp(content).empty());
  for (const Requester& requester : requesters) EXPECT_EQ(requester.completions, 0);
}

TEST_F(WindowDownloadTest, MissingExtensionFetchesThePackageFromTheUrlRoot) {
  gpctest::NginxTestServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string package = gpctest::PatternBytes(100 * 1024, 7);
  ASSERT_TRUE(server.AddFile("client/a/zrgpcext64.bundle.7z", package));
  const std::string root = server.HttpsUrl("client/a/");
  const std::string digest = gpctest::FileDigest(server.FilePath("client/a/zrgpcext64.bundle.7z"), "sha256");
  LogCapture log;
  // The escape from the site lock comes first: the root is tested while the page is stored.
  CGpcWindow* window = Create(PageParams{{"gpcsitelock", "0"},
                                         {"GpcProductVersion", "1,0"},
                                         {"GpcUrlRoot", root.c_str()},
                                         {"GpcExtVersion", "3.1"},
                                         {"GpcUnpackVersion", "1,0"},
                                         {"GpcCompressMethod", "7ZIP"},
                                         {"GpcExtHash", digest.c_str()},
                                         {"GpcHashMethod", "sha256"},
                                         {"GpcCertification", "unsigned package"}},
                              false);
  ASSERT_EQ(window->m_bHalted, 0);
  ASSERT_STREQ(window->GetParameter("GpcUrlRoot"), root.c_str());
  // The digest of what arrived matches the page's; the package then fails for want of a signature.
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] { return log.Contains("CGpcExtMgr::GpcGetFileNotify, GpcExtSignature value is nil!"); }, kDeadlineMs));
  EXPECT_EQ(log.CountExact("CGpcWindow::GetFileAtUrl,url=[" + root + "zrgpcext64.bundle.7z]"), 1);
  EXPECT_FALSE(window->m_bNeedInitExtension);
  EXPECT_EQ(window->m_nFetchReady, 1);
}

// Two instances in one browser process, driven through the module's table as a browser drives
// them: the first goes away in the middle of the second's download, which still completes, and
// the process's trace goes on collecting the second's lines.
TEST_F(WindowDownloadTest, SecondInstanceOutlivesTheFirstInTheMiddleOfItsDownload) {
  gpctest::NginxTestServer server;
  server.SetLimitRate("1m");
  ASSERT_TRUE(server.Start()) << server.error();
  const std::string content = gpctest::PatternBytes(2 * 1024 * 1024, 88);
  ASSERT_TRUE(server.AddFile("first.bin", content));
  ASSERT_TRUE(server.AddFile("second.bin", content));
  NPNetscapeFuncs browser = gNetscapeFuncs;
  NPPluginFuncs table{};
  table.size = sizeof table;
  gpc::GPCTraceCatcher::releaseGlobal();  // the module starts its own
  ASSERT_EQ(NP_Initialize(&browser, &table), NPERR_NO_ERROR);
  NPP_t first{}, second{};
  Requester firstRequester, secondRequester;
  for (auto instance : {std::make_pair(&first, &firstRequester), std::make_pair(&second, &secondRequester)}) {
    PageParams page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}};
    ASSERT_EQ(table.newp(const_cast<char*>("application/x-talvo-gpc"), instance.first, NP_EMBED, page.argc(),
                         page.argn(), page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(instance.first->pdata)->gpcWindow;
    window->m_bExtMgrStarted = 1;
    const std::string url = server.HttpUrl(instance.first == &first ? "first.bin" : "second.bin");
    window->GetFileAtUrl(Record, instance.second, url.c_str());
  }
  ASSERT_TRUE(gpctest::RunMainLoopUntil(
      [&] { return firstRequester.progressBytes > 0 && secondRequester.progressBytes > 0; }, kDeadlineMs));
  EXPECT_EQ(table.destroy(&first, nullptr), NPERR_NO_ERROR);
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] { return secondRequester.completions > 0; }, kDeadlineMs));
  EXPECT_TRUE(secondRequester.content == content);
  EXPECT_EQ(firstRequester.completions, 0);

  bool caught = false;
  for (const auto& entry : gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo())
    caught = caught || gpc::traceContent(*entry) == "CGpcWindow::CheckDownloadingTasks,end handle stream[0]";
  EXPECT_TRUE(caught) << "the second instance's lines reach the process's trace";
  EXPECT_EQ(table.destroy(&second, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(NP_Shutdown(), NPERR_NO_ERROR);
}

}  // namespace

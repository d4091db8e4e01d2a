// File fetching of the instance without a network: the queue, the five download slots, the hand-over
// of a finished task, the switch to the browser when a direct download gives up, and teardown.
// Tasks are started against a closed port on 127.0.0.1 and the loop is never run, so no transfer
// gets anywhere; what a transfer would report is given to the task through its sink interface.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "gpcutil.h"
#include "window_fake_browser.h"

using namespace window_test;

namespace {

struct Requester {
  std::vector<std::string> events;  // "progress N", "complete <content>" or "complete null"
  std::vector<std::string> paths;   // paths handed over with each completion
};

std::string ReadAll(const char* path) {
  std::string content;
  FILE* file = fopen(path, "rb");
  if (file == nullptr) return "<unreadable>";
  char buffer[256];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, file)) > 0;) content.append(buffer, got);
  fclose(file);
  return content;
}

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->events.push_back("progress " + std::to_string(reinterpret_cast<uintptr_t>(data)));
    return;
  }
  if (data == nullptr) {
    requester->events.push_back("complete null");
    return;
  }
  requester->paths.push_back(static_cast<const char*>(data));
  requester->events.push_back("complete " + ReadAll(static_cast<const char*>(data)));
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

std::string ClosedPortUrl(int n) { return "http://127.0.0.1:9/files/f" + std::to_string(n) + ".bin"; }

PageParams Page() {
  return PageParams{{"GpcProductVersion", "1,0"},
                    {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
                    {"MeetingID", "m"},
                    {"GpcErrorPageUrl", "https://e.example/err"}};
}

class WindowFetchTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
  }

  // An instance as the browser makes it, past its extension check and without its start report.
  CGpcWindow* Create() {
    PageParams page = Page();
    EXPECT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, NP_EMBED, page.argc(), page.argn(),
                      page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(npp.pdata)->gpcWindow;
    window->m_bExtMgrStarted = 1;
    window->CleanupFrameTargets();
    Browser().requests.clear();
    return window;
  }

  // Delivers `body` for the browser's request number `index` as a finished stream.
  void DeliverStream(size_t index, std::string body, NPReason reason = NPRES_DONE) {
    ASSERT_LT(index, Browser().requests.size());
    NPStream stream{};
    stream.url = Browser().requests[index].url.c_str();
    stream.notifyData = Browser().requests[index].notifyData;
    uint16_t stype = 0;
    ASSERT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, &stype), NPERR_NO_ERROR);
    if (!body.empty()) {
      EXPECT_EQ(NPP_Write(&npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]),
                static_cast<int32_t>(body.size()));
    }
    NPP_DestroyStream(&npp, &stream, reason);
  }


  Environment env;
  NPP_t npp{};
};

TEST_F(WindowFetchTest, RequestsWaitForTheHeartbeat) {
  CGpcWindow* window = Create();
  LogCapture log;
  Requester requester;
  EXPECT_TRUE(window->GetFileAtUrl(Record, &requester, ClosedPortUrl(1).c_str()));
  EXPECT_TRUE(window->GetFileAtUrl(Record, &requester, nullptr));
  EXPECT_EQ(log.CountExact("CGpcWindow::GetFileAtUrl,url=[" + ClosedPortUrl(1) + "]"), 1);
  EXPECT_EQ(log.CountExact("CGpcWindow::GetFileAtUrl"), 1);
  ASSERT_EQ(window->m_vectorFileItem.size(), 2u);
  EXPECT_EQ(window->m_vectorFileItem[1]->m_strUrl, "");
  EXPECT_EQ(window->m_vectorFileItem[1]->m_nReceivedBytes, 0u);
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_TRUE(requester.events.empty());
}

TEST_F(WindowFetchTest, SixRequestsStartFiveTasksAndTheSixthInTheFirstFreedSlot) {
  CGpcWindow* window = Create();
  LogCapture log;
  Requester requesters[6];
  for (int i = 0; i < 6; ++i) window->GetFileAtUrl(Record, &requesters[i], ClosedPortUrl(i).c_str());

  window->OnTimer();
  ASSERT_EQ(BusySlots(window), 5);
  for (int i = 0; i < 5; ++i) {
    const GpcDownloadSlot& slot = window->m_downloadSlots[i];
    EXPECT_EQ(slot.task->GetItem(), window->m_vectorFileItem[i]);
    EXPECT_EQ(slot.task->GetStatus(), kDownloading);
    EXPECT_STREQ(slot.url, ClosedPortUrl(i).c_str());
    EXPECT_EQ(log.CountExact("CGpcWindow::CheckFileDownloading,index[" + std::to_string(i) +
                             "] stream is nil,create new download task!"),
              1);
    EXPECT_EQ(log.CountExact("CGpcWindow::CheckFileDownloading,url=[" + ClosedPortUrl(i) + "]"), 1);
  }
  // Items being served are not started twice; the sixth waits.
  window->OnTimer();
  EXPECT_EQ(log.Count("create new download task!"), 5);

  // Slot 2 finishes: the requester gets the file, the slot frees, the task is kept.
  const std::string file = env.dir() + "/finished.bin";
  ASSERT_TRUE(g_file_set_contents(file.c_str(), "payload", 7, nullptr));
  GPCDownloadTask* finished = window->m_downloadSlots[2].task;
  finished->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(requesters[2].events, std::vector<std::string>{"complete payload"});
  EXPECT_EQ(window->m_downloadSlots[2].task, nullptr);
  EXPECT_STREQ(window->m_downloadSlots[2].url, "");
  ASSERT_EQ(window->m_vectorDownloadTask.size(), 1u);
  EXPECT_EQ(window->m_vectorDownloadTask[0], finished);
  EXPECT_EQ(window->m_vectorFileItem.size(), 5u);
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckDownloadingTasks,begin handle stream[2],url[" + ClosedPortUrl(2) + "]"), 1);
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckDownloadingTasks,m_vectorFileItem erase item[" + ClosedPortUrl(2) + "]"), 1);
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckDownloadingTasks,end handle stream[2]"), 1);
  EXPECT_TRUE(Exists(file));  // valid until the instance goes

  window->OnTimer();
  ASSERT_NE(window->m_downloadSlots[2].task, nullptr);
  EXPECT_STREQ(window->m_downloadSlots[2].url, ClosedPortUrl(5).c_str());
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckFileDownloading,index[2] stream is nil,create new download task!"), 2);

  NPP_Destroy(&npp, nullptr);
  // The download did not make this file (the test did): teardown removes only a download's own.
  EXPECT_TRUE(Exists(file));
  for (const Requester& requester : requesters) {
    EXPECT_LE(requester.events.size(), 1u);  // nothing reported at teardown
  }
}

TEST_F(WindowFetchTest, ProgressCountsBlocksPerItem) {
  CGpcWindow* window = Create();
  Requester requester;
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(0).c_str());
  window->OnDataReceived(10, nullptr);
  EXPECT_TRUE(requester.events.empty());
  window->OnTimer();
  GPCDownloadTask* task = window->m_downloadSlots[0].task;
  task->OnDataReceived(100);
  task->OnDataReceived(28);
  EXPECT_EQ(requester.events, (std::vector<std::string>{"progress 100", "progress 28"}));
  EXPECT_EQ(window->m_vectorFileItem[0]->m_nReceivedBytes, 128u);
  // A finished task without an item frees its slot and tells no one.
  window->m_downloadSlots[0].task->SetItem(nullptr);
  const std::string file = env.dir() + "/orphan.bin";
  ASSERT_TRUE(g_file_set_contents(file.c_str(), "x", 1, nullptr));
  task->OnHttpReturn(nullptr, 1, const_cast<char*>(file.c_str()));
  EXPECT_EQ(window->m_downloadSlots[0].task, nullptr);
  EXPECT_EQ(requester.events.size(), 2u);
}

TEST_F(WindowFetchTest, CredentialChallengeMovesEveryQueuedItemToTheBrowser) {
  CGpcWindow* window = Create();
  LogCapture log;
  Requester first, second;
  window->GetFileAtUrl(Record, &first, ClosedPortUrl(0).c_str());
  window->GetFileAtUrl(Record, &second, ClosedPortUrl(1).c_str());
  window->OnTimer();
  ASSERT_EQ(BusySlots(window), 2);
  window->m_downloadSlots[0].task->OnDataReceived(100);  // progress from the direct attempt
  std::string user, password;
  EXPECT_FALSE(window->m_downloadSlots[0].task->OnAskProxy(user, password));

  window->OnTimer();
  EXPECT_EQ(log.CountExact("CGpcWindow::CheckFileDownloading,need use old download mode!"), 1);
  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_EQ(BusySlots(window), 0);
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) EXPECT_STREQ(slot.url, "");
  EXPECT_TRUE(Browser().requests.empty());
  ASSERT_EQ(window->m_vectorFileItem.size(), 2u);

  // From now on one file at a time through the browser, the head first.
  window->OnTimer();
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, ClosedPortUrl(0));
  DeliverStream(0, "via-browser");
  EXPECT_EQ(first.events, (std::vector<std::string>{"progress 100", "progress 11", "complete via-browser"}));
  EXPECT_TRUE(log.Contains("CGpcWindow::FinishDownloadingStreamFile,dwonloaded file=" + ClosedPortUrl(0) + ",111 bytes"));
  ASSERT_EQ(first.paths.size(), 1u);
  EXPECT_FALSE(Exists(first.paths[0]));  // old-mode files live only during the callback

  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].url, ClosedPortUrl(1));
  DeliverStream(1, "", NPRES_NETWORK_ERR);
  EXPECT_EQ(second.events, std::vector<std::string>{"complete null"});
  EXPECT_TRUE(window->m_vectorFileItem.empty());
  EXPECT_EQ(log.Count("create new download task!"), 2);  // never back to direct downloads
}

// How the browser can end a request without ever opening a stream for it.
struct UnopenedEnding {
  const char* name;
  const char* streamUrl;  // a stream the browser opens under another (redirected) URL, or null
  NPReason reason;
  const char* completion;
};
void PrintTo(const UnopenedEnding& ending, std::ostream* out) { *out << ending.name; }

class BrowserEndsRequestUnopened : public WindowFetchTest, public ::testing::WithParamInterface<UnopenedEnding> {};

TEST_P(BrowserEndsRequestUnopened, CompletesTheHeadOnceAndMovesTheQueueOn) {
  const UnopenedEnding& ending = GetParam();
  CGpcWindow* window = Create();
  window->m_nFetchReady = 0;
  Requester first, second;
  window->GetFileAtUrl(Record, &first, ClosedPortUrl(0).c_str());
  window->GetFileAtUrl(Record, &second, ClosedPortUrl(1).c_str());
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 1u);
  const UrlRequest request = Browser().requests[0];
  if (ending.streamUrl != nullptr) {
    NPStream stream{};
    stream.url = ending.streamUrl;
    stream.notifyData = request.notifyData;
    uint16_t stype = 0;
    ASSERT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, &stype), NPERR_NO_ERROR);
    char block[] = "moved";
    NPP_Write(&npp, &stream, 0, 5, block);
    NPP_DestroyStream(&npp, &stream, ending.reason);
  }
  NPP_URLNotify(&npp, request.url.c_str(), ending.reason, request.notifyData);
  EXPECT_EQ(first.events, std::vector<std::string>{ending.completion});
  EXPECT_EQ(window->m_streamSapId, nullptr);

  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].url, ClosedPortUrl(1));
  DeliverStream(1, "second");
  EXPECT_EQ(second.events, (std::vector<std::string>{"progress 6", "complete second"}));
  EXPECT_EQ(first.events.size(), 1u);
  EXPECT_TRUE(window->m_vectorFileItem.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Endings, BrowserEndsRequestUnopened,
    ::testing::Values(UnopenedEnding{"Redirected", "http://127.0.0.1:9/elsewhere", NPRES_DONE, "complete "},
                      UnopenedEnding{"FailedBeforeAnyStream", nullptr, NPRES_NETWORK_ERR, "complete null"},
                      UnopenedEnding{"CancelledBeforeAnyStream", nullptr, NPRES_USER_BREAK, "complete null"}),
    [](const ::testing::TestParamInfo<UnopenedEnding>& info) { return std::string(info.param.name); });

TEST_F(WindowFetchTest, TaskThatCannotStartSwitchesToTheBrowserOnTheNextHeartbeat) {
  CGpcWindow* window = Create();
  Requester requester;
  window->GetFileAtUrl(Record, &requester, "x");
  window->OnTimer();
  ASSERT_NE(window->m_downloadSlots[0].task, nullptr);
  EXPECT_EQ(window->m_downloadSlots[0].task->GetStatus(), kDownloadFailed);
  EXPECT_EQ(window->m_nFetchReady, 1);
  window->OnTimer();
  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_TRUE(requester.events.empty());  // a direct failure is never reported
}

TEST_F(WindowFetchTest, StopDownloadHaltsTheQueue) {
  CGpcWindow* window = Create();
  LogCapture log;
  Requester requester;
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(0).c_str());
  window->StopDownload();
  EXPECT_EQ(log.CountExact("CGpcWindow::StopDownload"), 1);
  EXPECT_EQ(window->m_bHalted, 1);
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_EQ(window->m_vectorFileItem.size(), 1u);
}

// Someone plants a link at the download file's name between the choice of the name and its
// opening: the link is not followed, the download goes to a file of its own.
TEST_F(WindowFetchTest, BrowserDownloadNeverWritesThroughALinkAtItsName) {
  CGpcWindow* window = Create();
  window->m_nFetchReady = 0;
  const std::string victim = env.dir() + "/victim";
  ASSERT_TRUE(g_file_set_contents(victim.c_str(), "precious", 8, nullptr));
  const std::string logged = "CGpcWindow::OpenDownloadingStreamFile,file=";
  std::string planted;
  const gpc::GPCNotificationCenter::ObserverId attacker = gpc::GPCNotificationCenter::defaultCenter().addObserver(
      "TRACENOTIFICATIONNotification", [&](const gpc::GPCNotification& note) {
        const std::string text = note.userInfo->GetString("ContentKey").value_or("");
        if (planted.empty() && text.compare(0, logged.size(), logged) == 0) {
          planted = text.substr(logged.size());
          EXPECT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
        }
      });
  Requester requester;
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(0).c_str());
  window->OnTimer();
  gpc::GPCNotificationCenter::defaultCenter().removeObserver(attacker);
  ASSERT_FALSE(planted.empty());
  EXPECT_NE(window->m_strStreamFilePath, planted);
  DeliverStream(0, "download");
  EXPECT_EQ(requester.events, (std::vector<std::string>{"progress 8", "complete download"}));
  EXPECT_EQ(ReadAll(victim.c_str()), "precious");
  EXPECT_TRUE(isLink(planted));  // someone else's entry stays as it is
  unlink(planted.c_str());
}

TEST_F(WindowFetchTest, TeardownRemovesTheHalfWrittenBrowserDownload) {
  CGpcWindow* window = Create();
  Requester requester;
  window->m_nFetchReady = 0;
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(0).c_str());
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 1u);
  const std::string partial = window->m_strStreamFilePath;
  ASSERT_TRUE(Exists(partial));
  NPP_Destroy(&npp, nullptr);
  EXPECT_FALSE(Exists(partial));
  EXPECT_TRUE(requester.events.empty());
}

}  // namespace

// File fetching for an extension: five direct downloads at a time, the switch to one file at a
// time through the browser when a direct download gives up, and teardown.
// Tasks are started against a closed port on 127.0.0.1 and the loop is never run, so no transfer
// gets anywhere; what a transfer would report is given to the task through its sink interface.
#include <gtest/gtest.h>

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "gpcnotification.h"
#include "gpcutil.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace {

using gpctest::Browser;

std::string ReadAll(const char* path) {
  gchar* text = nullptr;
  gsize length = 0;
  if (!g_file_get_contents(path, &text, &length, nullptr)) return "<unreadable>";
  std::string content(text, length);
  g_free(text);
  return content;
}

struct Requester {
  std::vector<std::string> events;  // "progress N", "complete <content>" or "complete null"
  std::vector<std::string> paths;   // paths handed over with each completion
};

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->events.push_back("progress " + std::to_string(reinterpret_cast<uintptr_t>(data)));
  } else if (data == nullptr) {
    requester->events.push_back("complete null");
  } else {
    requester->paths.push_back(static_cast<const char*>(data));
    requester->events.push_back("complete " + ReadAll(static_cast<const char*>(data)));
  }
}

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}
std::string ClosedPortUrl(int n) { return "http://127.0.0.1:9/files/f" + std::to_string(n) + ".bin"; }
int BusySlots(const CGpcWindow* window) {
  int busy = 0;
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) busy += slot.task != nullptr;
  return busy;
}

class WindowFetchTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
  }
  // An instance as the browser makes it, past its extension check and without its start report.
  CGpcWindow* Create(bool throughBrowser = false) {
    gpctest::EmbedArgs page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}};
    EXPECT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, NP_EMBED, page.argc(), page.argn(),
                      page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(npp.pdata)->gpcWindow;
    window->m_bExtMgrStarted = 1;
    if (throughBrowser) window->m_nFetchReady = 0;
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
    if (!body.empty()) NPP_Write(&npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]);
    NPP_DestroyStream(&npp, &stream, reason);
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
};

TEST_F(WindowFetchTest, SixRequestsStartFiveTasksAndTheSixthInTheFirstFreedSlot) {
  CGpcWindow* window = Create();
  Requester requesters[6];
  for (int i = 0; i < 6; ++i) window->GetFileAtUrl(Record, &requesters[i], ClosedPortUrl(i).c_str());
  EXPECT_EQ(BusySlots(window), 0) << "requests wait for the heartbeat";
  window->OnTimer();
  window->OnTimer();  // items being served are not started twice
  ASSERT_EQ(BusySlots(window), 5);
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(window->m_downloadSlots[i].url, ClosedPortUrl(i).c_str());

  // Progress is counted per item; slot 2 finishes: the requester gets the file, the slot frees.
  window->m_downloadSlots[2].task->OnDataReceived(100);
  window->m_downloadSlots[2].task->OnDataReceived(28);
  const std::string file = env.dir() + "/finished.bin";
  ASSERT_TRUE(g_file_set_contents(file.c_str(), "payload", 7, nullptr));
  window->m_downloadSlots[2].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(requesters[2].events, (std::vector<std::string>{"progress 100", "progress 28", "complete payload"}));
  EXPECT_EQ(window->m_downloadSlots[2].task, nullptr);
  EXPECT_TRUE(Exists(file));  // valid until the instance goes
  window->OnTimer();
  EXPECT_STREQ(window->m_downloadSlots[2].url, ClosedPortUrl(5).c_str());

  // A finished task without an item frees its slot and tells no one.
  window->m_downloadSlots[0].task->SetItem(nullptr);
  window->m_downloadSlots[0].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(window->m_downloadSlots[0].task, nullptr);
  NPP_Destroy(&npp, nullptr);
  EXPECT_TRUE(Exists(file)) << "teardown removes only a download's own file";
  EXPECT_TRUE(requesters[0].events.empty());
  EXPECT_TRUE(Browser().requests.empty());
}

TEST_F(WindowFetchTest, CredentialChallengeMovesEveryQueuedItemToTheBrowser) {
  CGpcWindow* window = Create();
  ClearCapturedTraces();
  Requester first, second;
  window->GetFileAtUrl(Record, &first, ClosedPortUrl(0).c_str());
  window->GetFileAtUrl(Record, &second, ClosedPortUrl(1).c_str());
  window->OnTimer();
  ASSERT_EQ(BusySlots(window), 2);
  window->m_downloadSlots[0].task->OnDataReceived(100);  // progress from the direct attempt
  std::string user, password;
  EXPECT_FALSE(window->m_downloadSlots[0].task->OnAskProxy(user, password));
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_TRUE(Browser().requests.empty());

  // From now on one file at a time through the browser, the head first.
  window->OnTimer();
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, ClosedPortUrl(0));
  DeliverStream(0, "via-browser");
  EXPECT_EQ(first.events, (std::vector<std::string>{"progress 100", "progress 11", "complete via-browser"}));
  EXPECT_EQ(gpctest::LogCount("CGpcWindow::FinishDownloadingStreamFile,dwonloaded file=" + ClosedPortUrl(0) + ",111 bytes"), 1);
  ASSERT_EQ(first.paths.size(), 1u);
  EXPECT_FALSE(Exists(first.paths[0]));  // old-mode files live only during the callback
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].url, ClosedPortUrl(1));
  DeliverStream(1, "", NPRES_NETWORK_ERR);
  EXPECT_EQ(second.events, std::vector<std::string>{"complete null"});
  EXPECT_EQ(BusySlots(window), 0) << "never back to direct downloads";
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
  CGpcWindow* window = Create(true);
  Requester first, second;
  window->GetFileAtUrl(Record, &first, ClosedPortUrl(0).c_str());
  window->GetFileAtUrl(Record, &second, ClosedPortUrl(1).c_str());
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 1u);
  const gpctest::UrlRequest request = Browser().requests[0];
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
  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].url, ClosedPortUrl(1));
  DeliverStream(1, "second");
  EXPECT_EQ(second.events, (std::vector<std::string>{"progress 6", "complete second"}));
  EXPECT_EQ(first.events.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Endings, BrowserEndsRequestUnopened,
    ::testing::Values(UnopenedEnding{"Redirected", "http://127.0.0.1:9/elsewhere", NPRES_DONE, "complete "},
                      UnopenedEnding{"FailedBeforeAnyStream", nullptr, NPRES_NETWORK_ERR, "complete null"},
                      UnopenedEnding{"CancelledBeforeAnyStream", nullptr, NPRES_USER_BREAK, "complete null"}),
    [](const ::testing::TestParamInfo<UnopenedEnding>& info) { return std::string(info.param.name); });

// A task that cannot start switches to the browser on the next heartbeat and is never reported;
// a stopped instance starts nothing.
TEST_F(WindowFetchTest, FailedStartSwitchesToTheBrowserAndStopHaltsTheQueue) {
  CGpcWindow* window = Create();
  Requester requester;
  window->GetFileAtUrl(Record, &requester, "x");
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 1);
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_TRUE(requester.events.empty());
  window->StopDownload();
  window->OnTimer();
  EXPECT_TRUE(Browser().requests.empty());
}

// Someone plants a link at the download file's name between the choice of the name and its
// opening: the link is not followed, the download goes to a file of its own; teardown removes a
// half-written download.
TEST_F(WindowFetchTest, BrowserDownloadNeverWritesThroughALinkAndTeardownRemovesItsFile) {
  CGpcWindow* window = Create(true);
  const std::string victim = env.dir() + "/victim";
  ASSERT_TRUE(g_file_set_contents(victim.c_str(), "precious", 8, nullptr));
  const std::string logged = "CGpcWindow::OpenDownloadingStreamFile,file=";
  std::string planted;
  const auto attacker = gpc::GPCNotificationCenter::defaultCenter().addObserver(
      "TRACENOTIFICATIONNotification", [&](const gpc::GPCNotification& note) {
        const std::string text = note.userInfo->GetString("ContentKey").value_or("");
        if (planted.empty() && text.compare(0, logged.size(), logged) == 0) {
          planted = text.substr(logged.size());
          EXPECT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
        }
      });
  Requester requester;
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(0).c_str());
  window->GetFileAtUrl(Record, &requester, ClosedPortUrl(1).c_str());
  window->OnTimer();
  gpc::GPCNotificationCenter::defaultCenter().removeObserver(attacker);
  ASSERT_FALSE(planted.empty());
  DeliverStream(0, "download");
  EXPECT_EQ(requester.events, (std::vector<std::string>{"progress 8", "complete download"}));
  EXPECT_EQ(ReadAll(victim.c_str()), "precious");
  EXPECT_TRUE(isLink(planted));  // someone else's entry stays as it is
  unlink(planted.c_str());

  window->OnTimer();
  ASSERT_EQ(Browser().requests.size(), 2u);
  const std::string partial = window->m_strStreamFilePath;
  ASSERT_TRUE(Exists(partial));
  NPP_Destroy(&npp, nullptr);
  EXPECT_FALSE(Exists(partial));
  EXPECT_EQ(requester.events.size(), 2u);
}

}  // namespace

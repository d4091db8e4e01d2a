// File fetching for an extension: five direct downloads at a time, the switch to the browser, teardown.
// Transfers never get anywhere (a closed port, no loop run): the test reports for them through the sink.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "common/gpcnotification.h"
#include "common/gpcutil.h"
#include "http_test_server.h"
#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"
#include "scoped_env.h"

namespace {

using gpctest::Browser;
using gpctest::BusySlots;

// What a requester was told: "progress N", "complete <content of the file>" or "complete null".
struct Requester {
  std::vector<std::string> events;
  std::string path;  // of the last completion
  bool replaces = false;  // removes the file, and another one takes its name, as unpacking and a stranger would
};

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->events.push_back("progress " + std::to_string(reinterpret_cast<uintptr_t>(data)));
    return;
  }
  requester->path = data ? static_cast<const char*>(data) : "";
  requester->events.push_back(data ? "complete " + gpctest::ReadFile(requester->path) : "complete null");
  if (data != nullptr && requester->replaces) {
    EXPECT_TRUE(unlink(requester->path.c_str()) == 0 && gpctest::WriteFile(requester->path, "another's"));
  }
}

std::string Url(int n) { return "http://127.0.0.1:9/files/f" + std::to_string(n) + ".bin"; }

class WindowFetchTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
  }
  // An instance as the browser makes it, past its extension check, asking for `count` files.
  CGpcWindow* Create(int count, bool throughBrowser = false) {
    gpctest::EmbedArgs page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}};
    EXPECT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, NP_EMBED, page.argc(), page.argn(),
                      page.argv(), nullptr),
              NPERR_NO_ERROR);
    CGpcWindow* window = static_cast<InstanceRecord*>(npp.pdata)->gpcWindow;
    window->m_bExtMgrStarted = 1;
    if (throughBrowser) window->m_nFetchReady = 0;
    for (int i = 0; i < count; ++i) window->GetFileAtUrl(Record, &requesters[i], Url(i).c_str());
    return window;
  }
  // The browser answers its request `index` with a stream under `url` (none when null), then its notice.
  void Answer(size_t index, const char* url, std::string body, NPReason reason) {
    ASSERT_LT(index, Browser().requests.size());
    const gpctest::UrlRequest request = Browser().requests[index];
    NPStream stream{};
    stream.url = url;
    stream.notifyData = request.notifyData;
    uint16_t stype = 0;
    if (url != nullptr && NPP_NewStream(&npp, nullptr, &stream, 0, &stype) == NPERR_NO_ERROR) {
      if (!body.empty()) NPP_Write(&npp, &stream, 0, static_cast<int32_t>(body.size()), &body[0]);
      NPP_DestroyStream(&npp, &stream, reason);
    }
    NPP_URLNotify(&npp, request.url.c_str(), reason, request.notifyData);
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  Requester requesters[7];
};

TEST_F(WindowFetchTest, FiveSlotsTheNextRequestInTheFirstFreedOneAndStopStartsNoMore) {
  CGpcWindow* window = Create(7);
  EXPECT_EQ(BusySlots(window), 0) << "requests wait for the heartbeat";
  window->OnTimer();
  window->OnTimer();  // items being served are not started twice
  ASSERT_EQ(BusySlots(window), 5);
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(window->m_downloadSlots[i].url, Url(i).c_str());

  // Progress is counted per item; slot 2 finishes: the requester gets the file, the slot frees.
  window->m_downloadSlots[2].task->OnDataReceived(100);
  window->m_downloadSlots[2].task->OnDataReceived(28);
  const std::string file = env.dir() + "/finished.bin";
  ASSERT_TRUE(gpctest::WriteFile(file, "payload"));
  window->m_downloadSlots[2].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(requesters[2].events,
            (std::vector<std::string>{"progress 100", "progress 28", "complete payload"}));
  EXPECT_EQ(window->m_downloadSlots[2].task, nullptr);
  window->OnTimer();
  EXPECT_STREQ(window->m_downloadSlots[2].url, Url(5).c_str());

  // A finished task without an item frees its slot and tells no one; after a stop, running tasks
  // still complete but nothing more starts.
  window->m_downloadSlots[0].task->SetItem(nullptr);
  window->m_downloadSlots[0].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(window->m_downloadSlots[0].task, nullptr);
  window->StopDownload();
  window->m_downloadSlots[1].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 3);
  EXPECT_EQ(requesters[1].events, std::vector<std::string>{"complete payload"});
  NPP_Destroy(&npp, nullptr);
  EXPECT_TRUE(FileExists(file)) << "teardown removes only a download's own file";
  EXPECT_TRUE(requesters[0].events.empty() && requesters[6].events.empty());
  EXPECT_TRUE(Browser().requests.empty());
}

// A credentials challenge moves every item to the browser, one file at a time, head first, for good.
// However the browser ends a request, its item completes once and the queue moves on; the third
// asks for the second's file again, and the second's failure is not the third's.
TEST_F(WindowFetchTest, CredentialChallengeMovesEveryItemToTheBrowser) {
  CGpcWindow* window = Create(5);
  window->m_vectorFileItem[2]->m_strUrl = Url(1);
  window->OnTimer();
  window->m_downloadSlots[0].task->OnDataReceived(100);  // progress from the direct attempt
  std::string user, password;
  EXPECT_FALSE(window->m_downloadSlots[0].task->OnAskProxy(user, password));
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_TRUE(Browser().requests.empty());
  const struct {
    const char* streamUrl;  // null: the browser never opens a stream
    std::string body;
    NPReason reason;
    std::vector<std::string> events;
  } endings[] = {
      {"http://127.0.0.1:9/files/f0.bin", "b", NPRES_DONE, {"progress 100", "progress 1", "complete b"}},
      {"http://127.0.0.1:9/files/f1.bin", "", NPRES_NETWORK_ERR, {"complete null"}},
      {"http://127.0.0.1:9/elsewhere", "moved", NPRES_DONE, {"progress 5", "complete moved"}},  // redirected
      {nullptr, "", NPRES_USER_BREAK, {"complete null"}},
  };
  for (size_t i = 0; i < std::size(endings); ++i) {
    SCOPED_TRACE(i);
    window->OnTimer();
    window->OnTimer();
    ASSERT_EQ(Browser().requests.size(), i + 1);
    EXPECT_EQ(Browser().requests[i].url, Url(i == 2 ? 1 : static_cast<int>(i)));
    Answer(i, endings[i].streamUrl, endings[i].body, endings[i].reason);
    EXPECT_EQ(requesters[i].events, endings[i].events);
    EXPECT_FALSE(FileExists(requesters[i].path)) << "lives only during the callback";
  }
  EXPECT_EQ(BusySlots(window), 0) << "never back to direct downloads";
}

// A task that cannot start switches to the browser on the next heartbeat and is never reported;
// a stopped instance starts nothing.
TEST_F(WindowFetchTest, FailedStartSwitchesToTheBrowserAndStopHaltsTheQueue) {
  CGpcWindow* window = Create(0);
  window->GetFileAtUrl(Record, &requesters[0], "x");
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 1);
  window->OnTimer();
  EXPECT_EQ(BusySlots(window), 0);
  EXPECT_EQ(window->m_nFetchReady, 0);
  EXPECT_TRUE(requesters[0].events.empty());
  const std::string tmp = env.dir() + "/tmp";  // a refused GET leaves no stream file there
  ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0);
  ScopedEnv tmpdir("TMPDIR", tmp);
  Browser().answers = {NPERR_GENERIC_ERROR};
  window->OnTimer();
  EXPECT_TRUE(Browser().requests.size() == 1 && std::filesystem::is_empty(tmp));
  window->StopDownload();
  window->OnTimer();
  EXPECT_EQ(Browser().requests.size(), 1u);
}

// Someone plants a link at the download file's name between the choice of the name and its opening:
// the link is not followed, the download goes to a file of its own. A full disk while the stream is
// written shows 109. The file goes after its completion, unless another one took its name meanwhile.
// Teardown removes a half-written download.
TEST_F(WindowFetchTest, BrowserDownloadsNeverWriteThroughALinkShow109OnAFullDiskAndGoWithTheInstance) {
  const std::string victim = env.dir() + "/victim", logged = "CGpcWindow::OpenDownloadingStreamFile,file=";
  ASSERT_TRUE(gpctest::WriteFile(victim, "precious"));
  std::string planted;
  const auto attacker = gpc::GPCNotificationCenter::defaultCenter().addObserver(
      "TRACENOTIFICATIONNotification", [&](const gpc::GPCNotification& note) {
        const std::string text = note.userInfo->GetString("ContentKey").value_or("");
        if (planted.empty() && text.compare(0, logged.size(), logged) == 0) {
          planted = text.substr(logged.size());
          EXPECT_EQ(symlink(victim.c_str(), planted.c_str()), 0);
        }
      });
  requesters[1].replaces = true;
  CGpcWindow* window = Create(4, true);
  window->SetParameterVector("GpcErrorPageUrl", "https://e.example/err");
  window->OnTimer();
  gpc::GPCNotificationCenter::defaultCenter().removeObserver(attacker);
  ASSERT_FALSE(planted.empty());
  Answer(0, Browser().requests[0].url.c_str(), "download", NPRES_DONE);
  EXPECT_EQ(requesters[0].events, (std::vector<std::string>{"progress 8", "complete download"}));
  EXPECT_EQ(gpctest::ReadFile(victim), "precious");
  EXPECT_TRUE(isLink(planted));  // someone else's entry stays as it is
  unlink(planted.c_str());
  EXPECT_FALSE(FileExists(requesters[0].path)) << "the download's own file goes";
  window->OnTimer();
  Answer(1, Browser().requests.at(1).url.c_str(), "mine", NPRES_DONE);
  EXPECT_EQ(gpctest::ReadFile(requesters[1].path), "another's") << "a file that took the name stays";
  unlink(requesters[1].path.c_str());

  window->OnTimer();
  {
    const ScopedFileSizeLimit disk(1000);
    // Small enough for a stdio buffer: the failure must show at the write, not be lost at the close.
    Answer(2, Browser().requests.at(2).url.c_str(), std::string(2000, 'x'), NPRES_DONE);
  }
  const std::vector<std::string> shown = gpctest::RunNavigations(*window);
  EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [](const std::string& url) {
    return url.rfind("_top https://e.example/err?", 0) == 0 && url.find("%5B109%5D") != std::string::npos;
  })) << ::testing::PrintToString(shown);
  // The block that did not fit is dropped; the fetch completes with what was written.
  EXPECT_EQ(requesters[2].events, std::vector<std::string>{"complete " + std::string(1000, 'x')});

  window->OnTimer();
  const std::string partial = window->m_strStreamFilePath;
  ASSERT_TRUE(FileExists(partial));
  NPP_Destroy(&npp, nullptr);
  EXPECT_FALSE(FileExists(partial));
  EXPECT_TRUE(requesters[3].events.empty());
}

// No file can be made for a browser download: the requester hears of a failed fetch, not of a path.
TEST_F(WindowFetchTest, ABrowserDownloadWithoutAFileCompletesAsFailed) {
  ScopedEnv tmpdir("TMPDIR", "/proc/self");
  CGpcWindow* window = Create(1, true);
  window->OnTimer();
  Answer(0, Browser().requests.at(0).url.c_str(), "data", NPRES_DONE);
  EXPECT_EQ(requesters[0].events, std::vector<std::string>{"complete null"});
}

// The browser may destroy the instance while a requester handles its file (a dialog's nested loop):
// the extension is ended, and the instance goes, once the requester has returned.
TEST_F(WindowFetchTest, DestroyedWhileARequesterHandlesItsFileTheInstanceGoesAfterwards) {
  static std::vector<std::string> seen;
  static NPP page;
  page = &npp;
  CGpcWindow* window = Create(1);
  window->OnTimer();
  window->m_vectorFileItem.at(0)->m_pfnCallback = [](void*, void*, GPCGetFileNotifyMessageType, void*) {
    seen.push_back("complete");
    NPP_Destroy(page, nullptr);
    seen.push_back("destroyed");
  };
  window->m_pfnGpcExitInstance = [](void*, void*) { seen.push_back("exit"); };
  const std::string file = env.dir() + "/finished.bin";
  ASSERT_TRUE(gpctest::WriteFile(file, "payload"));
  window->m_downloadSlots[0].task->OnHttpReturn(nullptr, 7, const_cast<char*>(file.c_str()));
  EXPECT_EQ(seen, (std::vector<std::string>{"complete", "destroyed", "exit"}));
}

}  // namespace

// Downloads of live instances, driven by their own heartbeats on the GLib main loop against a server on
// 127.0.0.1, with the module loaded through its table as a browser loads it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/gpctracecatcher.h"
#include "extension_package.h"
#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"
#include "http_test_server.h"
#include "main_loop.h"

namespace {

struct Requester {
  bool deletesFile = false;  // as an extension that installs what it fetched, in a nested loop
  int heldInside = -1;       // deleted downloads held open when that loop ended
  int completions = 0;
  unsigned progressBytes = 0;
  std::string content;  // of the file handed over with the last completion
};

// Descriptors of this process still open on download files that are deleted.
int HeldDeletedDownloads() {
  const std::string fds = "/proc/" + std::to_string(getpid()) + "/fd";
  return std::stoi(gpctest::ShellOutput("ls -l " + fds + " | grep -c '/gpc_tmp_.* (deleted)$'"));
}

void Record(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  auto* requester = static_cast<Requester*>(context);
  if (type == GPC_GETFILE_PROGRESS) {
    requester->progressBytes += static_cast<unsigned>(reinterpret_cast<uintptr_t>(data));
  } else {
    ++requester->completions;
    if (data) requester->content = gpctest::ReadFile(static_cast<const char*>(data));
    if (data && requester->deletesFile) {
      unlink(static_cast<const char*>(data));
      gpctest::RunMainLoopFor(150);
      requester->heldInside = HeldDeletedDownloads();
    }
  }
}

// An instance made through the module's table, past its extension check, asking for `urls`.
void Create(const NPPluginFuncs& table, NPP instance, const std::vector<std::string>& urls,
            Requester* requesters) {
  gpctest::EmbedArgs page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"}};
  ASSERT_EQ(table.newp(const_cast<char*>("application/x-talvo-gpc"), instance, NP_EMBED, page.argc(),
                       page.argn(), page.argv(), nullptr),
            NPERR_NO_ERROR);
  CGpcWindow* window = static_cast<InstanceRecord*>(instance->pdata)->gpcWindow;
  window->m_bExtMgrStarted = 1;
  for (size_t i = 0; i < urls.size(); ++i) window->GetFileAtUrl(Record, &requesters[i], urls[i].c_str());
}

// Two instances in one browser process: the first goes away in the middle of its five downloads and
// leaves no piece of them behind; the second still completes, its lines still reach the process's
// trace, and its finished file lasts as long as its instance.
TEST(WindowDownload, InstancesGoingAwayInTheMiddleOfDownloadsLeaveNothingBehind) {
  for (const char* name :
       {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
    unsetenv(name);
  gpctest::BrowserEnvironment env;
  gpctest::LoopbackServer server;
  server.SetLimitRate("512k");
  ASSERT_TRUE(server.Start()) << server.error();
  // Content of this run alone: pieces left in /tmp by earlier runs cannot be taken for ours.
  const std::string first = gpctest::PatternBytes(2 * 1024 * 1024, static_cast<unsigned>(getpid()));
  const std::string second = gpctest::PatternBytes(1024 * 1024, static_cast<unsigned>(getpid()) + 1);
  std::vector<std::string> urls;
  for (int i = 0; i < 5; ++i) {
    urls.push_back(server.HttpsUrl("first" + std::to_string(i)));
    ASSERT_TRUE(server.AddFile("first" + std::to_string(i), first));
  }
  ASSERT_TRUE(server.AddFile("second", second));
  NPNetscapeFuncs browser = gNetscapeFuncs;
  NPPluginFuncs table{};
  table.size = sizeof table;
  gpc::GPCTraceCatcher::releaseGlobal();  // the module starts its own
  ASSERT_EQ(NP_Initialize(&browser, &table), NPERR_NO_ERROR);
  NPP_t other{}, last{};
  Requester requesters[6];
  Create(table, &other, urls, requesters);
  Create(table, &last, {server.HttpUrl("second")}, requesters + 5);
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] {
    return std::all_of(requesters, requesters + 6, [](const Requester& r) { return r.progressBytes > 0; });
  }));
  EXPECT_EQ(gpctest::PiecesInTmp(first).size(), 5u);
  EXPECT_EQ(table.destroy(&other, nullptr), NPERR_NO_ERROR);
  gpctest::RunMainLoopFor(50);
  EXPECT_TRUE(gpctest::PiecesInTmp(first).empty());
  EXPECT_TRUE(std::none_of(requesters, requesters + 5, [](const Requester& r) { return r.completions > 0; }));

  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] { return requesters[5].completions > 0; }));
  EXPECT_TRUE(requesters[5].content == second);
  bool caught = false;
  for (const auto& entry : gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo())
    caught = caught || gpc::traceContent(*entry) == "CGpcWindow::CheckDownloadingTasks,end handle stream[0]";
  EXPECT_TRUE(caught) << "the second instance's lines reach the process's trace";
  EXPECT_EQ(gpctest::PiecesInTmp(second).size(), 1u);
  // A file the extension deletes holds nothing open once it is gone: a page fetches for hours.
  Requester installer;
  installer.deletesFile = true;
  static_cast<InstanceRecord*>(last.pdata)->gpcWindow->GetFileAtUrl(Record, &installer, server.HttpUrl("second").c_str());
  ASSERT_TRUE(gpctest::RunMainLoopUntil([&] { return installer.completions > 0; }));
  EXPECT_EQ(installer.heldInside, 1) << "no task goes while its completion runs";
  EXPECT_TRUE(gpctest::RunMainLoopUntil([] { return HeldDeletedDownloads() == 0; }, 2000));
  EXPECT_EQ(gpctest::PiecesInTmp(second).size(), 1u);
  EXPECT_EQ(table.destroy(&last, nullptr), NPERR_NO_ERROR);
  EXPECT_TRUE(gpctest::PiecesInTmp(second).empty());
  EXPECT_EQ(NP_Shutdown(), NPERR_NO_ERROR);
  gpctest::RunMainLoopFor(20);  // whatever a destroyed instance left on the loop must not fire into it
}

}  // namespace

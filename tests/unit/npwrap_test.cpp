// The per-instance handlers: creation and deletion of the instance, and the routing of browser
// calls to the instance or to its stream provider.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "common/hardening.h"
#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

using gpctest::Browser;

void* const kHostSite = reinterpret_cast<void*>(static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE));

std::vector<int> g_messages;  // the type of each message, and the length of each block
int RecordMessage(GPCMessage* message) {
  g_messages.push_back(message->type);
  if (message->type == GPC_STREAM_DATA) g_messages.push_back(message->payload.data.length);
  return 0;
}

gpctest::EmbedArgs GoodPage() {
  return {{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
          {"LoggingURL", "https://log.talvo.us/l"}, {"MeetingID", "m"}, {"SessionID", "s"},
          {"GpcErrorPageUrl", "https://e.example/err"}};
}

class NpwrapTest : public ::testing::Test {
 protected:
  void TearDown() override {
    gpc::SetHardenedForTesting(-1);
    NPP_Destroy(&npp, nullptr);
    EXPECT_EQ(Browser().liveAllocations, 0);
  }
  CGpcWindow* Window() { return static_cast<InstanceRecord*>(npp.pdata)->gpcWindow; }
  NPError Create(gpctest::EmbedArgs page = GoodPage(), uint16_t mode = NP_EMBED) {
    const NPError result = NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, mode, page.argc(),
                                   page.argn(), page.argv(), nullptr);
    if (npp.pdata != nullptr) Window()->CleanupFrameTargets();  // the start report
    return result;
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
};

TEST_F(NpwrapTest, NewBuildsTheInstanceAndReportsTheStart) {
  gpctest::EmbedArgs page = GoodPage();
  ASSERT_EQ(NPP_New(nullptr, &npp, NP_FULL, page.argc(), page.argn(), page.argv(), nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(static_cast<InstanceRecord*>(npp.pdata)->mode, NP_FULL);
  EXPECT_EQ(Window()->GetParameterCount(), 6);
  const std::vector<std::string> asked = gpctest::RunNavigations(*Window());
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].find("(null) https://log.talvo.us/l?ConfID=m&SessionID=s&Module=1&ErrorCode=1000&OptInfo3="), 0u);
  EXPECT_EQ(NPP_Destroy(&npp, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(npp.pdata, nullptr);
  EXPECT_EQ(NPP_New(nullptr, nullptr, NP_EMBED, page.argc(), page.argn(), page.argv(), nullptr),
            NPERR_INVALID_INSTANCE_ERROR);
  // Parameters the browser did not really hand over count as none.
  EXPECT_EQ(NPP_New(nullptr, &npp, NP_EMBED, 3, nullptr, page.argv(), nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetParameterCount(), 0);
}

// The host-site stream (and the notification that ends it) never reaches the provider, even for a
// stream the provider is waiting for; the same stream with another datum is the provider's. A block
// with a negative length, or none behind a positive one, is refused unread on either.
TEST_F(NpwrapTest, HostSiteStreamNeverReachesTheProviderAndBadBlocksAreRefused) {
  ASSERT_EQ(Create(), NPERR_NO_ERROR);
  CGpcProvider& provider = Window()->m_provider;
  void* request = nullptr;
  ASSERT_EQ(provider.StreamGet(provider.RegisterSap(RecordMessage, nullptr), "https://www.talvo.us/d", 0, &request),
            GPC_RESULT_OK);
  NPStream stream{};
  stream.url = "https://www.talvo.us/d";
  stream.pdata = request;
  char block[] = "https://www.talvo.us/meeting";
  const int32_t length = static_cast<int32_t>(strlen(block));
  for (void* datum : {kHostSite, request}) {
    SCOPED_TRACE(datum == kHostSite ? "host site" : "provider");
    stream.notifyData = datum;
    uint16_t stype = 77;
    EXPECT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, &stype), NPERR_NO_ERROR);
    EXPECT_EQ(stype, datum == kHostSite ? 77 : NP_NORMAL);
    g_messages.clear();
    for (int32_t bad : {-5, INT32_MIN}) EXPECT_LT(NPP_Write(&npp, &stream, 0, bad, block), 0);
    EXPECT_LT(NPP_Write(&npp, &stream, 0, 8, nullptr), 0);
    EXPECT_TRUE(gpctest::RunNavigations(*Window()).empty()) << "no error page for a block never read";
    EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
    EXPECT_EQ(NPP_Write(&npp, &stream, 0, length, block), length);
    if (datum == request) {
      EXPECT_EQ(g_messages, (std::vector<int>{GPC_STREAM_READY, GPC_STREAM_DATA, length}));
      break;
    }
    EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
    NPP_URLNotify(&npp, stream.url, NPRES_NETWORK_ERR, kHostSite);
    EXPECT_TRUE(g_messages.empty());
    EXPECT_EQ(provider.PendingStream(), request);
  }
}

// The site lock judges the host page's URL (its host, at a dot boundary): approval lifts the halt
// (even after the parameters failed, or for any page when the page switches the lock off);
// refusal shows error 111, as a report and as the error page.
TEST_F(NpwrapTest, HostPageIsJudgedByTheSiteLock) {
  const struct {
    bool goodPage;
    const char* siteLock;
    const char* hostPage;
    bool halted, hardenedHalted;
  } cases[] = {{false, nullptr, "https://www.talvo.us", false, false},  // the whole URL, to its last byte
               {true, "0", "https://evil.example/talvo.us", false, true},
               {true, nullptr, "https://evil.example/talvo.us", true, true},
               {true, nullptr, "https://eviltalvo.us/meeting", true, true}};
  for (const bool hardened : {false, true})
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.hostPage) + (hardened ? " hardened" : ""));
    gpc::SetHardenedForTesting(hardened);
    gpctest::EmbedArgs page = c.goodPage ? GoodPage() : gpctest::EmbedArgs{{"NoVersion", "x"}};
    if (c.siteLock) page.Add("gpcsitelock", c.siteLock);
    ASSERT_EQ(Create(page), NPERR_NO_ERROR);
    // A refusal leaves the default build's halt as it was: a page it halts for another reason
    // shows error 111. The hardened build halts a refused page that was going to run.
    Window()->m_bHalted = hardened ? 0 : 1;
    const bool halted = hardened ? c.hardenedHalted : c.halted;
    NPStream stream{};
    stream.notifyData = kHostSite;
    NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(c.hostPage)), const_cast<char*>(c.hostPage));
    EXPECT_EQ(Window()->m_bHalted, halted ? 1 : 0);
    const std::vector<std::string> asked = gpctest::RunNavigations(*Window());
    ASSERT_EQ(asked.size(), halted ? 2u : 0u);
    if (halted) {
      EXPECT_NE(asked[0].find("ErrorCode=111"), std::string::npos);
      EXPECT_EQ(asked[1].rfind("_top https://e.example/err?ErrorType=1&ErrorMsg=", 0), 0u);
      EXPECT_NE(asked[1].find("Error%20%5B111%5D"), std::string::npos);
    }
    NPP_Destroy(&npp, nullptr);
  }
  // A URL in pieces: the hardened build judges the first alone, so a later one that reads as an
  // approved URL lifts no halt.
  gpc::SetHardenedForTesting(true);
  ASSERT_EQ(Create(GoodPage()), NPERR_NO_ERROR);
  NPStream stream{};
  stream.notifyData = kHostSite;
  char first[] = "https://evil.example/#", later[] = "https://www.talvo.us/";
  NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(first)), first);
  NPP_Write(&npp, &stream, 22, static_cast<int32_t>(strlen(later)), later);
  EXPECT_EQ(Window()->m_bHalted, 1);
  NPP_Destroy(&npp, nullptr);
}

// A navigation of the instance's own queue ends when the browser finishes its stream (a stream
// none of the provider's), or notifies without a datum; a datum sends the notification to the
// provider instead.
TEST_F(NpwrapTest, FinishedNavigationsReachTheWindowOthersTheProvider) {
  ASSERT_EQ(Create(), NPERR_NO_ERROR);
  for (bool byStream : {true, false}) {
    Window()->ChangeLocation(nullptr, "https://a.example/next");
    Window()->CheckLocationChanging();
    CFrameTarget* head = Window()->GetNextFrameTargetLocation();
    NPStream stream{};
    stream.url = "https://a.example/next";
    stream.notifyData = head;
    if (byStream) {
      EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_USER_BREAK), NPERR_NO_DATA);
      EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_NETWORK_ERR), NPERR_NO_DATA);
    } else {
      NPP_URLNotify(&npp, "https://a.example/next", NPRES_DONE, head);
    }
    EXPECT_EQ(Window()->GetNextFrameTargetLocation(), head);
    if (byStream) {
      EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
    } else {
      NPP_URLNotify(&npp, "https://a.example/next", NPRES_DONE, nullptr);
    }
    EXPECT_EQ(Window()->GetNextFrameTargetLocation(), nullptr);
  }
}

// Full-page printing is left to the browser, embedded printing draws nothing; an event is never
// reported as handled, whatever the extension answered; the window record reaches the instance.
TEST_F(NpwrapTest, PrintEventAndWindow) {
  ASSERT_EQ(Create(), NPERR_NO_ERROR);
  NPPrint print{};
  print.mode = NP_FULL;
  print.print.fullPrint.pluginPrinted = true;
  NPP_Print(&npp, &print);
  EXPECT_FALSE(print.print.fullPrint.pluginPrinted);
  NPPrint embedded{};
  embedded.mode = NP_EMBED;
  std::memset(&embedded.print, 0xAB, sizeof embedded.print);
  const NPPrint before = embedded;
  NPP_Print(&npp, &embedded);
  EXPECT_EQ(std::memcmp(&before, &embedded, sizeof before), 0);
  NPP_Print(&npp, nullptr);
  Window()->m_pfnGpcHandleEvent = [](void*, void*, bool, void*) { return int32_t(1); };
  int event = 0;
  EXPECT_EQ(NPP_HandleEvent(&npp, &event), 0);
  NPWindow npWindow{};
  EXPECT_EQ(NPP_SetWindow(&npp, &npWindow), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetPluginNativeWindow(), &npWindow);
}

}  // namespace

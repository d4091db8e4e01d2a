// The per-instance handlers: creation and deletion of the instance, and the routing of browser
// calls to the instance or to its stream provider.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"

namespace {

using gpctest::Browser;

void* const kHostSiteDatum = reinterpret_cast<void*>(static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE));
const char kPageUrl[] = "https://www.talvo.us/meeting";

std::vector<int>* g_messages = nullptr;  // the type of each message, and the length of each block
int RecordMessage(GPCMessage* message) {
  g_messages->push_back(message->type);
  if (message->type == GPC_STREAM_DATA) g_messages->push_back(message->payload.data.length);
  return 0;
}
int32_t ExtHandlesEverything(void*, void*, bool, void*) { return 1; }

class NpwrapTest : public ::testing::Test {
 protected:
  void SetUp() override { g_messages = &messages; }
  void TearDown() override {
    if (npp.pdata != nullptr) NPP_Destroy(&npp, nullptr);
    EXPECT_EQ(Browser().liveAllocations, 0);
    g_messages = nullptr;
  }
  CGpcWindow* Window() { return static_cast<InstanceRecord*>(npp.pdata)->gpcWindow; }
  void Create(gpctest::EmbedArgs page, uint16_t mode = NP_EMBED) {
    ASSERT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, mode, page.argc(), page.argn(), page.argv(),
                      nullptr),
              NPERR_NO_ERROR);
  }
  // The page's URL arrives as the body of the host-site stream.
  void WriteHostSite(const char* url) {
    NPStream stream{};
    stream.notifyData = kHostSiteDatum;
    NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(url)), const_cast<char*>(url));
  }
  // A navigation the instance has asked the browser for.
  CFrameTarget* RequestedNavigation() {
    Window()->CleanupFrameTargets();
    Window()->ChangeLocation(nullptr, "https://a.example/next");
    Window()->CheckLocationChanging();
    return Window()->GetNextFrameTargetLocation();
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  std::vector<int> messages;
};

gpctest::EmbedArgs GoodPage() {
  return {{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
          {"LoggingURL", "https://log.example/l"}, {"MeetingID", "m"}, {"SessionID", "s"},
          {"GpcErrorPageUrl", "https://e.example/err"}};
}

TEST_F(NpwrapTest, NewBuildsTheInstanceAndReportsTheStart) {
  Create(GoodPage(), NP_FULL);
  EXPECT_EQ(static_cast<InstanceRecord*>(npp.pdata)->mode, NP_FULL);
  EXPECT_EQ(Window()->GetParameterCount(), 6);
  const std::vector<std::string> asked = gpctest::RunNavigations(*Window());
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_NE(asked[0].find("(null) https://log.example/l?ConfID=m&SessionID=s&Module=1&ErrorCode=1000&OptInfo3="),
            std::string::npos);
  EXPECT_EQ(NPP_Destroy(&npp, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(npp.pdata, nullptr);
  EXPECT_EQ(NPP_Destroy(&npp, nullptr), NPERR_NO_ERROR);

  gpctest::EmbedArgs page = GoodPage();
  EXPECT_EQ(NPP_New(nullptr, nullptr, NP_EMBED, page.argc(), page.argn(), page.argv(), nullptr),
            NPERR_INVALID_INSTANCE_ERROR);
  // Parameters the browser did not really hand over count as none.
  EXPECT_EQ(NPP_New(nullptr, &npp, NP_EMBED, 3, nullptr, page.argv(), nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetParameterCount(), 0);
  NPP_Destroy(&npp, nullptr);
  Browser().failMemAlloc = true;
  EXPECT_EQ(NPP_New(nullptr, &npp, NP_EMBED, page.argc(), page.argn(), page.argv(), nullptr),
            NPERR_OUT_OF_MEMORY_ERROR);
  EXPECT_EQ(npp.pdata, nullptr);
}

TEST_F(NpwrapTest, HostSiteStreamNeverReachesTheProvider) {
  Create(GoodPage());
  CGpcProvider& provider = Window()->m_provider;
  CGpcSap* sap = provider.RegisterSap(RecordMessage, nullptr);
  void* providerStream = nullptr;
  ASSERT_EQ(provider.StreamGet(sap, "https://www.talvo.us/data", 0, &providerStream), 0u);
  NPStream stream{};
  stream.url = "https://www.talvo.us/data";
  stream.notifyData = kHostSiteDatum;
  stream.pdata = providerStream;
  uint16_t stype = 77;
  EXPECT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, &stype), NPERR_NO_ERROR);
  EXPECT_EQ(stype, 77);
  EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
  EXPECT_EQ(NPP_Write(&npp, &stream, 0, 4, const_cast<char*>(kPageUrl)), 4);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
  NPP_URLNotify(&npp, stream.url, NPRES_NETWORK_ERR, kHostSiteDatum);
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(provider.PendingStream(), providerStream);
  // The same stream with another datum is the provider's.
  stream.notifyData = providerStream;
  EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
  EXPECT_EQ(messages, std::vector<int>{GPC_STREAM_READY});
}

// A block with a negative length, or none behind a positive one, is refused: never read, never
// passed on, never judged as the host page's URL.
TEST_F(NpwrapTest, BadBlocksAreRefusedUnread) {
  Create(GoodPage());
  Window()->CleanupFrameTargets();
  CGpcProvider& provider = Window()->m_provider;
  void* request = nullptr;
  ASSERT_EQ(provider.StreamGet(provider.RegisterSap(RecordMessage, nullptr), "http://127.0.0.1/data", 0, &request), 0u);
  NPStream data{};
  data.url = "http://127.0.0.1/data";
  data.notifyData = request;
  NPStream hostSite{};
  hostSite.notifyData = kHostSiteDatum;
  uint16_t stype = 0;
  ASSERT_EQ(NPP_NewStream(&npp, nullptr, &data, false, &stype), NPERR_NO_ERROR);
  messages.clear();
  char block[8] = "abcdefg";
  for (NPStream* stream : {&data, &hostSite}) {
    EXPECT_LT(NPP_Write(&npp, stream, 0, -5, block), 0);
    EXPECT_LT(NPP_Write(&npp, stream, 0, INT32_MIN, block), 0);
    EXPECT_LT(NPP_Write(&npp, stream, 0, 8, nullptr), 0);
  }
  EXPECT_TRUE(messages.empty());
  EXPECT_TRUE(gpctest::RunNavigations(*Window()).empty()) << "no error page for a block never read";
  EXPECT_EQ(NPP_Write(&npp, &data, 0, 7, block), 7);
  EXPECT_EQ(messages, (std::vector<int>{GPC_STREAM_DATA, 7}));
}

// The site lock judges the host page's URL: approval lifts the halt (even after the parameters
// failed, or for any page when the page switches the lock off); refusal shows error 111.
TEST_F(NpwrapTest, HostPageIsJudgedByTheSiteLock) {
  const struct {
    bool goodPage;
    const char* siteLock;
    const char* hostPage;
    bool halted;
  } cases[] = {{false, nullptr, kPageUrl, false},
               {true, "0", "https://evil.example/talvo.us", false},
               {true, nullptr, "https://evil.example/talvo.us", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hostPage);
    gpctest::EmbedArgs page = c.goodPage ? GoodPage() : gpctest::EmbedArgs{{"NoVersion", "x"}};
    if (c.siteLock) page.Add("gpcsitelock", c.siteLock);
    Create(page);
    Window()->m_bHalted = 1;
    Window()->CleanupFrameTargets();
    WriteHostSite(c.hostPage);
    EXPECT_EQ(Window()->m_bHalted, c.halted ? 1 : 0);
    const std::vector<std::string> asked = gpctest::RunNavigations(*Window());
    ASSERT_EQ(asked.size(), c.halted ? 2u : 0u);
    if (c.halted) {
      EXPECT_NE(asked[0].find("ErrorCode=111"), std::string::npos);
      EXPECT_EQ(asked[1].rfind("_top https://e.example/err?ErrorType=1&ErrorMsg=", 0), 0u);
      EXPECT_NE(asked[1].find("Error%20%5B111%5D"), std::string::npos);
    }
    NPP_Destroy(&npp, nullptr);
  }
}

TEST_F(NpwrapTest, DisownedFinishedStreamIsFinishedByTheWindow) {
  Create(GoodPage());
  CFrameTarget* head = RequestedNavigation();
  NPStream stream{};
  stream.url = "https://a.example/next";
  stream.notifyData = head;
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_USER_BREAK), NPERR_NO_DATA);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_NETWORK_ERR), NPERR_NO_DATA);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), head);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), nullptr);
}

TEST_F(NpwrapTest, UrlNotificationsWithDataGoToTheProviderOthersToTheQueue) {
  Create(GoodPage());
  CFrameTarget* head = RequestedNavigation();
  NPP_URLNotify(&npp, "https://a.example/next", NPRES_DONE, head);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), head);
  NPP_URLNotify(&npp, "https://a.example/next", NPRES_DONE, nullptr);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), nullptr);
}

TEST_F(NpwrapTest, StreamsWithoutWindowAreAcceptedAndDropped) {
  auto* record = static_cast<InstanceRecord*>(NPN_MemAlloc(sizeof(InstanceRecord)));
  *record = InstanceRecord{nullptr, NP_EMBED, nullptr};
  npp.pdata = record;
  NPStream stream{};
  EXPECT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
  EXPECT_EQ(NPP_Write(&npp, &stream, 0, 9, nullptr), 9);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
  NPP_StreamAsFile(&npp, &stream, "/tmp/x");
  NPP_URLNotify(&npp, "https://a.example/", NPRES_DONE, nullptr);
}

TEST_F(NpwrapTest, PrintEventAndWindow) {
  Create(GoodPage());
  NPPrint print{};
  print.mode = NP_FULL;
  print.print.fullPrint.pluginPrinted = true;
  NPP_Print(&npp, &print);
  EXPECT_FALSE(print.print.fullPrint.pluginPrinted);  // full-page printing is left to the browser
  NPPrint embedded{};
  embedded.mode = NP_EMBED;
  std::memset(&embedded.print, 0xAB, sizeof embedded.print);
  const NPPrint before = embedded;
  NPP_Print(&npp, &embedded);
  EXPECT_EQ(std::memcmp(&before, &embedded, sizeof before), 0);
  NPP_Print(&npp, nullptr);

  // An event is never reported as handled, whatever the extension answered.
  Window()->m_pfnGpcHandleEvent = ExtHandlesEverything;
  int event = 0;
  EXPECT_EQ(NPP_HandleEvent(&npp, &event), 0);
  NPWindow npWindow{};
  EXPECT_EQ(NPP_SetWindow(&npp, &npWindow), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetPluginNativeWindow(), &npWindow);
}

}  // namespace

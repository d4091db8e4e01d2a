// The per-instance handlers: creation and deletion of the instance, and the routing of browser
// calls to the instance or to its stream provider.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "window_fake_browser.h"

using namespace window_test;

namespace {

void* const kHostSiteDatum = reinterpret_cast<void*>(static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE));

std::vector<int>* g_messages = nullptr;
int RecordMessage(GPCMessage* message) {
  g_messages->push_back(message->type);
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

  void Create(PageParams& page, uint16_t mode = NP_EMBED) {
    ASSERT_EQ(NPP_New(const_cast<char*>("application/x-talvo-gpc"), &npp, mode, page.argc(), page.argn(),
                      page.argv(), nullptr),
              NPERR_NO_ERROR);
  }

  // A provider stream of a registered access point, as the browser would carry it.
  void* PendingProviderStream() {
    CGpcProvider& provider = Window()->m_provider;
    sap = provider.RegisterSap(RecordMessage, nullptr);
    void* stream = nullptr;
    EXPECT_EQ(provider.StreamGet(sap, "https://www.talvo.us/data", 0, &stream), 0u);
    return stream;
  }

  Environment env;
  NPP_t npp{};
  std::vector<int> messages;
  CGpcSap* sap = nullptr;
};

PageParams GoodPage() {
  return PageParams{{"GpcProductVersion", "1,0"},
                    {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
                    {"LoggingURL", "https://log.example/l"},
                    {"MeetingID", "m"},
                    {"SessionID", "s"},
                    {"GpcErrorPageUrl", "https://e.example/err"}};
}

TEST_F(NpwrapTest, NewBuildsTheInstanceStoresParametersAndReportsTheStart) {
  PageParams page = GoodPage();
  Create(page, NP_FULL);
  auto* record = static_cast<InstanceRecord*>(npp.pdata);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->mode, NP_FULL);
  EXPECT_EQ(record->nativeWindowSubclass, nullptr);
  EXPECT_EQ(Window()->m_bHalted, 0);
  EXPECT_EQ(Window()->GetParameterCount(), 6);
  ASSERT_EQ(Window()->m_vectorFrameTarget.size(), 1u);
  EXPECT_NE(Window()->m_vectorFrameTarget[0]->m_strUrl.find("&ErrorCode=1000&OptInfo3="), std::string::npos);

  EXPECT_EQ(NPP_Destroy(&npp, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(npp.pdata, nullptr);
  EXPECT_EQ(NPP_Destroy(&npp, nullptr), NPERR_NO_ERROR);
}

TEST_F(NpwrapTest, NewRefusesMissingInstanceAndFailedAllocation) {
  PageParams page = GoodPage();
  EXPECT_EQ(NPP_New(nullptr, nullptr, NP_EMBED, page.argc(), page.argn(), page.argv(), nullptr),
            NPERR_INVALID_INSTANCE_ERROR);
  Browser().failMemAlloc = true;
  EXPECT_EQ(NPP_New(nullptr, &npp, NP_EMBED, page.argc(), page.argn(), page.argv(), nullptr),
            NPERR_OUT_OF_MEMORY_ERROR);
  EXPECT_EQ(npp.pdata, nullptr);
}

TEST_F(NpwrapTest, NullInstanceAnswers) {
  NPStream stream{};
  EXPECT_EQ(NPP_Destroy(nullptr, nullptr), NPERR_INVALID_INSTANCE_ERROR);
  EXPECT_EQ(NPP_SetWindow(nullptr, nullptr), NPERR_INVALID_INSTANCE_ERROR);
  EXPECT_EQ(NPP_NewStream(nullptr, nullptr, &stream, 0, nullptr), NPERR_INVALID_INSTANCE_ERROR);
  EXPECT_EQ(NPP_DestroyStream(nullptr, &stream, NPRES_DONE), NPERR_INVALID_INSTANCE_ERROR);
  EXPECT_EQ(NPP_WriteReady(nullptr, &stream), 0x0FFFFFFF);
  EXPECT_EQ(NPP_Write(nullptr, &stream, 0, 17, nullptr), 17);
  EXPECT_EQ(NPP_HandleEvent(nullptr, nullptr), 0);
  NPP_URLNotify(nullptr, "https://a.example/", NPRES_DONE, nullptr);
  NPP_StreamAsFile(nullptr, &stream, "/tmp/x");
  EXPECT_EQ(NPP_Initialize(), NPERR_NO_ERROR);
  EXPECT_EQ(NPP_GetJavaClass(), nullptr);
}

TEST_F(NpwrapTest, HostSiteStreamNeverReachesTheProvider) {
  PageParams page = GoodPage();
  Create(page);
  void* providerStream = PendingProviderStream();
  NPStream stream{};
  stream.url = "https://www.talvo.us/data";
  stream.notifyData = kHostSiteDatum;
  stream.pdata = providerStream;
  uint16_t stype = 77;
  LogCapture log;

  EXPECT_EQ(NPP_NewStream(&npp, nullptr, &stream, 0, &stype), NPERR_NO_ERROR);
  EXPECT_EQ(stype, 77);
  EXPECT_EQ(stream.pdata, providerStream);
  EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
  const char url[] = "https://www.talvo.us/meeting";
  EXPECT_EQ(NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(url)), const_cast<char*>(url)),
            static_cast<int32_t>(strlen(url)));
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
  NPP_URLNotify(&npp, stream.url, NPRES_NETWORK_ERR, kHostSiteDatum);
  EXPECT_TRUE(messages.empty());
  EXPECT_FALSE(log.Contains("CGpcProvider::OnNpp"));
  EXPECT_TRUE(log.Contains("NPWRAP : NPP_DestroyStream: notifydata == NOTIFICATION_GET_HOSTSITE."));
  EXPECT_EQ(Window()->m_provider.PendingStream(), providerStream);

  // The same stream with another datum is the provider's.
  stream.notifyData = providerStream;
  EXPECT_EQ(NPP_WriteReady(&npp, &stream), 0x0FFFFFFF);
  EXPECT_EQ(messages, std::vector<int>{GPC_STREAM_READY});
}

TEST_F(NpwrapTest, ApprovedHostPageLiftsTheHaltEvenAfterParametersFailed) {
  PageParams page{{"NoVersion", "x"}};
  Create(page);
  ASSERT_EQ(Window()->m_bHalted, 1);
  NPStream stream{};
  stream.notifyData = kHostSiteDatum;
  const char url[] = "https://www.talvo.us/meeting";
  NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(url)), const_cast<char*>(url));
  EXPECT_EQ(Window()->m_bHalted, 0);
}

TEST_F(NpwrapTest, RefusedHostPageShowsError111AndStaysHalted) {
  PageParams page = GoodPage();
  page.Add("GpcProductVersion", "2");
  Create(page);
  Window()->m_bHalted = 1;
  Window()->CleanupFrameTargets();
  NPStream stream{};
  stream.notifyData = kHostSiteDatum;
  const char url[] = "https://evil.example/talvo.us";
  NPP_Write(&npp, &stream, 0, static_cast<int32_t>(strlen(url)), const_cast<char*>(url));
  EXPECT_EQ(Window()->m_bHalted, 1);
  ASSERT_EQ(Window()->m_vectorFrameTarget.size(), 2u);
  EXPECT_NE(Window()->m_vectorFrameTarget[0]->m_strUrl.find("ErrorCode=111"), std::string::npos);
  EXPECT_NE(Window()->m_vectorFrameTarget[1]->m_strUrl.find("Error%20%5B111%5D"), std::string::npos);
}

TEST_F(NpwrapTest, DisownedFinishedStreamIsFinishedByTheWindow) {
  PageParams page = GoodPage();
  Create(page);
  Window()->CleanupFrameTargets();
  Window()->ChangeLocation(nullptr, "https://a.example/next");
  Window()->CheckLocationChanging();
  CFrameTarget* head = Window()->GetNextFrameTargetLocation();
  NPStream stream{};
  stream.url = "https://a.example/next";
  stream.notifyData = head;

  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_USER_BREAK), NPERR_NO_DATA);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_NETWORK_ERR), NPERR_NO_DATA);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), head);
  EXPECT_TRUE(head->m_bRequested);
  EXPECT_EQ(NPP_DestroyStream(&npp, &stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetNextFrameTargetLocation(), nullptr);
}

TEST_F(NpwrapTest, UrlNotificationsGoToTheQueueOrTheProvider) {
  PageParams page = GoodPage();
  Create(page);
  Window()->CleanupFrameTargets();
  Window()->ChangeLocation(nullptr, "https://a.example/next");
  Window()->CheckLocationChanging();
  LogCapture log;
  NPP_URLNotify(&npp, "https://a.example/next", NPRES_DONE, Window()->GetNextFrameTargetLocation());
  EXPECT_TRUE(log.Contains("CGpcProvider::OnNppUrlNotify"));
  ASSERT_NE(Window()->GetNextFrameTargetLocation(), nullptr);
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

TEST_F(NpwrapTest, PrintClearsPluginPrintedOnlyForFullPage) {
  PageParams page = GoodPage();
  Create(page);
  NPPrint print{};
  print.mode = NP_FULL;
  print.print.fullPrint.pluginPrinted = true;
  NPP_Print(&npp, &print);
  EXPECT_FALSE(print.print.fullPrint.pluginPrinted);

  NPPrint embedded{};
  embedded.mode = NP_EMBED;
  std::memset(&embedded.print, 0xAB, sizeof embedded.print);
  NPPrint before = embedded;
  NPP_Print(&npp, &embedded);
  EXPECT_EQ(std::memcmp(&before, &embedded, sizeof before), 0);
  NPP_Print(&npp, nullptr);
}

TEST_F(NpwrapTest, HandleEventAnswersZeroEvenWhenTheExtensionHandledIt) {
  PageParams page = GoodPage();
  Create(page);
  Window()->m_pfnGpcHandleEvent = ExtHandlesEverything;
  int event = 0;
  EXPECT_EQ(NPP_HandleEvent(&npp, &event), 0);
  NPWindow npWindow{};
  EXPECT_EQ(NPP_SetWindow(&npp, &npWindow), NPERR_NO_ERROR);
  EXPECT_EQ(Window()->GetPluginNativeWindow(), &npWindow);
}

}  // namespace

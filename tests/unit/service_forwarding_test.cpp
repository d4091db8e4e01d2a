// The services an extension calls, against a real plug-in instance.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugin/plugin/npapiimp.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"

namespace {

std::vector<std::string> gRequestedUrls;

NPError RecordGetURLNotify(NPP, const char* url, const char*, void*) {
  gRequestedUrls.push_back(url ? url : "");
  return NPERR_NO_ERROR;
}

int IgnoreMessage(GPCMessage*) { return 0; }

struct FetchRecord {
  int completions = 0;
  void* data = reinterpret_cast<void*>(1);
};

void RecordFetch(void*, void* context, GPCGetFileNotifyMessageType type, void* data) {
  FetchRecord* record = static_cast<FetchRecord*>(context);
  if (type == GPC_GETFILE_COMPLETE) {
    ++record->completions;
    record->data = data;
  }
}

class ServiceForwardingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved = gNetscapeFuncs;
    gNetscapeFuncs.version = 27;
    gNetscapeFuncs.geturlnotify = RecordGetURLNotify;
    gRequestedUrls.clear();
    window = new CGpcWindow(&npp);
  }
  void TearDown() override {
    delete window;
    gNetscapeFuncs = saved;
  }

  NPP_t npp{};
  NPNetscapeFuncs saved;
  CGpcWindow* window = nullptr;
};

TEST_F(ServiceForwardingTest, InstanceRegistersItsOwnSapAndFillsTheTable) {
  EXPECT_NE(nullptr, window->m_streamSap);
  EXPECT_EQ(1u, window->m_provider.SapCount());
  EXPECT_EQ(GpcGetStream, window->m_serviceTable.GpcGetStream);
  EXPECT_EQ(GpcOutputDebugString, window->m_serviceTable.GpcOutputDebugString);
  EXPECT_EQ(nullptr, window->m_serviceTable.reserved[0]);
}

TEST_F(ServiceForwardingTest, ExtensionSapBelongsToTheInstancesProvider) {
  void* sap = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, GpcRegisterStreamSap(IgnoreMessage, nullptr, window, &sap));
  EXPECT_EQ(&window->m_provider, static_cast<CGpcSap*>(sap)->m_pProvider);
  EXPECT_EQ(2u, window->m_provider.SapCount());
  void* stream = nullptr;
  EXPECT_EQ(GPC_RESULT_OK, GpcGetStream(sap, "https://www.talvo.us/a", 0, &stream));
  EXPECT_EQ(std::vector<std::string>{"https://www.talvo.us/a"}, gRequestedUrls);
  EXPECT_EQ(GPC_RESULT_OK, GpcUnregisterStreamSap(sap));
  EXPECT_EQ(1u, window->m_provider.SapCount());
  // Whatever SAPs remain are freed with the instance.
  ASSERT_EQ(GPC_RESULT_OK, GpcRegisterStreamSap(IgnoreMessage, nullptr, window, &sap));
}

TEST_F(ServiceForwardingTest, Parameters) {
  EXPECT_EQ(0, GpcGetParamCount(window));
  EXPECT_EQ(GPC_RESULT_OK, GpcSetParam(window, "ExtOwn", "value1"));
  EXPECT_EQ(1, GpcGetParamCount(window));
  EXPECT_STREQ("value1", GpcGetParam(window, "extown"));
  EXPECT_EQ(nullptr, GpcGetParam(window, "missing"));
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(1, GpcGetParamAt(window, 0, &name, &value));
  EXPECT_STREQ("ExtOwn", name);
  EXPECT_STREQ("value1", value);
  EXPECT_EQ(1, GpcGetParamAt(window, 5, &name, &value));  // beyond the last: still 1
}

TEST_F(ServiceForwardingTest, NavigationFetchAndStop) {
  ASSERT_EQ(GPC_RESULT_OK, GpcChangeLocation(window, "https://www.talvo.us/next", "_top"));
  ASSERT_EQ(1u, window->m_vectorFrameTarget.size());
  EXPECT_EQ("https://www.talvo.us/next", window->m_vectorFrameTarget[0]->m_strUrl);
  EXPECT_EQ("_top", window->m_vectorFrameTarget[0]->m_strTarget);

  FetchRecord record;
  ASSERT_EQ(GPC_RESULT_OK, GpcGetFileAtUrl(window, RecordFetch, &record, "https://www.talvo.us/client/f"));
  ASSERT_EQ(1u, window->m_vectorFileItem.size());
  EXPECT_EQ(&record, window->m_vectorFileItem[0]->m_pContext);

  window->m_bHalted = 0;
  GpcStopDownload(window);
  EXPECT_EQ(1, window->m_bHalted);
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcUnpackFile(window, nullptr, "/tmp/nowhere"));
  EXPECT_EQ(nullptr, GpcGetPluginNativeWindow(window));
  NPWindow record_window{};
  window->SetWindow(&record_window);
  EXPECT_EQ(&record_window, GpcGetPluginNativeWindow(window));
}

TEST_F(ServiceForwardingTest, NetworkErrorOfTheFetchInProgressCompletesItEmpty) {
  FetchRecord record;
  window->GetFileAtUrl(RecordFetch, &record, "https://www.talvo.us/client/pkg.7z");
  window->m_provider.OnNppUrlNotify("https://www.talvo.us/client/other", NPRES_NETWORK_ERR, &record);
  window->m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_DONE, &record);
  EXPECT_EQ(0, record.completions);
  window->m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_NETWORK_ERR, &record);
  EXPECT_EQ(1, record.completions);
  EXPECT_EQ(nullptr, record.data);
}

}  // namespace

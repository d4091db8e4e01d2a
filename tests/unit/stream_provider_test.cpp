// The stream provider and the services an extension calls, through the fake browser.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "platform/folders.h"
#include "plugin/plugin/npapiimp.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace {

using gpctest::Browser;

// A client of the provider: records every message its SAP receives.
struct Received {
  int32_t type;
  void* stream;
  std::string url;
  int32_t value;  // reason, or the preset answer of a ready or data message
  std::string data;
};

struct Client {
  std::vector<Received> messages;
  int32_t lowerReadyTo = -1;  // GPC_STREAM_READY: answer this many bytes
  int32_t consume = -1;       // GPC_STREAM_DATA: answer this many bytes
  std::function<void(GPCMessage*)> onMessage;

  std::vector<int32_t> Types() const {
    std::vector<int32_t> types;
    for (const Received& r : messages) types.push_back(r.type);
    return types;
  }
};

int RecordMessage(GPCMessage* message) {
  Client* client = static_cast<Client*>(message->context);
  Received r{message->type, message->stream, message->url ? message->url : "(null)", 0, ""};
  switch (message->type) {
    case GPC_STREAM_READY:
      r.value = message->payload.ready.result;
      if (client->lowerReadyTo >= 0) message->payload.ready.result = client->lowerReadyTo;
      break;
    case GPC_STREAM_DATA:
      r.value = message->payload.data.result;
      r.data.assign(static_cast<const char*>(message->payload.data.buffer), message->payload.data.length);
      if (client->consume >= 0) message->payload.data.result = client->consume;
      break;
    case GPC_STREAM_FILE:
      r.data = message->payload.file.fileName;
      break;
    case GPC_STREAM_DESTROY:
    case GPC_STREAM_DELETE:
      r.value = message->payload.destroy.reason;
      break;
  }
  client->messages.push_back(r);
  if (client->onMessage) client->onMessage(message);
  return 0;
}

const std::vector<int32_t> kEnded = {GPC_STREAM_DESTROY, GPC_STREAM_DELETE, GPC_PENDING_RELEASE};

class StreamProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gpctest::InstallFakeBrowser();
    provider = new CGpcProvider(nullptr, &npp);
    sapA = provider->RegisterSap(RecordMessage, &clientA);
    sapB = provider->RegisterSap(RecordMessage, &clientB);
  }
  void TearDown() override { delete provider; }

  // The browser opens a stream for `url`, as NPP_NewStream would.
  uint16_t Open(NPStream* stream, const char* url) {
    stream->url = url;
    uint16_t stype = 0;
    EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppNewStream(const_cast<char*>("application/octet-stream"), stream, false,
                                                       &stype));
    return stype;
  }

  NPP_t npp{};
  CGpcProvider* provider = nullptr;
  Client clientA, clientB;
  CGpcSap* sapA = nullptr;
  CGpcSap* sapB = nullptr;
};

TEST_F(StreamProviderTest, RequestsNeedAUrlARegisteredSapAndABrowserInstance) {
  void* stream = &npp;
  CGpcSap stranger(provider, RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->StreamGet(sapA, nullptr, 0, &stream));
  EXPECT_EQ(GPC_ERR_SAP_NOT_REGISTERED, provider->StreamGet(&stranger, "https://h/a", 0, &stream));
  EXPECT_EQ(nullptr, stream);
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->StreamPost(sapA, "https://h/p", nullptr, 4, 0, &stream));
  EXPECT_EQ(GPC_ERR_SAP_NOT_REGISTERED, provider->AbortStream(&stranger, &stranger));
  CGpcProvider detached(nullptr, nullptr);
  CGpcSap* sap = detached.RegisterSap(RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_NO_BROWSER_INSTANCE, detached.StreamGet(sap, "https://h/a", 0, &stream));
  EXPECT_TRUE(Browser().requests.empty());
}

TEST_F(StreamProviderTest, OneRequestAtATimeAndTheBrowsersRefusalFreesTheProvider) {
  Browser().answers = {NPERR_GENERIC_ERROR, NPERR_GENERIC_ERROR};
  void* first = &npp;
  EXPECT_EQ(GPC_ERR_BROWSER_REFUSED, provider->StreamGet(sapA, "https://h/a", 0, &first));
  EXPECT_EQ(nullptr, first);
  EXPECT_EQ(GPC_ERR_BROWSER_REFUSED, provider->StreamPost(sapA, "https://h/a", "x", 1, 0, &first));

  void* second = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &first));
  ASSERT_EQ(3u, Browser().requests.size());
  EXPECT_EQ(first, Browser().requests[2].notifyData);
  EXPECT_EQ("(null)", Browser().requests[2].target);
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamGet(sapB, "https://h/b", 0, &second));
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamPost(sapB, "https://h/b", "x", 1, 0, &second));
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamPostWithHook(sapB, "https://h/b", "x", 1, 0, &second));
  EXPECT_EQ(nullptr, second);
  EXPECT_EQ(3u, Browser().requests.size());

  // The stream opening releases the provider: every SAP hears it, without stream or URL.
  NPStream opened{};
  EXPECT_EQ(NP_NORMAL, Open(&opened, "https://h/a"));
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, clientA.Types());
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, clientB.Types());
  EXPECT_EQ(nullptr, clientB.messages[0].stream);
  EXPECT_EQ("(null)", clientB.messages[0].url);
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapB, "https://h/b", 0, &second));
  provider->OnNppDestroyStream(&opened, NPRES_DONE);
}

TEST_F(StreamProviderTest, FullGetStreamMessageSequence) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://H/Data.bin", 0, &handle));
  NPStream stream{};
  EXPECT_EQ(NP_NORMAL, Open(&stream, "https://h/data.BIN"));  // letter case does not matter
  EXPECT_EQ(handle, stream.pdata);
  clientA.lowerReadyTo = 100;
  EXPECT_EQ(100, provider->OnNppWriteReady(&stream));
  clientA.consume = 3;
  char block[] = "hello";
  EXPECT_EQ(3, provider->OnNppWrite(&stream, 7, 5, block));
  EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppDestroyStream(&stream, NPRES_NETWORK_ERR));

  ASSERT_EQ((std::vector<int32_t>{GPC_PENDING_RELEASE, GPC_STREAM_READY, GPC_STREAM_DATA, GPC_STREAM_DESTROY,
                                  GPC_STREAM_DELETE}),
            clientA.Types());
  const Received& ready = clientA.messages[1];
  EXPECT_EQ(handle, ready.stream);
  EXPECT_EQ("https://h/data.BIN", ready.url);  // the browser stream's URL
  EXPECT_EQ(GPC_STREAM_READY_ALL, ready.value);
  EXPECT_EQ("hello", clientA.messages[2].data);
  EXPECT_EQ(5, clientA.messages[2].value);  // preset to the length
  EXPECT_EQ(NPRES_NETWORK_ERR, clientA.messages[3].value);
  EXPECT_EQ(NPRES_NETWORK_ERR, clientA.messages[4].value);
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, clientB.Types());  // only the requester hears
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&stream, NPRES_DONE));  // finished: found no more

  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/f", 1, &handle));
  EXPECT_EQ(NP_ASFILEONLY, Open(&stream, "https://h/f"));
  provider->OnNppStreamAsFile(&stream, "/tmp/cached-copy");
  EXPECT_EQ(GPC_STREAM_FILE, clientA.messages.back().type);
  EXPECT_EQ("/tmp/cached-copy", clientA.messages.back().data);
  provider->OnNppDestroyStream(&stream, NPRES_DONE);
}

TEST_F(StreamProviderTest, MismatchedOrUnaskedStreamsAreDrainedSilently) {
  NPStream stray{};
  stray.pdata = &npp;  // whatever was there is replaced
  Open(&stray, "https://h/a");
  EXPECT_EQ(nullptr, stray.pdata);
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream other{};
  Open(&other, "https://h/a/");
  EXPECT_EQ(nullptr, other.pdata);
  EXPECT_EQ(GPC_STREAM_READY_ALL, provider->OnNppWriteReady(&other));
  char block[10] = {};
  EXPECT_EQ(10, provider->OnNppWrite(&other, 0, 10, block));
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&other, NPRES_DONE));
  EXPECT_TRUE(clientA.messages.empty());
}

// The browser's last word on a request that never opened a stream ends it for its owner, with the
// notification's reason, once.
TEST_F(StreamProviderTest, RequestEndedBeforeAnyStreamEndsWithTheNotificationsReason) {
  for (NPReason reason : {NPRES_NETWORK_ERR, NPRES_USER_BREAK, NPRES_DONE}) {
    clientA.messages.clear();
    void* handle = nullptr;
    ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    ASSERT_EQ(kEnded, clientA.Types());
    EXPECT_EQ(reason, clientA.messages[0].value);
    EXPECT_EQ(reason, clientA.messages[1].value);
    EXPECT_EQ("https://h/a", clientA.messages[0].url);
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    EXPECT_EQ(3u, clientA.messages.size());
  }
  void* next = nullptr;
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapB, "https://h/b", 0, &next));  // the provider is free
}

TEST_F(StreamProviderTest, AbortAfterOpenSendsDeleteOnce) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  ASSERT_EQ((std::vector<int32_t>{GPC_PENDING_RELEASE, GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), clientA.Types());
  EXPECT_EQ(NPRES_USER_BREAK, clientA.messages[1].value);
  EXPECT_EQ("https://h/a", clientA.messages[1].url);  // the request's URL
  EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_EQ(4u, clientA.messages.size());  // GPC_STREAM_DESTROY, no second GPC_STREAM_DELETE
  EXPECT_EQ(GPC_STREAM_DESTROY, clientA.messages.back().type);
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));  // gone: left alone
  EXPECT_EQ(4u, clientA.messages.size());
}

TEST_F(StreamProviderTest, AbortBeforeOpenFreesTheProvider) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapB, handle));  // any registered SAP may abort
  EXPECT_EQ((std::vector<int32_t>{GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), clientA.Types());
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, clientB.Types());
  void* next = nullptr;
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapB, "https://h/b", 0, &next));
  // The aborted request's late stream does not match the new one and is drained.
  NPStream late{};
  Open(&late, "https://h/a");
  EXPECT_EQ(nullptr, late.pdata);
  // An aborted request that another one has replaced cannot be aborted again.
  clientA.messages.clear();
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  EXPECT_TRUE(clientA.messages.empty());
  // It ends for good without a second GPC_STREAM_DELETE; the other request stays pending.
  provider->OnNppUrlNotify("https://h/a", NPRES_USER_BREAK, handle);
  EXPECT_EQ(std::vector<int32_t>{GPC_STREAM_DESTROY}, clientA.Types());
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamGet(sapA, "https://h/c", 0, &handle));
}

TEST_F(StreamProviderTest, UnregisteredSapHearsNothingMoreOfItsStreams) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  EXPECT_TRUE(provider->UnregisterSap(sapA));
  EXPECT_FALSE(provider->UnregisterSap(sapA));
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(GPC_STREAM_READY_ALL, provider->OnNppWriteReady(&stream));
  char block[4] = {};
  EXPECT_EQ(4, provider->OnNppWrite(&stream, 0, 4, block));
  provider->OnNppStreamAsFile(&stream, "/tmp/x");
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_TRUE(clientA.messages.empty());
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, clientB.Types());
}

// Clients act from inside their callbacks: unregister while told of the end, ask for the next
// stream while told of the release.
TEST_F(StreamProviderTest, CallbacksMayUnregisterOrRequestAgain) {
  void* first = nullptr;
  void* second = nullptr;
  uint32_t reentered = 1;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &first));
  clientA.onMessage = [this](GPCMessage* message) {
    if (message->type == GPC_STREAM_DESTROY) GpcUnregisterStreamSap(sapA);
  };
  clientB.onMessage = [&](GPCMessage* message) {
    if (message->type == GPC_PENDING_RELEASE && second == nullptr)
      reentered = GpcGetStream(sapB, "https://h/b", 0, &second);
  };
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(GPC_RESULT_OK, reentered);
  ASSERT_EQ(2u, Browser().requests.size());
  EXPECT_EQ(second, Browser().requests[1].notifyData);
  EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_EQ(GPC_STREAM_DESTROY, clientA.messages.back().type);
  EXPECT_EQ(1u, provider->SapCount());
}

TEST_F(StreamProviderTest, PostsAsGivenAndWithTheHookFraming) {
  void* handle = nullptr;
  const char body[] = {'a', '\0', 'b'};
  ASSERT_EQ(GPC_RESULT_OK, GpcPostStream(sapA, "https://h/p", body, 3, 0, &handle));
  ASSERT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamPostWithHook(sapA, "https://h/p", "xyz", 3, 0, &handle));
  ASSERT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  const std::string large(100000, 'L');  // past the first buffer
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamPostWithHook(sapA, "https://h/p", large.data(), 100000, 0, &handle));
  ASSERT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  EXPECT_EQ(GPC_ERR_NO_POST_BUFFER, provider->StreamPostWithHook(sapB, "https://h/p", "x", 0xFFFFFFF0u, 0, &handle));
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamPost(sapA, "https://h/p", nullptr, 0, 0, &handle));
  ASSERT_EQ(4u, Browser().requests.size());
  const gpctest::UrlRequest& plain = Browser().requests[0];
  EXPECT_TRUE(plain.post && !plain.bodyIsFile && plain.target == "(null)");
  EXPECT_EQ(std::string(body, 3), plain.body);
  EXPECT_EQ("\n\nxyz", Browser().requests[1].body);  // the closing newline is not sent
  EXPECT_EQ("\n\n" + large, Browser().requests[2].body);
}

TEST_F(StreamProviderTest, ProviderGoingAwayFreesSapsAndOpenRequests) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  delete provider;  // the leak checker watches the SAPs and the pending stream
  provider = nullptr;
  EXPECT_TRUE(clientA.messages.empty());
}

// ---- The services against a real instance ---------------------------------------------------

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

class ServicesTest : public ::testing::Test {
 protected:
  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
};

TEST_F(ServicesTest, StreamsParametersNavigationsAndStop) {
  Client client;
  void* sap = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, GpcRegisterStreamSap(RecordMessage, &client, &window, &sap));
  void* stream = nullptr;
  EXPECT_EQ(GPC_RESULT_OK, GpcGetStream(sap, "https://www.talvo.us/a", 0, &stream));
  EXPECT_EQ(GPC_RESULT_OK, GpcAbortStream(sap, stream));
  EXPECT_EQ(GPC_RESULT_OK, GpcUnregisterStreamSap(sap));

  EXPECT_EQ(GPC_RESULT_OK, GpcSetParam(&window, "ExtOwn", "value1"));
  EXPECT_STREQ("value1", GpcGetParam(&window, "extown"));
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(1, GpcGetParamAt(&window, 5, &name, &value));  // beyond the last: still 1
  EXPECT_EQ(1, GpcGetParamCount(&window));

  ASSERT_EQ(GPC_RESULT_OK, GpcChangeLocation(&window, "https://www.talvo.us/next", "_top"));
  window.CheckLocationChanging();
  ASSERT_EQ(2u, Browser().requests.size());
  EXPECT_EQ("https://www.talvo.us/next", Browser().requests[1].url);
  EXPECT_EQ("_top", Browser().requests[1].target);

  window.m_bHalted = 0;
  GpcStopDownload(&window);
  EXPECT_EQ(1, window.m_bHalted);
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcUnpackFile(&window, nullptr, "/tmp/nowhere"));
  NPWindow npWindow{};
  window.SetWindow(&npWindow);
  EXPECT_EQ(&npWindow, GpcGetPluginNativeWindow(&window));
}

TEST_F(ServicesTest, NetworkErrorOfTheFetchInProgressCompletesItEmpty) {
  FetchRecord record;
  ASSERT_EQ(GPC_RESULT_OK, GpcGetFileAtUrl(&window, RecordFetch, &record, "https://www.talvo.us/client/pkg.7z"));
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/other", NPRES_NETWORK_ERR, &record);
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_DONE, &record);
  EXPECT_EQ(0, record.completions);
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_NETWORK_ERR, &record);
  EXPECT_EQ(1, record.completions);
  EXPECT_EQ(nullptr, record.data);
}

TEST(Services, VersionDebugStringsAndPluginFolder) {
  int major = 0, minor = 7;
  EXPECT_EQ(GPC_RESULT_OK, GpcGetVersion(&major, &minor));
  EXPECT_EQ(std::make_pair(3, 0), std::make_pair(major, minor));
  // The extension's text is logged as it stands, never used as a format.
  int instance = 0;
  for (const char* text : {"plain text from the extension", "%s%s%s%s%n", "100% done, %d left"}) {
    ClearCapturedTraces();
    GpcOutputDebugString(&instance, text);
    const std::vector<CapturedTrace> traces = CapturedTracesSnapshot();
    ASSERT_EQ(traces.size(), 1u) << text;
    EXPECT_EQ(traces[0].level, 0) << text;
    EXPECT_EQ(traces[0].text, text);
  }
  // The folder's path is cut to what a pointer's size holds.
  char buffer[256];
  const std::string full = platform::UserApplicationSupportDir() + "/Talvo Folder";
  EXPECT_EQ(sizeof(void*) - 1, GpcGetPluginDir(buffer, sizeof buffer));
  EXPECT_EQ(full.substr(0, sizeof(void*) - 1), std::string(buffer));
  EXPECT_EQ(2u, GpcGetPluginDir(buffer, 3));
  EXPECT_EQ(full.substr(0, 2), std::string(buffer));
  EXPECT_EQ(0u, GpcGetPluginDir(nullptr, 10));
}

}  // namespace

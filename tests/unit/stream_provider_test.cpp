// The stream provider and the services an extension calls, through the fake browser.
#include <gtest/gtest.h>

#include <clocale>
#include <functional>
#include <string>
#include <vector>

#include "fake_browser.h"
#include "http_test_server.h"
#include "platform/folders.h"
#include "plugin/plugin/npapiimp.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace {

using gpctest::Browser;
using Lines = std::vector<std::string>;

// A client of the provider: what its SAP heard, one line per message ("<type> <url> <value>
// [<data>]"; reasons 0 done, 1 network error, 2 user break; 268435455 is "ready for all").
struct Client {
  Lines heard;
  std::vector<void*> streams;  // the stream of each message
  int32_t answer = -1;         // to a ready or data message: this many bytes
  std::function<void(GPCMessage*)> onMessage;
};

int Record(GPCMessage* message) {
  static const char* const kNames[] = {"?", "ready", "data", "file", "destroy", "delete", "release", "detach"};
  Client* client = static_cast<Client*>(message->context);
  std::string line = kNames[message->type];
  if (message->url != nullptr) line += std::string(" ") + message->url;
  auto& payload = message->payload;
  if (message->type == GPC_STREAM_READY) {
    line += " " + std::to_string(payload.ready.result);
    if (client->answer >= 0) payload.ready.result = client->answer;
  } else if (message->type == GPC_STREAM_DATA) {
    line += " " + std::to_string(payload.data.result) + " " +
            std::string(static_cast<const char*>(payload.data.buffer), payload.data.length);
    if (client->answer >= 0) payload.data.result = client->answer;
  } else if (message->type == GPC_STREAM_FILE) {
    line += std::string(" ") + payload.file.fileName;
  } else if (message->type == GPC_STREAM_DESTROY || message->type == GPC_STREAM_DELETE) {
    line += " " + std::to_string(payload.destroy.reason);
  }
  client->heard.push_back(line);
  client->streams.push_back(message->stream);
  if (client->onMessage) client->onMessage(message);
  return 0;
}

class StreamProviderTest : public ::testing::Test {
 protected:
  void SetUp() override { gpctest::InstallFakeBrowser(); }
  void TearDown() override { delete provider; }  // with whatever is still pending, for the leak checker
  // The browser opens a stream for `url`, as NPP_NewStream would; answers the stream type.
  uint16_t Open(NPStream* stream, const char* url) {
    stream->url = url;
    uint16_t stype = 0;
    EXPECT_EQ(provider->OnNppNewStream(const_cast<char*>("application/octet-stream"), stream, false, &stype), 0);
    return stype;
  }
  void* Get(CGpcSap* sap, const char* url, int asFile = 0) {
    void* handle = nullptr;
    EXPECT_EQ(provider->StreamGet(sap, url, asFile, &handle), GPC_RESULT_OK) << url;
    return handle;
  }

  NPP_t npp{};
  CGpcProvider* provider = new CGpcProvider(nullptr, &npp);
  Client a, b;
  CGpcSap* sapA = provider->RegisterSap(Record, &a);
  CGpcSap* sapB = provider->RegisterSap(Record, &b);
};

// One request at a time, from a registered SAP of a provider with a browser instance: a refused
// one frees the provider at once, an accepted one when its stream opens, and then every SAP hears.
TEST_F(StreamProviderTest, OneRequestAtATime) {
  void* first = &npp;
  CGpcSap stranger(provider, Record, &a);
  EXPECT_EQ(provider->StreamGet(&stranger, "https://h/a", 0, &first), GPC_ERR_SAP_NOT_REGISTERED);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(provider->StreamGet(sapA, nullptr, 0, &first), GPC_ERR_NULL_ARGUMENT);
  EXPECT_EQ(provider->StreamPost(sapA, "https://h/p", nullptr, 4, 0, &first), GPC_ERR_NULL_ARGUMENT);
  EXPECT_EQ(provider->StreamPostWithHook(sapA, "https://h/p", nullptr, 4, 0, &first), GPC_ERR_NULL_ARGUMENT);
  EXPECT_EQ(provider->AbortStream(&stranger, &stranger), GPC_ERR_SAP_NOT_REGISTERED);
  CGpcProvider detached(nullptr, nullptr);
  EXPECT_EQ(detached.StreamGet(detached.RegisterSap(Record, &a), "https://h/a", 0, &first),
            GPC_ERR_NO_BROWSER_INSTANCE);
  Browser().answers = {NPERR_GENERIC_ERROR, NPERR_GENERIC_ERROR};
  EXPECT_EQ(provider->StreamGet(sapA, "https://h/a", 0, &first), GPC_ERR_BROWSER_REFUSED);
  EXPECT_EQ(provider->StreamPost(sapA, "https://h/a", "x", 1, 0, &first), GPC_ERR_BROWSER_REFUSED);
  first = Get(sapA, "https://h/a");
  ASSERT_EQ(Browser().requests.size(), 3u);
  EXPECT_EQ(Browser().requests[2].notifyData, first);
  EXPECT_EQ(Browser().requests[2].target, "(null)");
  void* second = nullptr;
  EXPECT_EQ(provider->StreamGet(sapB, "https://h/b", 0, &second), GPC_ERR_REQUEST_PENDING);
  EXPECT_EQ(provider->StreamPost(sapB, "https://h/b", "x", 1, 0, &second), GPC_ERR_REQUEST_PENDING);
  EXPECT_EQ(provider->StreamPostWithHook(sapB, "https://h/b", "x", 1, 0, &second), GPC_ERR_REQUEST_PENDING);
  NPStream opened{};
  EXPECT_EQ(Open(&opened, "https://h/a"), NP_NORMAL);
  EXPECT_EQ(a.heard, Lines{"release"});
  EXPECT_EQ(b.heard, Lines{"release"});
  EXPECT_EQ(b.streams, std::vector<void*>{nullptr});
  Get(sapB, "https://h/b");
}

// Letter case aside, only the pending request's own URL opens its stream; any other stream is
// accepted and drained without a message. Under a Turkish locale too, where tolower('I') is not 'i'.
TEST_F(StreamProviderTest, StreamsOfTheirRequestCarryTheMessagesOthersAreDrained) {
  const gpctest::ScopedLocale turkish(LC_ALL, "tr_TR");
  ASSERT_TRUE(turkish.ok());
  NPStream stray{};
  stray.pdata = &npp;  // whatever was there is replaced
  Open(&stray, "https://h/data.bin");
  EXPECT_EQ(stray.pdata, nullptr);
  void* handle = Get(sapA, "https://H/Data.bin");
  NPStream other{};
  Open(&other, "https://h/data.bin/");
  EXPECT_EQ(other.pdata, nullptr);
  char block[] = "hello";
  EXPECT_EQ(provider->OnNppWriteReady(&other), GPC_STREAM_READY_ALL);
  EXPECT_EQ(provider->OnNppWrite(&other, 0, 5, block), 5);
  EXPECT_EQ(provider->OnNppDestroyStream(&other, NPRES_DONE), NPERR_NO_DATA);
  EXPECT_TRUE(a.heard.empty());

  NPStream stream{};
  EXPECT_EQ(Open(&stream, "https://h/data.BIN"), NP_NORMAL);
  EXPECT_EQ(stream.pdata, handle);
  a.answer = 100;
  EXPECT_EQ(provider->OnNppWriteReady(&stream), 100);
  a.answer = 3;
  EXPECT_EQ(provider->OnNppWrite(&stream, 7, 5, block), 3);
  EXPECT_EQ(provider->OnNppDestroyStream(&stream, NPRES_NETWORK_ERR), NPERR_NO_ERROR);
  EXPECT_EQ(a.heard, (Lines{"release", "ready https://h/data.BIN 268435455", "data https://h/data.BIN 5 hello",
                            "destroy https://h/data.BIN 1", "delete https://h/data.BIN 1"}));
  EXPECT_EQ(a.streams[1], handle);
  EXPECT_EQ(b.heard, Lines{"release"});  // only the requester hears of its stream
  EXPECT_EQ(provider->OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_DATA);  // finished: found no more

  Get(sapA, "https://h/f", 1);
  EXPECT_EQ(Open(&stream, "https://h/f"), NP_ASFILEONLY);
  provider->OnNppStreamAsFile(&stream, "/tmp/cached-copy");
  EXPECT_EQ(a.heard.back(), "file https://h/f /tmp/cached-copy");
  // The browser gives the URL in its own form; the request's own datum names its stream.
  NPStream rewritten{};
  rewritten.notifyData = Get(sapA, "https://h:443/g");
  Open(&rewritten, "https://h/g");
  EXPECT_EQ(rewritten.pdata, rewritten.notifyData);
}

// The browser's last word on a request that never opened a stream ends it for its owner, with
// the notification's reason, once, and frees the provider.
TEST_F(StreamProviderTest, RequestEndedBeforeAnyStreamEndsWithTheNotificationsReason) {
  for (NPReason reason : {NPRES_NETWORK_ERR, NPRES_USER_BREAK, NPRES_DONE}) {
    a.heard.clear();
    void* handle = Get(sapA, "https://h/a");
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    const std::string tail = " https://h/a " + std::to_string(reason);
    EXPECT_EQ(a.heard, (Lines{"destroy" + tail, "delete" + tail, "release"}));
  }
  // A browser may notify the end before it answers the request, and another client ask again
  // meanwhile, its stream perhaps at the freed one's address: no handle is handed out.
  void *handle = &npp, *other = nullptr;
  b.onMessage = [&](GPCMessage* m) {
    if (m->type == GPC_PENDING_RELEASE && other == nullptr) provider->StreamGet(sapB, "https://h/b", 0, &other);
  };
  Browser().onRequest = [&] {
    if (Browser().requests.size() == 4) provider->OnNppUrlNotify("https://h/a", 1, Browser().requests.back().notifyData);
  };
  EXPECT_EQ(provider->StreamGet(sapA, "https://h/a", 0, &handle), GPC_RESULT_OK);
  EXPECT_TRUE(handle == nullptr && other != nullptr) << handle;
  Browser().onRequest = nullptr;
}

// An abort tells the owner once (GPC_STREAM_DELETE) and frees the provider; any registered SAP
// may abort the pending request; a request that another has replaced is left alone.
TEST_F(StreamProviderTest, AbortDeletesOnceAndFreesTheProvider) {
  void* handle = Get(sapA, "https://h/a");
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(provider->AbortStream(sapA, handle), GPC_RESULT_OK);
  EXPECT_EQ(provider->OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(provider->AbortStream(sapA, handle), GPC_RESULT_OK);  // gone: left alone
  EXPECT_EQ(a.heard, (Lines{"release", "delete https://h/a 2", "release", "destroy https://h/a 0"}));

  a.heard.clear();
  b.heard.clear();
  handle = Get(sapA, "https://h/a");
  EXPECT_EQ(provider->AbortStream(sapB, handle), GPC_RESULT_OK);
  EXPECT_EQ(provider->AbortStream(sapA, handle), GPC_RESULT_OK);  // heard of once
  EXPECT_EQ(a.heard, (Lines{"delete https://h/a 2", "release"}));
  EXPECT_EQ(b.heard, Lines{"release"});
  Get(sapB, "https://h/b");
  NPStream late{};  // the aborted request's late stream is not the new request's
  Open(&late, "https://h/a");
  EXPECT_EQ(late.pdata, nullptr);
  a.heard.clear();
  EXPECT_EQ(provider->AbortStream(sapA, handle), GPC_RESULT_OK);
  provider->OnNppUrlNotify("https://h/a", NPRES_USER_BREAK, handle);
  EXPECT_EQ(a.heard, Lines{"destroy https://h/a 2"});  // ended for good, deleted only once
  EXPECT_EQ(provider->StreamGet(sapA, "https://h/c", 0, &handle), GPC_ERR_REQUEST_PENDING);
}

// The browser names the request each stream answers: the late stream of an aborted request is not
// the answer to a retry of the same URL.
TEST_F(StreamProviderTest, ARetryOfTheSameUrlIsNotAnsweredByTheAbortedRequestsStream) {
  void* first = Get(sapA, "https://h/a");
  EXPECT_EQ(provider->AbortStream(sapA, first), GPC_RESULT_OK);
  void* retry = Get(sapA, "https://h/a");
  NPStream late{}, answer{};
  late.notifyData = first;
  answer.notifyData = retry;
  Open(&late, "https://h/a");
  Open(&answer, "https://h/a");
  EXPECT_TRUE(late.pdata == nullptr && answer.pdata == retry);
}

TEST_F(StreamProviderTest, UnregisteredSapHearsNothingMoreOfItsStreams) {
  Get(sapA, "https://h/a");
  EXPECT_TRUE(provider->UnregisterSap(sapA));
  EXPECT_FALSE(provider->UnregisterSap(sapA));
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(provider->OnNppWriteReady(&stream), GPC_STREAM_READY_ALL);
  char block[4] = {};
  EXPECT_EQ(provider->OnNppWrite(&stream, 0, 4, block), 4);
  provider->OnNppStreamAsFile(&stream, "/tmp/x");
  EXPECT_EQ(provider->OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_DATA);
  EXPECT_TRUE(a.heard.empty());
  EXPECT_EQ(b.heard, Lines{"release"});
}

// Clients act from inside their callbacks: unregister while told of the end, ask for the next
// stream while told of the release.
TEST_F(StreamProviderTest, CallbacksMayUnregisterOrRequestAgain) {
  Get(sapA, "https://h/a");
  void* second = nullptr;
  uint32_t reentered = 1;
  a.onMessage = [this](GPCMessage* message) {
    if (message->type == GPC_STREAM_DESTROY) GpcUnregisterStreamSap(sapA);
  };
  b.onMessage = [&](GPCMessage* message) {
    if (message->type == GPC_PENDING_RELEASE && second == nullptr) reentered = GpcGetStream(sapB, "https://h/b", 0, &second);
  };
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(reentered, GPC_RESULT_OK);
  ASSERT_EQ(Browser().requests.size(), 2u);
  EXPECT_EQ(Browser().requests[1].notifyData, second);
  EXPECT_EQ(provider->OnNppDestroyStream(&stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(a.heard.back(), "destroy https://h/a 0");
  EXPECT_EQ(provider->SapCount(), 1u);
  // A handle kept after unregistering is known for what it is, never read.
  void* handle = nullptr;
  EXPECT_EQ(GpcUnregisterStreamSap(sapA), GPC_RESULT_OK);
  EXPECT_EQ(GpcGetStream(sapA, "https://h/c", 0, &handle), GPC_ERR_SAP_NOT_REGISTERED);
  EXPECT_EQ(GpcPostStream(sapA, "https://h/c", "x", 1, 0, &handle), GPC_ERR_SAP_NOT_REGISTERED);
  EXPECT_EQ(GpcAbortStream(sapA, second), GPC_ERR_SAP_NOT_REGISTERED);
}

// Every SAP registered when the provider is freed hears it once, also when a callback before it
// unregisters others; one unregistered before its turn hears nothing.
TEST_F(StreamProviderTest, ReleaseReachesEverySapWhileOthersUnregister) {
  Client c, d, e;
  provider->RegisterSap(Record, &c);
  provider->RegisterSap(Record, &d);
  CGpcSap* sapE = provider->RegisterSap(Record, &e);
  c.onMessage = [&](GPCMessage* message) {
    if (message->type != GPC_PENDING_RELEASE) return;
    for (CGpcSap* sap : {sapA, sapB, sapE}) GpcUnregisterStreamSap(sap);
  };
  Get(sapB, "https://h/b");
  NPStream stream{};
  Open(&stream, "https://h/b");
  for (const Client* client : {&a, &b, &c, &d}) EXPECT_EQ(client->heard, Lines{"release"});
  EXPECT_EQ(e.heard, Lines{});
  EXPECT_EQ(provider->SapCount(), 2u);
}

// A post goes as given; with the hook, after two newlines (its closing newline is not sent).
TEST_F(StreamProviderTest, PostsAsGivenAndWithTheHookFraming) {
  void* handle = nullptr;
  const std::string large(100000, 'L');  // past the first buffer
  const struct {
    bool hook;
    std::string body, sent;
  } cases[] = {{false, std::string("a\0b", 3), std::string("a\0b", 3)}, {true, "xyz", "\n\nxyz"}, {true, large, "\n\n" + large}};
  for (const auto& c : cases) {
    const uint32_t length = static_cast<uint32_t>(c.body.size());
    ASSERT_EQ(c.hook ? provider->StreamPostWithHook(sapA, "https://h/p", c.body.data(), length, 0, &handle)
                     : GpcPostStream(sapA, "https://h/p", c.body.data(), length, 0, &handle),
              GPC_RESULT_OK);
    ASSERT_EQ(provider->AbortStream(sapA, handle), GPC_RESULT_OK);
    const gpctest::UrlRequest& sent = Browser().requests.back();
    EXPECT_TRUE(sent.post && !sent.bodyIsFile && sent.target == "(null)" && sent.body == c.sent) << c.sent.size();
  }
  EXPECT_EQ(provider->StreamPostWithHook(sapB, "https://h/p", "x", 0xFFFFFFF0u, 0, &handle), GPC_ERR_NO_POST_BUFFER);
  EXPECT_EQ(provider->StreamPost(sapA, "https://h/p", nullptr, 0, 0, &handle), GPC_RESULT_OK);
}

// ---- The services against a real instance ---------------------------------------------------

TEST(Services, StreamsParametersNavigationsAndStop) {
  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  CGpcWindow window{&npp};
  Client client;
  void* sap = nullptr;
  void* stream = nullptr;
  ASSERT_EQ(GpcRegisterStreamSap(Record, &client, &window, &sap), GPC_RESULT_OK);
  EXPECT_EQ(GpcGetStream(sap, "https://www.talvo.us/a", 0, &stream), GPC_RESULT_OK);
  EXPECT_EQ(GpcAbortStream(sap, stream), GPC_RESULT_OK);
  EXPECT_EQ(client.heard.at(0), "delete https://www.talvo.us/a 2");
  EXPECT_EQ(GpcUnregisterStreamSap(sap), GPC_RESULT_OK);
  EXPECT_EQ(GpcSetParam(&window, "ExtOwn", "value1"), GPC_RESULT_OK);
  EXPECT_STREQ(GpcGetParam(&window, "extown"), "value1");
  const char* name = nullptr;
  const char* value = nullptr;
  EXPECT_EQ(GpcGetParamAt(&window, 5, &name, &value), 1);  // beyond the last: still 1
  EXPECT_EQ(GpcGetParamCount(&window), 1);
  ASSERT_EQ(GpcChangeLocation(&window, "https://www.talvo.us/next", "_top"), GPC_RESULT_OK);
  EXPECT_EQ(gpctest::RunNavigations(window).back(), "_top https://www.talvo.us/next");
  // A network error ends the instance's fetch while its request is outstanding, empty, and only for
  // the fetch's own URL; a fetch not yet asked for is not ended.
  void* data = &stream;
  GpcGetFileNotifyProc record = [](void*, void* context, GPCGetFileNotifyMessageType type, void* file) {
    if (type == GPC_GETFILE_COMPLETE) *static_cast<void**>(context) = file;
  };
  ASSERT_EQ(GpcGetFileAtUrl(&window, record, &data, "https://www.talvo.us/client/pkg.7z"), GPC_RESULT_OK);
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_NETWORK_ERR, &data);
  window.m_streamSapId = &data;  // the instance's own request, as the notice names it
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/other", NPRES_NETWORK_ERR, &data);
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_DONE, &data);
  EXPECT_EQ(data, &stream);
  window.m_provider.OnNppUrlNotify("https://www.talvo.us/client/pkg.7z", NPRES_NETWORK_ERR, &data);
  EXPECT_EQ(data, nullptr);
  window.m_streamSapId = nullptr;
  window.m_bHalted = 0;
  GpcStopDownload(&window);
  EXPECT_EQ(window.m_bHalted, 1);
  EXPECT_EQ(GpcUnpackFile(&window, nullptr, "/tmp/nowhere"), GPC_ERR_NO_PROVIDER);
}

TEST(Services, VersionDebugStringsAndPluginFolder) {
  int major = 0, minor = 7;
  EXPECT_EQ(GpcGetVersion(&major, &minor), GPC_RESULT_OK);
  EXPECT_EQ(std::make_pair(major, minor), std::make_pair(3, 0));
  // The extension's text is logged as it stands, never used as a format.
  for (const char* text : {"plain text from the extension", "%s%s%s%s%n", "100% done, %d left"}) {
    ClearCapturedTraces();
    GpcOutputDebugString(&major, text);
    const std::vector<CapturedTrace> traces = CapturedTracesSnapshot();
    ASSERT_EQ(traces.size(), 1u) << text;
    EXPECT_TRUE(traces[0].level == 0 && traces[0].text == text) << text;
  }
  // The folder's path is cut to what a pointer's size holds.
  char buffer[256];
  const std::string full = platform::UserApplicationSupportDir() + "/Talvo Folder";
  EXPECT_EQ(GpcGetPluginDir(buffer, sizeof buffer), sizeof(void*) - 1);
  EXPECT_EQ(std::string(buffer), full.substr(0, sizeof(void*) - 1));
  EXPECT_EQ(GpcGetPluginDir(buffer, 3), 2u);
  EXPECT_EQ(std::string(buffer), full.substr(0, 2));
  EXPECT_EQ(GpcGetPluginDir(nullptr, 10), 0u);
}

}  // namespace

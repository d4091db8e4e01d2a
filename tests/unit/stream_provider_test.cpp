#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "plugin/plugin/npapiimp.h"
#include "plugin/plugin/npplugin.h"
#include "platform/folders.h"
#include "trace_capture.h"

namespace {

// ---- A fake browser: records URL requests and answers with a chosen result -----------------

struct BrowserRequest {
  std::string url;
  bool post;
  std::string body;
  void* notifyData;
};

struct FakeBrowser {
  std::vector<BrowserRequest> requests;
  NPError answer = NPERR_NO_ERROR;
};
FakeBrowser* gBrowser = nullptr;

NPError FakeGetURLNotify(NPP, const char* url, const char* target, void* notifyData) {
  EXPECT_EQ(nullptr, target);
  gBrowser->requests.push_back({url, false, "", notifyData});
  return gBrowser->answer;
}

NPError FakePostURLNotify(NPP, const char* url, const char* target, uint32_t len, const char* buf,
                          NPBool file, void* notifyData) {
  EXPECT_EQ(nullptr, target);
  EXPECT_FALSE(file);
  gBrowser->requests.push_back({url, true, std::string(buf ? buf : "", len), notifyData});
  return gBrowser->answer;
}

// ---- A client of the provider: records every message its SAP receives ----------------------

struct Received {
  int32_t type;
  void* stream;
  std::string url;
  bool hasUrl;
  int32_t value;  // reason, length or ready preset, by type
  std::string data;
};

struct Client {
  std::vector<Received> messages;
  int32_t lowerReadyTo = -1;     // GPC_STREAM_READY: answer this many bytes
  int32_t consume = -1;          // GPC_STREAM_DATA: answer this many bytes
  std::function<void(GPCMessage*)> onMessage;
};

int RecordMessage(GPCMessage* message) {
  Client* client = static_cast<Client*>(message->context);
  Received r{message->type, message->stream, message->url ? message->url : "", message->url != nullptr, 0, ""};
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
      r.data = message->payload.file.fileName ? message->payload.file.fileName : "";
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

std::vector<int32_t> Types(const Client& client) {
  std::vector<int32_t> types;
  for (const Received& r : client.messages) types.push_back(r.type);
  return types;
}

class StreamProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gBrowser = &browser;
    saved = gNetscapeFuncs;
    gNetscapeFuncs.version = (0 << 8) | 27;
    gNetscapeFuncs.geturlnotify = FakeGetURLNotify;
    gNetscapeFuncs.posturlnotify = FakePostURLNotify;
    provider = new CGpcProvider(nullptr, &npp);
    sapA = provider->RegisterSap(RecordMessage, &clientA);
    sapB = provider->RegisterSap(RecordMessage, &clientB);
  }
  void TearDown() override {
    delete provider;
    gNetscapeFuncs = saved;
    gBrowser = nullptr;
  }

  // The browser opens a stream for `url`, as NPP_NewStream would.
  uint16_t Open(NPStream* stream, const char* url) {
    stream->url = url;
    uint16_t stype = 0;
    EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppNewStream(const_cast<char*>("application/octet-stream"), stream,
                                                       false, &stype));
    return stype;
  }

  NPP_t npp{};
  FakeBrowser browser;
  NPNetscapeFuncs saved;
  CGpcProvider* provider = nullptr;
  Client clientA, clientB;
  CGpcSap* sapA = nullptr;
  CGpcSap* sapB = nullptr;
};

TEST_F(StreamProviderTest, RequestArgumentChecks) {
  void* stream = &npp;
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->StreamGet(sapA, nullptr, 0, &stream));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->StreamGet(sapA, "https://h/a", 0, nullptr));
  CGpcSap stranger(provider, RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_SAP_NOT_REGISTERED, provider->StreamGet(&stranger, "https://h/a", 0, &stream));
  EXPECT_EQ(nullptr, stream);
  EXPECT_EQ(GPC_ERR_SAP_NOT_REGISTERED, provider->StreamGet(nullptr, "https://h/a", 0, &stream));

  CGpcProvider detached(nullptr, nullptr);
  CGpcSap* sap = detached.RegisterSap(RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_NO_BROWSER_INSTANCE, detached.StreamGet(sap, "https://h/a", 0, &stream));
  EXPECT_EQ(GPC_ERR_NO_BROWSER_INSTANCE, detached.AbortStream(sap, sap));
  EXPECT_TRUE(browser.requests.empty());
}

TEST_F(StreamProviderTest, OneRequestAtATime) {
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &first));
  ASSERT_EQ(1u, browser.requests.size());
  EXPECT_EQ(first, browser.requests[0].notifyData);
  EXPECT_TRUE(provider->IsPending());
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamGet(sapB, "https://h/b", 0, &second));
  EXPECT_EQ(GPC_ERR_REQUEST_PENDING, provider->StreamPost(sapB, "https://h/b", "x", 1, 0, &second));
  EXPECT_EQ(nullptr, second);

  NPStream opened{};
  EXPECT_EQ(NP_NORMAL, Open(&opened, "https://h/a"));
  EXPECT_FALSE(provider->IsPending());
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientA));
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientB));
  EXPECT_EQ(nullptr, clientB.messages[0].stream);
  EXPECT_FALSE(clientB.messages[0].hasUrl);
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapB, "https://h/b", 0, &second));
  provider->OnNppDestroyStream(&opened, NPRES_DONE);
}

TEST_F(StreamProviderTest, BrowserRefusalLeavesTheProviderFree) {
  browser.answer = NPERR_GENERIC_ERROR;
  void* stream = &npp;
  EXPECT_EQ(GPC_ERR_BROWSER_REFUSED, provider->StreamGet(sapA, "https://h/a", 0, &stream));
  EXPECT_EQ(nullptr, stream);
  EXPECT_FALSE(provider->IsPending());
  EXPECT_EQ(GPC_ERR_BROWSER_REFUSED, provider->StreamPost(sapA, "https://h/a", "x", 1, 0, &stream));
  browser.answer = NPERR_NO_ERROR;
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &stream));
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

  ASSERT_EQ((std::vector<int32_t>{GPC_PENDING_RELEASE, GPC_STREAM_READY, GPC_STREAM_DATA,
                                  GPC_STREAM_DESTROY, GPC_STREAM_DELETE}),
            Types(clientA));
  const Received& ready = clientA.messages[1];
  EXPECT_EQ(handle, ready.stream);
  EXPECT_EQ("https://h/data.BIN", ready.url);  // the browser stream's URL
  EXPECT_EQ(GPC_STREAM_READY_ALL, ready.value);
  EXPECT_EQ("hello", clientA.messages[2].data);
  EXPECT_EQ(5, clientA.messages[2].value);  // preset to the length
  EXPECT_EQ(NPRES_NETWORK_ERR, clientA.messages[3].value);
  EXPECT_EQ(NPRES_NETWORK_ERR, clientA.messages[4].value);
  // Only the requester hears about its stream.
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientB));
  // Finished: later events of that browser stream find nothing.
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&stream, NPRES_DONE));
}

TEST_F(StreamProviderTest, AsFileRequestGetsTheFileMessage) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/f", 1, &handle));
  NPStream stream{};
  EXPECT_EQ(NP_ASFILEONLY, Open(&stream, "https://h/f"));
  provider->OnNppStreamAsFile(&stream, "/tmp/cached-copy");
  ASSERT_EQ(2u, clientA.messages.size());
  EXPECT_EQ(GPC_STREAM_FILE, clientA.messages[1].type);
  EXPECT_EQ("/tmp/cached-copy", clientA.messages[1].data);
  provider->OnNppDestroyStream(&stream, NPRES_DONE);
}

TEST_F(StreamProviderTest, MismatchedStreamIsDrainedSilently) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream other{};
  other.pdata = &npp;  // whatever was there is replaced
  Open(&other, "https://h/redirected");
  EXPECT_EQ(nullptr, other.pdata);
  EXPECT_TRUE(provider->IsPending());
  EXPECT_EQ(GPC_STREAM_READY_ALL, provider->OnNppWriteReady(&other));
  char block[10] = {};
  EXPECT_EQ(10, provider->OnNppWrite(&other, 0, 10, block));
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&other, NPRES_DONE));
  EXPECT_TRUE(clientA.messages.empty());

  // The browser's last word on the request ends it for its owner and frees the provider.
  provider->OnNppUrlNotify("https://h/a", NPRES_DONE, handle);
  EXPECT_FALSE(provider->IsPending());
  EXPECT_EQ((std::vector<int32_t>{GPC_STREAM_DESTROY, GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), Types(clientA));
  EXPECT_EQ(handle, clientA.messages[0].stream);
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientB));
}

TEST_F(StreamProviderTest, RequestFailedBeforeAnyStreamEndsWithTheNotificationsReason) {
  for (NPReason reason : {NPRES_NETWORK_ERR, NPRES_USER_BREAK, NPRES_DONE}) {
    clientA.messages.clear();
    void* handle = nullptr;
    ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    ASSERT_EQ((std::vector<int32_t>{GPC_STREAM_DESTROY, GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), Types(clientA));
    EXPECT_EQ(reason, clientA.messages[0].value);
    EXPECT_EQ(reason, clientA.messages[1].value);
    EXPECT_EQ("https://h/a", clientA.messages[0].url);
    EXPECT_FALSE(provider->IsPending());
    // The request is gone: a second notification finds nothing.
    provider->OnNppUrlNotify("https://h/a", reason, handle);
    EXPECT_EQ(3u, clientA.messages.size());
  }
}

TEST_F(StreamProviderTest, StreamsWithoutPendingRequestAreNotAdopted) {
  NPStream stray{};
  Open(&stray, "https://h/a");
  EXPECT_EQ(nullptr, stray.pdata);
  EXPECT_EQ(0, provider->OnNppWrite(nullptr, 0, 4, nullptr));
  EXPECT_EQ(NPERR_INVALID_INSTANCE_ERROR, provider->OnNppDestroyStream(nullptr, NPRES_DONE));
  uint16_t stype = 0;
  EXPECT_EQ(NPERR_INVALID_INSTANCE_ERROR, provider->OnNppNewStream(nullptr, nullptr, false, &stype));
}

TEST_F(StreamProviderTest, AbortAfterOpenSendsDeleteOnce) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  ASSERT_EQ((std::vector<int32_t>{GPC_PENDING_RELEASE, GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), Types(clientA));
  EXPECT_EQ(NPRES_USER_BREAK, clientA.messages[1].value);
  EXPECT_EQ("https://h/a", clientA.messages[1].url);  // the request's URL

  EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_EQ(GPC_STREAM_DESTROY, clientA.messages.back().type);
  EXPECT_EQ(4u, clientA.messages.size());  // no second GPC_STREAM_DELETE
}

TEST_F(StreamProviderTest, AbortBeforeOpenFreesTheProvider) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapB, handle));  // any registered SAP may abort
  EXPECT_FALSE(provider->IsPending());
  EXPECT_EQ((std::vector<int32_t>{GPC_STREAM_DELETE, GPC_PENDING_RELEASE}), Types(clientA));
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientB));

  void* next = nullptr;
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamGet(sapB, "https://h/b", 0, &next));
  // The aborted request's late stream does not match the new one and is drained.
  NPStream late{};
  Open(&late, "https://h/a");
  EXPECT_EQ(nullptr, late.pdata);
  // An aborted request that another one has replaced cannot be aborted again.
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  EXPECT_TRUE(provider->IsPending());
  // The aborted request ends for good without a second GPC_STREAM_DELETE.
  clientA.messages.clear();
  provider->OnNppUrlNotify("https://h/a", NPRES_USER_BREAK, handle);
  EXPECT_EQ(std::vector<int32_t>{GPC_STREAM_DESTROY}, Types(clientA));
  EXPECT_TRUE(provider->IsPending());  // the other request stays pending
}

TEST_F(StreamProviderTest, AbortArgumentChecks) {
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->AbortStream(sapA, nullptr));
  CGpcSap stranger(provider, RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_SAP_NOT_REGISTERED, provider->AbortStream(&stranger, &stranger));
  // A handle the provider no longer knows is left alone.
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream stream{};
  Open(&stream, "https://h/a");
  provider->OnNppDestroyStream(&stream, NPRES_DONE);
  size_t before = clientA.messages.size();
  EXPECT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));
  EXPECT_EQ(before, clientA.messages.size());
}

TEST_F(StreamProviderTest, UnregisteringASapSilencesItsStreams) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  EXPECT_TRUE(provider->UnregisterSap(sapA));
  EXPECT_FALSE(provider->UnregisterSap(sapA));
  EXPECT_EQ(1u, provider->SapCount());
  ASSERT_TRUE(provider->IsPending());
  EXPECT_EQ(nullptr, provider->PendingStream()->m_pSap);

  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(handle, stream.pdata);
  EXPECT_EQ(std::vector<int32_t>{GPC_PENDING_RELEASE}, Types(clientB));
  EXPECT_EQ(GPC_STREAM_READY_ALL, provider->OnNppWriteReady(&stream));
  char block[4] = {};
  EXPECT_EQ(4, provider->OnNppWrite(&stream, 0, 4, block));
  provider->OnNppStreamAsFile(&stream, "/tmp/x");
  EXPECT_EQ(NPERR_NO_DATA, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_TRUE(clientA.messages.empty());
  EXPECT_EQ(1u, clientB.messages.size());
}

TEST_F(StreamProviderTest, CallbackMayUnregisterItsSapDuringDestroy) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  NPStream stream{};
  Open(&stream, "https://h/a");
  clientA.onMessage = [this](GPCMessage* message) {
    if (message->type == GPC_STREAM_DESTROY) GpcUnregisterStreamSap(sapA);
  };
  EXPECT_EQ(NPERR_NO_ERROR, provider->OnNppDestroyStream(&stream, NPRES_DONE));
  EXPECT_EQ(GPC_STREAM_DESTROY, clientA.messages.back().type);
  EXPECT_EQ(1u, provider->SapCount());
}

TEST_F(StreamProviderTest, NextRequestFromInsidePendingRelease) {
  void* first = nullptr;
  void* second = nullptr;
  uint32_t reentered = 1;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &first));
  clientB.onMessage = [&](GPCMessage* message) {
    if (message->type == GPC_PENDING_RELEASE && second == nullptr) {
      reentered = GpcGetStream(sapB, "https://h/b", 0, &second);
    }
  };
  NPStream stream{};
  Open(&stream, "https://h/a");
  EXPECT_EQ(GPC_RESULT_OK, reentered);
  ASSERT_NE(nullptr, second);
  ASSERT_EQ(2u, browser.requests.size());
  EXPECT_EQ(second, browser.requests[1].notifyData);
  EXPECT_TRUE(provider->IsPending());
  provider->OnNppDestroyStream(&stream, NPRES_DONE);
}

TEST_F(StreamProviderTest, PendingReleaseReachesEverySapWithItsOwnContext) {
  Client clientC;
  provider->RegisterSap(RecordMessage, &clientC);
  provider->PendingReleased();
  for (Client* client : {&clientA, &clientB, &clientC}) {
    ASSERT_EQ(1u, client->messages.size());
    EXPECT_EQ(GPC_PENDING_RELEASE, client->messages[0].type);
  }
}

TEST_F(StreamProviderTest, PostsAsGivenAndWithTheHookFraming) {
  void* handle = nullptr;
  const char body[] = {'a', '\0', 'b'};
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamPost(sapA, "https://h/p", body, 3, 0, &handle));
  ASSERT_EQ(1u, browser.requests.size());
  EXPECT_TRUE(browser.requests[0].post);
  EXPECT_EQ(std::string(body, 3), browser.requests[0].body);
  EXPECT_EQ(handle, browser.requests[0].notifyData);
  ASSERT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));

  ASSERT_EQ(GPC_RESULT_OK, provider->StreamPostWithHook(sapA, "https://h/p", "xyz", 3, 0, &handle));
  EXPECT_EQ("\n\nxyz", browser.requests[1].body);  // the closing newline is not sent
  ASSERT_EQ(GPC_RESULT_OK, provider->AbortStream(sapA, handle));

  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, provider->StreamPost(sapA, "https://h/p", nullptr, 4, 0, &handle));
  EXPECT_EQ(GPC_RESULT_OK, provider->StreamPost(sapA, "https://h/p", nullptr, 0, 0, &handle));
}

TEST_F(StreamProviderTest, PostBufferGrowsAndIsZeroed) {
  EXPECT_EQ(kGpcPostBufferInitialSize, provider->PostBufferCapacity());
  unsigned char* small = provider->GetBuffer(100);
  ASSERT_NE(nullptr, small);
  EXPECT_EQ(kGpcPostBufferInitialSize, provider->PostBufferCapacity());
  memset(small, 0xAB, kGpcPostBufferInitialSize);

  const unsigned large = 100000;
  unsigned char* grown = provider->GetBuffer(large);
  ASSERT_NE(nullptr, grown);
  uint32_t header = strlen("Pragma:\tno-cache\nContent-Type:\tapplication/octet-stream\nContent-Length:\t%lu\n\n");
  EXPECT_EQ(header + large + 64, provider->PostBufferCapacity());
  memset(grown, 0xCD, provider->PostBufferCapacity());
  unsigned char* again = provider->GetBuffer(10);
  for (uint32_t i = 0; i < provider->PostBufferCapacity(); ++i) ASSERT_EQ(0, again[i]) << i;
  EXPECT_EQ(nullptr, provider->GetBuffer(0xFFFFFFF0u));  // beyond what a 32-bit size can hold
}

TEST_F(StreamProviderTest, ProviderGoingAwayFreesSapsAndOpenRequests) {
  void* handle = nullptr;
  ASSERT_EQ(GPC_RESULT_OK, provider->StreamGet(sapA, "https://h/a", 0, &handle));
  delete provider;  // the leak checker watches the SAPs and the pending stream
  provider = nullptr;
  EXPECT_TRUE(clientA.messages.empty());
}

TEST_F(StreamProviderTest, NetworkErrorWithoutWindowIsHarmless) {
  provider->OnNppUrlNotify("https://h/a", NPRES_NETWORK_ERR, nullptr);
  provider->OnNppUrlNotify(nullptr, NPRES_NETWORK_ERR, &npp);
  EXPECT_TRUE(clientA.messages.empty());
}

TEST(CGpcSap, SendMessageChecksItsArguments) {
  CGpcSap silent(nullptr, nullptr, nullptr);
  GPCMessage message = {};
  EXPECT_EQ(2, silent.SendMessage(&message));
  Client client;
  CGpcSap sap(nullptr, RecordMessage, &client);
  EXPECT_EQ(2, sap.SendMessage(nullptr));
  message.type = GPC_SAP_DETACH;
  EXPECT_EQ(0, sap.SendMessage(&message));
  EXPECT_EQ(&client, message.context);
}

TEST(CGpcStream, UrlComparisonIgnoresCaseOnly) {
  CGpcStream stream(nullptr, "https://H/A", 0);
  EXPECT_TRUE(stream.IsSameUrl("https://h/a"));
  EXPECT_FALSE(stream.IsSameUrl("https://h/a/"));
  EXPECT_FALSE(stream.IsSameUrl(nullptr));
}

TEST(CGpcCriticalSection, ReentersOnTheOwningThread) {
  CGpcCriticalSection lock;
  lock.Lock();
  lock.Lock();
  EXPECT_EQ(2u, lock.Depth());
  lock.Unlock();
  EXPECT_EQ(1u, lock.Depth());
  lock.Unlock();
  EXPECT_EQ(0u, lock.Depth());
  lock.Unlock();  // unbalanced: stays free
  EXPECT_EQ(0u, lock.Depth());
}

TEST(CGpcCriticalSection, OtherThreadWaitsForTheLastUnlock) {
  CGpcCriticalSection lock;
  std::mutex orderMutex;
  std::vector<std::string> order;
  auto note = [&](const char* what) {
    std::lock_guard<std::mutex> guard(orderMutex);
    order.push_back(what);
  };
  std::atomic<bool> started{false};
  lock.Lock();
  lock.Lock();
  std::thread other([&] {
    started = true;
    lock.Lock();
    note("other acquired");
    lock.Unlock();
  });
  while (!started) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  lock.Unlock();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  note("owner released");
  lock.Unlock();
  other.join();
  EXPECT_EQ((std::vector<std::string>{"owner released", "other acquired"}), order);
  EXPECT_EQ(0u, lock.Depth());
}

// ---- Service functions and the table ------------------------------------------------------

TEST_F(StreamProviderTest, StreamServicesCheckHandles) {
  void* stream = nullptr;
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcGetStream(nullptr, "https://h/a", 0, &stream));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcGetStream(sapA, nullptr, 0, &stream));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcPostStream(nullptr, "https://h/a", "", 0, 0, &stream));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcAbortStream(nullptr, &stream));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcUnregisterStreamSap(nullptr));

  CGpcSap orphan(nullptr, RecordMessage, &clientA);
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcGetStream(&orphan, "https://h/a", 0, &stream));
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcPostStream(&orphan, "https://h/a", "", 0, 0, &stream));
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcAbortStream(&orphan, &stream));
  EXPECT_EQ(GPC_ERR_NO_PROVIDER, GpcUnregisterStreamSap(&orphan));

  void* sap = &npp;
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcRegisterStreamSap(nullptr, nullptr, nullptr, &sap));
  EXPECT_EQ(GPC_ERR_NULL_ARGUMENT, GpcRegisterStreamSap(RecordMessage, nullptr, &npp, nullptr));
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcRegisterStreamSap(RecordMessage, nullptr, nullptr, &sap));
  EXPECT_EQ(&npp, sap);  // untouched on failure

  // Through the services, a SAP works as through the provider.
  ASSERT_EQ(GPC_RESULT_OK, GpcPostStream(sapA, "https://h/p", "body", 4, 0, &stream));
  EXPECT_EQ("body", browser.requests.at(0).body);
  EXPECT_EQ(GPC_RESULT_OK, GpcAbortStream(sapA, stream));
  EXPECT_EQ(GPC_RESULT_OK, GpcUnregisterStreamSap(sapB));
  EXPECT_EQ(1u, provider->SapCount());
}

TEST(ServiceTable, SlotOrderAndReservedTail) {
  static_assert(sizeof(GpcServiceTable) == GPC_SERVICE_TABLE_SLOTS * sizeof(void*), "24 slots");
  GpcServiceTable table;
  memset(&table, 0xFF, sizeof table);
  FillGpcServiceTable(&table);
  void* slots[GPC_SERVICE_TABLE_SLOTS];
  memcpy(slots, &table, sizeof slots);
  void* expected[GPC_SERVICE_TABLE_USED_SLOTS] = {
      reinterpret_cast<void*>(GpcGetVersion),      reinterpret_cast<void*>(GpcRegisterStreamSap),
      reinterpret_cast<void*>(GpcUnregisterStreamSap), reinterpret_cast<void*>(GpcGetStream),
      reinterpret_cast<void*>(GpcPostStream),      reinterpret_cast<void*>(GpcAbortStream),
      reinterpret_cast<void*>(GpcGetParamCount),   reinterpret_cast<void*>(GpcSetParam),
      reinterpret_cast<void*>(GpcGetParam),        reinterpret_cast<void*>(GpcGetParamAt),
      reinterpret_cast<void*>(GpcChangeLocation),  reinterpret_cast<void*>(GpcGetFileAtUrl),
      reinterpret_cast<void*>(GpcUnpackFile),      reinterpret_cast<void*>(GpcSetHook),
      reinterpret_cast<void*>(GpcGetPluginNativeWindow), reinterpret_cast<void*>(GpcStopDownload),
      reinterpret_cast<void*>(GpcGetPluginDir),    reinterpret_cast<void*>(GpcShowMessage),
      reinterpret_cast<void*>(GpcOutputDebugString)};
  for (int i = 0; i < GPC_SERVICE_TABLE_USED_SLOTS; ++i) EXPECT_EQ(expected[i], slots[i]) << "slot " << i;
  for (int i = GPC_SERVICE_TABLE_USED_SLOTS; i < GPC_SERVICE_TABLE_SLOTS; ++i) EXPECT_EQ(nullptr, slots[i]) << i;
}

TEST(ServiceTable, NullInstanceAnswers) {
  EXPECT_EQ(0, GpcGetParamCount(nullptr));
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcSetParam(nullptr, "a", "b"));
  EXPECT_EQ(nullptr, GpcGetParam(nullptr, "a"));
  const char* name = "keep";
  EXPECT_EQ(0, GpcGetParamAt(nullptr, 0, &name, nullptr));
  EXPECT_STREQ("keep", name);
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcChangeLocation(nullptr, "https://h/", "_top"));
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcGetFileAtUrl(nullptr, nullptr, nullptr, "https://h/"));
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcUnpackFile(nullptr, "/a", "/b"));
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcSetHook(nullptr));
  int dummy;
  EXPECT_EQ(GPC_RESULT_OK, GpcSetHook(&dummy));
  EXPECT_EQ(nullptr, GpcGetPluginNativeWindow(nullptr));
  GpcStopDownload(nullptr);
  EXPECT_EQ(GPC_ERR_NO_INSTANCE, GpcShowMessage(nullptr, "text"));
  GpcOutputDebugString(nullptr, "debug text from the extension");
  GpcOutputDebugString(nullptr, nullptr);
  EXPECT_EQ(&dummy, GetGpcWindowObject(&dummy));
  EXPECT_EQ(1, GpcCheckDigitalSignature(&dummy, nullptr));
  EXPECT_EQ(0, GpcCheckDigitalSignature(nullptr, "/x"));
}

TEST(ServiceTable, DebugStringIsLoggedAsItStands) {
  StartTraceCapture();
  int instance = 0;
  for (const char* text : {"plain text from the extension", "%s%s%s%s%n", "100% done, %d left", "%"}) {
    ClearCapturedTraces();
    GpcOutputDebugString(&instance, text);
    const std::vector<CapturedTrace> traces = CapturedTracesSnapshot();
    ASSERT_EQ(traces.size(), 1u) << text;
    EXPECT_EQ(traces[0].level, 0) << text;
    EXPECT_EQ(traces[0].text, text);
  }
}

TEST(ServiceTable, VersionIsThreeZero) {
  EXPECT_EQ(GPC_RESULT_OK, GpcGetVersion(nullptr, nullptr));
  int major = 0, minor = 7;
  EXPECT_EQ(GPC_RESULT_OK, GpcGetVersion(&major, &minor));
  EXPECT_EQ(3, major);
  EXPECT_EQ(0, minor);
}

TEST(ServiceTable, PluginDirIsCutToAPointersSize) {
  char buffer[256];
  memset(buffer, 'x', sizeof buffer);
  const unsigned limit = sizeof(void*) - 1;
  EXPECT_EQ(limit, GpcGetPluginDir(buffer, sizeof buffer));
  std::string full = platform::UserApplicationSupportDir() + "/Talvo Folder";
  EXPECT_EQ(full.substr(0, limit), std::string(buffer));
  EXPECT_EQ(2u, GpcGetPluginDir(buffer, 3));
  EXPECT_EQ(full.substr(0, 2), std::string(buffer));
  EXPECT_EQ(0u, GpcGetPluginDir(buffer, 0));
  EXPECT_EQ(0u, GpcGetPluginDir(nullptr, 10));
}

}  // namespace

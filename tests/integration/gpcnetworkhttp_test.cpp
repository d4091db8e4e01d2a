#include <gtest/gtest.h>

#include "hardening.h"

#include "scoped_env.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "gpcnetworkhttp.h"
#include "gpctimerproxy.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "trace_capture.h"

namespace {

using gpctest::NginxTestServer;
using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;
using gpctest::ScriptedHttpServer;
using gpctest::TinyProxyServer;

const unsigned kFailed = 0xFFFFFFFF;
const char* const kProxyVariables[] = {"http_proxy", "https_proxy", "no_proxy", "all_proxy",
                                       "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY", "ALL_PROXY"};


// Records every callback; the hooks let a case act from inside one.
class RecordingSink : public INetworkHttpSink {
 public:
  void OnHttpReturn(void* handle, int size, void* data) override {
    ++returns;
    returnedHandle = handle;
    returnedSize = size;
    returnedNull = data == nullptr;
    if (data && pathExpected) {
      asText = static_cast<const char*>(data);
    } else if (data) {
      asBody.assign(static_cast<const char*>(data), size > 0 ? size : 0);
      terminated = size >= 0 && static_cast<const char*>(data)[size] == '\0';
    }
    if (onReturn) onReturn();
  }
  void OnDataReceived(unsigned int size) override {
    ++dataEvents;
    dataTotal += size;
    if (onData) onData();
  }
  bool OnAskProxy(std::string& user, std::string& password) override {
    ++asks;
    user = proxyUser;
    password = proxyPassword;
    return answerAsk;
  }

  bool pathExpected = false;  // file mode hands out a path, memory mode the body
  int returns = 0;
  void* returnedHandle = reinterpret_cast<void*>(1);
  int returnedSize = -1;
  bool returnedNull = false;
  std::string asText, asBody;
  bool terminated = false;
  int dataEvents = 0;
  unsigned long long dataTotal = 0;
  int asks = 0;
  bool answerAsk = false;
  std::string proxyUser, proxyPassword;
  std::function<void()> onReturn, onData;
};

class NetworkHttpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    nginx_ = new NginxTestServer;
    scripted_ = new ScriptedHttpServer;
    ASSERT_TRUE(nginx_->Start()) << nginx_->error();
    ASSERT_TRUE(scripted_->Start()) << scripted_->error();
  }
  static void TearDownTestSuite() {
    delete nginx_;
    delete scripted_;
    nginx_ = nullptr;
    scripted_ = nullptr;
  }
  void SetUp() override {
    for (const char* name : kProxyVariables) env_.emplace_back(new ScopedEnv(name, nullptr));
  }
  void TearDown() override {
    for (const std::string& path : made_) unlink(path.c_str());
  }

  // Fetches `url` and waits for the end; returns GetURL's result.
  unsigned Fetch(GPCNetworkHttp& client, const std::string& url, RecordingSink& sink, bool toFile,
                 unsigned timeoutMs = 0) {
    sink.pathExpected = toFile && !sink.answerAsk;  // an answered challenge goes on in memory
    unsigned rc = client.GetURL(url.c_str(), &sink, timeoutMs, false, toFile);
    if (rc == 0) RunMainLoopUntil([&] { return sink.returns > 0 || sink.asks > 0; });
    if (sink.pathExpected && !sink.asText.empty()) made_.push_back(sink.asText);
    return rc;
  }

  static NginxTestServer* nginx_;
  static ScriptedHttpServer* scripted_;
  std::vector<std::unique_ptr<ScopedEnv>> env_;
  std::vector<std::string> made_;
};

NginxTestServer* NetworkHttpTest::nginx_ = nullptr;
ScriptedHttpServer* NetworkHttpTest::scripted_ = nullptr;

// Body size, https, file mode.
class BodyTest : public NetworkHttpTest,
                 public ::testing::WithParamInterface<std::tuple<size_t, bool, bool>> {};

TEST_P(BodyTest, ArrivesIntact) {
  size_t size = std::get<0>(GetParam());
  bool https = std::get<1>(GetParam());
  bool toFile = std::get<2>(GetParam());
  std::string name = "body_" + std::to_string(size) + ".bin";
  std::string content = PatternBytes(size, static_cast<unsigned>(size));
  ASSERT_TRUE(nginx_->AddFile(name, content));
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, https ? nginx_->HttpsUrl(name) : nginx_->HttpUrl(name), sink, toFile), 0u);

  ASSERT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.returnedHandle, nullptr);
  EXPECT_EQ(sink.returnedSize, static_cast<int>(size));
  EXPECT_EQ(sink.dataTotal, size);
  EXPECT_EQ(client.GetReceivedSize(), size);
  if (size == 0) {
    // Nothing was stored, so there is neither a buffer nor a file to hand out.
    EXPECT_TRUE(sink.returnedNull);
    return;
  }
  ASSERT_FALSE(sink.returnedNull);
  if (toFile) {
    EXPECT_EQ(sink.asText.rfind("/tmp/gpc_tmp_", 0), 0u) << sink.asText;
    EXPECT_TRUE(ReadFile(sink.asText) == content);
  } else {
    EXPECT_TRUE(sink.terminated);
    EXPECT_TRUE(sink.asBody == content);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, BodyTest,
                         ::testing::Combine(::testing::Values(0, 1, 16383, 16384, 6 * 1024 * 1024 + 7),
                                            ::testing::Bool(), ::testing::Bool()));

TEST_F(NetworkHttpTest, ReadEventsReportTheirOwnSizeNotARunningTotal) {
  std::string content = PatternBytes(3 * 1024 * 1024);
  ASSERT_TRUE(nginx_->AddFile("events.bin", content));
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, nginx_->HttpUrl("events.bin"), sink, false), 0u);
  EXPECT_GT(sink.dataEvents, 1);
  EXPECT_EQ(sink.dataTotal, content.size());
}

TEST_F(NetworkHttpTest, NamedFileGoesUnderTmpAndTalvoFolderExists) {
  std::string content = PatternBytes(40000, 7);
  ASSERT_TRUE(nginx_->AddFile("named.bin", content));
  std::string name = "gpc_named_" + std::to_string(getpid());
  GPCNetworkHttp client;
  client.SetFileName(name.c_str());
  client.SetFileName(nullptr);  // ignored
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, nginx_->HttpUrl("named.bin"), sink, true), 0u);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.asText, "/tmp/" + name);
  EXPECT_TRUE(ReadFile("/tmp/" + name) == content);
  struct stat info;
  ASSERT_EQ(stat("/tmp/talvo", &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST_F(NetworkHttpTest, GeneratedNamesSkipExistingFiles) {
  ASSERT_TRUE(nginx_->AddFile("numbered.bin", "numbered"));
  int next = GPCNetworkHttp::GetTempFileCounter() + 1;
  std::vector<std::string> planted;
  for (int n = next; n < next + 2; ++n) {
    std::string path = "/tmp/gpc_tmp_" + std::to_string(n);
    struct stat info;
    if (lstat(path.c_str(), &info) == 0) continue;  // another program's file serves as well
    ASSERT_TRUE(gpctest::WriteFile(path, "occupied"));
    planted.push_back(path);
  }
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, nginx_->HttpUrl("numbered.bin"), sink, true), 0u);
  for (const std::string& path : planted) {
    EXPECT_EQ(ReadFile(path), "occupied");
    unlink(path.c_str());
  }
  int used = GPCNetworkHttp::GetTempFileCounter();
  EXPECT_GE(used, next + 2);
  EXPECT_EQ(sink.asText, "/tmp/gpc_tmp_" + std::to_string(used));
  EXPECT_EQ(ReadFile(sink.asText), "numbered");
}

TEST_F(NetworkHttpTest, DanglingLinkAtNextGeneratedNameIsNeitherFollowedNorUsed) {
  ASSERT_TRUE(nginx_->AddFile("linked.bin", "payload"));
  gpctest::TempFolder folder("victim");
  std::string victim = folder.path() + "/victim";
  int next = GPCNetworkHttp::GetTempFileCounter() + 1;
  std::string trap = "/tmp/gpc_tmp_" + std::to_string(next);
  struct stat info;
  if (lstat(trap.c_str(), &info) == 0) GTEST_SKIP() << trap << " exists already";
  ASSERT_EQ(symlink(victim.c_str(), trap.c_str()), 0);
  GPCNetworkHttp client;
  RecordingSink sink;
  unsigned rc = Fetch(client, nginx_->HttpUrl("linked.bin"), sink, true);
  unlink(trap.c_str());
  ASSERT_EQ(rc, 0u);
  EXPECT_NE(sink.asText, trap);
  EXPECT_EQ(ReadFile(sink.asText), "payload");
  EXPECT_NE(lstat(victim.c_str(), &info), 0) << "the link was followed";
}

TEST_F(NetworkHttpTest, LinkPlantedAtNamedFileIsNotFollowed) {
  std::string content = PatternBytes(50000, 3);
  ASSERT_TRUE(nginx_->AddFile("trap.bin", content));
  gpctest::TempFolder folder("victim");
  std::string victim = folder.path() + "/victim";
  ASSERT_TRUE(gpctest::WriteFile(victim, "untouched"));
  std::string name = "gpc_trap_" + std::to_string(getpid());
  std::string trap = "/tmp/" + name;
  unlink(trap.c_str());
  ASSERT_EQ(symlink(victim.c_str(), trap.c_str()), 0);
  GPCNetworkHttp client;
  client.SetFileName(name.c_str());
  RecordingSink sink;
  sink.pathExpected = true;
  unsigned rc = client.GetURL(nginx_->HttpUrl("trap.bin").c_str(), &sink, 0, false, true);
  RunMainLoopUntil([&] { return sink.returns > 0; });
  unlink(trap.c_str());
  ASSERT_EQ(rc, 0u);
  EXPECT_EQ(ReadFile(victim), "untouched");
  // Every chunk was refused, so the request ends like an empty one.
  EXPECT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.returnedSize, 0);
  EXPECT_TRUE(sink.returnedNull);
}

TEST_F(NetworkHttpTest, BlockingRequestReturnsOnlyAfterTheEnd) {
  std::string content = PatternBytes(200000, 9);
  ASSERT_TRUE(nginx_->AddFile("block.bin", content));
  GPCNetworkHttp client;
  RecordingSink sink;
  int timerTicks = 0;
  GPCTimerProxy ticker(0.001, [](GPCTimerProxy*, void* ticks) { ++*static_cast<int*>(ticks); }, &timerTicks);
  ASSERT_EQ(client.GetURL(nginx_->HttpsUrl("block.bin").c_str(), &sink, 0, true, false), 0u);
  EXPECT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.asBody == content);
  EXPECT_GT(timerTicks, 0) << "timers must fire while the request blocks";
}

TEST_F(NetworkHttpTest, SetBlockWaitsForARunningRequestOnly) {
  std::string content = PatternBytes(300000, 12);
  ASSERT_TRUE(nginx_->AddFile("setblock.bin", content));
  GPCNetworkHttp client;
  client.SetBlock();  // idle: returns at once
  RecordingSink sink;
  ASSERT_EQ(client.GetURL(nginx_->HttpUrl("setblock.bin").c_str(), &sink, 0, false, false), 0u);
  EXPECT_EQ(sink.returns, 0);
  client.SetBlock();
  EXPECT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.asBody == content);
}

struct Cancel {
  GPCNetworkHttp* client;
  int fired = 0;
};

TEST_F(NetworkHttpTest, CancelEndsABlockingRequestWithoutCallback) {
  GPCNetworkHttp client;
  RecordingSink sink;
  Cancel cancel{&client};
  GPCTimerProxy timer(0.05, [](GPCTimerProxy* self, void* context) {
    auto* c = static_cast<Cancel*>(context);
    if (c->fired++ == 0) c->client->CancelCurrentOperate();
    self->cleanUp();
  }, &cancel);
  ASSERT_EQ(client.GetURL(scripted_->Url("/never").c_str(), &sink, 0, true, false), 0u);
  EXPECT_EQ(cancel.fired, 1);
  RunMainLoopFor(50);
  EXPECT_EQ(sink.returns, 0);
  EXPECT_EQ(client.GetReceivedSize(), 0u);
}

TEST_F(NetworkHttpTest, RedirectsAreFollowed) {
  std::string content = PatternBytes(70000, 11);
  ASSERT_TRUE(nginx_->AddFile("target.bin", content));
  std::string url = scripted_->Url("/redirect?n=3&to=" + nginx_->HttpUrl("target.bin"));
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, url, sink, false), 0u);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.asBody == content);
}

TEST_F(NetworkHttpTest, UrlWithBlanksIsEscapedAndFetched) {
  ASSERT_TRUE(nginx_->AddFile("with blank.txt", "blank ok"));
  ClearCapturedTraces();
  GPCNetworkHttp client;
  RecordingSink sink;
  std::string url = nginx_->HttpUrl("with blank.txt");
  ASSERT_EQ(Fetch(client, url, sink, false), 0u);
  EXPECT_EQ(sink.asBody, "blank ok");
  EXPECT_TRUE(TraceContains(
      1, "GPCNetworkHttp::GetURL,CFURLCreateWithString failed,need use Escape try again!url is " + url));
  EXPECT_TRUE(TraceContains(1, "recevice url[" + url + "] data size = 8"));
}

TEST_F(NetworkHttpTest, RequestsThatCannotStartFailWithoutCallback) {
  ClearCapturedTraces();
  GPCNetworkHttp client;
  RecordingSink sink;
  EXPECT_EQ(client.GetURL(nullptr, &sink, 0, false, false), kFailed);
  EXPECT_TRUE(TraceContains(1, "GPCNetworkHttp::GetURL,url is nil,don't get it!"));
  ClearCapturedTraces();
  EXPECT_EQ(client.GetURL("http:", &sink, 0, false, false), kFailed);
  EXPECT_EQ(client.GetURL("http://a.b/", &sink, 0, true, false), kFailed);  // 11 characters
  EXPECT_EQ(client.GetURL("not a url at all", &sink, 0, true, false), kFailed);
  RunMainLoopFor(50);
  EXPECT_EQ(sink.returns, 0);
  EXPECT_EQ(sink.asks, 0);
  // Too short a URL fails without a message.
  EXPECT_FALSE(TraceContains(1, "GPCNetworkHttp::GetURL,url is nil"));
}

TEST_F(NetworkHttpTest, OnlyTheHardenedBuildRefusesAnUnverifiedServer) {
  ASSERT_TRUE(nginx_->AddFile("selfsigned.bin", "signed by nobody"));
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    GPCNetworkHttp client;
    RecordingSink sink;
    ASSERT_EQ(Fetch(client, nginx_->HttpsUrl("selfsigned.bin"), sink, false), 0u);
    EXPECT_EQ(sink.returnedNull, hardened) << (hardened ? "hardened" : "default");
  }
  gpc::SetHardenedForTesting(-1);
}

TEST_F(NetworkHttpTest, RefusedConnectionEndsWithNothing) {
  int port = gpctest::FindFreePort();
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, "http://127.0.0.1:" + std::to_string(port) + "/x", sink, false), 0u);
  EXPECT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.returnedSize, 0);
  EXPECT_TRUE(sink.returnedNull);
}

TEST_F(NetworkHttpTest, ResetMidBodyEndsWithNothing) {
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/reset"), sink, true), 0u);
  EXPECT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.returnedSize, 0);
  EXPECT_TRUE(sink.returnedNull);
  if (client.GetFilePath()) unlink(client.GetFilePath());
}

TEST_F(NetworkHttpTest, TimeOutFiresOnce) {
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/never"), sink, false, 50), 0u);
  EXPECT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.returnedNull);
  RunMainLoopFor(200);
  EXPECT_EQ(sink.returns, 1);
}

TEST_F(NetworkHttpTest, DeletingTheClientInsideCallbacksIsSafe) {
  ASSERT_TRUE(nginx_->AddFile("midway.bin", PatternBytes(4 * 1024 * 1024)));
  auto* client = new GPCNetworkHttp;
  RecordingSink sink;
  sink.onData = [&] {
    delete client;
    client = nullptr;
  };
  ASSERT_EQ(client->GetURL(nginx_->HttpUrl("midway.bin").c_str(), &sink, 0, false, false), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return client == nullptr; }));
  RunMainLoopFor(100);
  EXPECT_EQ(sink.dataEvents, 1);
  EXPECT_EQ(sink.returns, 0);

  // The same from the end callback, while a blocking GetURL waits for it.
  auto* blocking = new GPCNetworkHttp;
  RecordingSink other;
  other.onReturn = [&] { delete blocking; };
  EXPECT_EQ(blocking->GetURL(nginx_->HttpUrl("midway.bin").c_str(), &other, 0, true, false), 0u);
  EXPECT_EQ(other.returns, 1);
}

TEST_F(NetworkHttpTest, DestroyingMidTransferStopsEverything) {
  ASSERT_TRUE(nginx_->AddFile("abandoned.bin", PatternBytes(8 * 1024 * 1024)));
  RecordingSink sink;
  {
    GPCNetworkHttp client;
    ASSERT_EQ(client.GetURL(nginx_->HttpsUrl("abandoned.bin").c_str(), &sink, 5000, false, false), 0u);
    RunMainLoopUntil([&] { return sink.dataEvents > 0; });
  }
  int events = sink.dataEvents;
  RunMainLoopFor(100);
  EXPECT_EQ(sink.dataEvents, events);
  EXPECT_EQ(sink.returns, 0);
}

class ChallengeTest : public NetworkHttpTest, public ::testing::WithParamInterface<int> {};

TEST_P(ChallengeTest, ReachesOnAskProxyWithoutReturn) {
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/status/" + std::to_string(GetParam())), sink, true), 0u);
  RunMainLoopFor(50);
  EXPECT_EQ(sink.asks, 1);
  EXPECT_EQ(sink.returns, 0);
}

INSTANTIATE_TEST_SUITE_P(Codes, ChallengeTest, ::testing::Values(401, 403, 407));

TEST_F(NetworkHttpTest, OtherErrorStatusesDeliverTheirBody) {
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/status/404"), sink, false), 0u);
  EXPECT_EQ(sink.asks, 0);
  EXPECT_EQ(sink.asBody, "challenge");
}

TEST_F(NetworkHttpTest, AnsweredChallengeIsIssuedAgainInMemoryMode) {
  GPCNetworkHttp client;
  RecordingSink sink;
  sink.answerAsk = true;
  sink.proxyUser = "someone";
  sink.proxyPassword = "secret";
  std::string path = "/once/401/" + std::to_string(getpid());
  ASSERT_EQ(Fetch(client, scripted_->Url(path), sink, true), 0u);
  RunMainLoopUntil([&] { return sink.returns > 0; });
  EXPECT_EQ(sink.asks, 1);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.asBody, "granted");  // the body itself, not a file path
  EXPECT_EQ(scripted_->RequestCount(path), 2);
}

class ProxyTest : public NetworkHttpTest {};

TEST_F(ProxyTest, EnvironmentProxyCarriesTheRequest) {
  TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start()) << proxy.error();
  ScopedEnv viaProxy("http_proxy", proxy.Url().c_str());
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/headers"), sink, false), 0u);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_NE(sink.asBody.find("tinyproxy"), std::string::npos) << sink.asBody;
}

TEST_F(ProxyTest, NoProxyListBypassesTheProxy) {
  TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start()) << proxy.error();
  ScopedEnv viaProxy("http_proxy", proxy.Url().c_str());
  ScopedEnv bypass("no_proxy", "127.0.0.1");
  GPCNetworkHttp client;
  RecordingSink sink;
  ASSERT_EQ(Fetch(client, scripted_->Url("/headers"), sink, false), 0u);
  EXPECT_EQ(sink.asBody.find("tinyproxy"), std::string::npos) << sink.asBody;
}

TEST_F(ProxyTest, ProxyDemandingCredentialsGetsThemAfterAsking) {
  TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start("gpcuser", "gpcpass")) << proxy.error();
  ScopedEnv viaProxy("http_proxy", proxy.Url().c_str());
  GPCNetworkHttp client;
  RecordingSink sink;
  sink.answerAsk = true;
  sink.proxyUser = "gpcuser";
  sink.proxyPassword = "gpcpass";
  ASSERT_EQ(Fetch(client, scripted_->Url("/headers"), sink, true), 0u);
  RunMainLoopUntil([&] { return sink.returns > 0; });
  EXPECT_EQ(sink.asks, 1);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_NE(sink.asBody.find("tinyproxy"), std::string::npos) << sink.asBody;
}

TEST_F(ProxyTest, WrongCredentialsAreAskedForAgain) {
  TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start("gpcuser", "gpcpass")) << proxy.error();
  ScopedEnv viaProxy("http_proxy", proxy.Url().c_str());
  GPCNetworkHttp client;
  RecordingSink sink;
  sink.proxyUser = "gpcuser";
  sink.proxyPassword = "wrong";
  sink.answerAsk = true;
  ASSERT_EQ(client.GetURL(scripted_->Url("/headers").c_str(), &sink, 0, false, false), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return sink.asks >= 2; }));
  sink.answerAsk = false;  // give up
  RunMainLoopFor(100);
  EXPECT_EQ(sink.returns, 0);
}

TEST_F(ProxyTest, HttpsThroughProxyWithCredentials) {
  std::string content = PatternBytes(300000, 5);
  ASSERT_TRUE(nginx_->AddFile("tunnel.bin", content));
  TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start("gpcuser", "gpcpass")) << proxy.error();
  ScopedEnv viaProxy("https_proxy", proxy.Url().c_str());
  GPCNetworkHttp client;
  RecordingSink sink;
  sink.answerAsk = true;
  sink.proxyUser = "gpcuser";
  sink.proxyPassword = "gpcpass";
  ASSERT_EQ(Fetch(client, nginx_->HttpsUrl("tunnel.bin"), sink, false), 0u);
  RunMainLoopUntil([&] { return sink.returns > 0; });
  EXPECT_EQ(sink.asks, 1);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.asBody == content);
}

}  // namespace

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <tuple>

#include "common/gpcnetworkhttp.h"
#include "common/gpctimerproxy.h"
#include "common/hardening.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "scoped_env.h"

namespace {

using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

const unsigned kFailed = 0xFFFFFFFF;

// Records every callback; the hooks let a case act from inside one. Challenges are answered
// with `user` and `password` when `user` is set.
struct Sink : INetworkHttpSink {
  void OnHttpReturn(void* handle, int size, void* data) override {
    ++returns;
    handleWasNull = handle == nullptr;
    returnedSize = size;
    returnedNull = data == nullptr;
    const char* bytes = static_cast<const char*>(data);
    if (bytes != nullptr) text = pathExpected ? std::string(bytes) : std::string(bytes, size > 0 ? size : 0);
    terminated = bytes != nullptr && !pathExpected && bytes[size > 0 ? size : 0] == '\0';
    if (onReturn) onReturn();
  }
  void OnDataReceived(unsigned int size) override {
    ++dataEvents;
    dataTotal += size;
    if (onData) onData();
  }
  bool OnAskProxy(std::string& name, std::string& secret) override {
    ++asks;
    name = user;
    secret = password;
    return !user.empty();
  }

  bool pathExpected = false;  // file mode hands out a path, memory mode the body
  int returns = 0, returnedSize = -1, dataEvents = 0, asks = 0;
  bool handleWasNull = false, returnedNull = false, terminated = false;
  unsigned long long dataTotal = 0;
  std::string text, user, password;
  std::function<void()> onReturn, onData;
};

class NetworkHttpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* name : {"http_proxy", "https_proxy", "no_proxy", "all_proxy", "HTTP_PROXY",
                             "HTTPS_PROXY", "NO_PROXY", "ALL_PROXY"})
      unsetenv(name);
    server_ = new gpctest::LoopbackServer;
    ASSERT_TRUE(server_->Start()) << server_->error();
  }
  static void TearDownTestSuite() { delete server_; }
  void TearDown() override {
    for (const std::string& path : made_) unlink(path.c_str());
  }

  // Fetches `url` and waits for the end or a challenge; returns GetURL's result.
  unsigned Fetch(GPCNetworkHttp& client, const std::string& url, Sink& sink, bool file, unsigned ms = 0) {
    sink.pathExpected = file && sink.user.empty();  // an answered challenge goes on in memory
    unsigned rc = client.GetURL(url.c_str(), &sink, ms, false, file);
    const auto ended = [&] { return sink.returns > 0 || (sink.asks > 0 && sink.user.empty()); };
    if (rc == 0) RunMainLoopUntil(ended);
    if (sink.pathExpected && !sink.text.empty()) made_.push_back(sink.text);
    return rc;
  }

  static inline gpctest::LoopbackServer* server_ = nullptr;
  std::vector<std::string> made_;
};

// Body size, https, file mode.
using Body = std::tuple<size_t, bool, bool>;
class BodyTest : public NetworkHttpTest, public testing::WithParamInterface<Body> {};

TEST_P(BodyTest, ArrivesIntact) {
  const auto [size, https, toFile] = GetParam();
  const std::string name = "body_" + std::to_string(size) + ".bin";
  const std::string content = PatternBytes(size, static_cast<unsigned>(size));
  ASSERT_TRUE(server_->AddFile(name, content));
  GPCNetworkHttp client;
  Sink sink;
  ASSERT_EQ(Fetch(client, https ? server_->HttpsUrl(name) : server_->HttpUrl(name), sink, toFile), 0u);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.handleWasNull);
  EXPECT_EQ(sink.returnedSize, static_cast<int>(size));
  EXPECT_EQ(sink.dataTotal, size);  // each read event reports its own size, not a running total
  EXPECT_TRUE(size < 1000000 || sink.dataEvents > 1);
  EXPECT_EQ(client.GetReceivedSize(), size);
  EXPECT_EQ(sink.returnedNull, size == 0);  // nothing stored: neither a buffer nor a file
  EXPECT_TRUE(!toFile || size == 0 || sink.text.rfind("/tmp/gpc_tmp_", 0) == 0) << sink.text;
  EXPECT_TRUE((toFile ? ReadFile(sink.text) : sink.text) == content);
  EXPECT_TRUE(toFile || size == 0 || sink.terminated);
}

INSTANTIATE_TEST_SUITE_P(Sizes, BodyTest,
                         ::testing::Combine(::testing::Values(0, 1, 16383, 16384, 6 * 1024 * 1024 + 7),
                                            ::testing::Bool(), ::testing::Bool()));

// Generated names skip what is there: a file is not overwritten, a dangling link not followed.
TEST_F(NetworkHttpTest, GeneratedNamesSkipFilesAndLinks) {
  ASSERT_TRUE(server_->AddFile("numbered.bin", "numbered"));
  gpctest::TempFolder folder("victim");
  const std::string victim = folder.path() + "/victim";
  const int next = GPCNetworkHttp::GetTempFileCounter() + 1;
  const std::string occupied = "/tmp/gpc_tmp_" + std::to_string(next);
  const std::string trap = "/tmp/gpc_tmp_" + std::to_string(next + 1);
  struct stat info;
  if (lstat(occupied.c_str(), &info) == 0 || lstat(trap.c_str(), &info) == 0) GTEST_SKIP() << "names in use";
  ASSERT_TRUE(gpctest::WriteFile(occupied, "occupied"));
  ASSERT_EQ(symlink(victim.c_str(), trap.c_str()), 0);
  GPCNetworkHttp client;
  Sink sink;
  const unsigned rc = Fetch(client, server_->HttpUrl("numbered.bin"), sink, true);
  const std::string kept = ReadFile(occupied);
  unlink(occupied.c_str());
  unlink(trap.c_str());
  ASSERT_EQ(rc, 0u);
  EXPECT_EQ(kept, "occupied");
  EXPECT_NE(lstat(victim.c_str(), &info), 0) << "the link was followed";
  EXPECT_GE(GPCNetworkHttp::GetTempFileCounter(), next + 2);
  EXPECT_EQ(sink.text, "/tmp/gpc_tmp_" + std::to_string(GPCNetworkHttp::GetTempFileCounter()));
  EXPECT_EQ(ReadFile(sink.text), "numbered");
}

// A chosen name lies under /tmp (beside the /tmp/talvo folder); a link planted there is refused.
TEST_F(NetworkHttpTest, NamedFileGoesUnderTmpAndRefusesALink) {
  const std::string content = PatternBytes(50000, 3);
  ASSERT_TRUE(server_->AddFile("named.bin", content));
  gpctest::TempFolder folder("victim");
  const std::string victim = folder.path() + "/victim", name = "gpc_named_" + std::to_string(getpid());
  ASSERT_TRUE(gpctest::WriteFile(victim, "untouched"));
  for (const bool planted : {false, true}) {
    SCOPED_TRACE(planted ? "link planted" : "free name");
    unlink(("/tmp/" + name).c_str());
    ASSERT_TRUE(!planted || symlink(victim.c_str(), ("/tmp/" + name).c_str()) == 0);
    GPCNetworkHttp client;
    client.SetFileName(name.c_str());
    client.SetFileName(nullptr);  // ignored
    Sink sink;
    ASSERT_EQ(Fetch(client, server_->HttpUrl("named.bin"), sink, true), 0u);
    ASSERT_EQ(sink.returns, 1);
    EXPECT_EQ(sink.returnedNull, planted);
    EXPECT_EQ(ReadFile(victim), "untouched");
    EXPECT_EQ(sink.text, planted ? "" : "/tmp/" + name);  // every piece refused: ends like an empty body
    EXPECT_TRUE(ReadFile("/tmp/" + name) == (planted ? "untouched" : content));
  }
  unlink(("/tmp/" + name).c_str());
  struct stat info;
  ASSERT_EQ(stat("/tmp/talvo", &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST_F(NetworkHttpTest, BlockingRequestsReturnAfterTheEndWhileTimersRun) {
  const std::string content = PatternBytes(300000, 9);
  ASSERT_TRUE(server_->AddFile("block.bin", content));
  GPCNetworkHttp client;
  Sink sink;
  int ticks = 0;
  GPCTimerProxy ticker(0.001, [](GPCTimerProxy*, void* count) { ++*static_cast<int*>(count); }, &ticks);
  ASSERT_EQ(client.GetURL(server_->HttpsUrl("block.bin").c_str(), &sink, 0, true, false), 0u);
  EXPECT_EQ(sink.returns, 1);
  EXPECT_TRUE(sink.text == content);
  EXPECT_GT(ticks, 0) << "timers must fire while the request blocks";

  // SetBlock returns at once when idle, and waits for a running request.
  GPCNetworkHttp later;
  later.SetBlock();
  Sink other;
  ASSERT_EQ(later.GetURL(server_->HttpUrl("block.bin").c_str(), &other, 0, false, false), 0u);
  EXPECT_EQ(other.returns, 0);
  later.SetBlock();
  EXPECT_EQ(other.returns, 1);
  EXPECT_TRUE(other.text == content);
}

TEST_F(NetworkHttpTest, CancelEndsABlockingRequestWithoutCallback) {
  GPCNetworkHttp client;
  Sink sink;
  struct Cancel {
    GPCNetworkHttp* client;
    int fired;
  } cancel{&client, 0};
  GPCTimerProxy timer(0.05, [](GPCTimerProxy* self, void* context) {
    auto* c = static_cast<Cancel*>(context);
    if (c->fired++ == 0) c->client->CancelCurrentOperate();
    self->cleanUp();
  }, &cancel);
  ASSERT_EQ(client.GetURL(server_->Url("/never").c_str(), &sink, 0, true, false), 0u);
  EXPECT_EQ(cancel.fired, 1);
  RunMainLoopFor(50);
  EXPECT_EQ(sink.returns, 0);
  EXPECT_EQ(client.GetReceivedSize(), 0u);
}

// Redirects are followed, blanks escaped, and error statuses other than challenges deliver their body.
TEST_F(NetworkHttpTest, BodiesReachedThroughRedirectsEscapesAndErrorStatuses) {
  const std::string content = PatternBytes(70000, 11);
  ASSERT_TRUE(server_->AddFile("target.bin", content));
  ASSERT_TRUE(server_->AddFile("with blank.txt", "blank ok"));
  const struct {
    std::string url, body;
  } kCases[] = {{server_->Url("/redirect?n=3&to=" + server_->HttpUrl("target.bin")), content},
                {server_->HttpUrl("with blank.txt"), "blank ok"},
                {server_->Url("/status/404"), "challenge"}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.url);
    GPCNetworkHttp client;
    Sink sink;
    ASSERT_EQ(Fetch(client, c.url, sink, false), 0u);
    EXPECT_EQ(sink.asks, 0);
    EXPECT_EQ(sink.returns, 1);
    EXPECT_TRUE(sink.text == c.body);
  }
}

TEST_F(NetworkHttpTest, RequestsThatCannotStartFailWithoutCallback) {
  const struct {
    const char* url;
    bool block;
  } kCases[] = {{nullptr, false}, {"http:", false}, {"http://a.b/", true}, {"not a url at all", true}};
  GPCNetworkHttp client;
  Sink sink;
  for (const auto& c : kCases)
    EXPECT_EQ(client.GetURL(c.url, &sink, 0, c.block, false), kFailed) << (c.url ? c.url : "null");
  RunMainLoopFor(50);
  EXPECT_EQ(sink.returns + sink.asks, 0);
}

TEST_F(NetworkHttpTest, OnlyTheHardenedBuildRefusesAnUnverifiedServer) {
  ASSERT_TRUE(server_->AddFile("selfsigned.bin", "signed by nobody"));
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    GPCNetworkHttp client;
    Sink sink;
    ASSERT_EQ(Fetch(client, server_->HttpsUrl("selfsigned.bin"), sink, false), 0u);
    EXPECT_EQ(sink.returnedNull, hardened) << (hardened ? "hardened" : "default");
  }
  gpc::SetHardenedForTesting(-1);
}

// A refused connection, a reset mid-body and a time-out each end once, with nothing.
TEST_F(NetworkHttpTest, FailedTransfersEndOnceWithNothing) {
  const struct {
    std::string url;
    bool toFile;
    unsigned timeoutMs;
  } kCases[] = {{"http://127.0.0.1:" + std::to_string(gpctest::FindFreePort()) + "/x", false, 0},
                {server_->Url("/reset"), true, 0},
                {server_->Url("/never"), false, 50}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.url);
    GPCNetworkHttp client;
    Sink sink;
    ASSERT_EQ(Fetch(client, c.url, sink, c.toFile, c.timeoutMs), 0u);
    RunMainLoopFor(200);
    EXPECT_EQ(sink.returns, 1);
    EXPECT_EQ(sink.returnedSize, 0);
    EXPECT_TRUE(sink.returnedNull);
    if (client.GetFilePath()) unlink(client.GetFilePath());
  }
}

TEST_F(NetworkHttpTest, DeletingOrDestroyingTheClientMidTransferStopsEverything) {
  ASSERT_TRUE(server_->AddFile("midway.bin", PatternBytes(8 * 1024 * 1024)));
  auto* client = new GPCNetworkHttp;
  Sink sink;
  sink.onData = [&] {
    delete client;
    client = nullptr;
  };
  ASSERT_EQ(client->GetURL(server_->HttpUrl("midway.bin").c_str(), &sink, 0, false, false), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return client == nullptr; }));
  // From the end callback, while a blocking GetURL waits for it.
  auto* blocking = new GPCNetworkHttp;
  Sink other;
  other.onReturn = [&] { delete blocking; };
  EXPECT_EQ(blocking->GetURL(server_->HttpUrl("midway.bin").c_str(), &other, 0, true, false), 0u);
  EXPECT_EQ(other.returns, 1);
  // Destroyed between callbacks.
  Sink abandoned;
  {
    GPCNetworkHttp scoped;
    ASSERT_EQ(scoped.GetURL(server_->HttpsUrl("midway.bin").c_str(), &abandoned, 5000, false, false), 0u);
    RunMainLoopUntil([&] { return abandoned.dataEvents > 0; });
  }
  const int events = abandoned.dataEvents;
  RunMainLoopFor(100);
  EXPECT_EQ(sink.dataEvents, 1);
  EXPECT_EQ(sink.returns + abandoned.returns, 0);
  EXPECT_EQ(abandoned.dataEvents, events);
}

TEST_F(NetworkHttpTest, ChallengesReachOnAskProxyWithoutReturn) {
  for (const int code : {401, 403, 407}) {
    GPCNetworkHttp client;
    Sink sink;
    ASSERT_EQ(Fetch(client, server_->Url("/status/" + std::to_string(code)), sink, true), 0u);
    RunMainLoopFor(50);
    EXPECT_EQ(sink.asks, 1) << code;
    EXPECT_EQ(sink.returns, 0) << code;
  }
}

TEST_F(NetworkHttpTest, AnsweredChallengeIsIssuedAgainInMemoryMode) {
  GPCNetworkHttp client;
  Sink sink;
  sink.user = "someone";
  sink.password = "secret";
  const std::string path = "/once/401/" + std::to_string(getpid());
  ASSERT_EQ(Fetch(client, server_->Url(path), sink, true), 0u);
  EXPECT_EQ(sink.asks, 1);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.text, "granted");  // the body itself, not a file path
  EXPECT_EQ(server_->RequestCount(path), 2);
}

// The environment's proxy (tinyproxy, which names itself in a Via header) and its credentials.
TEST_F(NetworkHttpTest, EnvironmentProxyCarriesTheRequest) {
  const std::string content = PatternBytes(300000, 5);
  ASSERT_TRUE(server_->AddFile("tunnel.bin", content));
  const struct {
    const char* name;
    bool demandsCredentials, bypass, https;
  } kCases[] = {{"open proxy", false, false, false},
                {"bypassed by no_proxy", false, true, false},
                {"credentials given after asking", true, false, false},
                {"https tunnel with credentials", true, false, true}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    gpctest::TinyProxyServer proxy;
    ASSERT_TRUE(c.demandsCredentials ? proxy.Start("gpcuser", "gpcpass") : proxy.Start()) << proxy.error();
    ScopedEnv viaProxy(c.https ? "https_proxy" : "http_proxy", proxy.Url());
    ScopedEnv bypass("no_proxy", c.bypass ? "127.0.0.1" : nullptr);
    GPCNetworkHttp client;
    Sink sink;
    if (c.demandsCredentials) sink.user = "gpcuser";
    sink.password = "gpcpass";
    const std::string url = c.https ? server_->HttpsUrl("tunnel.bin") : server_->Url("/headers");
    ASSERT_EQ(Fetch(client, url, sink, c.demandsCredentials), 0u);
    EXPECT_EQ(sink.asks, c.demandsCredentials ? 1 : 0);
    ASSERT_EQ(sink.returns, 1);
    if (c.https) EXPECT_TRUE(sink.text == content);
    else EXPECT_EQ(sink.text.find("tinyproxy") != std::string::npos, !c.bypass) << sink.text;
  }
}

TEST_F(NetworkHttpTest, WrongProxyCredentialsAreAskedForAgain) {
  gpctest::TinyProxyServer proxy;
  ASSERT_TRUE(proxy.Start("gpcuser", "gpcpass")) << proxy.error();
  ScopedEnv viaProxy("http_proxy", proxy.Url());
  GPCNetworkHttp client;
  Sink sink;
  sink.user = "gpcuser";
  sink.password = "wrong";
  ASSERT_EQ(client.GetURL(server_->Url("/headers").c_str(), &sink, 0, false, false), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return sink.asks >= 2; }));
  sink.user.clear();  // give up
  RunMainLoopFor(100);
  EXPECT_EQ(sink.returns, 0);
}

}  // namespace

// The HTTP client against the loopback server: bodies in memory and in files, the names of its
// files, blocking requests, failures, challenges and the environment's proxy.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>

#include "common/gpcnetworkhttp.h"
#include "common/gpctimerproxy.h"
#include "common/hardening.h"
#include "http_test_server.h"
#include "main_loop.h"
#include "scoped_env.h"

// A slow resolver: "slow.example" is answered (as unknown) after 20 s, or once released.
static std::atomic<bool> g_lookupReleased{false};
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node, const char* service,
                                                                   const addrinfo* hints, addrinfo** found) {
  using Lookup = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto real = reinterpret_cast<Lookup>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node == nullptr || strcmp(node, "slow.example") != 0) return real(node, service, hints, found);
  for (int i = 0; i < 2000 && !g_lookupReleased; ++i) usleep(10000);
  return EAI_NONAME;
}

namespace {

using gpctest::PatternBytes;
using gpctest::ReadFile;
using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

// Whether another program made the shared download folder before these tests could.
const bool kTalvoFolderWasThere = access("/tmp/talvo", F_OK) == 0;

// Records the callbacks (a file handed over is read and removed); a challenge is answered once with
// "gpcuser" and `password` when it is set.
struct Sink : INetworkHttpSink {
  void OnHttpReturn(void*, int size, void* data) override {
    ++returns;
    returnedSize = size;
    returnedNull = data == nullptr;
    const char* bytes = static_cast<const char*>(data);
    if (bytes != nullptr && path) file = bytes;
    text = path ? ReadFile(file) : bytes ? std::string(bytes, size > 0 ? size : 0) : "";
    terminated = bytes != nullptr && !path && bytes[size > 0 ? size : 0] == '\0';
    if (!file.empty()) unlink(file.c_str());
    if (onReturn) onReturn();
  }
  void OnDataReceived(unsigned int size) override {
    ++dataEvents;
    dataTotal += size;
    if (onData) onData();
  }
  bool OnAskProxy(std::string& name, std::string& secret) override {
    name = "gpcuser";
    secret = password;
    return ++asks == 1 && !password.empty();
  }

  bool path = false;  // file mode hands out a path, memory mode the body
  int returns = 0, returnedSize = -1, dataEvents = 0, asks = 0;
  bool returnedNull = false, terminated = false;
  unsigned long long dataTotal = 0;
  std::string text, file, password;  // the body, the file that held it
  std::function<void()> onReturn, onData;
};

class NetworkHttpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* name : {"http_proxy", "https_proxy", "no_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                             "NO_PROXY", "ALL_PROXY"})
      unsetenv(name);
    ASSERT_TRUE(server_.Start()) << server_.error();
    ASSERT_TRUE(proxy_.Start({"--proxy-auth", "gpcuser:gpcpass"})) << proxy_.error();
  }
  // Fetches `url` and waits for the end or an unanswered challenge; returns GetURL's result.
  unsigned Fetch(GPCNetworkHttp& client, const std::string& url, Sink& sink, bool file, unsigned ms = 0) {
    sink.path = file && sink.password.empty();  // an answered challenge goes on in memory
    unsigned rc = client.GetURL(url.c_str(), &sink, ms, false, file);
    if (rc == 0) RunMainLoopUntil([&] { return sink.returns > 0 || sink.asks > (sink.password.empty() ? 0 : 1); });
    return rc;
  }

  static inline gpctest::LoopbackServer server_, proxy_;
};

// Body size, https, file mode.
class BodyTest : public NetworkHttpTest, public testing::WithParamInterface<std::tuple<size_t, bool, bool>> {};

TEST_P(BodyTest, ArrivesIntact) {
  const auto [size, https, toFile] = GetParam();
  const std::string name = "body_" + std::to_string(size) + ".bin";
  const std::string content = PatternBytes(size, static_cast<unsigned>(size));
  ASSERT_TRUE(server_.AddFile(name, content));
  GPCNetworkHttp client;
  Sink sink;
  ASSERT_EQ(Fetch(client, https ? server_.HttpsUrl(name) : server_.HttpUrl(name), sink, toFile), 0u);
  ASSERT_EQ(sink.returns, 1);
  EXPECT_EQ(sink.returnedSize, static_cast<int>(size));
  EXPECT_EQ(sink.dataTotal, size);  // each read event reports its own size, not a running total
  EXPECT_TRUE(size < 1000000 || sink.dataEvents > 1);
  EXPECT_EQ(sink.returnedNull, size == 0);  // nothing stored: neither a buffer nor a file
  EXPECT_TRUE(sink.text == content);
  EXPECT_TRUE(toFile || size == 0 || sink.terminated);
}

INSTANTIATE_TEST_SUITE_P(Sizes, BodyTest,
                         ::testing::Combine(::testing::Values(0, 1, 16383, 16384, 6 * 1024 * 1024 + 7),
                                            ::testing::Bool(), ::testing::Bool()));

// One request each: what the sink is told, and when.
TEST_F(NetworkHttpTest, RequestsEndAsTheServerAndTheProxyAnswer) {
  const std::string content = PatternBytes(70000, 11), bytes("\0\1\2", 3);
  ASSERT_TRUE(server_.AddFile("target.bin", content) && server_.AddFile("with blank.txt", "blank ok") &&
              server_.AddFile("del\x7f.txt", "del ok"));
  const struct {
    std::string url;
    bool file;
    unsigned timeoutMs;
    int hardened;           // -1: as built
    const char* proxyVar;   // names the proxy (which demands credentials) in the environment
    const char* noProxy;
    const char* password;   // the answer to a challenge
    int asks, returns;
    std::string body;       // empty: the end brings nothing
  } kCases[] = {
      {server_.Url("/redirect?n=3&to=" + server_.HttpUrl("target.bin")), false, 0, -1, nullptr, nullptr, "", 0, 1,
       content},
      {server_.HttpUrl("with blank.txt"), false, 0, -1, nullptr, nullptr, "", 0, 1, "blank ok"},
      {server_.HttpUrl("del\x7f.txt"), false, 0, -1, nullptr, nullptr, "", 0, 1, "del ok"},
      {server_.Url("/status/404"), false, 0, -1, nullptr, nullptr, "", 0, 1, "challenge"},
      {"http://127.0.0.1:1/refused", false, 0, -1, nullptr, nullptr, "", 0, 1, ""},
      {server_.Url("/reset"), true, 0, -1, nullptr, nullptr, "", 0, 1, ""},
      {server_.Url("/never"), false, 100, -1, nullptr, nullptr, "", 0, 1, ""},
      {server_.HttpsUrl("target.bin"), false, 0, 1, nullptr, nullptr, "", 0, 1, ""},  // a server nobody vouches for
      {"HTTPS" + server_.HttpsUrl("target.bin").substr(5), false, 0, -1, nullptr, nullptr, "", 0, 1, content},
      {server_.Url("/status/401"), true, 0, -1, nullptr, nullptr, "", 1, 0, ""},
      {server_.Url("/status/403"), true, 0, -1, nullptr, nullptr, "", 1, 0, ""},
      {server_.Url("/status/407"), true, 0, -1, nullptr, nullptr, "", 1, 0, ""},
      // Issued again with the credentials, in memory although a file was asked for.
      {server_.Url("/client/fails-once/401/3/"), true, 0, -1, nullptr, nullptr, "gpcpass", 1, 1, bytes},
      {server_.Url("/bytes?n=3"), false, 0, -1, "http_proxy", nullptr, "gpcpass", 1, 1, bytes},
      {server_.Url("/bytes?n=3"), false, 0, -1, "http_proxy", "127.0.0.1", "", 0, 1, bytes},
      {server_.HttpsUrl("target.bin"), true, 0, -1, "https_proxy", nullptr, "gpcpass", 1, 1, content},
      {server_.Url("/bytes?n=3"), false, 0, -1, "http_proxy", nullptr, "wrong", 2, 0, ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.url + (c.proxyVar ? std::string(" through ") + c.proxyVar : "") + " " + c.password);
    ScopedEnv viaProxy(c.proxyVar ? c.proxyVar : "all_proxy", c.proxyVar ? proxy_.Url("").c_str() : nullptr);
    ScopedEnv bypass("no_proxy", c.noProxy);
    gpc::SetHardenedForTesting(c.hardened);
    GPCNetworkHttp client;
    Sink sink;
    sink.password = c.password;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(Fetch(client, c.url, sink, c.file, c.timeoutMs), 0u);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(c.timeoutMs == 0 || took < std::chrono::milliseconds(9 * c.timeoutMs)) << "ended by its time-out";
    RunMainLoopFor(50);
    gpc::SetHardenedForTesting(-1);
    const char* part = client.GetFilePath();  // what a broken download left
    if (part != nullptr && client.IsOwnFile(part)) unlink(part);
    EXPECT_EQ(sink.asks, c.asks);
    EXPECT_EQ(sink.returns, c.returns);
    EXPECT_TRUE(sink.text == c.body) << sink.text.size();
    EXPECT_EQ(sink.returnedNull, c.returns == 1 && c.body.empty());
  }
}

TEST_F(NetworkHttpTest, RequestsThatCannotStartFailWithoutCallback) {
  GPCNetworkHttp client;
  Sink sink;
  for (const char* url : {static_cast<const char*>(nullptr), "http:", "http://a.b/", "not a url at all"})
    EXPECT_EQ(client.GetURL(url, &sink, 0, true, false), 0xFFFFFFFFu) << (url ? url : "null");
  EXPECT_EQ(GPCNetworkHttp().GetURL("http://[::1]", &sink, 0, false, false), 0u);  // twelve characters start
  RunMainLoopFor(50);
  EXPECT_EQ(sink.returns + sink.asks, 0);
}

// Generated names skip what is there (a file is not overwritten, a dangling link not followed); a
// chosen name lies under /tmp, beside the /tmp/talvo folder open to all, and replaces an older file;
// a link planted there, or another file put there after the first piece, is refused.
TEST_F(NetworkHttpTest, DownloadFilesNeverOverwriteNorFollowWhatIsThere) {
  ASSERT_TRUE(server_.AddFile("file.bin", "content") && server_.AddFile("large.bin", PatternBytes(4 << 20)));
  gpctest::TempFolder folder("victim");
  const std::string victim = folder.path() + "/victim", name = "gpc_named_" + std::to_string(getpid());
  const int next = GPCNetworkHttp::GetTempFileCounter() + 1;
  const std::string occupied = "/tmp/gpc_tmp_" + std::to_string(next), named = "/tmp/" + name;
  const std::string trap = "/tmp/gpc_tmp_" + std::to_string(next + 1);
  struct stat info;
  if (lstat(occupied.c_str(), &info) == 0 || lstat(trap.c_str(), &info) == 0) GTEST_SKIP() << "names in use";
  ASSERT_TRUE(gpctest::WriteFile(occupied, "occupied") && symlink(victim.c_str(), trap.c_str()) == 0);
  for (const int round : {0, 1, 2, 3}) {  // a generated name, the chosen one, a link at it, a file put there
    unlink(named.c_str());
    ASSERT_TRUE(round != 1 || gpctest::WriteFile(named, "an older, longer file"));
    ASSERT_TRUE(round != 2 || symlink(victim.c_str(), named.c_str()) == 0);
    GPCNetworkHttp client;
    if (round > 0) client.SetFileName(name.c_str());
    client.SetFileName(nullptr);  // ignored
    Sink sink;
    const std::string other = named + ".new";
    sink.onData = [&] {  // replaces the file begun with the first piece
      if (round == 3 && sink.dataEvents == 1) {
        ASSERT_TRUE(gpctest::WriteFile(other, "planted") && rename(other.c_str(), named.c_str()) == 0);
      }
    };
    ASSERT_EQ(Fetch(client, server_.HttpUrl(round == 3 ? "large.bin" : "file.bin"), sink, true), 0u);
    const std::string generated = "/tmp/gpc_tmp_" + std::to_string(GPCNetworkHttp::GetTempFileCounter());
    const std::string expected = round == 0 ? generated : round == 1 ? named : "";
    EXPECT_EQ(sink.file, expected) << round;  // every piece refused: ends like an empty body
    EXPECT_EQ(sink.text, expected.empty() ? "" : "content");
    EXPECT_NE(lstat(victim.c_str(), &info), 0) << "a link was followed";
  }
  EXPECT_EQ(ReadFile(occupied), "occupied");
  EXPECT_EQ(ReadFile(named), "planted");
  unlink(occupied.c_str());
  unlink(trap.c_str());
  unlink(named.c_str());
  EXPECT_TRUE(stat("/tmp/talvo", &info) == 0 && S_ISDIR(info.st_mode));
  EXPECT_TRUE(kTalvoFolderWasThere || (info.st_mode & 07777) == 0777) << std::oct << info.st_mode;
}

// Blocking requests return after the end, or without a callback after a cancel, while timers run.
TEST_F(NetworkHttpTest, BlockingRequestsReturnAfterTheEndOrACancelWhileTimersRun) {
  const std::string content = PatternBytes(300000, 9);
  ASSERT_TRUE(server_.AddFile("block.bin", content));
  GPCNetworkHttp client, later, cancelled;
  Sink sink, other, none;
  int ticks = 0;
  GPCTimerProxy ticker(0.001, [](GPCTimerProxy*, void* count) { ++*static_cast<int*>(count); }, &ticks);
  ASSERT_EQ(client.GetURL(server_.HttpsUrl("block.bin").c_str(), &sink, 0, true, false), 0u);
  EXPECT_TRUE(sink.returns == 1 && sink.text == content);
  EXPECT_GT(ticks, 0) << "timers must fire while the request blocks";
  later.SetBlock();  // returns at once when idle, and waits for a running request
  ASSERT_EQ(later.GetURL(server_.HttpUrl("block.bin").c_str(), &other, 0, false, false), 0u);
  EXPECT_EQ(other.returns, 0);
  later.SetBlock();
  EXPECT_TRUE(other.returns == 1 && other.text == content);
  GPCTimerProxy canceller(0.05, [](GPCTimerProxy* self, void* c) {
    static_cast<GPCNetworkHttp*>(c)->CancelCurrentOperate();
    self->cleanUp();
  }, &cancelled);
  ASSERT_EQ(cancelled.GetURL(server_.Url("/never").c_str(), &none, 0, true, false), 0u);
  RunMainLoopFor(50);
  EXPECT_EQ(none.returns, 0);
}

// Deleted from its data callback, from its end callback while a blocking GetURL waits, or
// destroyed between callbacks: nothing more is called. Destroyed while its host name is looked up,
// it does not wait for the resolver.
TEST_F(NetworkHttpTest, DeletingOrDestroyingTheClientMidTransferStopsEverything) {
  auto slow = std::make_unique<GPCNetworkHttp>();
  Sink unanswered;
  ASSERT_EQ(slow->GetURL("http://slow.example/x", &unanswered, 0, false, false), 0u);
  RunMainLoopFor(50);
  const auto start = std::chrono::steady_clock::now();
  slow.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << "held until the resolver answered";
  g_lookupReleased = true;

  ASSERT_TRUE(server_.AddFile("midway.bin", PatternBytes(8 * 1024 * 1024)));
  auto* client = new GPCNetworkHttp;
  Sink sink, other, abandoned;
  sink.onData = [&] { delete client; client = nullptr; };
  ASSERT_EQ(client->GetURL(server_.HttpUrl("midway.bin").c_str(), &sink, 0, false, false), 0u);
  ASSERT_TRUE(RunMainLoopUntil([&] { return client == nullptr; }));
  auto* blocking = new GPCNetworkHttp;
  other.onReturn = [&] { delete blocking; };
  EXPECT_EQ(blocking->GetURL(server_.HttpUrl("midway.bin").c_str(), &other, 0, true, false), 0u);
  EXPECT_EQ(other.returns, 1);
  {
    GPCNetworkHttp scoped;
    ASSERT_EQ(scoped.GetURL(server_.HttpsUrl("midway.bin").c_str(), &abandoned, 5000, false, false), 0u);
    RunMainLoopUntil([&] { return abandoned.dataEvents > 0; });
  }
  const int events = abandoned.dataEvents;
  RunMainLoopFor(100);
  EXPECT_EQ(sink.dataEvents, 1);
  EXPECT_EQ(sink.returns + abandoned.returns, 0);
  EXPECT_EQ(abandoned.dataEvents, events);
}

}  // namespace

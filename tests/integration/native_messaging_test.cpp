// gpc-host --native-messaging as a browser extension drives it: the test speaks the browser's
// framing (a native-endian 32-bit length, then JSON) on the host's standard input and output.
// Embeds run the sample extension from a package signed by openssl-made certificates on nginx
// servers on 127.0.0.1, one of them slowed down so that a download can be caught under way.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"

extern char** environ;

namespace {

using gpchost::JsonEvent;
using Clock = std::chrono::steady_clock;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
const std::string kPackage = "client/zrgpcext64.bundle.7z";
const std::vector<std::string> kWholeJob = {"started", "checking", "downloading", "verified", "unpacked", "running"};

// Stages come from following the trace file, and under load a record can reach the host after the
// next one has moved the embed on: every stage sent must be one of the job's, in its order, from
// "started" to "running".
::testing::AssertionResult IsTheWholeJobInOrder(const std::vector<std::string>& stages) {
  size_t next = 0;
  for (const std::string& stage : stages) {
    while (next < kWholeJob.size() && kWholeJob[next] != stage) ++next;
    if (next == kWholeJob.size()) return ::testing::AssertionFailure() << "stage out of order: " << stage;
    ++next;
  }
  if (stages.size() < 2 || stages.front() != "started" || stages.back() != "running")
    return ::testing::AssertionFailure() << "not from started to running";
  return ::testing::AssertionSuccess();
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string Frame(const std::string& json, uint32_t length) {
  return std::string(reinterpret_cast<const char*>(&length), sizeof length) + json;
}
std::string Frame(const std::string& json) { return Frame(json, static_cast<uint32_t>(json.size())); }

// gpc-host --native-messaging on two pipes; stopped by the destructor when still running.
class NativeHost {
 public:
  explicit NativeHost(const std::string& errPath) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string program = std::string(GPC_BIN_DIR) + "/gpc-host";
    char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("--native-messaging"), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  ~NativeHost() {
    CloseInput();
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (output_ >= 0) close(output_);
  }
  bool running() const { return pid_ > 0; }
  // The processes the host has started (its trace follower), as /proc lists them.
  std::vector<pid_t> Children() const {
    std::vector<pid_t> children;
    std::istringstream list(gpctest::ReadFile("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) + "/children"));
    for (pid_t child; list >> child;) children.push_back(child);
    return children;
  }

  void SendRaw(const std::string& bytes) {
    size_t done = 0;
    while (input_ >= 0 && done < bytes.size()) {
      ssize_t wrote = write(input_, bytes.data() + done, bytes.size() - done);
      if (wrote <= 0) return;
      done += static_cast<size_t>(wrote);
    }
  }
  void Send(const std::string& json) { SendRaw(Frame(json)); }
  void CloseInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
  }

  // Reads messages until one satisfies `wanted` (kept in `seen` too); false at the end of the
  // output or after `seconds`.
  bool WaitFor(const std::function<bool(const JsonEvent&)>& wanted, JsonEvent* found, int seconds = 20) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    JsonEvent message;
    while (Next(deadline, &message)) {
      seen.push_back(message);
      if (wanted(message)) {
        if (found != nullptr) *found = message;
        return true;
      }
    }
    return false;
  }
  bool WaitFor(const std::string& type, const std::string& id, JsonEvent* found = nullptr, int seconds = 20) {
    return WaitFor([&](const JsonEvent& m) { return m.Str("type") == type && m.Str("id") == id; }, found, seconds);
  }

  // Waits for `id` to report `stage` (perhaps already seen).
  bool WaitForStage(const std::string& id, const std::string& stage, int seconds = 20) {
    auto wanted = [&](const JsonEvent& m) { return m.Str("type") == "status" && m.Str("id") == id && m.Str("stage") == stage; };
    for (const JsonEvent& m : seen)
      if (wanted(m)) return true;
    return WaitFor(wanted, nullptr, seconds);
  }

  // The exit code once the process has ended, within `seconds`; -1 when it has not.
  int Wait(int seconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (pid_ > 0 && Clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
  }

  // The stages of `id`'s status messages so far, in order.
  std::vector<std::string> Stages(const std::string& id) const {
    std::vector<std::string> stages;
    for (const JsonEvent& m : seen)
      if (m.Str("type") == "status" && m.Str("id") == id && (stages.empty() || stages.back() != m.Str("stage")))
        stages.push_back(m.Str("stage"));
    return stages;
  }

  std::vector<JsonEvent> seen;

 private:
  bool ReadExactly(char* into, size_t size, Clock::time_point deadline) {
    size_t done = 0;
    while (done < size) {
      const int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      pollfd ready = {output_, POLLIN, 0};
      if (left <= 0 || poll(&ready, 1, left) <= 0) return false;
      ssize_t got = read(output_, into + done, size - done);
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }
  bool Next(Clock::time_point deadline, JsonEvent* message) {
    uint32_t length = 0;
    if (!ReadExactly(reinterpret_cast<char*>(&length), sizeof length, deadline) || length > (1u << 20)) return false;
    message->line.assign(length, '\0');
    return ReadExactly(&message->line[0], length, deadline);
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
};

class NativeMessaging : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    signal(SIGPIPE, SIG_IGN);
    shared_ = new Shared();
    Shared& s = *shared_;
    mkdir((s.folder.path() + "/pki").c_str(), 0700);
    s.signer = std::make_unique<gpctest::PackageSigner>(s.folder.path() + "/pki");
    const std::string archive = s.folder.path() + "/package.7z";
    if (!s.signer->ok() || !gpctest::PackExtension(kSampleBundle, "2.0.0.7", s.folder.path(), archive)) return;
    const std::string package = gpctest::ReadFile(archive);
    // The slow server hands out the package in about four seconds.
    s.slow.SetLimitRate(std::to_string(package.size() / 4 + 1));
    for (gpctest::NginxTestServer* server : {&s.fast, &s.slow})
      if (!server->Start() || !server->AddFile(kPackage, package) || !server->AddFile("files/readme.txt", "hello"))
        return;
    s.package = s.signer->PackageParameters(s.fast.FilePath(kPackage));
    s.ok = true;
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(shared_->ok) << shared_->fast.error() << shared_->slow.error();
    data_ = std::make_unique<gpctest::TempFolder>("nmdata");
    setenv("XDG_DATA_HOME", data_->path().c_str(), 1);
    host_ = std::make_unique<NativeHost>(data_->path() + "/host.err");
    ASSERT_TRUE(host_->running());
  }

  // The "embed" message of a meeting page whose package lies on `server` (or under `root`).
  std::string Embed(const std::string& id, gpctest::NginxTestServer& server, const std::string& root = "") {
    gpctest::PageParams params = {
        {"gpcsitelock", "0"},
        {"GpcUrlRoot", root.empty() ? server.HttpsUrl("client/") : root},
        {"GpcCompressMethod", "7zip"},
        {"GpcUnpackVersion", "1,0"},
        {"GpcExtVersion", "2,0,0,7"},
        {"GpcProductVersion", "3,1,0,7"},
        {"MeetingID", "m42"},
        {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
        {"GpcSampleFiles", server.HttpsUrl("files/readme.txt")},
        {"GpcSampleUnpackDir", data_->path() + "/unpacked-" + id},
        {"GpcSampleDoneUrl", server.HttpsUrl("page/done")},
    };
    params.insert(params.end(), shared_->package.begin(), shared_->package.end());
    std::string list;
    for (const auto& [name, value] : params) list += (list.empty() ? "[" : ",[") + Quote(name) + "," + Quote(value) + "]";
    return "{\"type\":\"embed\",\"id\":" + Quote(id) + ",\"pageUrl\":\"https://127.0.0.1/meeting\",\"frame\":\"top\","
           "\"params\":[" + list + "]}";
  }

  // What the host has sent so far and its standard error, for failure messages.
  std::string Seen() const {
    std::string text;
    for (const JsonEvent& m : host_->seen) text += m.line + "\n";
    return text + gpctest::ReadFile(data_->path() + "/host.err");
  }

  // Waits for `id`'s navigation to the done page and answers it.
  void ExpectDone(const std::string& id) {
    JsonEvent navigate;
    ASSERT_TRUE(host_->WaitFor("navigate", id, &navigate)) << gpctest::ReadFile(data_->path() + "/host.err");
    EXPECT_NE(navigate.Str("url").find("/page/done?fetched=1&failed=0"), std::string::npos) << navigate.line;
    EXPECT_EQ(navigate.Str("target"), "_top");
    host_->Send("{\"type\":\"navigated\",\"id\":" + Quote(id) + ",\"request\":" +
                std::to_string(navigate.Int("request")) + ",\"ok\":true}");
  }

  // End of input ends every embed and the process, which exits 0 leaving nothing running.
  void ExpectCleanExit() {
    const std::vector<pid_t> children = host_->Children();
    host_->CloseInput();
    EXPECT_EQ(host_->Wait(10), 0);
    for (pid_t child : children) EXPECT_NE(kill(child, 0), 0) << "process " << child << " outlived the host";
  }

  struct Shared {
    gpctest::TempFolder folder{"nm"};
    gpctest::NginxTestServer fast, slow;
    std::unique_ptr<gpctest::PackageSigner> signer;
    gpctest::PageParams package;
    bool ok = false;
  };
  static Shared* shared_;
  std::unique_ptr<gpctest::TempFolder> data_;
  std::unique_ptr<NativeHost> host_;
};
NativeMessaging::Shared* NativeMessaging::shared_ = nullptr;

TEST_F(NativeMessaging, OneEmbedRunsTheWholeJobAndEndsWithTheInput) {
  host_->Send(Embed("e1", shared_->fast));
  ExpectDone("e1");
  ASSERT_TRUE(host_->WaitForStage("e1", "running"));
  EXPECT_TRUE(IsTheWholeJobInOrder(host_->Stages("e1")));
  ExpectCleanExit();
}

TEST_F(NativeMessaging, AnEmbedDestroyedMidDownloadLeavesTheOtherToFinish) {
  host_->Send(Embed("slow", shared_->slow));
  ASSERT_TRUE(host_->WaitForStage("slow", "downloading"));
  host_->Send(Embed("fast", shared_->fast));
  ASSERT_TRUE(host_->WaitForStage("fast", "checking"));
  host_->Send("{\"type\":\"destroy\",\"id\":\"slow\"}");
  ExpectDone("fast");
  ASSERT_TRUE(host_->WaitForStage("fast", "running"));
  EXPECT_TRUE(IsTheWholeJobInOrder(host_->Stages("fast")));
  const std::vector<std::string> cut = {"started", "checking", "downloading"};
  EXPECT_EQ(host_->Stages("slow"), cut);
  // The destroyed embed is gone: it is not known any more.
  host_->Send("{\"type\":\"destroy\",\"id\":\"slow\"}");
  JsonEvent error;
  ASSERT_TRUE(host_->WaitFor("error", "slow", &error));
  EXPECT_NE(error.Str("message").find("no embed"), std::string::npos);
  ExpectCleanExit();
}

// A direct download that meets a challenge moves the fetch to the browser, that is to this host, which then
// tells the page how many bytes of the package have arrived.
TEST_F(NativeMessaging, ThePackageFetchedByTheHostReportsItsBytes) {
  gpctest::ScriptedHttpServer packages;
  ASSERT_TRUE(packages.Start()) << packages.error();
  const int64_t size = 3000000;
  host_->Send(Embed("e1", shared_->fast, packages.Url("/client/fails-once/401/" + std::to_string(size) + "/")));
  JsonEvent last;
  ASSERT_TRUE(host_->WaitFor([&](const JsonEvent& m) { return m.Str("stage") == "downloading" && m.Int("done") == size; }, &last)) << Seen();
  EXPECT_EQ(last.Int("total"), size);
  std::vector<int64_t> done;
  for (const JsonEvent& m : host_->seen)
    if (m.Str("stage") == "downloading" && m.line.find("\"done\"") != std::string::npos) done.push_back(m.Int("done"));
  EXPECT_GE(done.size(), 5u);
  EXPECT_LE(done.size(), 51u);
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  // Pattern bytes are no package: the page is told why.
  ASSERT_TRUE(host_->WaitFor("navigate", "e1", &last));
  EXPECT_NE(last.Str("url").find("%5B111%5D"), std::string::npos) << last.line;
  ExpectCleanExit();
}

// An embed destroyed as it reaches each stage of the job: the host goes on serving, ends cleanly
// with its input, and the extension is installed whole or not at all.
TEST_F(NativeMessaging, AnEmbedDestroyedAtEveryStageLeavesNothingHalfDone) {
  int n = 0;
  for (const char* stage : {"checking", "downloading", "verified", "unpacked", "running"}) {
    SCOPED_TRACE(stage);
    const std::string id = "e" + std::to_string(++n);
    gpchost::RemoveTree(data_->path() + "/Talvo Folder");
    const bool early = std::string(stage) == "checking" || std::string(stage) == "downloading";
    host_->Send(Embed(id, early ? shared_->slow : shared_->fast));
    ASSERT_TRUE(host_->WaitForStage(id, stage)) << Seen();
    host_->Send("{\"type\":\"destroy\",\"id\":\"" + id + "\"}");
    // Still serving: an unknown message is answered.
    host_->Send("{\"type\":\"ping\",\"id\":\"" + id + "\"}");
    ASSERT_TRUE(host_->WaitFor("error", id)) << Seen();
    const std::string bundle = data_->path() + "/Talvo Folder/zrgpcext64.bundle";
    struct stat st;
    if (stat(bundle.c_str(), &st) == 0) {
      EXPECT_NE(gpctest::ReadFile(bundle + "/Contents/Info.plist").find("2.0.0.7"), std::string::npos);
    }
  }
  ExpectCleanExit();
}

TEST_F(NativeMessaging, EveryBadMessageIsAnsweredWithAnErrorAndTheEmbedGoesOn) {
  host_->Send(Embed("e1", shared_->slow));
  ASSERT_TRUE(host_->WaitForStage("e1", "started"));
  std::string manyParams;
  for (int i = 0; i < 10000; ++i) manyParams += std::string(i == 0 ? "" : ",") + "[\"P" + std::to_string(i) + "\",\"v\"]";
  struct Case {
    const char* name;
    std::string bytes;
    const char* error;  // in the first error's message
    const char* id;     // the first error's id
  } const cases[] = {
      {"invalid JSON", Frame("{\"type\":\"destroy\","), "invalid JSON", ""},
      {"not an object", Frame("[\"embed\"]"), "JSON object", ""},
      {"unknown type", Frame("{\"type\":\"explode\",\"id\":\"e1\"}"), "unknown message type", "e1"},
      {"no id", Frame("{\"type\":\"destroy\"}"), "\"id\"", ""},
      {"duplicate id", Frame(Embed("e1", shared_->fast)), "exists already", "e1"},
      {"10,000 parameters", Frame("{\"type\":\"embed\",\"id\":\"e2\",\"pageUrl\":\"https://127.0.0.1/\",\"params\":[" + manyParams + "]}"),
       "at most", "e2"},
      {"navigation never asked for", Frame("{\"type\":\"navigated\",\"id\":\"e1\",\"request\":99,\"ok\":true}"), "no navigation", "e1"},
      {"empty frame", Frame("", 0), "empty", ""},
      {"length too short", Frame("{\"type\":\"destroy\",\"id\":\"e1\"}", 5), "invalid JSON", ""},
      {"oversized", Frame("{\"blob\":\"" + std::string(4096, 'x') + "\"}", (64u << 20) + 1), "larger than the limit", ""},
  };
  int sync = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    host_->SendRaw(c.bytes);
    // A message of an unknown type marks where the errors of this case end.
    const std::string marker = "sync" + std::to_string(++sync);
    host_->Send("{\"type\":\"sync\",\"id\":\"" + marker + "\"}");
    std::vector<JsonEvent> errors;
    ASSERT_TRUE(host_->WaitFor([&](const JsonEvent& m) {
      if (m.Str("type") != "error") return false;
      if (m.Str("id") == marker) return true;
      errors.push_back(m);
      return false;
    }, nullptr));
    ASSERT_FALSE(errors.empty());
    EXPECT_NE(errors.front().Str("message").find(c.error), std::string::npos) << errors.front().line;
    EXPECT_EQ(errors.front().Str("id"), c.id);
  }
  ExpectDone("e1");
  // A frame cut short by the end of the input is reported before the process exits.
  host_->SendRaw(Frame("{\"type\":\"destroy\"", 100));
  host_->CloseInput();
  ASSERT_TRUE(host_->WaitFor([](const JsonEvent& m) { return m.Str("message").find("ended inside") != std::string::npos; }, nullptr));
  EXPECT_EQ(host_->Wait(10), 0);
}

}  // namespace

// gpc-host --native-messaging driven in the browser's framing (native-endian 32-bit length, then JSON);
// embeds run the signed sample from loopback servers, one slowed so a download can be caught under way.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"

extern char** environ;

namespace {

using gpchost::JsonEvent;
using Clock = std::chrono::steady_clock;
const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";

// Stages come from following the trace file, so under load one may arrive after the next has moved the
// embed on: the stages must be the job's in its order, from "started" to "running".
bool IsTheWholeJobInOrder(const std::vector<std::string>& stages) {
  const std::vector<std::string> job = {"started", "checking", "downloading", "verified", "unpacked", "running"};
  size_t next = 0;
  for (const std::string& stage : stages) {
    while (next < job.size() && job[next] != stage) ++next;
    if (next++ == job.size()) return false;
  }
  return stages.size() >= 2 && stages.front() == "started" && stages.back() == "running";
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) out += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
  return out + "\"";
}
std::string Frame(const std::string& json, uint32_t length) {
  return std::string(reinterpret_cast<const char*>(&length), sizeof length) + json;
}
std::string Frame(const std::string& json) { return Frame(json, static_cast<uint32_t>(json.size())); }

// gpc-host --native-messaging on one socket as its input and output; killed by the destructor.
class NativeHost {
 public:
  explicit NativeHost(const std::string& errPath) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string program = std::string(GPC_BIN_DIR) + "/gpc-host";
    char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("--native-messaging"), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    fd_ = ends[0];
  }
  ~NativeHost() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    close(fd_);
  }
  bool running() const { return pid_ > 0; }
  void SendRaw(const std::string& bytes) { (void)!write(fd_, bytes.data(), bytes.size()); }
  void Send(const std::string& json) { SendRaw(Frame(json)); }
  void CloseInput() { shutdown(fd_, SHUT_WR); }

  // Reads messages (kept in `seen`) until one satisfies `wanted`, which with `old` may also be one seen
  // before; false at the end of the output or after 20 seconds.
  bool WaitFor(const std::function<bool(const JsonEvent&)>& wanted, JsonEvent* found = nullptr, bool old = false) {
    if (old && std::any_of(seen.begin(), seen.end(), wanted)) return true;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (JsonEvent m; Read(&m, deadline);) {
      seen.push_back(m);
      if (!wanted(m)) continue;
      if (found != nullptr) *found = m;
      return true;
    }
    return false;
  }
  bool WaitFor(const std::string& type, const std::string& id, JsonEvent* found = nullptr) {
    return WaitFor([&](const JsonEvent& m) { return m.Str("type") == type && m.Str("id") == id; }, found);
  }
  bool WaitForStage(const std::string& id, const std::string& stage) {
    return WaitFor([&](const JsonEvent& m) { return m.Str("type") == "status" && m.Str("id") == id && m.Str("stage") == stage; },
                   nullptr, true);
  }
  // With its input closed, the exit code once the process has ended within ten seconds, and whether
  // the processes it started (its trace follower) have ended too; -1 when it has not ended.
  int CloseAndWait(bool* childrenGone = nullptr) {
    const std::string path = "/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) + "/children";
    std::istringstream list(gpctest::ReadFile(path));
    const std::vector<pid_t> children{std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
    CloseInput();
    for (int polls = 0; pid_ > 0 && polls < 500; ++polls, poll(nullptr, 0, 20)) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) != pid_) continue;
      pid_ = -1;
      if (childrenGone != nullptr)
        *childrenGone = std::none_of(children.begin(), children.end(), [](pid_t child) { return kill(child, 0) == 0; });
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return -1;
  }
  // The stages of `id`'s status messages so far, repeats dropped.
  std::vector<std::string> Stages(const std::string& id) const {
    std::vector<std::string> stages;
    for (const JsonEvent& m : seen)
      if (m.Str("type") == "status" && m.Str("id") == id && (stages.empty() || stages.back() != m.Str("stage")))
        stages.push_back(m.Str("stage"));
    return stages;
  }

  std::vector<JsonEvent> seen;

 private:
  bool Read(JsonEvent* message, Clock::time_point deadline) {
    uint32_t length = 0;
    if (!ReadExactly(reinterpret_cast<char*>(&length), sizeof length, deadline) || length > (1u << 20)) return false;
    message->line.assign(length, '\0');
    return ReadExactly(&message->line[0], length, deadline);
  }
  bool ReadExactly(char* into, size_t size, Clock::time_point deadline) {
    for (ssize_t got = 0; size > 0; into += got, size -= static_cast<size_t>(got)) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd ready = {fd_, POLLIN, 0};
      if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0 || (got = read(fd_, into, size)) <= 0) return false;
    }
    return true;
  }
  pid_t pid_ = -1;
  int fd_ = -1;
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
    s.slow.SetLimitRate(std::to_string(package.size() / 4 + 1));  // the package in about four seconds
    for (gpctest::LoopbackServer* server : {&s.fast, &s.slow})
      if (!server->Start() || !server->AddFile("client/zrgpcext64.bundle.7z", package) ||
          !server->AddFile("files/readme.txt", "hello"))
        return;
    s.package = s.signer->PackageParameters(archive);
    s.ok = true;
  }
  static void TearDownTestSuite() { delete std::exchange(shared_, nullptr); }
  void SetUp() override {
    ASSERT_TRUE(shared_->ok) << shared_->fast.error() << shared_->slow.error();
    setenv("XDG_DATA_HOME", data_.path().c_str(), 1);
    host_ = std::make_unique<NativeHost>(data_.path() + "/host.err");
    ASSERT_TRUE(host_->running());
  }

  // The "embed" message of a meeting page whose package lies on `server` (or under `root`).
  std::string Embed(const std::string& id, const gpctest::LoopbackServer& server, const std::string& root = "") {
    gpctest::PageParams params = {
        {"gpcsitelock", "0"}, {"GpcUrlRoot", root.empty() ? server.HttpsUrl("client/") : root},
        {"GpcCompressMethod", "7zip"}, {"GpcUnpackVersion", "1,0"}, {"GpcExtVersion", "2,0,0,7"},
        {"GpcProductVersion", "3,1,0,7"}, {"MeetingID", "m42"}, {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
        {"GpcSampleFiles", server.HttpsUrl("files/readme.txt")}, {"GpcSampleUnpackDir", data_.path() + "/u-" + id},
        {"GpcSampleDoneUrl", server.HttpsUrl("page/done")}};
    params.insert(params.end(), shared_->package.begin(), shared_->package.end());
    std::string list;
    for (const auto& [name, value] : params) list += (list.empty() ? "[" : ",[") + Quote(name) + "," + Quote(value) + "]";
    return "{\"type\":\"embed\",\"id\":" + Quote(id) +
           ",\"pageUrl\":\"https://127.0.0.1/meeting\",\"frame\":\"top\",\"params\":[" + list + "]}";
  }
  // What the host has sent so far and its standard error, for failure messages.
  std::string Seen() const {
    std::string text;
    for (const JsonEvent& m : host_->seen) text += m.line + "\n";
    return text + gpctest::ReadFile(data_.path() + "/host.err");
  }
  // Waits for `id`'s navigation to the done page and answers it.
  void ExpectDone(const std::string& id) {
    JsonEvent navigate;
    ASSERT_TRUE(host_->WaitFor("navigate", id, &navigate)) << Seen();
    EXPECT_NE(navigate.Str("url").find("/page/done?fetched=1&failed=0"), std::string::npos) << navigate.line;
    EXPECT_EQ(navigate.Str("target"), "_top");
    host_->Send("{\"type\":\"navigated\",\"id\":" + Quote(id) + ",\"request\":" + std::to_string(navigate.Int("request")) +
                ",\"ok\":true}");
  }
  // End of input ends every embed and the process, which exits 0 leaving nothing running.
  void ExpectCleanExit() {
    bool childrenGone = false;
    EXPECT_EQ(host_->CloseAndWait(&childrenGone), 0);
    EXPECT_TRUE(childrenGone);
  }

  struct Shared {
    gpctest::TempFolder folder{"nm"};
    gpctest::LoopbackServer fast, slow;
    std::unique_ptr<gpctest::PackageSigner> signer;
    gpctest::PageParams package;
    bool ok = false;
  };
  static Shared* shared_;
  gpctest::TempFolder data_{"nmdata"};
  std::unique_ptr<NativeHost> host_;
};
NativeMessaging::Shared* NativeMessaging::shared_ = nullptr;

TEST_F(NativeMessaging, AnEmbedDestroyedMidDownloadLeavesTheOtherToRunTheWholeJob) {
  host_->Send(Embed("slow", shared_->slow));
  ASSERT_TRUE(host_->WaitForStage("slow", "downloading"));
  host_->Send(Embed("fast", shared_->fast));
  ASSERT_TRUE(host_->WaitForStage("fast", "checking"));
  host_->Send("{\"type\":\"destroy\",\"id\":\"slow\"}");
  ExpectDone("fast");
  ASSERT_TRUE(host_->WaitForStage("fast", "running"));
  EXPECT_TRUE(IsTheWholeJobInOrder(host_->Stages("fast"))) << Seen();
  EXPECT_EQ(host_->Stages("slow"), (std::vector<std::string>{"started", "checking", "downloading"}));
  host_->Send("{\"type\":\"destroy\",\"id\":\"slow\"}");
  JsonEvent error;
  ASSERT_TRUE(host_->WaitFor("error", "slow", &error));
  EXPECT_NE(error.Str("message").find("no embed"), std::string::npos);
  ExpectCleanExit();
}

// A direct download that meets a challenge moves the fetch to the browser, that is to this host, which
// then tells the page how many bytes of the package have arrived.
TEST_F(NativeMessaging, ThePackageFetchedByTheHostReportsItsBytes) {
  const int64_t size = 3000000;
  host_->Send(Embed("e1", shared_->fast, shared_->fast.Url("/client/fails-once/401/" + std::to_string(size) + "/")));
  JsonEvent last;
  ASSERT_TRUE(host_->WaitFor([&](const JsonEvent& m) { return m.Str("stage") == "downloading" && m.Int("done") == size; },
                             &last)) << Seen();
  EXPECT_EQ(last.Int("total"), size);
  std::vector<int64_t> done;
  for (const JsonEvent& m : host_->seen)
    if (m.Str("stage") == "downloading" && m.Has("done")) done.push_back(m.Int("done"));
  EXPECT_GE(done.size(), 5u);
  EXPECT_LE(done.size(), 51u);
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  // Pattern bytes are no package: the page is told why.
  ASSERT_TRUE(host_->WaitFor("navigate", "e1", &last));
  EXPECT_NE(last.Str("url").find("%5B111%5D"), std::string::npos) << last.line;
  ExpectCleanExit();
}

// An embed destroyed as it reaches each stage of the job: the host goes on serving, ends cleanly with
// its input, and the extension is installed whole or not at all.
TEST_F(NativeMessaging, AnEmbedDestroyedAtEveryStageLeavesNothingHalfDone) {
  const std::string bundle = data_.path() + "/Talvo Folder/zrgpcext64.bundle";
  for (const std::string stage : {"checking", "downloading", "verified", "unpacked", "running"}) {
    SCOPED_TRACE(stage);
    gpchost::RemoveTree(data_.path() + "/Talvo Folder");
    host_->Send(Embed(stage, stage == "checking" || stage == "downloading" ? shared_->slow : shared_->fast));
    ASSERT_TRUE(host_->WaitForStage(stage, stage)) << Seen();
    host_->Send("{\"type\":\"destroy\",\"id\":\"" + stage + "\"}");
    host_->Send("{\"type\":\"ping\",\"id\":\"" + stage + "\"}");  // still serving: answered with an error
    ASSERT_TRUE(host_->WaitFor("error", stage)) << Seen();
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
  std::string many = "[\"P0\",\"v\"]";
  for (int i = 1; i < 10000; ++i) many += ",[\"P" + std::to_string(i) + "\",\"v\"]";
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
      {"10,000 parameters", Frame("{\"type\":\"embed\",\"id\":\"e2\",\"pageUrl\":\"https://127.0.0.1/\",\"params\":[" + many + "]}"),
       "at most", "e2"},
      {"navigation never asked for", Frame("{\"type\":\"navigated\",\"id\":\"e1\",\"request\":99,\"ok\":true}"),
       "no navigation", "e1"},
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
    const size_t from = host_->seen.size();
    ASSERT_TRUE(host_->WaitFor("error", marker));
    const auto first = std::find_if(host_->seen.begin() + from, host_->seen.end(),
                                    [](const JsonEvent& m) { return m.Str("type") == "error"; });
    ASSERT_NE(first->Str("id"), marker) << "no error for the case";
    EXPECT_NE(first->Str("message").find(c.error), std::string::npos) << first->line;
    EXPECT_EQ(first->Str("id"), c.id);
  }
  ExpectDone("e1");
  // A frame cut short by the end of the input is reported before the process exits.
  host_->SendRaw(Frame("{\"type\":\"destroy\"", 100));
  host_->CloseInput();
  ASSERT_TRUE(host_->WaitFor([](const JsonEvent& m) { return m.Str("message").find("ended inside") != std::string::npos; }));
  EXPECT_EQ(host_->CloseAndWait(), 0);
}

}  // namespace

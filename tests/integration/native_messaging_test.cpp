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
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/tlvtrace/tlvtraceu.h"
#include "extension_package.h"
#include "gpc_host_run.h"

extern char** environ;

namespace {

using gpchost::JsonEvent;
using Clock = std::chrono::steady_clock;

using gpchost::JsonQuote;
std::string Frame(const std::string& json, size_t length = std::string::npos) {
  const uint32_t size = static_cast<uint32_t>(length == std::string::npos ? json.size() : length);
  return std::string(reinterpret_cast<const char*>(&size), sizeof size) + json;
}
std::string Message(const std::string& type, const std::string& id) {
  return "{\"type\":\"" + type + "\",\"id\":" + JsonQuote(id) + "}";
}

// The sample made version 2.0.0.7, packed and signed, on a fast and on a slowed server, and on one
// that challenges the first request for it.
struct Site {
  gpctest::TempFolder folder{"nm"};
  gpctest::LoopbackServer fast, slow, challenged;
  gpctest::PageParams package;
  bool ok = false;
  Site() {
    mkdir((folder.path() + "/pki").c_str(), 0700);
    gpctest::PackageSigner signer(folder.path() + "/pki");
    const std::string archive = folder.path() + "/package.7z";
    if (!signer.ok() || !gpctest::PackExtension(std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle",
                                                "2.0.0.7", folder.path(), archive))
      return;
    const std::string bytes = gpctest::ReadFile(archive);
    slow.SetLimitRate(std::to_string(bytes.size() / 4 + 1));  // the package in about four seconds
    for (gpctest::LoopbackServer* server : {&fast, &slow, &challenged})
      if (!server->Start(server == &challenged ? std::vector<std::string>{"--fail", ".7z=401x1"} : std::vector<std::string>{}) ||
          !server->AddFile("client/zrgpcext64.bundle.7z", bytes) ||
          !server->AddFile("files/readme.txt", "hello"))
        return;
    package = signer.PackageParameters(archive);
    ok = true;
  }
};
const Site& TheSite() {
  static const Site site;
  return site;
}

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
    if (pid_ > 0) CloseAndWait();  // as the browser ends it, so its downloads leave nothing in /tmp
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    close(fd_);
  }
  void SendRaw(const std::string& bytes) { (void)!write(fd_, bytes.data(), bytes.size()); }
  void Send(const std::string& json) { SendRaw(Frame(json)); }
  void CloseInput() { shutdown(fd_, SHUT_WR); }

  // The first message so far or still to come (within 20 seconds) that satisfies `wanted`.
  bool WaitFor(const std::function<bool(const JsonEvent&)>& wanted, JsonEvent* found = nullptr) {
    auto hit = std::find_if(seen.begin(), seen.end(), wanted);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (JsonEvent m; hit == seen.end(); hit = wanted(m) ? seen.end() - 1 : seen.end()) {
      if (!Read(&m.line, deadline)) return false;
      seen.push_back(m);
    }
    if (found != nullptr) *found = *hit;
    return true;
  }
  bool WaitFor(const std::string& type, const std::string& id, const std::string& stage = "", JsonEvent* found = nullptr) {
    return WaitFor([&](const JsonEvent& m) {
      return m.Str("type") == type && m.Str("id") == id && (stage.empty() || m.Str("stage") == stage);
    }, found);
  }
  // With its input closed, the exit code once the process has ended within ten seconds (else -1), and
  // whether the processes it started (its trace follower) have ended too.
  int CloseAndWait(bool* childrenGone = nullptr) {
    const std::vector<pid_t> children = Children();
    CloseInput();
    for (int polls = 0, status = 0; pid_ > 0 && polls < 500; ++polls, poll(nullptr, 0, 20)) {
      if (waitpid(pid_, &status, WNOHANG) != pid_) continue;
      pid_ = -1;
      if (childrenGone != nullptr)
        *childrenGone = std::none_of(children.begin(), children.end(), [](pid_t child) { return kill(child, 0) == 0; });
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return -1;
  }
  pid_t pid() const { return pid_; }
  // The processes it started and that still run: its trace follower.
  std::vector<pid_t> Children() const {
    std::istringstream list(gpctest::ReadFile("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) + "/children"));
    return {std::istream_iterator<pid_t>(list), std::istream_iterator<pid_t>()};
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
  bool Read(std::string* message, Clock::time_point deadline) {
    uint32_t length = 0;
    if (!ReadExactly(reinterpret_cast<char*>(&length), sizeof length, deadline) || length > (1u << 20)) return false;
    message->assign(length, '\0');
    return ReadExactly(&(*message)[0], length, deadline);
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
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    ASSERT_TRUE(site_.ok) << site_.fast.error() << site_.slow.error();
    setenv("XDG_DATA_HOME", data_.path().c_str(), 1);
    host_ = std::make_unique<NativeHost>(data_.path() + "/host.err");
  }
  // The "embed" message of a meeting page whose package lies on `server` (or under `root`), with or
  // without an error page.
  std::string Embed(const std::string& id, const gpctest::LoopbackServer& server, const std::string& root = "",
                    bool errorPage = true) {
    gpctest::PageParams params = {
        {"gpcsitelock", "0"}, {"GpcUrlRoot", root.empty() ? server.HttpsUrl("client/") : root},
        {"GpcCompressMethod", "7zip"}, {"GpcUnpackVersion", "1,0"}, {"GpcExtVersion", "2,0,0,7"},
        {"GpcProductVersion", "3,1,0,7"}, {"MeetingID", "m42"},
        {"GpcErrorPageUrl", errorPage ? server.HttpsUrl("page") : ""},  // the done page's URL starts with it
        {"GpcSampleFiles", server.HttpsUrl("files/readme.txt")}, {"GpcSampleUnpackDir", data_.path() + "/u-" + id},
        {"GpcSampleDoneUrl", server.HttpsUrl("page/done")}};
    params.insert(params.end(), site_.package.begin(), site_.package.end());
    std::string list;
    for (const auto& [name, value] : params) list += (list.empty() ? "[" : ",[") + JsonQuote(name) + "," + JsonQuote(value) + "]";
    return "{\"type\":\"embed\",\"id\":" + JsonQuote(id) +
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
    ASSERT_TRUE(host_->WaitFor("navigate", id, "", &navigate)) << Seen();
    EXPECT_NE(navigate.Str("url").find("/page/done?fetched=1&failed=0"), std::string::npos) << navigate.line;
    EXPECT_EQ(navigate.Str("target"), "_top");
    host_->Send("{\"type\":\"navigated\",\"id\":" + JsonQuote(id) + ",\"request\":" + std::to_string(navigate.Int("request")) +
                ",\"ok\":true}");
  }

  const Site& site_ = TheSite();
  gpctest::TempFolder data_{"nmdata"};
  std::unique_ptr<NativeHost> host_;
};

// An embed destroyed as it reaches each stage of the job leaves the extension installed whole or not at
// all, and the host serving; one destroyed mid-download leaves another embed to run the whole job. End of
// input ends every embed and the process, which exits 0 leaving nothing running.
TEST_F(NativeMessaging, EmbedsDestroyedAtAnyStageLeaveNothingHalfDoneAndTheOthersRunning) {
  const std::string folder = data_.path() + "/Talvo Folder", bundle = folder + "/zrgpcext64.bundle";
  for (const std::string stage : {"checking", "downloading", "verified", "unpacked", "running"}) {
    SCOPED_TRACE(stage);
    gpctest::RemoveTree(folder);
    host_->Send(Embed(stage, stage == "checking" || stage == "downloading" ? site_.slow : site_.fast));
    ASSERT_TRUE(host_->WaitFor("status", stage, stage)) << Seen();
    host_->Send(Message("destroy", stage));
    host_->Send(Message("destroy", stage));
    JsonEvent error;
    ASSERT_TRUE(host_->WaitFor("error", stage, "", &error)) << Seen();
    EXPECT_NE(error.Str("message").find("no embed"), std::string::npos) << error.line;
    struct stat st;
    if (stat(bundle.c_str(), &st) == 0) {
      EXPECT_NE(gpctest::ReadFile(bundle + "/Contents/Info.plist").find("2.0.0.7"), std::string::npos);
    }
  }
  gpctest::RemoveTree(folder);
  host_->Send(Embed("slow", site_.slow));
  ASSERT_TRUE(host_->WaitFor("status", "slow", "downloading"));
  host_->Send(Embed("fast", site_.fast, "", false));  // no error page: no navigation halts it
  ASSERT_TRUE(host_->WaitFor("status", "fast", "checking"));
  host_->Send(Message("destroy", "slow"));
  ExpectDone("fast");
  ASSERT_TRUE(host_->WaitFor("status", "fast", "running"));
  // Stages come from following the trace file, so under load one may arrive after the next has moved the
  // embed on: they must be the job's in its order, from "started" to "running".
  const std::vector<std::string> job = {"started", "checking", "downloading", "verified", "unpacked", "running"};
  auto at = job.begin();
  for (const std::string& stage : host_->Stages("fast")) at = std::find(at, job.end(), stage);
  EXPECT_EQ(host_->Stages("fast").front(), "started");
  EXPECT_EQ(at, job.end() - 1) << Seen();
  EXPECT_EQ(host_->Stages("slow"), (std::vector<std::string>{"started", "checking", "downloading"}));
  EXPECT_EQ(Seen().find("tlvtracer ended"), std::string::npos) << "one tlvtracer follows the whole run";
  bool childrenGone = false;
  EXPECT_EQ(host_->CloseAndWait(&childrenGone), 0);
  EXPECT_TRUE(childrenGone);
}

// A tlvtracer that ends is started again, and keeps none of the host's connections: neither the
// browser's port nor a download under way. What it shows again is not handed on twice, whatever
// the clock said: a record of the host's dated an hour ahead (the clock was set back since) halts
// "ahead", which has no error page, once, and not "slow" after the restart.
TEST_F(NativeMessaging, ARestartedTracerKeepsNoneOfTheHostsConnections) {
  host_->Send(Embed("ahead", site_.fast, site_.fast.HttpsUrl("client/fault/never/0/"), false));
  ASSERT_TRUE(host_->WaitFor("status", "ahead", "started")) << Seen();
  const std::string written = data_.path() + "/ahead.tvt";
  ASSERT_TRUE(tlvtra_reopen_for_testing(written.c_str()));
  TLVTRACERAW(TLVTRACE_LEVEL_ERROR, "GPCPlugin", "-", "CGpcWindow::ShowMessage: ErrorPageURL is nil.");
  tlvtra_reopen_for_testing(nullptr);
  std::string record = gpctest::ReadFile(written).substr(48);
  const uint32_t pid = static_cast<uint32_t>(host_->pid()), seconds = static_cast<uint32_t>(time(nullptr) + 3600);
  memcpy(&record[12], &pid, 4);  // little-endian, as the file is
  memcpy(&record[24], &seconds, 4);
  const char* const traceFile = getenv("GPC_TRACE_FILE");
  const auto write = [&](bool anew) {  // the record appended, to the file started anew or not
    return (!anew || truncate(traceFile, 48) == 0) && static_cast<bool>(std::ofstream(traceFile, std::ios::app) << record);
  };
  ASSERT_TRUE(write(false));
  ASSERT_TRUE(host_->WaitFor("status", "ahead", "halted")) << Seen();
  host_->Send(Embed("slow", site_.slow, "", false));
  ASSERT_TRUE(host_->WaitFor("status", "slow", "downloading")) << Seen();
  EXPECT_EQ(gpctest::ShellOutput("readlink /proc/" + std::to_string(host_->pid()) + "/fd/0"), "/dev/null\n");
  ASSERT_EQ(host_->Children().size(), 1u);
  const pid_t first = host_->Children()[0];
  kill(first, SIGKILL);
  const std::string follows = "--json\n--follow\n";  // started again, and past its exec
  std::string again, command;
  for (int polls = 0; polls < 250 && command != follows; ++polls, poll(nullptr, 0, 20)) {
    const std::vector<pid_t> children = host_->Children();
    again = children.empty() || children[0] == first ? "" : std::to_string(children[0]);
    command = again.empty() ? "" : gpctest::ShellOutput("tail -z -n 2 /proc/" + again + "/cmdline | tr '\\0' '\\n'");
  }
  ASSERT_EQ(command, follows) << Seen();
  EXPECT_EQ(gpctest::ShellOutput("ls -l /proc/" + again + "/fd | grep -c socket:"), "0\n");
  ASSERT_TRUE(host_->WaitFor("status", "slow", "running")) << Seen();
  // In a file started anew (by a plug-in loaded again), a record at an offset shown before is new,
  // also when the file was started anew while no tlvtracer read it (one stopped, then ended).
  ASSERT_TRUE(write(true));
  ASSERT_TRUE(host_->WaitFor("status", "slow", "halted")) << Seen();
  host_->Send(Embed("third", site_.fast, site_.fast.HttpsUrl("client/fault/never/0/"), false));
  ASSERT_TRUE(host_->WaitFor("status", "third", "started")) << Seen();
  kill(host_->Children()[0], SIGSTOP);
  record[28] ^= 1;  // another millisecond: another first record
  ASSERT_TRUE(write(true));
  kill(host_->Children()[0], SIGKILL);
  ASSERT_TRUE(host_->WaitFor("status", "third", "halted")) << Seen();
}

// A direct download that meets a challenge moves the fetch to the browser, that is to this host, which
// then tells the page how many bytes of the package have arrived, and, for a genuine one, each stage.
TEST_F(NativeMessaging, ThePackageFetchedByTheHostReportsItsBytes) {
  const int64_t size = 3000000;
  host_->Send(Embed("e1", site_.fast, site_.fast.Url("/client/fails-once/401/" + std::to_string(size) + "/")));
  JsonEvent last;
  ASSERT_TRUE(host_->WaitFor([&](const JsonEvent& m) { return m.Str("stage") == "downloading" && m.Int("done") == size; },
                             &last)) << Seen();
  EXPECT_EQ(last.Int("total"), size);
  std::vector<int64_t> done;
  for (const JsonEvent& m : host_->seen)
    if (m.Str("stage") == "downloading" && m.Int("done") >= 0) done.push_back(m.Int("done"));
  EXPECT_GE(done.size(), 5u);
  EXPECT_LE(done.size(), 51u);
  EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
  // Pattern bytes are no package: the page is told why.
  ASSERT_TRUE(host_->WaitFor("navigate", "e1", "", &last));
  EXPECT_NE(last.Str("url").find("%5B111%5D"), std::string::npos) << last.line;
  // A genuine package the browser brings passes every stage, and the extension's start is told.
  host_->Send(Embed("e2", site_.challenged, site_.challenged.Url("/client/")));  // http: the host checks certificates
  ASSERT_TRUE(host_->WaitFor("status", "e2", "running", &last)) << Seen();
  EXPECT_EQ(last.Int("result"), 0);
  const std::vector<std::string> stages = host_->Stages("e2");
  EXPECT_TRUE(std::find(stages.begin(), stages.end(), "unpacked") != stages.end()) << Seen();
  EXPECT_EQ(host_->CloseAndWait(), 0);
}

// Other embeds take no stage of e1's: "stopped" is sent to its error page and halts; "idle", made just
// before e1, has no error page, and the plug-in's record of that halts it; "other", older than e1,
// waits for ever on its own package, which lies elsewhere.
TEST_F(NativeMessaging, EveryBadMessageIsAnsweredWithAnErrorAndTheEmbedGoesOn) {
  const std::string bare = "{\"type\":\"embed\",\"pageUrl\":\"https://127.0.0.1/\",\"id\":";
  host_->Send(bare + "\"stopped\",\"params\":[[\"gpcsitelock\",\"0\"],[\"GpcProductVersion\",\"1\"],"
                     "[\"GpcErrorPageUrl\",\"https://127.0.0.1/error\"]]}");
  ASSERT_TRUE(host_->WaitFor("status", "stopped", "halted")) << Seen();
  host_->SendRaw(Frame(bare + "\"idle\"}") + Frame(Embed("other", site_.fast, site_.fast.HttpsUrl("client/fault/never/0/"))) +
                 Frame(Embed("e1", site_.slow)));
  ASSERT_TRUE(host_->WaitFor("status", "e1", "started"));
  std::string many = "[\"P0\",\"v\"]";
  for (int i = 1; i < 10000; ++i) many += ",[\"P" + std::to_string(i) + "\",\"v\"]";
  struct Case {
    std::string bytes;
    const char* error;  // in the first error's message
    std::string id;     // the first error's id
  } const cases[] = {
      {Frame("{\"type\":\"destroy\","), "invalid JSON", ""},
      {Frame("[\"embed\"]"), "JSON object", ""},
      {Frame(Message("explode", "e1")), "unknown message type", "e1"},
      {Frame(Message("explode", std::string(256, 'i'))), "unknown message type", std::string(256, 'i')},
      {Frame(Message("explode", std::string(257, 'i'))), "1 to 256 bytes", ""},
      {Frame(Message("destroy", "")), "1 to 256 bytes", ""},
      {Frame(Message(std::string(1 << 20, 't'), "e1")), "exceeds the 1 MB limit", "e1"},
      {Frame("{\"type\":\"destroy\"}"), "\"id\"", ""},
      {Frame(Embed("e1", site_.fast)), "exists already", "e1"},
      {Frame("{\"type\":\"embed\",\"id\":\"e2\",\"pageUrl\":\"https://127.0.0.1/\",\"params\":[" + many + "]}"), "at most", "e2"},
      {Frame("{\"type\":\"navigated\",\"id\":\"e1\",\"request\":99,\"ok\":true}"), "no navigation", "e1"},
      {Frame("{\"type\":\"navigated\",\"id\":\"stopped\",\"request\":1.5,\"ok\":true}"), "no navigation 1.5 ", "stopped"},
      {Frame("{\"type\":\"navigated\",\"id\":\"stopped\",\"request\":1e30,\"ok\":true}"), "no navigation 1e+30 ", "stopped"},
      {Frame("{\"type\":\"embed\",\"id\":\"e3\",\"pageUrl\":\"\"}"), "\"pageUrl\"", "e3"},
      {Frame(bare + "\"e3\",\"params\":[[\"\",\"v\"]]}"), "pairs of strings", "e3"},
      {Frame("", 0), "empty", ""},
      {Frame(Message("destroy", "e1"), 5), "invalid JSON", ""},
      {Frame("{\"blob\":\"" + std::string(4096, 'x') + "\"}", (64u << 20) + 1), "larger than the limit", ""},
  };
  int sync = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    host_->SendRaw(c.bytes);
    // A message of an unknown type marks where the errors of this case end.
    const std::string marker = "sync" + std::to_string(++sync);
    host_->Send(Message("sync", marker));
    const size_t from = host_->seen.size();
    ASSERT_TRUE(host_->WaitFor("error", marker));
    const auto first = std::find_if(host_->seen.begin() + from, host_->seen.end(),
                                    [](const JsonEvent& m) { return m.Str("type") == "error"; });
    ASSERT_NE(first->Str("id"), marker) << "no error for the case";
    EXPECT_NE(first->Str("message").find(c.error), std::string::npos) << first->line;
    EXPECT_EQ(first->Str("id"), c.id);
  }
  ExpectDone("e1");
  ASSERT_TRUE(host_->WaitFor("status", "e1", "running")) << Seen();
  EXPECT_EQ(host_->Stages("idle"), (std::vector<std::string>{"started", "halted"}));
  EXPECT_EQ(host_->Stages("other"), (std::vector<std::string>{"started", "checking", "downloading"}));
  // A frame cut short by the end of the input is reported before the process exits.
  host_->SendRaw(Frame("{\"type\":\"destroy\"", 100));
  host_->CloseInput();
  ASSERT_TRUE(host_->WaitFor([](const JsonEvent& m) { return m.Str("message").find("ended inside") != std::string::npos; }));
  EXPECT_EQ(host_->CloseAndWait(), 0);
}

}  // namespace

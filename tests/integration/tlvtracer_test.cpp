// tlvtracer run as a real process on trace files written through the trace library.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/tlvtrace/tlvtraceu.h"
#include "http_test_server.h"
#include "tvt_reader.h"

namespace {

using Lines = std::vector<std::string>;
const gpctest::TempFolder kFolder("tlvtracer");
const std::string kPath = kFolder.path() + "/trace.tvt";

TEST(Tlvtracer, ListsRecordsByLevelAndStopsAtDamageNamingItsOffset) {
  ASSERT_TRUE(tlvtra_reopen_for_testing(kPath.c_str()));
  tlvtra_set_debugmode_for_testing(true);
  TLVDEBUG("d");  // records at 48, 108, 176 and 252
  TLVINFO("one\ntwo");
  TLVTRACERAW(TLVTRACE_LEVEL_WARN, "Mod", "CGpcWindow::OnTimer", "w");
  TLVERROR("e");
  tlvtra_set_debugmode_for_testing(false);
  std::istringstream all(tvttest::Tlvtracer({kPath}).out);
  const std::string pid = " pid " + std::to_string(getpid()) + " thread 0x";
  Lines shown;
  for (std::string line; std::getline(all, line);) {
    const size_t at = line.find(pid);
    ASSERT_NE(at, std::string::npos) << line;
    for (size_t i = 0; i < 23; ++i) line[i] = isdigit(static_cast<unsigned char>(line[i])) ? '9' : line[i];
    shown.push_back(line.substr(0, at) + line.substr(at + pid.size() + 8));  // local time with milliseconds first
  }
  const std::string time = "9999-99-99 99:99:99.999 ";
  EXPECT_EQ(shown, (Lines{time + "debug GPCPlugin - d", time + "info  GPCPlugin - one\\ntwo",
                          time + "warn  Mod CGpcWindow::OnTimer w", time + "error GPCPlugin - e"}));

  const std::string good = gpctest::ReadFile(kPath), bad = kFolder.path() + "/bad.tvt";
  const struct {
    const char* level;
    size_t keep, poke;
    char value;
    Lines texts;
    std::string error;  // empty: success
  } cases[] = {
      {"warn", good.size(), 0, 'T', {"w", "e"}, ""},
      {"info", good.size(), 0, 'T', {"one\ntwo", "w", "e"}, ""},
      {"loud", good.size(), 0, 'T', {}, "unknown level"},
      {nullptr, good.size() - 5, 0, 'T', {"d", "one\ntwo", "w"}, "truncated record at byte offset 252"},
      {nullptr, 20, 0, 'T', {}, "truncated header at byte offset 0"},
      {nullptr, good.size(), 176 + 2, 9, {"d", "one\ntwo"}, "corrupt record at byte offset 176"},
      {nullptr, good.size(), 176 + 6, 9, {"d", "one\ntwo"}, "corrupt record at byte offset 176"},
      {nullptr, good.size(), 176 + 7, 1, {"d", "one\ntwo"}, "corrupt record at byte offset 176"},
      {nullptr, good.size(), 0, 'X', {}, "byte offset 0"},
  };
  for (const auto& c : cases) {
    std::string bytes = good.substr(0, c.keep);
    bytes[c.poke] = c.value;
    gpctest::WriteFile(bad, bytes);
    const gpctest::ToolRun run = tvttest::Tlvtracer(c.level ? Lines{"--json", "--level", c.level, bad} : Lines{"--json", bad});
    Lines texts;
    for (const gpchost::JsonEvent& record : gpchost::ParseJsonLines(run.out)) texts.push_back(record.Str("text"));
    EXPECT_EQ(texts, c.texts) << c.error;
    EXPECT_EQ(run.exitCode == 0, c.error.empty()) << c.error;
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
  }
  EXPECT_NE(tvttest::Tlvtracer({bad + ".missing"}).err.find("cannot open"), std::string::npos);
  // With no file named, GPC_TRACE_FILE names it when it is an absolute path, as for the plug-in.
  const std::string read = " " GPC_BIN_DIR "/tlvtracer --json 2>&1", folder = gpctest::ShellQuote(kFolder.path());
  EXPECT_NE(gpctest::ShellOutput("GPC_TRACE_FILE=" + folder + "/trace.tvt" + read).find("one\\ntwo"), std::string::npos);
  EXPECT_EQ(gpctest::ShellOutput("cd " + folder + " && GPC_TRACE_FILE=trace.tvt" + read).find("one\\ntwo"), std::string::npos);
}

// The text of the next JSON line from `fd`, "<eof>", or "<timeout>" once `seconds` pass.
std::string ReadText(int fd, std::string* rest, int seconds) {
  while (rest->find('\n') == std::string::npos) {
    struct pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, seconds * 1000) <= 0) return "<timeout>";
    char chunk[4096];
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got <= 0) return "<eof>";
    rest->append(chunk, static_cast<size_t>(got));
  }
  const std::string line = rest->substr(0, rest->find('\n'));
  rest->erase(0, line.size() + 1);
  return line.front() == '{' ? gpchost::JsonEvent{line}.Str("text") : line;
}

TEST(Tlvtracer, FollowWaitsForPartialRecordsAndStopsOnSignal) {
  ASSERT_TRUE(tlvtra_reopen_for_testing(kPath.c_str()));
  TLVINFO("before start");
  const std::string record = gpctest::ReadFile(kPath).substr(48);  // appended again, in two parts
  FILE* out = popen(("echo $$; exec " GPC_BIN_DIR "/tlvtracer --follow --json " + kPath).c_str(), "r");
  std::string rest;
  const pid_t pid = std::stoi(ReadText(fileno(out), &rest, 10));
  EXPECT_EQ(ReadText(fileno(out), &rest, 10), "before start");
  EXPECT_TRUE(tlvtra_is_debugmode()) << "a running tlvtracer turns debug mode on for plug-ins loaded now";
  TLVWARN("while following");
  EXPECT_EQ(ReadText(fileno(out), &rest, 10), "while following");
  std::ofstream append(kPath, std::ios::binary | std::ios::app);
  append.write(record.data(), 30).flush();
  EXPECT_EQ(ReadText(fileno(out), &rest, 1), "<timeout>") << "half a record is waited for, not reported";
  append.write(record.data() + 30, record.size() - 30).flush();
  EXPECT_EQ(ReadText(fileno(out), &rest, 10), "before start");
  ASSERT_TRUE(tlvtra_reopen_for_testing(kPath.c_str()));  // a plug-in loading anew: reading starts over
  TLVERROR("after restart");
  EXPECT_EQ(ReadText(fileno(out), &rest, 10), "after restart");
  kill(pid, SIGTERM);
  const int status = pclose(out);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a stop signal ends it cleanly";
}

}  // namespace

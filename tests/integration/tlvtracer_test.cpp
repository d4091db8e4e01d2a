// tlvtracer run as a real process on trace files written through the trace library.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>

#include <csignal>
#include <map>
#include <thread>

#include "http_test_server.h"
#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/tlvtrace/tlvtraceu.h"
#include "tvt_reader.h"

namespace {

const gpctest::TempFolder kFolder("tlvtracer");

struct Output {
  int status = -1;  // exit code, or -1 when killed
  std::vector<std::string> lines;
  std::string err;
};

// Runs tlvtracer with `args` (words without spaces) to its end.
Output Tlvtracer(const std::string& args) {
  FILE* out = popen((GPC_BIN_DIR "/tlvtracer " + args + " 2>" + kFolder.path() + "/err.txt").c_str(), "r");
  Output run;
  char* line = nullptr;
  size_t room = 0;
  for (ssize_t got; (got = getline(&line, &room, out)) > 0;) run.lines.emplace_back(line, got - 1);
  free(line);
  const int status = pclose(out);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.err = gpctest::ReadFile(kFolder.path() + "/err.txt");
  return run;
}

// The value of a string field of one JSON line (the tests' texts hold no quotes).
std::string JsonField(const std::string& line, const std::string& name) {
  const size_t start = line.find("\"" + name + "\":\"");
  if (start == std::string::npos) return "<missing>";
  const size_t from = start + name.size() + 4;
  return line.substr(from, line.find('"', from) - from);
}

class TlvtracerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
  }
  const std::string path_ = kFolder.path() + "/trace.tvt";
};

TEST_F(TlvtracerTest, EightThreadsWriteEightyThousandIntactRecords) {
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < 10000; ++i) {
        const std::string text = "writer " + std::to_string(t) + " " + std::to_string(i) + (i % 2 ? " odd" : " even-pad");
        TLVTRACERAW(TLVTRACE_LEVEL_WARN, "Worker", i % 3 ? "Fn" : nullptr, text.c_str());
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  const Output run = Tlvtracer("--json " + path_);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  ASSERT_EQ(run.lines.size(), 80000u);
  std::map<int, int> next;  // per writer, the record expected next: one writer's records keep their order
  for (const std::string& line : run.lines) {
    int t = -1, i = -1;
    char tail[16] = "";
    sscanf(JsonField(line, "text").c_str(), "writer %d %d %15s", &t, &i, tail);
    const std::string want = std::to_string(next[t]++) + (i % 2 ? "odd" : "even-pad") + "Worker" + (i % 3 ? "Fn" : "");
    ASSERT_EQ(std::to_string(i) + tail + JsonField(line, "module") + JsonField(line, "function"), want) << line;
    ASSERT_EQ(JsonField(line, "level"), "warn");
    ASSERT_NE(line.find("\"pid\":" + std::to_string(getpid()) + ","), std::string::npos) << line;
  }
  EXPECT_EQ(next.size(), 8u);
}

TEST_F(TlvtracerTest, ListsRecordsByLevelAndStopsAtDamageNamingItsOffset) {
  tlvtra_set_debugmode_for_testing(true);
  TLVDEBUG("d");
  TLVINFO("one\ntwo");
  TLVTRACERAW(TLVTRACE_LEVEL_WARN, "Mod", "CGpcWindow::OnTimer", "w");
  TLVERROR("e");
  const Output all = Tlvtracer(path_);
  ASSERT_EQ(all.lines.size(), 4u) << "an embedded line feed stays escaped";
  EXPECT_NE(all.lines[0].find(" debug pid " + std::to_string(getpid()) + " thread 0x"), std::string::npos) << all.lines[0];
  EXPECT_NE(all.lines[1].find(" GPCPlugin - one\\ntwo"), std::string::npos) << all.lines[1];
  EXPECT_NE(all.lines[2].find(" warn  "), std::string::npos) << all.lines[2];
  EXPECT_NE(all.lines[2].find(" Mod CGpcWindow::OnTimer w"), std::string::npos) << all.lines[2];
  EXPECT_EQ(all.lines[1].find('.'), 19u) << "local time with milliseconds first: " << all.lines[1];

  const std::vector<tvttest::Record> records = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(records.size(), 4u);
  const std::string good = gpctest::ReadFile(path_), one = R"(one\ntwo)";
  const struct {
    std::string args;
    size_t keep, poke;
    char value;
    std::vector<std::string> shown;  // texts
    std::string error;               // empty: success
  } cases[] = {
      {"--level warn", good.size(), 0, 'T', {"w", "e"}, ""},
      {"--level info", good.size(), 0, 'T', {one, "w", "e"}, ""},
      {"--level loud", good.size(), 0, 'T', {}, "unknown level"},
      {"", good.size() - 5, 0, 'T', {"d", one, "w"}, "truncated record at byte offset " + std::to_string(records[3].offset)},
      {"", 20, 0, 'T', {}, "truncated header at byte offset 0"},
      {"", good.size(), records[2].offset + 2, 9, {"d", one}, "corrupt record at byte offset " + std::to_string(records[2].offset)},
      {"", good.size(), 0, 'X', {}, "byte offset 0"},
  };
  for (const auto& c : cases) {
    std::string bytes = good.substr(0, c.keep);
    bytes[c.poke] = c.value;
    gpctest::WriteFile(kFolder.path() + "/bad.tvt", bytes);
    const Output run = Tlvtracer("--json " + c.args + " " + kFolder.path() + "/bad.tvt");
    EXPECT_EQ(run.status == 0, c.error.empty()) << c.error;
    std::vector<std::string> shown;
    for (const std::string& line : run.lines) shown.push_back(JsonField(line, "text"));
    EXPECT_EQ(shown, c.shown) << c.error;
    EXPECT_NE(run.err.find(c.error), std::string::npos) << run.err;
  }
  EXPECT_NE(Tlvtracer(kFolder.path() + "/missing.tvt").err.find("cannot open"), std::string::npos);
}

// The next line from `fd`, "<eof>", or "<timeout>" once `seconds` pass.
std::string ReadLine(int fd, std::string* rest, int seconds) {
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
  return line.front() == '{' ? JsonField(line, "text") : line;
}

TEST_F(TlvtracerTest, FollowWaitsForPartialRecordsAndStopsOnSignal) {
  TLVINFO("before start");
  const std::vector<uint8_t> record = tvttest::ParseTraceFile(path_).at(0).bytes;  // appended again, in two parts
  const std::string err = kFolder.path() + "/follow-err.txt";
  FILE* out = popen(("echo $$; exec " GPC_BIN_DIR "/tlvtracer --follow --json " + path_ + " 2>" + err).c_str(), "r");
  std::string rest;
  const pid_t pid = std::stoi(ReadLine(fileno(out), &rest, 10));
  EXPECT_EQ(ReadLine(fileno(out), &rest, 10), "before start");
  EXPECT_TRUE(tlvtra_is_debugmode()) << "a running tlvtracer turns debug mode on for plug-ins loaded now";
  TLVWARN("while following");
  EXPECT_EQ(ReadLine(fileno(out), &rest, 10), "while following");
  std::ofstream append(path_, std::ios::binary | std::ios::app);
  append.write(reinterpret_cast<const char*>(record.data()), 30).flush();
  EXPECT_EQ(ReadLine(fileno(out), &rest, 1), "<timeout>") << "half a record is waited for, not reported";
  append.write(reinterpret_cast<const char*>(record.data()) + 30, record.size() - 30).flush();
  EXPECT_EQ(ReadLine(fileno(out), &rest, 10), "before start");
  ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));  // a plug-in loading anew: reading starts over
  TLVERROR("after restart");
  EXPECT_EQ(ReadLine(fileno(out), &rest, 10), "after restart");
  kill(pid, SIGTERM);
  const int status = pclose(out);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a stop signal ends it cleanly";
  EXPECT_EQ(gpctest::ReadFile(err).find("corrupt"), std::string::npos) << gpctest::ReadFile(err);
}

}  // namespace

// tlvtracer run as a real process on trace files written through the trace library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>
#include <sys/resource.h>
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
  // With no file named, GPC_TRACE_FILE names it when it is an absolute path the plug-in takes.
  const std::string read = " " GPC_BIN_DIR "/tlvtracer --json 2>&1", folder = gpctest::ShellQuote(kFolder.path());
  EXPECT_NE(gpctest::ShellOutput("GPC_TRACE_FILE=" + folder + "/trace.tvt" + read).find("one\\ntwo"), std::string::npos);
  EXPECT_EQ(gpctest::ShellOutput("cd " + folder + " && GPC_TRACE_FILE=trace.tvt" + read).find("one\\ntwo"), std::string::npos);
  const std::string tooLong = "/" + std::string(254, 'x');  // one byte more than the writer takes
  EXPECT_EQ(gpctest::ShellOutput("GPC_TRACE_FILE=" + tooLong + read).find(tooLong), std::string::npos);

  // A page's text reaches the terminal without its control characters (C1 ones too) or bytes that are not UTF-8.
  TLVWARN("x\xC2\x9B" "2J\x1B\xFF");
  const std::string shownLast = tvttest::Tlvtracer({"--level", "warn", kPath}).out;
  EXPECT_NE(shownLast.find(" x\\u009B2J\\x1B\uFFFD\n"), std::string::npos) << shownLast;
  const std::string jsonLast = tvttest::Tlvtracer({"--json", "--level", "warn", kPath}).out;
  EXPECT_NE(jsonLast.find("\"x\\u009b2J\\u001b\uFFFD\""), std::string::npos) << jsonLast;

  std::string debugs;
  while (debugs.size() < (1 << 20)) debugs += good.substr(48, 60);
  // A run of zero bytes is stepped over without being held, nearly 128 MiB of them (a sparse file)
  // ending where a batch of reading ends. With both outputs in one pipe (as gpc-host reads them),
  // its notice lands between the lines of 6 KB of records, not inside one.
  gpctest::WriteFile(bad, good.substr(0, 48) + debugs.substr(0, 6000));
  ASSERT_EQ(truncate(bad.c_str(), 128 << 20), 0);
  std::ofstream(bad, std::ios::binary | std::ios::app) << good.substr(48, 60);
  std::istringstream both(gpctest::ShellOutput(GPC_BIN_DIR "/tlvtracer --json " + gpctest::ShellQuote(bad) + " 2>&1"));
  std::vector<std::string> notices;
  int records = 0;
  for (std::string line; std::getline(both, line);) {
    if (line.front() == '{' && line.back() == '}') ++records; else notices.push_back(line);
  }
  EXPECT_EQ(records, 101);
  EXPECT_EQ(notices, std::vector<std::string>{"tlvtracer: " + bad + ": 134211680 zero bytes at byte offset 6048, left by a "
                                              "writer in another process; skipped"});
  ASSERT_EQ(truncate(bad.c_str(), 6048 + 64), 0);  // zeros to the end: a record cut short
  const std::string cut = tvttest::Tlvtracer({bad}).err;
  EXPECT_NE(cut.find("truncated record at byte offset 6048: only 64 bytes follow"), std::string::npos) << cut;
  // A long trace is read a batch at a time: showing 128 MiB takes a small part of that in memory.
  gpctest::WriteFile(bad, good.substr(0, 48));
  for (std::ofstream out(bad, std::ios::binary | std::ios::app); out.tellp() < (128 << 20);) out << debugs;
  EXPECT_EQ(tvttest::Tlvtracer({"--level", "warn", bad}).exitCode, 0);
  struct rusage children;
  ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &children), 0);
  EXPECT_LT(children.ru_maxrss, 64 << 10) << "KiB at most in tlvtracer";
  std::remove(bad.c_str());
}

// "pid text" of the next JSON line from `fd`, another line as it is, "<eof>", or "<timeout>" once
// `seconds` pass.
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
  if (line.front() != '{') return line;
  const gpchost::JsonEvent record{line};
  return std::to_string(record.Int("pid")) + " " + record.Str("text");
}

// One info record as the plug-in in process `pid` writes it; `header` receives the file header.
std::string Record(uint32_t pid, const std::string& text, std::string* header = nullptr) {
  const std::string scratch = kFolder.path() + "/record.tvt";
  EXPECT_TRUE(tlvtra_reopen_for_testing(scratch.c_str()));
  TLVINFO(text.c_str());
  std::string bytes = gpctest::ReadFile(scratch);
  if (header != nullptr) *header = bytes.substr(0, 48);
  for (int i = 0; i < 4; ++i) bytes[48 + 12 + i] = static_cast<char>(pid >> 8 * i);
  return bytes.substr(48);
}

// Writes `bytes` at `offset` through a descriptor of its own, as the plug-in of another process
// does; `truncate` first cuts the file to nothing in place, as a plug-in loading does.
void WriteAt(const std::string& path, size_t offset, const std::string& bytes, bool truncate = false) {
  const int fd = open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  if (truncate) {
    EXPECT_EQ(ftruncate(fd, 0), 0);
  }
  EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)), static_cast<ssize_t>(bytes.size()));
  close(fd);
}

// `tlvtracer --follow --json` on a file, stopped when the object ends.
class Following {
 public:
  explicit Following(const std::string& path)
      : m_out(popen(("echo $$; exec " GPC_BIN_DIR "/tlvtracer --follow --json " + path).c_str(), "r")),
        m_pid(std::stoi(ReadText(fileno(m_out), &m_rest, 10))) {}
  ~Following() {
    if (m_out != nullptr) Stop();
  }
  // "pid text" of the next record shown, "<eof>" or "<timeout>".
  std::string Next(int seconds = 10) { return ReadText(fileno(m_out), &m_rest, seconds); }
  // The next `count` of them, added to `shown`.
  void Take(size_t count, Lines* shown) {
    while (count-- > 0) shown->push_back(Next());
  }
  // Sends the stop signal; the exit status.
  int Stop() {
    kill(m_pid, SIGTERM);
    const int status = pclose(m_out);
    m_out = nullptr;
    return status;
  }

 private:
  FILE* m_out;
  std::string m_rest;
  pid_t m_pid;
};

TEST(Tlvtracer, FollowShowsAFileStartedAnewBetweenTwoPollsOnceFromItsStart) {
  std::string header, fresh;
  const std::string old1 = Record(111, "old 1", &header), old2 = Record(111, "old 2");
  const struct {
    std::string before;
    Lines shown;
  } cases[] = {
      {header + old1 + old2, {"111 old 1", "111 old 2"}},
      {header + old1.substr(0, 30), {"<timeout>"}},  // the first record read only in part
  };
  const Lines wanted = {"222 new 1", "222 new 2", "222 new 3", "222 new 4", "222 new 5"};
  for (size_t i = 0; i < 4; ++i) fresh += Record(222, wanted[i].substr(4));
  const std::string later = Record(222, "new 5");
  for (const auto& c : cases) {
    gpctest::WriteFile(kPath, c.before);
    Following follow(kPath);
    for (const std::string& line : c.shown) EXPECT_EQ(follow.Next(1), line);
    WriteAt(kPath, 0, header + fresh, true);  // all of it between two polls
    WriteAt(kPath, header.size() + fresh.size(), later);
    Lines shown;
    follow.Take(wanted.size(), &shown);
    EXPECT_EQ(shown, wanted) << c.before.size();
  }
}

TEST(Tlvtracer, FollowGoesOnPastTheHoleAnOlderWriterLeavesAndShowsWhatFillsIt) {
  std::string header;
  const std::string older = Record(111, "first 1", &header) + Record(111, "first 2") + Record(111, "first 3");
  gpctest::WriteFile(kPath, header + older);
  Following follow(kPath);
  Lines shown;
  follow.Take(3, &shown);
  // A plug-in loading in process 222 starts the file anew; the one in 111 writes on at its own offset.
  const std::string newer = header + Record(222, "second 1"), fourth = Record(111, "first 4"),
                    second = Record(222, "second 2");
  WriteAt(kPath, 0, newer, true);
  WriteAt(kPath, header.size() + older.size(), fourth);
  follow.Take(2, &shown);
  WriteAt(kPath, newer.size(), second);  // into the hole
  follow.Take(1, &shown);
  WriteAt(kPath, header.size() + older.size() + fourth.size(), Record(111, "first 5"));
  follow.Take(1, &shown);
  EXPECT_EQ(shown, (Lines{"111 first 1", "111 first 2", "111 first 3", "222 second 1", "111 first 4", "222 second 2",
                          "111 first 5"}));
  // Read once, the file shows every record in file order, exits 0 and names the hole it stepped over.
  EXPECT_EQ(tvttest::Records(kPath), (Lines{"2 GPCPlugin||second 1", "2 GPCPlugin||second 2", "2 GPCPlugin||first 4",
                                            "2 GPCPlugin||first 5"}));
  const std::string skipped = "zero bytes at byte offset " + std::to_string(newer.size() + second.size());
  EXPECT_NE(tvttest::Tlvtracer({kPath}).err.find(skipped), std::string::npos);
}

TEST(Tlvtracer, FollowWaitsForPartialRecordsAndStopsOnSignal) {
  ASSERT_TRUE(tlvtra_reopen_for_testing(kPath.c_str()));
  TLVINFO("before start");
  const std::string record = gpctest::ReadFile(kPath).substr(48), me = std::to_string(getpid()) + " ";
  Following follow(kPath);
  EXPECT_EQ(follow.Next(), me + "before start");
  EXPECT_TRUE(tlvtra_is_debugmode()) << "a running tlvtracer turns debug mode on for plug-ins loaded now";
  TLVWARN("while following");
  EXPECT_EQ(follow.Next(), me + "while following");
  const size_t end = gpctest::ReadFile(kPath).size();  // the record appended again, in two parts
  WriteAt(kPath, end, record.substr(0, 30));
  EXPECT_EQ(follow.Next(1), "<timeout>") << "half a record is waited for, not reported";
  WriteAt(kPath, end + 30, record.substr(30));
  EXPECT_EQ(follow.Next(), me + "before start");
  ASSERT_TRUE(tlvtra_reopen_for_testing(kPath.c_str()));  // a plug-in loading anew: reading starts over
  TLVERROR("after restart");
  EXPECT_EQ(follow.Next(), me + "after restart");
  const int status = follow.Stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a stop signal ends it cleanly";
}

}  // namespace

// tlvtracer run as a real process on trace files written through the trace library.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tlvtrace/tlvtrace_testing.h"
#include "tlvtrace/tlvtraceu.h"
#include "tvt_reader.h"

namespace {

const std::string kTool = std::string(GPC_BIN_DIR) + "/tlvtracer";

struct RunResult {
  int status = -1;  // exit code, or -1 when killed
  std::string out;
  std::string err;
};

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Starts tlvtracer with `args`; its stdout goes to a pipe (returned in *out_fd) or to `out_path`,
// its stderr to `err_path`.
pid_t Start(const std::vector<std::string>& args, const std::string& out_path, const std::string& err_path,
            int* out_fd) {
  int pipe_fds[2] = {-1, -1};
  if (out_fd != nullptr && pipe(pipe_fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = out_fd != nullptr ? pipe_fds[1] : open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, 1);
    dup2(err, 2);
    if (out_fd != nullptr) close(pipe_fds[0]);
    std::vector<char*> argv{const_cast<char*>(kTool.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(kTool.c_str(), argv.data());
    _exit(127);
  }
  if (out_fd != nullptr) {
    close(pipe_fds[1]);
    *out_fd = pipe_fds[0];
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class TlvtracerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = tvttest::TestFolder("tlvtracer");
    path_ = folder_ + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".tvt";
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
  }
  void TearDown() override {
    tlvtra_set_debugmode_for_testing(false);
    unlink(path_.c_str());
  }

  RunResult Run(const std::vector<std::string>& args) {
    const std::string out = folder_ + "/out.txt";
    const std::string err = folder_ + "/err.txt";
    RunResult result;
    result.status = Wait(Start(args, out, err, nullptr));
    result.out = Slurp(out);
    result.err = Slurp(err);
    return result;
  }

  void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  std::string folder_;
  std::string path_;
};

// The value of a string field of one JSON line (the tests' texts hold no quotes).
std::string JsonField(const std::string& line, const std::string& name) {
  const std::string key = "\"" + name + "\":\"";
  const size_t start = line.find(key);
  if (start == std::string::npos) return "<missing>";
  const size_t from = start + key.size();
  return line.substr(from, line.find('"', from) - from);
}

TEST_F(TlvtracerTest, EightThreadsWriteEightyThousandIntactRecords) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 10000;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      char text[64];
      for (int i = 0; i < kPerThread; ++i) {
        snprintf(text, sizeof text, "writer %d record %d %s", t, i, i % 2 ? "odd" : "even-padding");
        TLVTRACERAW(TLVTRACE_LEVEL_WARN, "Worker", i % 3 ? "Fn" : nullptr, text);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();

  const RunResult result = Run({"--json", path_});
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), size_t{kThreads * kPerThread});
  std::map<int, int> next;  // per writer, the record expected next
  for (const std::string& line : lines) {
    int t = -1;
    int i = -1;
    char tail[32];
    ASSERT_EQ(sscanf(JsonField(line, "text").c_str(), "writer %d record %d %31s", &t, &i, tail), 3) << line;
    ASSERT_EQ(i, next[t]) << "records of one writer keep their order: " << line;
    ++next[t];
    ASSERT_STREQ(tail, i % 2 ? "odd" : "even-padding");
    ASSERT_EQ(JsonField(line, "module"), "Worker");
    ASSERT_EQ(JsonField(line, "function"), i % 3 ? "Fn" : "");
    ASSERT_EQ(JsonField(line, "level"), "warn");
    ASSERT_NE(line.find("\"pid\":" + std::to_string(getpid()) + ","), std::string::npos);
  }
  EXPECT_EQ(next.size(), size_t{kThreads});
  EXPECT_TRUE(result.err.empty()) << result.err;
  EXPECT_EQ(tvttest::ParseTraceFile(path_).records.size(), size_t{kThreads * kPerThread});
}

TEST_F(TlvtracerTest, TruncatedFileShowsValidRecordsAndNamesTheOffset) {
  TLVINFO("one");
  TLVWARN("two");
  TLVERROR("three");
  const tvttest::File file = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(file.records.size(), 3u);
  std::vector<uint8_t> bytes = tvttest::ReadBytes(path_);
  bytes.resize(bytes.size() - 5);
  const std::string cut = folder_ + "/cut.tvt";
  WriteFile(cut, bytes);

  const RunResult result = Run({cut});
  EXPECT_NE(result.status, 0);
  const std::vector<std::string> lines = Lines(result.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" one"), std::string::npos);
  EXPECT_NE(lines[1].find(" two"), std::string::npos);
  EXPECT_NE(result.err.find("truncated record at byte offset " + std::to_string(file.records[2].offset)),
            std::string::npos)
      << result.err;

  bytes.resize(20);
  WriteFile(cut, bytes);
  const RunResult header_only = Run({cut});
  EXPECT_NE(header_only.status, 0);
  EXPECT_TRUE(header_only.out.empty());
  EXPECT_NE(header_only.err.find("truncated header at byte offset 0"), std::string::npos) << header_only.err;
  unlink(cut.c_str());
}

TEST_F(TlvtracerTest, CorruptRecordStopsTheListingWithItsOffset) {
  TLVINFO("one");
  TLVWARN("two");
  TLVERROR("three");
  const tvttest::File file = tvttest::ParseTraceFile(path_);
  std::vector<uint8_t> bytes = tvttest::ReadBytes(path_);
  bytes[file.records[1].offset + 2] = 9;  // an unknown record version
  const std::string bad = folder_ + "/bad.tvt";
  WriteFile(bad, bytes);
  const RunResult result = Run({"--json", bad});
  EXPECT_NE(result.status, 0);
  ASSERT_EQ(Lines(result.out).size(), 1u);
  EXPECT_NE(result.err.find("corrupt record at byte offset " + std::to_string(file.records[1].offset)),
            std::string::npos)
      << result.err;

  bytes[0] = 'X';
  WriteFile(bad, bytes);
  const RunResult not_trace = Run({bad});
  EXPECT_NE(not_trace.status, 0);
  EXPECT_NE(not_trace.err.find("byte offset 0"), std::string::npos) << not_trace.err;
  unlink(bad.c_str());

  const RunResult missing = Run({folder_ + "/missing.tvt"});
  EXPECT_NE(missing.status, 0);
  EXPECT_NE(missing.err.find("cannot open"), std::string::npos);
}

TEST_F(TlvtracerTest, LevelFilterAndReadableLines) {
  tlvtra_set_debugmode_for_testing(true);
  TLVDEBUG("d");
  TLVINFO("line one\nline two");
  TLVTRACERAW(TLVTRACE_LEVEL_WARN, "Mod", "CGpcWindow::OnTimer", "w");
  TLVERROR("e");
  const RunResult all = Run({path_});
  ASSERT_EQ(all.status, 0) << all.err;
  const std::vector<std::string> lines = Lines(all.out);
  ASSERT_EQ(lines.size(), 4u) << "an embedded line feed stays escaped";
  EXPECT_NE(lines[0].find(" debug pid " + std::to_string(getpid()) + " thread 0x"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(" GPCPlugin - line one\\nline two"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find(" warn  "), std::string::npos) << lines[2];
  EXPECT_NE(lines[2].find(" Mod CGpcWindow::OnTimer w"), std::string::npos) << lines[2];
  EXPECT_EQ(lines[1].find('.'), 19u) << "local time with milliseconds first: " << lines[1];

  const RunResult warn = Run({"--level", "warn", "--json", path_});
  ASSERT_EQ(warn.status, 0);
  const std::vector<std::string> kept = Lines(warn.out);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(JsonField(kept[0], "text"), "w");
  EXPECT_EQ(JsonField(kept[1], "text"), "e");
  EXPECT_EQ(Lines(Run({"--level", "info", path_}).out).size(), 3u);

  const RunResult bad = Run({"--level", "loud", path_});
  EXPECT_NE(bad.status, 0);
  EXPECT_NE(bad.err.find("unknown level"), std::string::npos);
}

// Reads lines from `fd` until `count` have come or `seconds` pass.
std::vector<std::string> ReadLines(int fd, size_t count, int seconds, std::string* rest) {
  std::vector<std::string> lines;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (lines.size() < count && std::chrono::steady_clock::now() < deadline) {
    struct pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) continue;
    char chunk[4096];
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got <= 0) break;
    rest->append(chunk, static_cast<size_t>(got));
    for (size_t end; (end = rest->find('\n')) != std::string::npos;) {
      lines.push_back(rest->substr(0, end));
      rest->erase(0, end + 1);
    }
  }
  return lines;
}

TEST_F(TlvtracerTest, FollowWaitsForPartialRecordsAndStopsOnSignal) {
  // The bytes of one record, taken from a file of their own.
  const std::string donor = folder_ + "/donor.tvt";
  ASSERT_TRUE(tlvtra_reopen_for_testing(donor.c_str()));
  TLVERROR("arrived in two parts");
  const std::vector<uint8_t> donor_bytes = tvttest::ReadBytes(donor);
  const std::vector<uint8_t> record(donor_bytes.begin() + 48, donor_bytes.end());
  ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
  TLVINFO("before start");

  int out_fd = -1;
  const std::string err = folder_ + "/follow-err.txt";
  const pid_t pid = Start({"--follow", "--json", path_}, "", err, &out_fd);
  ASSERT_GT(pid, 0);
  std::string rest;
  std::vector<std::string> lines = ReadLines(out_fd, 1, 10, &rest);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(JsonField(lines[0], "text"), "before start");

  EXPECT_TRUE(tlvtra_is_debugmode()) << "a running tlvtracer turns debug mode on for plug-ins loaded now";

  TLVWARN("while following");
  lines = ReadLines(out_fd, 1, 10, &rest);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(JsonField(lines[0], "text"), "while following");

  // Half a record is waited for, not reported.
  {
    std::ofstream append(path_, std::ios::binary | std::ios::app);
    append.write(reinterpret_cast<const char*>(record.data()), 30);
  }
  EXPECT_TRUE(ReadLines(out_fd, 1, 1, &rest).empty());
  {
    std::ofstream append(path_, std::ios::binary | std::ios::app);
    append.write(reinterpret_cast<const char*>(record.data()) + 30, static_cast<std::streamsize>(record.size() - 30));
  }
  lines = ReadLines(out_fd, 1, 10, &rest);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(JsonField(lines[0], "text"), "arrived in two parts");

  // A plug-in loading anew truncates the file: reading starts over.
  ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
  TLVERROR("after restart");
  lines = ReadLines(out_fd, 1, 10, &rest);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(JsonField(lines[0], "text"), "after restart");

  kill(pid, SIGTERM);
  EXPECT_EQ(Wait(pid), 0) << "a stop signal ends it cleanly";
  close(out_fd);
  EXPECT_EQ(Slurp(err).find("corrupt"), std::string::npos) << Slurp(err);
  unlink(donor.c_str());
}

}  // namespace

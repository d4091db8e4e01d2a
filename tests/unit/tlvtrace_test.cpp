#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>

#include "platform/clock.h"
#include "http_test_server.h"
#include "scoped_env.h"
#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/tlvtrace/tlvtraceu.h"
#include "tvt_reader.h"

namespace {

const uint8_t kHeader[48] = {'T', 'L', 'V', 'T', 0xFF, 0xFE, 3, 2, 0x30, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                             0,   0,   0,   0,   48,   0,    0, 0, 48,   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
    platform::SetWallClockOverride([] { return int64_t{1700000000123456}; });
  }
  void TearDown() override { platform::SetWallClockOverride(nullptr); }
  const gpctest::TempFolder folder_{"tlvtrace"};
  const std::string path_ = folder_.path() + "/trace.tvt";
};

TEST_F(TraceFileTest, EveryNewFileStartsWithTheFixedHeader) {
  const std::vector<uint8_t> header(kHeader, kHeader + 48);
  EXPECT_EQ(tvttest::ReadBytes(path_), header) << "on disk before any record";
  const char* at_load = getenv("GPC_TRACE_FILE");  // ctest names the file the library made at load
  EXPECT_EQ(at_load == nullptr ? header : tvttest::ReadBytes(at_load), header);
  gpctest::WriteFile(path_ + ".stale", std::string(500, 's'));
  ScopedEnv env("GPC_TRACE_FILE", path_ + ".stale");
  FILE* created = tlvtra_create_tracefile();
  ASSERT_NE(created, nullptr);
  fclose(created);
  EXPECT_EQ(tvttest::ReadBytes(path_ + ".stale"), header) << "truncated";
}

// A link planted at the trace file's name is never followed: its target keeps its content.
TEST_F(TraceFileTest, LinkPlantedAtTheNameIsNeverFollowed) {
  const std::string victim = path_ + ".victim", planted = path_ + ".planted";
  for (auto make_link : {&symlink, &link}) {
    gpctest::WriteFile(victim, "precious");
    ASSERT_EQ(make_link(victim.c_str(), planted.c_str()), 0);
    EXPECT_FALSE(tlvtra_reopen_for_testing(planted.c_str()));
    EXPECT_EQ(TLVINFO("after the refusal"), TLVTRACE_NO_FILE);
    EXPECT_EQ(gpctest::ReadFile(victim), "precious");
    unlink(planted.c_str());
    unlink(victim.c_str());
  }
}

TEST_F(TraceFileTest, RecordHeadHoldsLevelProcessThreadAndLocalTime) {
  EXPECT_EQ(TLVINFO("abc"), TLVTRACE_WRITTEN);
  uint8_t expected[64] = {0x40, 0, 3, 0, 0, 0, 4, 0, 2, 0, 0, 0};
  const uint32_t ids[] = {uint32_t(getpid()), uint32_t(uintptr_t(pthread_self())), 0, 1700000000};
  const uint16_t places[] = {123, 48, 48 + 9, 48 + 10};  // milliseconds; module, function (its NUL), text
  memcpy(expected + 12, ids, sizeof ids);  // the machine is little-endian, like the file
  memcpy(expected + 28, places, sizeof places);
  memcpy(expected + 48, "GPCPlugin\0abc\0\0\0", 16);
  const std::vector<tvttest::Record> records = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].bytes, std::vector<uint8_t>(expected, expected + 64));
  char text[64], small[8];
  tlvtra_get_time(text, sizeof text);
  std::string shape = text;
  for (char& c : shape) c = isdigit(static_cast<unsigned char>(c)) ? '9' : c;
  EXPECT_EQ(shape + std::string(text + 8, 4), "99:99:99.999 99/99/99.123") << "local time with milliseconds, short date";
  tlvtra_get_time(small, sizeof small);  // the clock keeps size - 2 characters, the date the last byte
  EXPECT_EQ(std::string(small), std::string(text, 6) + text[13]);
}

TEST_F(TraceFileTest, WritersRecordOrSayWhyNot) {
  const std::string m(200, 'm'), f(300, 'f'), t(3000, 't');
  int extra = 0;
  const struct {
    bool debug, file;
    std::function<int()> write;
    int result;
    std::vector<std::string> seen;  // length (padded to four bytes) level module|function|text
  } cases[] = {
      {true, true, [] { return TLVDEBUG("d"); }, TLVTRACE_WRITTEN, {"60 1 GPCPlugin||d"}},
      {true, true, [] { return TLVINFO("i %d", 5); }, TLVTRACE_WRITTEN, {"64 2 GPCPlugin||i %d"}},
      {true, true, [] { return TLVWARN("w"); }, TLVTRACE_WRITTEN, {"60 4 GPCPlugin||w"}},
      {true, true, [] { return TLVERROR("e"); }, TLVTRACE_WRITTEN, {"60 8 GPCPlugin||e"}},
      {true, true, [] { return TLVDEBUG2("M1", "d"); }, TLVTRACE_WRITTEN, {"56 1 M1||d"}},
      {true, true, [] { return TLVINFO2("M2", "i"); }, TLVTRACE_WRITTEN, {"56 2 M2||i"}},
      {true, true, [] { return TLVWARN2("M3", "w"); }, TLVTRACE_WRITTEN, {"56 4 M3||w"}},
      {true, true, [] { return TLVERROR2(nullptr, "e"); }, TLVTRACE_WRITTEN, {"60 8 GPCPlugin||e"}},
      {true, true, [&] { return TLVTRACE(1, "M4", "Fn", "t", &extra); }, TLVTRACE_WRITTEN, {"56 1 M4|Fn|t"}},
      {false, true, [] { return TLVTRACERAW(8, "Mod", "Func", "hi"); }, TLVTRACE_WRITTEN, {"60 8 Mod|Func|hi"}},
      {false, true, [&] { return TLVTRACERAW(4, m.c_str(), nullptr, "x"); }, TLVTRACE_WRITTEN,
       {"180 4 " + m.substr(73) + "||x"}},
      {false, true, [&] { return TLVTRACERAW(4, m.c_str(), f.c_str(), t.c_str()); }, TLVTRACE_WRITTEN,
       {"2352 4 " + m.substr(73) + "|" + f.substr(173) + "|" + t.substr(953)}},
      {false, true, [] { return TLVTRACERAW(2, nullptr, nullptr, nullptr); }, TLVTRACE_WRITTEN, {"60 2 GPCPlugin||"}},
      {false, true, [] { return TLVINFO(nullptr); }, TLVTRACE_NULL_TEXT, {}},
      {false, true, [] { return TLVERROR2("Mod", nullptr); }, TLVTRACE_NULL_TEXT, {}},
      {false, true, [] { return TLVDEBUG(nullptr); }, TLVTRACE_NULL_TEXT, {}},
      {true, true, [&] { return TLVTRACE(2, "Mod", "Fn", nullptr, &extra); }, TLVTRACE_NULL_TEXT, {}},
      {true, true, [] { return TLVTRACE(2, "Mod", "Fn", "text", nullptr); }, TLVTRACE_NULL_TEXT, {}},
      {false, true, [] { return TLVDEBUG("x"); }, TLVTRACE_DEBUG_OFF, {}},
      {false, true, [] { return TLVDEBUG2("Mod", "x"); }, TLVTRACE_DEBUG_OFF, {}},
      {false, true, [] { return TLVTRACERAW(1, "Mod", nullptr, "x"); }, TLVTRACE_DEBUG_OFF, {}},
      {false, true, [&] { return TLVTRACE(1, "Mod", "Fn", "text", &extra); }, TLVTRACE_DEBUG_OFF, {}},
      {true, false, [] { return TLVINFO("x"); }, TLVTRACE_NO_FILE, {}},
      {false, false, [] { return TLVTRACERAW(1, "Mod", nullptr, "x"); }, TLVTRACE_NO_FILE, {}},
      {false, false, [] { return TLVDEBUG("x"); }, TLVTRACE_DEBUG_OFF, {}},  // stops at debug mode first
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(tlvtra_reopen_for_testing(cases[i].file ? path_.c_str() : nullptr));
    tlvtra_set_debugmode_for_testing(cases[i].debug);
    EXPECT_EQ(cases[i].write(), cases[i].result) << i;
    std::vector<std::string> seen;
    for (const auto& record : tvttest::ParseTraceFile(path_)) {
      seen.push_back(std::to_string(record.bytes.size()) + " " + record.Describe());
    }
    EXPECT_EQ(seen, cases[i].seen) << i;
  }
  tlvtra_set_debugmode_for_testing(false);
  EXPECT_FALSE(tlvtra_reopen_for_testing("/nonexistent-folder/trace.tvt"));
  EXPECT_EQ(TLVINFO("lost"), TLVTRACE_NO_FILE);
}

TEST_F(TraceFileTest, ShortWriteClosesTheFileForGood) {
  struct rlimit old_limit, small;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  small = old_limit;
  small.rlim_cur = 200;  // the header and a short record fit, a long record crosses the limit
  void (*old_handler)(int) = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::vector<int> results{TLVINFO("fits"), TLVINFO(std::string(1000, 'x').c_str()), TLVINFO("after")};
  setrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, old_handler);
  EXPECT_EQ(results, (std::vector<int>{TLVTRACE_WRITTEN, TLVTRACE_SHORT_WRITE, TLVTRACE_NO_FILE}));
}

TEST(DebugModeName, OnlyTheLastPieceOfTheNameCounts) {
  for (const char* name : {"tlvtracer", "a/b/tlvtracer", "/usr/bin/tlvtracer", "tlvtracer/", "a/tlvtracer/"}) {
    EXPECT_TRUE(tlvtra_is_debugmode(name)) << name;
  }
  for (const char* name : {"", "/", "tlvtracer//", "tlvtracer/b", "Tlvtracer", "tlvtracer2", "xtlvtracer", "tlv"}) {
    EXPECT_FALSE(tlvtra_is_debugmode(name)) << name;
  }
  EXPECT_FALSE(tlvtra_is_debugmode(nullptr));
}

TEST(BoundedText, EdgesOfTheBoundedCopies) {
  char b[8] = "abcdefg";
  EXPECT_EQ(nlFormat(nullptr, 8, "abc"), -1);
  nlStrCpy(b, 6, nullptr);
  nlStrCpy(b + 2, 1, "abc");
  EXPECT_EQ(std::string(b, 4), std::string("\0b\0d", 4)) << "only the first byte is written";
  memcpy(b, "abcd", 4);
  nlStrCat(b, 4, "x");
  EXPECT_EQ(std::string(b, 5), "abcde") << "no end within size: no room";
}

}  // namespace

// The trace writer, its file read back with tlvtracer: records, refusals, and a file never written through a link.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/tlvtrace/tlvtraceu.h"
#include "http_test_server.h"
#include "platform/clock.h"
#include "scoped_env.h"
#include "tvt_reader.h"

namespace {

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
  }
  const gpctest::TempFolder folder_{"tlvtrace"};
  const std::string path_ = folder_.path() + "/trace.tvt";
};

// A new file is a whole trace at once, even over an older file's bytes, and for its owner's eyes
// only; a link at the name is never followed, nor another user's file written.
TEST_F(TraceFileTest, NewFileHoldsTheHeaderAloneAndNeverFollowsALink) {
  gpctest::WriteFile(path_, std::string(500, 's'));
  chmod(path_.c_str(), 0666);
  ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
  EXPECT_EQ(tvttest::Records(path_), std::vector<std::string>{});
  struct stat info {};
  EXPECT_TRUE(stat(path_.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600);
  const std::string victim = path_ + ".victim", planted = path_ + ".planted";
  for (auto make_link : {&symlink, &link}) {
    gpctest::WriteFile(victim, "precious");
    ASSERT_EQ(make_link(victim.c_str(), planted.c_str()), 0);
    EXPECT_FALSE(tlvtra_reopen_for_testing(planted.c_str()));
    EXPECT_EQ(TLVINFO("after the refusal"), TLVTRACE_NO_FILE);
    EXPECT_EQ(gpctest::ReadFile(victim), "precious");
    unlink(planted.c_str());
  }
  gpctest::WriteFile(planted, "precious");
  if (geteuid() != 0) GTEST_SKIP() << "only root can plant another user's file";
  ASSERT_EQ(chown(planted.c_str(), 65534, 65534) | chmod(planted.c_str(), 0666), 0);
  EXPECT_FALSE(tlvtra_reopen_for_testing(planted.c_str()));
  EXPECT_EQ(gpctest::ReadFile(planted), "precious");
}

// Another process's load starts the file anew: this process's next record follows what that load
// wrote, with no run of zero bytes where its own earlier records were.
TEST_F(TraceFileTest, RecordsFollowWhatAnotherLoadWroteAfterStartingTheFileAnew) {
  const std::string header = gpctest::ReadFile(path_);
  EXPECT_EQ(TLVINFO("first"), TLVTRACE_WRITTEN);
  ASSERT_TRUE(gpctest::WriteFile(path_, header));  // truncated in place, as a load does
  EXPECT_EQ(TLVINFO("second"), TLVTRACE_WRITTEN);
  EXPECT_NE(gpctest::ReadFile(path_).compare(header.size(), 4, std::string(4, '\0')), 0);
  EXPECT_EQ(tvttest::Records(path_), std::vector<std::string>{"2 GPCPlugin||second"});
}

// A load in another process while this one writes the file appends to it: this process's records
// stay. Only a file that holds no trace (emptied or overwritten in place) is started anew under a
// writer, and a load with no other writer starts it anew as ever.
TEST_F(TraceFileTest, LoadWhileAnotherProcessWritesKeepsItsRecords) {
  const std::string first = "2 GPCPlugin||first", second = "2 GPCPlugin||second", third = "2 GPCPlugin||third";
  const struct {
    const char* overwrite;  // put in place of the file's bytes before the other load; null: nothing
    std::vector<std::string> seen;
  } cases[] = {{nullptr, {first, second, third}}, {"", {second, third}}, {"no trace", {second, third}}};
  for (const auto& c : cases) {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    EXPECT_EQ(tvttest::Records(path_), std::vector<std::string>{}) << "no other writer: a new file";
    EXPECT_EQ(TLVINFO("first"), TLVTRACE_WRITTEN);
    if (c.overwrite != nullptr) gpctest::WriteFile(path_, c.overwrite);
    EXPECT_TRUE(gpctest::InChild([&] { return tlvtra_reopen_for_testing(path_.c_str()) && TLVINFO("second") == TLVTRACE_WRITTEN; }));
    EXPECT_EQ(TLVINFO("third"), TLVTRACE_WRITTEN);
    EXPECT_EQ(tvttest::Records(path_), c.seen) << (c.overwrite ? c.overwrite : "kept");
  }
}

TEST_F(TraceFileTest, RecordHeadHoldsLevelProcessThreadAndLocalTime) {
  platform::SetWallClockOverride([] { return int64_t{1700000000123456}; });
  EXPECT_EQ(TLVINFO("abc"), TLVTRACE_WRITTEN);
  uint8_t expected[64] = {0x40, 0, 3, 0, 0, 0, 4, 0, 2, 0, 0, 0};
  const uint32_t ids[] = {uint32_t(getpid()), uint32_t(uintptr_t(pthread_self())), 0, 1700000000};
  const uint16_t places[] = {123, 48, 48 + 9, 48 + 10};  // milliseconds; module, function (its NUL), text
  memcpy(expected + 12, ids, sizeof ids);  // the machine is little-endian, like the file
  memcpy(expected + 28, places, sizeof places);
  memcpy(expected + 48, "GPCPlugin\0abc\0\0\0", 16);
  EXPECT_EQ(gpctest::ReadFile(path_).substr(48), std::string(reinterpret_cast<char*>(expected), 64));
  char text[64], small[8];
  tlvtra_get_time(text, sizeof text);
  std::string shape = text;
  for (char& c : shape) c = isdigit(static_cast<unsigned char>(c)) ? '9' : c;
  EXPECT_EQ(shape + std::string(text + 8, 4), "99:99:99.999 99/99/99.123") << "local time with milliseconds, short date";
  tlvtra_get_time(small, sizeof small);  // the clock keeps size - 2 characters, the date the last byte
  EXPECT_EQ(std::string(small), std::string(text, 6) + text[13]);
  platform::SetWallClockOverride(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(TLVINFO("child") == TLVTRACE_WRITTEN ? 0 : 1);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  uint32_t pid = 0;
  memcpy(&pid, gpctest::ReadFile(path_).c_str() + 48 + 64 + 12, sizeof pid);
  EXPECT_EQ(pid, uint32_t(child)) << "a forked child's records carry its own pid";
}

// A relative name would land in whatever folder the browser runs in: the default file is taken instead.
TEST_F(TraceFileTest, RelativeTraceFileNameIsNotTaken) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(folder_.path().c_str()), 0);
  ScopedEnv name("GPC_TRACE_FILE", "rel.tvt");
  // The machine's default trace file may be started afresh by this: it is given back as it was.
  const char* const shared = "/tmp/tlvgpc.tvt";
  const bool existed = access(shared, F_OK) == 0;
  const std::string before = gpctest::ReadFile(shared);
  if (FILE* fp = tlvtra_create_tracefile()) fclose(fp);
  if (existed) gpctest::WriteFile(shared, before);
  if (!existed) unlink(shared);
  EXPECT_EQ(chdir(cwd), 0);
  EXPECT_NE(access((folder_.path() + "/rel.tvt").c_str(), F_OK), 0) << "no file in the working folder";
}

TEST_F(TraceFileTest, WritersRecordOrSayWhyNot) {
  const std::string m(200, 'm'), f(300, 'f'), t(3000, 't');
  int extra = 0;
  const struct {
    bool debug, file;
    std::function<int()> write;
    int result;
    std::string seen;  // level module|function|text
  } cases[] = {
      {true, true, [] { return TLVDEBUG2("M1", "d"); }, TLVTRACE_WRITTEN, "1 M1||d"},
      {true, true, [] { return TLVINFO2("M2", "i %d", 5); }, TLVTRACE_WRITTEN, "2 M2||i %d"},
      {true, true, [] { return TLVWARN2("M3", "w"); }, TLVTRACE_WRITTEN, "4 M3||w"},
      {true, true, [] { return TLVERROR2(nullptr, "e"); }, TLVTRACE_WRITTEN, "8 GPCPlugin||e"},
      {true, true, [&] { return TLVTRACE(1, "M4", "Fn", "t", &extra); }, TLVTRACE_WRITTEN, "1 M4|Fn|t"},
      {false, true, [] { return TLVTRACERAW(8, "Mod", "Func", "hi"); }, TLVTRACE_WRITTEN, "8 Mod|Func|hi"},
      {false, true, [&] { return TLVTRACERAW(4, m.c_str(), f.c_str(), t.c_str()); }, TLVTRACE_WRITTEN,
       "4 " + m.substr(73) + "|" + f.substr(173) + "|" + t.substr(953)},
      {false, true, [] { return TLVTRACERAW(2, nullptr, nullptr, nullptr); }, TLVTRACE_WRITTEN, "2 GPCPlugin||"},
      {false, true, [] { return TLVERROR2("Mod", nullptr); }, TLVTRACE_NULL_TEXT, ""},
      {false, true, [] { return TLVDEBUG(nullptr); }, TLVTRACE_NULL_TEXT, ""},
      {true, true, [&] { return TLVTRACE(2, "Mod", "Fn", nullptr, &extra); }, TLVTRACE_NULL_TEXT, ""},
      {true, true, [] { return TLVTRACE(2, "Mod", "Fn", "text", nullptr); }, TLVTRACE_NULL_TEXT, ""},
      {false, true, [] { return TLVDEBUG2("Mod", "x"); }, TLVTRACE_DEBUG_OFF, ""},
      {false, true, [] { return TLVTRACERAW(1, "Mod", nullptr, "x"); }, TLVTRACE_DEBUG_OFF, ""},
      {false, true, [&] { return TLVTRACE(1, "Mod", "Fn", "text", &extra); }, TLVTRACE_DEBUG_OFF, ""},
      {true, false, [] { return TLVINFO("x"); }, TLVTRACE_NO_FILE, ""},
      {false, false, [] { return TLVTRACERAW(1, "Mod", nullptr, "x"); }, TLVTRACE_NO_FILE, ""},
      {false, false, [] { return TLVDEBUG("x"); }, TLVTRACE_DEBUG_OFF, ""},  // stops at debug mode first
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(tlvtra_reopen_for_testing(c.file ? path_.c_str() : nullptr));
    tlvtra_set_debugmode_for_testing(c.debug);
    EXPECT_EQ(c.write(), c.result) << c.seen;
    EXPECT_EQ(tvttest::Records(path_), c.seen.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.seen});
  }
  EXPECT_FALSE(tlvtra_reopen_for_testing("/nonexistent-folder/trace.tvt"));
}

TEST_F(TraceFileTest, ShortWriteClosesTheFileForGood) {
  const std::vector<int> results = [] {
    const ScopedFileSizeLimit disk(200);  // the header and a short record fit, a long record crosses it
    return std::vector<int>{TLVINFO("fits"), TLVINFO(std::string(1000, 'x').c_str()), TLVINFO("after")};
  }();
  EXPECT_EQ(results, (std::vector<int>{TLVTRACE_WRITTEN, TLVTRACE_SHORT_WRITE, TLVTRACE_NO_FILE}));
}

TEST(TraceHelpers, DebugModeNameAndBoundedCopies) {
  for (const char* name : {"tlvtracer", "/usr/bin/tlvtracer", "a/tlvtracer/"}) EXPECT_TRUE(tlvtra_is_debugmode(name));
  for (const char* name : {"", "/", "tlvtracer//", "tlvtracer/b", "Tlvtracer", "tlvtracer2", "xtlvtracer", "tlv"}) {
    EXPECT_FALSE(tlvtra_is_debugmode(name)) << name;
  }
  EXPECT_FALSE(tlvtra_is_debugmode(nullptr));
  const uint32_t older[3] = {0, 0, 1}, newer[3] = {0, 0, 5};
  EXPECT_EQ(tlvtra_comparefiles(older, newer), 4) << "descending by the third word";
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

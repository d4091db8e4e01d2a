#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <pthread.h>
#include <regex>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/clock.h"
#include "tlvtrace/tlvtrace_testing.h"
#include "tlvtrace/tlvtraceu.h"
#include "tvt_reader.h"

namespace {

constexpr int64_t kFixedMicros = 1700000000123456;  // 2023-11-14, .123456 s

class TraceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = tvttest::TestFolder("tlvtrace") + "/" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".tvt";
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
    platform::SetWallClockOverride([] { return kFixedMicros; });
  }
  void TearDown() override {
    platform::SetWallClockOverride(nullptr);
    tlvtra_set_debugmode_for_testing(false);
    unlink(path_.c_str());
  }
  tvttest::File Parse() {
    tvttest::File file = tvttest::ParseTraceFile(path_);
    EXPECT_EQ(file.error, "");
    return file;
  }
  tvttest::Record OnlyRecord() {
    tvttest::File file = Parse();
    EXPECT_EQ(file.records.size(), 1u);
    return file.records.empty() ? tvttest::Record() : file.records[0];
  }

  std::string path_;
};

TEST_F(TraceFileTest, HeaderIsTheFixedFortyEightBytes) {
  const uint8_t expected[48] = {'T', 'L', 'V', 'T', 0xFF, 0xFE, 3, 2, 0x30, 0, 1, 0, 0, 0, 0, 0,
                                0,   0,   0,   0,   0,    0,    0, 0, 0,    0, 0, 0, 48, 0, 0, 0,
                                48,  0,   0,   0,   0,    0,    0, 0, 0,    0, 0, 0, 0,  0, 0, 0};
  const std::vector<uint8_t> bytes = tvttest::ReadBytes(path_);
  ASSERT_EQ(bytes.size(), 48u) << "the header is on disk before any record";
  EXPECT_EQ(0, memcmp(bytes.data(), expected, 48));

  tlvtraceheader_v3 header;
  memset(&header, 0xAB, sizeof header);
  tlvtra_initheader(&header);
  EXPECT_EQ(0, memcmp(&header, expected, 48));
}

TEST_F(TraceFileTest, TraceFileVariableNamesTheFileAndCreationTruncates) {
  const char* old = getenv("GPC_TRACE_FILE");
  const std::string saved = old != nullptr ? old : "";
  const std::string wanted = path_ + ".created";
  {
    std::ofstream stale(wanted);
    stale << std::string(500, 's');
  }
  setenv("GPC_TRACE_FILE", wanted.c_str(), 1);
  FILE* created = tlvtra_create_tracefile();
  if (old != nullptr) {
    setenv("GPC_TRACE_FILE", saved.c_str(), 1);
  } else {
    unsetenv("GPC_TRACE_FILE");
  }
  ASSERT_NE(created, nullptr);
  fclose(created);
  const std::vector<uint8_t> bytes = tvttest::ReadBytes(wanted);
  ASSERT_EQ(bytes.size(), 48u) << "a previous file is truncated";
  EXPECT_EQ(0, memcmp(bytes.data(), "TLVT\xFF\xFE\x03\x02", 8));
  unlink(wanted.c_str());
}

// A link planted at the trace file's name (symbolic or hard) is never followed: what it points
// to keeps its content, and tracing is off instead.
TEST_F(TraceFileTest, LinkPlantedAtTheNameIsNeverFollowed) {
  const std::string victim = path_ + ".victim";
  const std::string planted = path_ + ".planted";
  for (bool symbolic : {true, false}) {
    {
      std::ofstream out(victim);
      out << "precious";
    }
    ASSERT_EQ(symbolic ? symlink(victim.c_str(), planted.c_str()) : link(victim.c_str(), planted.c_str()), 0);
    EXPECT_FALSE(tlvtra_reopen_for_testing(planted.c_str())) << symbolic;
    EXPECT_EQ(TLVINFO("after the refusal"), TLVTRACE_NO_FILE) << symbolic;
    const std::vector<uint8_t> bytes = tvttest::ReadBytes(victim);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "precious") << symbolic;
    unlink(planted.c_str());
    unlink(victim.c_str());
  }
}

TEST(TraceFileAtLoad, CreatedWithItsHeaderWhereTheEnvironmentSays) {
  const char* path = getenv("GPC_TRACE_FILE");
  if (path == nullptr || path[0] != '/') GTEST_SKIP() << "run through ctest, which names the file";
  const std::vector<uint8_t> bytes = tvttest::ReadBytes(path);
  ASSERT_GE(bytes.size(), 48u);
  EXPECT_EQ(0, memcmp(bytes.data(), "TLVT\xFF\xFE\x03\x02", 8));
}

TEST_F(TraceFileTest, PluginRecordWithoutFunctionIsSixtyFourBytes) {
  EXPECT_EQ(TLVINFO("abc"), TLVTRACE_WRITTEN);
  const tvttest::Record record = OnlyRecord();
  ASSERT_EQ(record.bytes.size(), 64u);
  const uint8_t* b = record.bytes.data();
  EXPECT_EQ(tvttest::Le16(b), 64);
  EXPECT_EQ(b[2], 3);
  EXPECT_EQ(b[3] | b[4] | b[5], 0);
  EXPECT_EQ(b[6], 4);
  EXPECT_EQ(b[7], 0) << "stored plain";
  EXPECT_EQ(record.level, 2u);
  EXPECT_EQ(record.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(record.thread, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pthread_self())));
  EXPECT_EQ(tvttest::Le32(b + 20), 0u);
  EXPECT_EQ(record.seconds, 1700000000u);
  EXPECT_EQ(record.milliseconds, 123);
  EXPECT_EQ(record.module_offset, 48);
  EXPECT_EQ(record.function_offset, 48 + 10 - 1) << "points at the module's NUL";
  EXPECT_EQ(record.text_offset, 48 + 10);
  for (int i = 36; i < 48; ++i) EXPECT_EQ(b[i], 0) << "head byte " << i;
  EXPECT_EQ(0, memcmp(b + 48, "GPCPlugin\0abc\0\0\0", 16));
  EXPECT_EQ(record.module, "GPCPlugin");
  EXPECT_EQ(record.function, "");
  EXPECT_EQ(record.text, "abc");
}

TEST_F(TraceFileTest, FunctionNameSitsBetweenModuleAndText) {
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_ERROR, "Mod", "Func", "hello"), TLVTRACE_WRITTEN);
  const tvttest::Record record = OnlyRecord();
  EXPECT_EQ(record.length, (48 + 4 + 5 + 6 + 3) & 0xFFFC);
  EXPECT_EQ(record.level, 8u);
  EXPECT_EQ(record.function_offset, 52);
  EXPECT_EQ(record.text_offset, 57);
  EXPECT_EQ(record.module, "Mod");
  EXPECT_EQ(record.function, "Func");
  EXPECT_EQ(record.text, "hello");
}

TEST_F(TraceFileTest, LongStringsAreCutToTheirCaps) {
  const std::string module(200, 'm');
  const std::string function(300, 'f');
  const std::string text(3000, 't');
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_WARN, module.c_str(), nullptr, "x"), TLVTRACE_WRITTEN);
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_WARN, module.c_str(), function.c_str(), text.c_str()), TLVTRACE_WRITTEN);
  const tvttest::File file = Parse();
  ASSERT_EQ(file.records.size(), 2u);

  const tvttest::Record& no_function = file.records[0];
  EXPECT_EQ(no_function.module, std::string(127, 'm'));
  EXPECT_EQ(no_function.bytes[48 + 127], 0);
  EXPECT_EQ(no_function.function_offset, 48 + 128 - 1);
  EXPECT_EQ(no_function.text_offset, 48 + 128);
  EXPECT_EQ(no_function.text, "x");

  const tvttest::Record& longest = file.records[1];
  EXPECT_EQ(longest.length, 2352);
  EXPECT_EQ(longest.function_offset, 48 + 128);
  EXPECT_EQ(longest.text_offset, 48 + 128 + 128);
  EXPECT_EQ(longest.function, std::string(127, 'f'));
  EXPECT_EQ(longest.text, std::string(2047, 't'));
}

TEST_F(TraceFileTest, NullTextIsALoneNulButLevelWritersRefuseIt) {
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_INFO, nullptr, nullptr, nullptr), TLVTRACE_WRITTEN);
  EXPECT_EQ(TLVINFO(nullptr), TLVTRACE_NULL_TEXT);
  EXPECT_EQ(TLVERROR2("Mod", nullptr), TLVTRACE_NULL_TEXT);
  const tvttest::Record record = OnlyRecord();
  EXPECT_EQ(record.length, (48 + 10 + 0 + 1 + 3) & 0xFFFC);
  EXPECT_EQ(record.module, "GPCPlugin") << "a null module means the plug-in";
  EXPECT_EQ(record.text_offset, 58);
  EXPECT_EQ(record.text, "");
}

TEST_F(TraceFileTest, TextIsNeverAFormat) {
  EXPECT_EQ(TLVINFO("value %d and %s", 5, "ignored"), TLVTRACE_WRITTEN);
  EXPECT_EQ(OnlyRecord().text, "value %d and %s");
}

TEST_F(TraceFileTest, LevelWritersCarryTheirLevelAndModule) {
  tlvtra_set_debugmode_for_testing(true);
  EXPECT_EQ(TLVDEBUG("d"), 1);
  EXPECT_EQ(TLVINFO("i"), 1);
  EXPECT_EQ(TLVWARN("w"), 1);
  EXPECT_EQ(TLVERROR("e"), 1);
  EXPECT_EQ(TLVDEBUG2("M1", "d2"), 1);
  EXPECT_EQ(TLVINFO2("M2", "i2"), 1);
  EXPECT_EQ(TLVWARN2("M3", "w2"), 1);
  EXPECT_EQ(TLVERROR2(nullptr, "e2"), 1);
  const tvttest::File file = Parse();
  ASSERT_EQ(file.records.size(), 8u);
  const uint32_t levels[] = {1, 2, 4, 8, 1, 2, 4, 8};
  const char* modules[] = {"GPCPlugin", "GPCPlugin", "GPCPlugin", "GPCPlugin", "M1", "M2", "M3", "GPCPlugin"};
  for (size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(file.records[i].level, levels[i]) << i;
    EXPECT_EQ(file.records[i].module, modules[i]) << i;
    EXPECT_EQ(file.records[i].function, "") << i;
  }
}

TEST_F(TraceFileTest, DebugRecordsNeedDebugMode) {
  EXPECT_EQ(TLVDEBUG("dropped"), TLVTRACE_DEBUG_OFF);
  EXPECT_EQ(TLVDEBUG2("Mod", "dropped"), TLVTRACE_DEBUG_OFF);
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_DEBUG, "Mod", nullptr, "dropped"), TLVTRACE_DEBUG_OFF);
  EXPECT_EQ(TLVDEBUG(nullptr), TLVTRACE_NULL_TEXT) << "the null check comes first";
  EXPECT_EQ(tvttest::ReadBytes(path_).size(), 48u);
  tlvtra_set_debugmode_for_testing(true);
  EXPECT_EQ(TLVDEBUG("kept"), TLVTRACE_WRITTEN);
  EXPECT_EQ(OnlyRecord().level, 1u);
}

TEST_F(TraceFileTest, TraceChecksTextAndExtraArgument) {
  int extra = 0;
  EXPECT_EQ(TLVTRACE(2, "Mod", "Fn", nullptr, &extra), TLVTRACE_NULL_TEXT);
  EXPECT_EQ(TLVTRACE(2, "Mod", "Fn", "text", nullptr), TLVTRACE_NULL_TEXT);
  EXPECT_EQ(TLVTRACE(1, "Mod", "Fn", "text", &extra), TLVTRACE_DEBUG_OFF);
  EXPECT_EQ(TLVTRACE(2, "Mod", "Fn", "text", &extra), TLVTRACE_WRITTEN);
  const tvttest::Record record = OnlyRecord();
  EXPECT_EQ(record.function, "Fn");
  EXPECT_EQ(record.text, "text");
}

TEST_F(TraceFileTest, NoFileMeansMinusOne) {
  ASSERT_TRUE(tlvtra_reopen_for_testing(nullptr));
  EXPECT_EQ(TLVINFO("lost"), TLVTRACE_NO_FILE);
  EXPECT_EQ(TLVTRACERAW(TLVTRACE_LEVEL_DEBUG, nullptr, nullptr, "lost"), TLVTRACE_NO_FILE)
      << "the file is checked before debug mode";
  EXPECT_EQ(TLVDEBUG("lost"), TLVTRACE_DEBUG_OFF) << "the level writer stops at debug mode";
  EXPECT_FALSE(tlvtra_reopen_for_testing("/nonexistent-folder/trace.tvt"));
  EXPECT_EQ(TLVINFO("lost"), TLVTRACE_NO_FILE);
}

TEST_F(TraceFileTest, ShortWriteClosesTheFileForGood) {
  EXPECT_EQ(TLVINFO("fits"), TLVTRACE_WRITTEN);
  struct rlimit old_limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  struct rlimit small = old_limit;
  small.rlim_cur = 200;  // the file holds 48 + 52 bytes; a long record crosses the limit
  void (*old_handler)(int) = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int result = TLVINFO(std::string(1000, 'x').c_str());
  const int after = TLVINFO("after");
  setrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, old_handler);
  EXPECT_EQ(result, TLVTRACE_SHORT_WRITE);
  EXPECT_EQ(after, TLVTRACE_NO_FILE);
}

TEST_F(TraceFileTest, EncryptHookOnlyClearsTheFlag) {
  uint8_t record[64];
  memset(record, 0x5A, sizeof record);
  tlvtra_encrypt(reinterpret_cast<tlvtraceitem_v3*>(record), reinterpret_cast<char*>(record), sizeof record);
  EXPECT_EQ(record[7], 0);
  for (size_t i = 0; i < sizeof record; ++i) {
    if (i != 7) {
      EXPECT_EQ(record[i], 0x5A) << i;
    }
  }
}

TEST_F(TraceFileTest, CompareFilesSortsByThirdWordDescending) {
  uint32_t records[3][4] = {{0, 0, 5, 0}, {0, 0, 9, 0}, {0, 0, 1, 0}};
  qsort(records, 3, sizeof records[0], tlvtra_comparefiles);
  EXPECT_EQ(records[0][2], 9u);
  EXPECT_EQ(records[1][2], 5u);
  EXPECT_EQ(records[2][2], 1u);
  tlvtra_delete_histroy_files("/tmp");  // nothing to delete: there is no file history
}

TEST_F(TraceFileTest, TimeTextHasClockMillisecondsAndShortDate) {
  char text[64];
  tlvtra_get_time(text, sizeof text);
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d\d:\d\d:\d\d\.123 \d\d/\d\d/\d\d)"))) << text;
  // The clock part keeps size - 2 characters; the date then gets the one byte of room left.
  char small[8];
  tlvtra_get_time(small, sizeof small);
  EXPECT_EQ(std::string(small), std::string(text, 6) + text[13]);
}

TEST(DebugModeName, OnlyTheLastPieceCounts) {
  EXPECT_TRUE(tlvtra_is_debugmode("tlvtracer"));
  EXPECT_TRUE(tlvtra_is_debugmode("a/b/tlvtracer"));
  EXPECT_TRUE(tlvtra_is_debugmode("/usr/bin/tlvtracer"));
  EXPECT_TRUE(tlvtra_is_debugmode("tlvtracer/"));
  EXPECT_TRUE(tlvtra_is_debugmode("a/tlvtracer/"));
  EXPECT_FALSE(tlvtra_is_debugmode(""));
  EXPECT_FALSE(tlvtra_is_debugmode(nullptr));
  EXPECT_FALSE(tlvtra_is_debugmode("/"));
  EXPECT_FALSE(tlvtra_is_debugmode("tlvtracer//")) << "the piece between the last two slashes is empty";
  EXPECT_FALSE(tlvtra_is_debugmode("tlvtracer/b"));
  EXPECT_FALSE(tlvtra_is_debugmode("Tlvtracer"));
  EXPECT_FALSE(tlvtra_is_debugmode("tlvtracer2"));
  EXPECT_FALSE(tlvtra_is_debugmode("xtlvtracer"));
}

TEST(BoundedText, FormatLosesOneCharacterOnPurpose) {
  char buffer[8];
  memset(buffer, 'z', sizeof buffer);
  EXPECT_EQ(nlFormat(buffer, sizeof buffer, "%s", "0123456789"), 10);
  EXPECT_STREQ(buffer, "012345");
  EXPECT_EQ(buffer[7], '\0');
  EXPECT_EQ(nlFormat(buffer, sizeof buffer, "%d", 42), 2);
  EXPECT_STREQ(buffer, "42");
  char one[1] = {'z'};
  EXPECT_EQ(nlFormat(one, 1, "abc"), 3);
  EXPECT_EQ(one[0], '\0');
  EXPECT_EQ(nlFormat(nullptr, 8, "abc"), -1);
}

TEST(BoundedText, CopyCutsAndAlwaysTerminates) {
  char buffer[6];
  EXPECT_STREQ(nlStrCpy(buffer, sizeof buffer, "abc"), "abc");
  EXPECT_STREQ(nlStrCpy(buffer, sizeof buffer, "abcdefgh"), "abcde");
  memset(buffer, 'z', sizeof buffer);
  nlStrCpy(buffer, sizeof buffer, nullptr);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(buffer[1], 'z') << "only the first byte is written";
  memset(buffer, 'z', sizeof buffer);
  nlStrCpy(buffer, 1, "abc");
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(buffer[1], 'z');
}

TEST(BoundedText, CatAppendsWithinRoomAndLeavesAFullBufferAlone) {
  char buffer[8] = "abc";
  EXPECT_STREQ(nlStrCat(buffer, sizeof buffer, "de"), "abcde");
  EXPECT_STREQ(nlStrCat(buffer, sizeof buffer, "fghij"), "abcdefg");
  EXPECT_STREQ(nlStrCat(buffer, sizeof buffer, "x"), "abcdefg") << "full: unchanged";
  EXPECT_STREQ(nlStrCat(buffer, sizeof buffer, nullptr), "abcdefg");
  char unterminated[4] = {'a', 'b', 'c', 'd'};
  nlStrCat(unterminated, sizeof unterminated, "x");
  EXPECT_EQ(0, memcmp(unterminated, "abcd", 4)) << "no end within size: no room";
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "gpc/gpc_trace.h"
#include "gpcnotification.h"
#include "gpctracecatcher.h"
#include "tlvtrace/tlvtrace_testing.h"
#include "trace.h"
#include "tvt_reader.h"
#include "urlencode.h"

namespace {

using gpc::GPCNotification;
using gpc::GPCNotificationCenter;
using gpc::GPCTraceCatcher;
using gpc::GPCUserInfo;

std::shared_ptr<GPCUserInfo> Entry(int level, const std::string& content, const std::string& module = "GPCPlugin") {
  return GPCUserInfo::CreateImmutable({{"ContentKey", content}, {"ModuleKey", module}, {"Levelkey", double(level)}});
}

// Posts a warnings query and returns the answer, or "<none>" when nobody answered.
std::string Query(std::shared_ptr<GPCUserInfo> query) {
  GPCNotificationCenter::defaultCenter().postNotification("QUERYWARINGMESSAGENOTIFICTION", nullptr, query);
  return query->GetString("QUERYTRACESKEY").value_or("<none>");
}

std::string Query(bool reset) {
  std::shared_ptr<GPCUserInfo> query = GPCUserInfo::CreateMutable();
  if (reset) query->SetBool("RESETTRACES", true);
  return Query(query);
}

std::string EncodeAll(const char* text) {
  std::vector<char> out(strlen(text) * 3 + 1);
  URLEncode(text, out.data(), static_cast<int>(out.size() - 1));
  return out.data();
}

class TraceCatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = tvttest::TestFolder("tracecatcher") + "/" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".tvt";
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
    GPCTraceCatcher::initGlobal();
    catcher_ = GPCTraceCatcher::sharedInstance();
  }
  void TearDown() override {
    GPCTraceCatcher::releaseGlobal();
    unlink(path_.c_str());
  }
  std::vector<std::string> Contents() {
    std::vector<std::string> out;
    for (const auto& entry : catcher_->allTraceInfo()) out.push_back(gpc::traceContent(*entry));
    return out;
  }

  std::string path_;
  GPCTraceCatcher* catcher_ = nullptr;
};

TEST(NotificationHub, DeliversByNameOnThePostingThreadUntilRemoved) {
  GPCNotificationCenter& center = GPCNotificationCenter::defaultCenter();
  std::vector<std::string> seen;
  const std::thread::id poster = std::this_thread::get_id();
  bool same_thread = false;
  const auto id = center.addObserver("HubTestName", [&](const GPCNotification& n) {
    seen.push_back(n.userInfo->GetString("k").value_or("?"));
    same_thread = std::this_thread::get_id() == poster;
  });
  std::shared_ptr<GPCUserInfo> info = GPCUserInfo::CreateMutable();
  info->SetString("k", "v");
  EXPECT_EQ(center.postNotification("HubTestName", nullptr, info), 1u);
  EXPECT_EQ(center.postNotification("OtherName", nullptr, info), 0u);
  center.removeObserver(id);
  EXPECT_EQ(center.postNotification("HubTestName", nullptr, info), 0u);
  EXPECT_EQ(seen, std::vector<std::string>{"v"});
  EXPECT_TRUE(same_thread);
}

TEST(NotificationHub, ImmutableDictionaryRefusesChangesAndValuesConvert) {
  std::shared_ptr<GPCUserInfo> fixed = GPCUserInfo::CreateImmutable({{"n", 2.0}, {"b", true}, {"s", std::string("x")}});
  EXPECT_FALSE(fixed->IsMutable());
  EXPECT_FALSE(fixed->SetString("s", "y"));
  EXPECT_FALSE(fixed->Remove("s"));
  EXPECT_EQ(fixed->GetString("s").value_or(""), "x");
  EXPECT_EQ(fixed->GetNumber("b").value_or(-1), 1.0);
  EXPECT_TRUE(fixed->GetBool("n"));
  EXPECT_FALSE(fixed->GetString("n").has_value()) << "a number is not text";
  EXPECT_FALSE(fixed->GetBool("missing"));
}

TEST(UrlEncode, KeepsOnlyLettersAndDigits) {
  char out[64];
  EXPECT_STREQ(URLEncode("Az09 -._~/\n[]", out, 60), "Az09%20%2D%2E%5F%7E%2F%0A%5B%5D");
  EXPECT_STREQ(URLEncode("\xC3\xA9", out, 60), "%C3%A9");
  EXPECT_EQ(URLEncode(nullptr, out, 60), nullptr);
  EXPECT_STREQ(URLEncode("", out, 60), "");
  EXPECT_EQ(EncodeAll("Setup was unsuccessful. Please restart browser and try again.\n\n\nError [111]"),
            "Setup%20was%20unsuccessful%2E%20Please%20restart%20browser%20and%20try%20again%2E%0A%0A%0A"
            "Error%20%5B111%5D");
}

TEST(UrlEncode, StopsWhenThePositionReachesSizeMinusTwo) {
  char out[16];
  memset(out, 'z', sizeof out);
  EXPECT_STREQ(URLEncode("abcdef", out, 5), "abc");
  EXPECT_STREQ(URLEncode("ab cd", out, 5), "ab%20") << "an escape begun below the bound is whole";
  EXPECT_EQ(out[5], '\0') << "which needs size + 1 bytes";
  EXPECT_STREQ(URLEncode("abc", out, 2), "");
  EXPECT_STREQ(URLEncode("abc", out, 1), "");
  EXPECT_STREQ(URLEncode(" ", out, 3), "%20");
}

TEST_F(TraceCatcherTest, WritersPostEntriesThatReachListAndFile) {
  MacDebugTrace("debug %d", 0);
  MacInfoTrace("CGpcExtMgr::Init,GpcUrlRoot is %s!", "nil");
  MacWarnTrace("warn %s", "w");
  MacErrorTrace("error %c", 'e');
  const auto list = catcher_->allTraceInfo();
  ASSERT_EQ(list.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(gpc::traceLevel(*list[i]), i);
    EXPECT_EQ(list[i]->GetString("ModuleKey").value_or(""), "GPCPlugin");
    EXPECT_FALSE(list[i]->IsMutable());
  }
  EXPECT_EQ(gpc::traceContent(*list[1]), "CGpcExtMgr::Init,GpcUrlRoot is nil!");

  const tvttest::File file = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(file.records.size(), 3u) << "debug entries stay out of the file without debug mode";
  EXPECT_EQ(file.records[0].level, 2u);
  EXPECT_EQ(file.records[0].text, "CGpcExtMgr::Init,GpcUrlRoot is nil!");
  EXPECT_EQ(file.records[1].level, 4u);
  EXPECT_EQ(file.records[2].level, 8u);
  EXPECT_EQ(file.records[2].text, "error e");
}

TEST_F(TraceCatcherTest, DebugEntriesReachTheFileInDebugMode) {
  tlvtra_set_debugmode_for_testing(true);
  MacDebugTrace("visible");
  tlvtra_set_debugmode_for_testing(false);
  const tvttest::File file = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(file.records.size(), 1u);
  EXPECT_EQ(file.records[0].level, 1u);
}

TEST_F(TraceCatcherTest, LongMessageKeepsFourThousandNinetyFiveBytes) {
  const std::string message(5000, 'q');
  MacWarnTrace("%s", message.c_str());
  const auto contents = Contents();
  ASSERT_EQ(contents.size(), 1u);
  EXPECT_EQ(contents[0], message.substr(0, 4095));
  const tvttest::File file = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(file.records.size(), 1u);
  EXPECT_EQ(file.records[0].text.size(), 2047u) << "the file keeps its own cap";
}

TEST_F(TraceCatcherTest, InvalidUtf8IsDroppedSilently) {
  MacErrorTrace("bad %s", "\xFF\xFE");
  MacErrorTrace("overlong %s", "\xC0\xAF");
  MacErrorTrace("surrogate %s", "\xED\xA0\x80");
  MacErrorTrace("cut %s", "\xE6\x97");
  // A multi-byte character cut by the 4095-byte limit leaves the message invalid as well.
  MacErrorTrace("%s\xE6\x97\xA5", std::string(4093, 'a').c_str());
  MacErrorTrace("good %s", "\xE6\x97\xA5");
  EXPECT_EQ(Contents(), std::vector<std::string>{"good \xE6\x97\xA5"});
  EXPECT_EQ(tvttest::ParseTraceFile(path_).records.size(), 1u);
}

TEST_F(TraceCatcherTest, EntriesWithoutAllKeysAreIgnored) {
  GPCNotificationCenter& center = GPCNotificationCenter::defaultCenter();
  center.postNotification("TRACENOTIFICATIONNotification", nullptr,
                          GPCUserInfo::CreateImmutable({{"ContentKey", std::string("x")}, {"Levelkey", 2.0}}));
  center.postNotification("TRACENOTIFICATIONNotification", nullptr,
                          GPCUserInfo::CreateImmutable({{"ModuleKey", std::string("m")}, {"Levelkey", 2.0}}));
  center.postNotification("TRACENOTIFICATIONNotification", nullptr, nullptr);
  center.postNotification("TRACENOTIFICATIONNotification", nullptr, Entry(7, "odd level"));
  EXPECT_EQ(Contents(), std::vector<std::string>{"odd level"}) << "other levels are kept";
  EXPECT_TRUE(tvttest::ParseTraceFile(path_).records.empty()) << "but not written";
}

TEST_F(TraceCatcherTest, GlobalReferenceRules) {
  GPCTraceCatcher::initGlobal();
  EXPECT_EQ(GPCTraceCatcher::sharedInstance(), catcher_);
  EXPECT_EQ(catcher_->retainCount(), 2);
  catcher_->retain();  // keeps the old catcher inspectable after the global ends
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(catcher_->retainCount(), 2) << "one release ends the global, whatever came before";
  MacErrorTrace("after release");
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "the old catcher no longer observes";

  GPCTraceCatcher* fresh = GPCTraceCatcher::sharedInstance();
  EXPECT_NE(fresh, catcher_);
  EXPECT_EQ(fresh->retainCount(), 1);
  MacErrorTrace("seen");
  ASSERT_EQ(fresh->allTraceInfo().size(), 1u);
  catcher_->release();
  catcher_->release();
  catcher_ = fresh;
}

TEST_F(TraceCatcherTest, DeallocLogsToWhoeverStillListens) {
  GPCTraceCatcher* other = GPCTraceCatcher::create();
  MacErrorTrace("before");
  EXPECT_EQ(other->allTraceInfo().size(), 1u);
  other->release();
  EXPECT_EQ(Contents(), (std::vector<std::string>{"before", "Gpctracecatcher dealloc"}));
  EXPECT_EQ(gpc::traceLevel(*catcher_->allTraceInfo().back()), 1);
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(Query(false), "<none>") << "messages without a catcher reach nobody";
  GPCTraceCatcher::initGlobal();
  catcher_ = GPCTraceCatcher::sharedInstance();
}

TEST_F(TraceCatcherTest, ListSetToNoneKeepsNothingButStillWrites) {
  MacErrorTrace("kept");
  catcher_->setAllTraceInfo(nullptr);
  MacErrorTrace("only in the file");
  EXPECT_TRUE(catcher_->allTraceInfo().empty());
  EXPECT_EQ(tvttest::ParseTraceFile(path_).records.size(), 2u);
  const GPCTraceCatcher::TraceList restored{Entry(3, "restored")};
  catcher_->setAllTraceInfo(&restored);
  MacErrorTrace("again");
  EXPECT_EQ(Contents(), (std::vector<std::string>{"restored", "again"}));
}

TEST_F(TraceCatcherTest, FilterKeepsWarningsErrorsAndOtherLevelsInOrder) {
  const GPCTraceCatcher::TraceList list{Entry(0, "d"), Entry(2, "w1"), Entry(1, "i"), Entry(3, "e"),
                                        Entry(9, "x"), Entry(2, "w2")};
  catcher_->setAllTraceInfo(&list);
  std::vector<std::string> kept;
  for (const auto& entry : catcher_->filterAllTraceWithCondition(5)) kept.push_back(gpc::traceContent(*entry));
  EXPECT_EQ(kept, (std::vector<std::string>{"w1", "e", "x", "w2"}));
}

TEST_F(TraceCatcherTest, AnswerTextIsNewestThatFitOldestFirst) {
  const GPCTraceCatcher::TraceList list{Entry(2, "aaaa"), Entry(2, ""), Entry(2, "bb b"), Entry(3, "cc")};
  EXPECT_EQ(catcher_->stringValueForAllTrace(list, 3000), "aaaa\nbb%20b\ncc");
  EXPECT_EQ(catcher_->stringValueForAllTrace(list, 12), "bb%20b\ncc") << "6 + 1 + 2 fit, 4 more do not";
  EXPECT_EQ(catcher_->stringValueForAllTrace(list, 2), "");
  EXPECT_EQ(catcher_->stringValueForAllTrace({}, 3000), "");
}

TEST_F(TraceCatcherTest, WalkStopsAtFirstEntryThatDoesNotFit) {
  const GPCTraceCatcher::TraceList list{Entry(2, "x"), Entry(2, std::string(10, 'y')), Entry(2, "zz")};
  EXPECT_EQ(catcher_->stringValueForAllTrace(list, 10), "zz") << "the older, shorter x is not reached";
}

TEST_F(TraceCatcherTest, AddedLineFeedMayReachTheLimitExactly) {
  const GPCTraceCatcher::TraceList list{Entry(2, "old"), Entry(2, "ab"), Entry(2, "abc")};
  const std::string text = catcher_->stringValueForAllTrace(list, 6);
  EXPECT_EQ(text, "ab\nabc");
  EXPECT_EQ(text.size(), 6u);
}

TEST_F(TraceCatcherTest, WideCharactersAreEncodedWithinSixBytesEach) {
  // Two characters of three bytes each give a limit of 12: the fifth escape is never begun.
  const GPCTraceCatcher::TraceList list{Entry(2, "\xE6\x97\xA5\xE6\x9C\xAC")};
  EXPECT_EQ(catcher_->stringValueForAllTrace(list, 3000), "%E6%97%A5%E6");
}

TEST_F(TraceCatcherTest, QueryAnswersNoErrorWithoutWarnings) {
  EXPECT_EQ(Query(false), "no%20error");
  MacDebugTrace("d");
  MacInfoTrace("i");
  EXPECT_EQ(Query(false), "no%20error");
}

TEST_F(TraceCatcherTest, EntryTooLongForTheLimitIsNeverIncluded) {
  MacErrorTrace("%s", std::string(1000, ' ').c_str());  // 3000 characters once encoded
  EXPECT_EQ(Query(false), "no%20error");
  MacErrorTrace("%s", std::string(999, ' ').c_str());   // 2997
  EXPECT_EQ(Query(false).size(), 2997u);
}

TEST_F(TraceCatcherTest, ResetAnswersFirstThenEmpties) {
  MacWarnTrace("first warning");
  MacInfoTrace("info");
  EXPECT_EQ(Query(true), "first%20warning");
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "info entries go too";
  EXPECT_EQ(Query(false), "no%20error");
  MacErrorTrace("second");
  EXPECT_EQ(Query(false), "second");
  EXPECT_EQ(catcher_->allTraceInfo().size(), 1u) << "no reset asked";
}

TEST_F(TraceCatcherTest, ImmutableQueryGetsNoAnswer) {
  MacErrorTrace("e");
  std::shared_ptr<GPCUserInfo> fixed = GPCUserInfo::CreateImmutable({{"RESETTRACES", true}});
  GPCNotificationCenter::defaultCenter().postNotification("QUERYWARINGMESSAGENOTIFICTION", nullptr, fixed);
  EXPECT_FALSE(fixed->Has("QUERYTRACESKEY"));
  EXPECT_EQ(catcher_->allTraceInfo().size(), 1u) << "nor a reset";
}

TEST_F(TraceCatcherTest, ErrorReportSequence) {
  MacErrorTrace("CGpcWindow::InitExtension,load failed");
  GPCTraceCatcher* shared = GPCTraceCatcher::sharedInstance();
  std::string text = shared->stringValueForAllTrace(shared->filterAllTraceWithCondition(5), 3000);
  EXPECT_EQ(text, "CGpcWindow%3A%3AInitExtension%2Cload%20failed");
  shared->removeAllTraceInfo();
  EXPECT_EQ(shared->stringValueForAllTrace(shared->filterAllTraceWithCondition(5), 3000), "");
}

TEST_F(TraceCatcherTest, ExtensionPostsAndQueriesThroughCFunctions) {
  EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_WARNING, "ext %d warning"), 1);
  EXPECT_EQ(GpcTracePost(nullptr, GPC_TRACE_ERROR, "x"), 0);
  EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_ERROR, nullptr), 0);
  EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_ERROR, "\xFF"), 0);
  const auto list = catcher_->allTraceInfo();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]->GetString("ModuleKey").value_or(""), "ZExt");
  const tvttest::File file = tvttest::ParseTraceFile(path_);
  ASSERT_EQ(file.records.size(), 1u);
  EXPECT_EQ(file.records[0].module, "GPCPlugin") << "records always carry the plug-in's module";
  EXPECT_EQ(file.records[0].text, "ext %d warning");

  char small[8];
  EXPECT_EQ(GpcTraceQueryWarnings(0, small, sizeof small), 20);
  EXPECT_STREQ(small, "ext%20%");
  char answer[GPC_TRACE_ANSWER_MAX];
  EXPECT_EQ(GpcTraceQueryWarnings(1, answer, sizeof answer), 20);
  EXPECT_STREQ(answer, "ext%20%25d%20warning");
  EXPECT_EQ(GpcTraceQueryWarnings(0, answer, sizeof answer), 10);
  EXPECT_STREQ(answer, "no%20error");

  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(GpcTraceQueryWarnings(0, answer, sizeof answer), -1);
  EXPECT_STREQ(answer, "");
  GPCTraceCatcher::initGlobal();
  catcher_ = GPCTraceCatcher::sharedInstance();
}

TEST_F(TraceCatcherTest, WritersOnManyThreadsLoseNothing) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i) MacWarnTrace("thread %d entry %d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(catcher_->allTraceInfo().size(), 1000u);
  EXPECT_EQ(tvttest::ParseTraceFile(path_).records.size(), 1000u);
}

// Another thread posts while the global catcher comes and goes: a delivery under way keeps the
// catcher it reached until it ends (the address sanitizer sees any use after the release).
TEST_F(TraceCatcherTest, DeliveriesOnOtherThreadsOutliveTheRelease) {
  ASSERT_TRUE(tlvtra_reopen_for_testing(nullptr));  // the list is what matters here
  std::atomic<bool> stop{false};
  std::atomic<int> posted{0};
  std::thread poster([&] {
    while (!stop) {
      MacWarnTrace("from another thread");
      ++posted;
    }
  });
  while (posted == 0) std::this_thread::yield();
  for (int i = 0; i < 3000; ++i) {
    GPCTraceCatcher::releaseGlobal();
    GPCTraceCatcher::initGlobal();
  }
  stop = true;
  poster.join();
  catcher_ = GPCTraceCatcher::sharedInstance();
  MacWarnTrace("after");
  EXPECT_EQ(gpc::traceContent(*catcher_->allTraceInfo().back()), "after");
}

}  // namespace

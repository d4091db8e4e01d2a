// The trace catcher: what reaches its list and the trace file, the warnings report and queries, its lifetime.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "common/gpcnotification.h"
#include "common/gpctracecatcher.h"
#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/trace.h"
#include "common/urlencode.h"
#include "gpc/gpc_trace.h"
#include "http_test_server.h"
#include "tvt_reader.h"

namespace {

using gpc::GPCNotificationCenter;
using gpc::GPCTraceCatcher;
using gpc::GPCUserInfo;
using Lines = std::vector<std::string>;

std::shared_ptr<GPCUserInfo> Entry(int level, const std::string& content) {
  return GPCUserInfo::CreateImmutable({{"ContentKey", content}, {"ModuleKey", "GPCPlugin"}, {"Levelkey", double(level)}});
}

void Post(std::shared_ptr<GPCUserInfo> entry) {
  GPCNotificationCenter::defaultCenter().postNotification("TRACENOTIFICATIONNotification", nullptr, entry);
}

// "level module text" of each entry.
Lines Listed(const GPCTraceCatcher::TraceList& list) {
  Lines out;
  for (const auto& entry : list) {
    EXPECT_FALSE(entry->IsMutable());
    out.push_back(std::to_string(gpc::traceLevel(*entry)) + " " + entry->GetString("ModuleKey").value_or("?") + " " +
                  gpc::traceContent(*entry));
  }
  return out;
}

class TraceCatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(false);
    GPCTraceCatcher::initGlobal();
    catcher_ = GPCTraceCatcher::sharedInstance();
  }
  void TearDown() override { GPCTraceCatcher::releaseGlobal(); }
  const gpctest::TempFolder folder_{"tracecatcher"};
  const std::string path_ = folder_.path() + "/trace.tvt";
  GPCTraceCatcher* catcher_ = nullptr;
};

TEST(UrlEncode, KeepsOnlyLettersAndDigitsAndStopsAtSizeMinusTwo) {
  const struct {
    const char* text;
    int size;
    const char* encoded;
  } cases[] = {{"Az09 -._~/\n[]", 60, "Az09%20%2D%2E%5F%7E%2F%0A%5B%5D"}, {"\xC3\xA9", 60, "%C3%A9"}, {"", 60, ""},
               {"abcdef", 5, "abc"}, {"ab cd", 5, "ab%20"}, {"abc", 2, ""}, {"abc", 1, ""}, {" ", 3, "%20"}};
  for (const auto& c : cases) {
    char out[64];
    memset(out, 'z', sizeof out);
    EXPECT_STREQ(URLEncode(c.text, out, c.size), c.encoded) << c.text << " " << c.size;
  }
}

TEST_F(TraceCatcherTest, PostedEntriesReachTheListAndTheFile) {
  const std::string q(5000, 'q'), long_text = std::string(4093, 'a') + "\xE6\x97\xA5";
  const struct {
    std::function<void()> post;
    Lines listed, filed;
    bool debug = false;
  } cases[] = {
      {[] { MacDebugTrace("debug %d", 0); }, {"0 GPCPlugin debug 0"}, {}},
      {[] { MacInfoTrace("Init,GpcUrlRoot is %s!", "nil"); }, {"1 GPCPlugin Init,GpcUrlRoot is nil!"},
       {"2 GPCPlugin||Init,GpcUrlRoot is nil!"}},
      {[] { MacWarnTrace("warn %s", "w"); }, {"2 GPCPlugin warn w"}, {"4 GPCPlugin||warn w"}},
      {[] { MacErrorTrace("error %c", 'e'); }, {"3 GPCPlugin error e"}, {"8 GPCPlugin||error e"}},
      {[] { MacDebugTrace("on"); }, {"0 GPCPlugin on"}, {"1 GPCPlugin||on"}, true},
      {[&] { MacWarnTrace("%s", q.c_str()); }, {"2 GPCPlugin " + q.substr(905)}, {"4 GPCPlugin||" + q.substr(2953)}},
      {[&] {  // none of these is valid: nothing is kept or written
         for (const char* bad : {"\xFF\xFE", "\xC0\xAF", "\xED\xA0\x80", "\xE6\x97"}) MacErrorTrace("bad %s", bad);
         MacErrorTrace("%s", long_text.c_str());  // the 4095-byte cap splits a character
         Post(GPCUserInfo::CreateImmutable({{"ContentKey", std::string("x")}, {"Levelkey", 2.0}}));
         Post(GPCUserInfo::CreateImmutable({{"ModuleKey", std::string("m")}, {"Levelkey", 2.0}}));
         Post(nullptr);
         EXPECT_EQ(GpcTracePost(nullptr, 3, "x") + GpcTracePost("ZExt", 3, nullptr) + GpcTracePost("ZExt", 3, "\xFF"), 0);
       }, {}, {}},
      {[] { Post(Entry(7, "odd level")); }, {"7 GPCPlugin odd level"}, {}},
      {[] {  // a flag as the level reads as the number 1
         Post(GPCUserInfo::CreateImmutable({{"ContentKey", std::string("yes")}, {"ModuleKey", "m"}, {"Levelkey", true}}));
       }, {"1 m yes"}, {"2 GPCPlugin||yes"}},
      {[] { EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_WARNING, "ext %d"), 1); }, {"2 ZExt ext %d"}, {"4 GPCPlugin||ext %d"}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(cases[i].debug);
    catcher_->removeAllTraceInfo();
    cases[i].post();
    EXPECT_EQ(Listed(catcher_->allTraceInfo()), cases[i].listed) << i;
    EXPECT_EQ(tvttest::Records(path_), cases[i].filed) << i;
  }
}

TEST_F(TraceCatcherTest, OneReleaseEndsTheGlobalAndTheLastReleaseSaysSo) {
  GPCTraceCatcher::initGlobal();
  EXPECT_EQ(GPCTraceCatcher::sharedInstance(), catcher_);
  catcher_->retain();  // keeps the old catcher inspectable after the global ends
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(catcher_->retainCount(), 2) << "one release ends the global, whatever came before";
  GPCTraceCatcher* fresh = GPCTraceCatcher::sharedInstance();
  MacErrorTrace("seen");
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "the old catcher no longer observes";
  catcher_->release();
  catcher_->release();
  EXPECT_EQ(Listed(fresh->allTraceInfo()), (Lines{"3 GPCPlugin seen", "1 GPCPlugin Gpctracecatcher dealloc"}));
  GPCTraceCatcher::releaseGlobal();
  GPCTraceCatcher::initGlobal();
  catcher_ = GPCTraceCatcher::sharedInstance();
  catcher_->setAllTraceInfo(nullptr);
  MacErrorTrace("only in the file");
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "a list set to none keeps nothing";
  EXPECT_EQ(tvttest::Records(path_), (Lines{"8 GPCPlugin||seen", "2 GPCPlugin||Gpctracecatcher dealloc",
                                            "8 GPCPlugin||only in the file"}));
  const GPCTraceCatcher::TraceList restored{Entry(3, "restored")};
  catcher_->setAllTraceInfo(&restored);
  MacErrorTrace("again");
  EXPECT_EQ(Listed(catcher_->allTraceInfo()), (Lines{"3 GPCPlugin restored", "3 GPCPlugin again"}));
}

TEST_F(TraceCatcherTest, ReportHoldsWarningsAndErrorsNewestThatFitOldestFirst) {
  const GPCTraceCatcher::TraceList all{Entry(0, "d"), Entry(2, "w1"), Entry(1, "i"), Entry(3, "e"), Entry(9, "x")};
  catcher_->setAllTraceInfo(&all);
  EXPECT_EQ(catcher_->stringValueForAllTrace(catcher_->filterAllTraceWithCondition(5), 3000), "w1\ne\nx");
  const struct {
    GPCTraceCatcher::TraceList list;
    size_t limit;
    std::string text;
  } cases[] = {
      {{Entry(2, "aaaa"), Entry(2, ""), Entry(2, "bb b"), Entry(3, "cc")}, 3000, "aaaa\nbb%20b\ncc"},
      {{Entry(2, "aaaa"), Entry(2, ""), Entry(2, "bb b"), Entry(3, "cc")}, 12, "bb%20b\ncc"},
      {{Entry(2, "aaaa")}, 2, ""},
      {{Entry(2, "x"), Entry(2, std::string(10, 'y')), Entry(2, "zz")}, 10, "zz"},  // the walk stops at y
      {{Entry(2, "old"), Entry(2, "ab"), Entry(2, "abc")}, 6, "ab\nabc"},           // the line feed may reach it
      {{Entry(2, "\xE6\x97\xA5\xE6\x9C\xAC")}, 3000, "%E6%97%A5%E6"},  // six bytes a character: limit 12
      {{Entry(2, "\xF0\x9F\x98\x80")}, 3000, "%F0%9F%98%80"},           // a surrogate pair: limit 12 too
  };
  for (const auto& c : cases) EXPECT_EQ(catcher_->stringValueForAllTrace(c.list, c.limit), c.text) << c.limit;
}

TEST_F(TraceCatcherTest, QueriesAnswerRecentWarningsAndResetWhenAsked) {
  char answer[GPC_TRACE_ANSWER_MAX];
  const auto ask = [&](int reset, size_t size = sizeof answer) {  // the answer's full length, then what fit
    return std::to_string(GpcTraceQueryWarnings(reset, answer, size)) + " " + answer;
  };
  MacDebugTrace("d");
  MacInfoTrace("i");
  MacErrorTrace("%s", std::string(1000, ' ').c_str());  // 3000 characters once encoded: never fits
  EXPECT_EQ(ask(0), "10 no%20error");
  GpcTracePost("ZExt", GPC_TRACE_WARNING, "ext %d warning");
  const auto fixed = GPCUserInfo::CreateImmutable({{"RESETTRACES", true}});
  GPCNotificationCenter::defaultCenter().postNotification("QUERYWARINGMESSAGENOTIFICTION", nullptr, fixed);
  EXPECT_EQ(ask(0, 8), "20 ext%20%") << "an immutable query neither got an answer nor reset";
  EXPECT_EQ(ask(2), "20 ext%20%25d%20warning") << "any non-zero flag resets";
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "info entries go too";
  MacErrorTrace("%s", std::string(999, ' ').c_str());
  EXPECT_EQ(GpcTraceQueryWarnings(0, answer, sizeof answer), 2997);
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(ask(0), "-1 ") << "messages without a catcher reach nobody";
  GPCTraceCatcher::initGlobal();
}

// Writers on other threads lose nothing, and a delivery under way keeps the catcher it reached
// while the global one comes and goes (the address sanitizer sees any use after the release).
TEST_F(TraceCatcherTest, WritersOnOtherThreadsLoseNothingAndOutliveTheRelease) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) MacWarnTrace("%d", i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(catcher_->allTraceInfo().size(), 2000u);
  EXPECT_EQ(tvttest::Records(path_).size(), 2000u) << "every record whole";
  ASSERT_TRUE(tlvtra_reopen_for_testing(nullptr));
  std::atomic<bool> stop{false};
  std::thread poster([&] {
    while (!stop) MacWarnTrace("from another thread");
  });
  for (int i = 0; i < 3000; ++i) {
    GPCTraceCatcher::releaseGlobal();
    GPCTraceCatcher::initGlobal();
  }
  stop = true;
  poster.join();
  MacWarnTrace("after");
  EXPECT_EQ(gpc::traceContent(*GPCTraceCatcher::sharedInstance()->allTraceInfo().back()), "after");
}

}  // namespace

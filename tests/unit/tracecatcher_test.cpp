#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "gpc/gpc_trace.h"
#include "common/gpcnotification.h"
#include "common/gpctracecatcher.h"
#include "http_test_server.h"
#include "common/tlvtrace/tlvtrace_testing.h"
#include "common/trace.h"
#include "tvt_reader.h"
#include "common/urlencode.h"

namespace {

using gpc::GPCNotification;
using gpc::GPCNotificationCenter;
using gpc::GPCTraceCatcher;
using gpc::GPCUserInfo;

std::shared_ptr<GPCUserInfo> Entry(int level, const std::string& content, const std::string& module = "GPCPlugin") {
  return GPCUserInfo::CreateImmutable({{"ContentKey", content}, {"ModuleKey", module}, {"Levelkey", double(level)}});
}

void Post(std::shared_ptr<GPCUserInfo> entry) {
  GPCNotificationCenter::defaultCenter().postNotification("TRACENOTIFICATIONNotification", nullptr, entry);
}

// Posts a warnings query and returns the answer, or "<none>" when nobody answered.
std::string Query(bool reset, std::shared_ptr<GPCUserInfo> query = GPCUserInfo::CreateMutable()) {
  if (reset) query->SetBool("RESETTRACES", true);
  GPCNotificationCenter::defaultCenter().postNotification("QUERYWARINGMESSAGENOTIFICTION", nullptr, query);
  return query->GetString("QUERYTRACESKEY").value_or("<none>");
}

// "level module text" of each entry.
std::vector<std::string> Listed(const GPCTraceCatcher::TraceList& list) {
  std::vector<std::string> out;
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
  std::vector<std::string> Filed() {
    std::vector<std::string> out;
    for (const tvttest::Record& record : tvttest::ParseTraceFile(path_)) out.push_back(record.Describe());
    return out;
  }
  const gpctest::TempFolder folder_{"tracecatcher"};
  const std::string path_ = folder_.path() + "/trace.tvt";
  GPCTraceCatcher* catcher_ = nullptr;
};

TEST(NotificationHub, DeliversByNameUntilRemovedAndFixedInfoStaysFixed) {
  GPCNotificationCenter& center = GPCNotificationCenter::defaultCenter();
  std::vector<std::string> seen;
  const auto id = center.addObserver("HubTestName", [&](const GPCNotification& n) {
    seen.push_back(n.userInfo->GetString("s").value_or("?"));
  });
  const auto fixed = GPCUserInfo::CreateImmutable({{"n", 2.0}, {"b", true}, {"s", std::string("x")}});
  EXPECT_FALSE(fixed->IsMutable() || fixed->SetString("s", "y") || fixed->Remove("s"));
  EXPECT_EQ(center.postNotification("HubTestName", nullptr, fixed), 1u);
  EXPECT_EQ(center.postNotification("OtherName", nullptr, fixed), 0u);
  center.removeObserver(id);
  EXPECT_EQ(center.postNotification("HubTestName", nullptr, fixed), 0u);
  EXPECT_EQ(seen, std::vector<std::string>{"x"});
  EXPECT_EQ(fixed->GetNumber("b").value_or(-1), 1.0);
  EXPECT_TRUE(fixed->GetBool("n") && !fixed->GetBool("missing"));
  EXPECT_FALSE(fixed->GetString("n").has_value()) << "a number is not text";
}

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
  char out[8];
  EXPECT_EQ(URLEncode(nullptr, out, 6), nullptr);
}

TEST_F(TraceCatcherTest, PostedEntriesReachTheListAndTheFile) {
  const std::string q(5000, 'q'), long_text = std::string(4093, 'a') + "\xE6\x97\xA5";
  const struct {
    std::function<void()> post;
    std::vector<std::string> listed, filed;
    bool debug = false;
  } cases[] = {
      {[] { MacDebugTrace("debug %d", 0); }, {"0 GPCPlugin debug 0"}, {}},
      {[] { MacInfoTrace("Init,GpcUrlRoot is %s!", "nil"); }, {"1 GPCPlugin Init,GpcUrlRoot is nil!"},
       {"2 GPCPlugin||Init,GpcUrlRoot is nil!"}},
      {[] { MacWarnTrace("warn %s", "w"); }, {"2 GPCPlugin warn w"}, {"4 GPCPlugin||warn w"}},
      {[] { MacErrorTrace("error %c", 'e'); }, {"3 GPCPlugin error e"}, {"8 GPCPlugin||error e"}},
      {[] { MacDebugTrace("on"); }, {"0 GPCPlugin on"}, {"1 GPCPlugin||on"}, true},
      {[&] { MacWarnTrace("%s", q.c_str()); }, {"2 GPCPlugin " + q.substr(905)}, {"4 GPCPlugin||" + q.substr(2953)}},
      {[] { MacErrorTrace("bad %s", "\xFF\xFE"); }, {}, {}},
      {[] { MacErrorTrace("overlong %s", "\xC0\xAF"); }, {}, {}},
      {[] { MacErrorTrace("surrogate %s", "\xED\xA0\x80"); }, {}, {}},
      {[] { MacErrorTrace("cut %s", "\xE6\x97"); }, {}, {}},
      {[&] { MacErrorTrace("%s", long_text.c_str()); }, {}, {}},  // the 4095-byte cap splits a character
      {[] { Post(GPCUserInfo::CreateImmutable({{"ContentKey", std::string("x")}, {"Levelkey", 2.0}})); }, {}, {}},
      {[] { Post(GPCUserInfo::CreateImmutable({{"ModuleKey", std::string("m")}, {"Levelkey", 2.0}})); }, {}, {}},
      {[] { Post(nullptr); }, {}, {}},
      {[] { Post(Entry(7, "odd level")); }, {"7 GPCPlugin odd level"}, {}},
      {[] { EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_WARNING, "ext %d"), 1); }, {"2 ZExt ext %d"}, {"4 GPCPlugin||ext %d"}},
      {[] { EXPECT_EQ(GpcTracePost(nullptr, GPC_TRACE_ERROR, "x"), 0); }, {}, {}},
      {[] { EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_ERROR, nullptr), 0); }, {}, {}},
      {[] { EXPECT_EQ(GpcTracePost("ZExt", GPC_TRACE_ERROR, "\xFF"), 0); }, {}, {}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    ASSERT_TRUE(tlvtra_reopen_for_testing(path_.c_str()));
    tlvtra_set_debugmode_for_testing(cases[i].debug);
    catcher_->removeAllTraceInfo();
    cases[i].post();
    EXPECT_EQ(Listed(catcher_->allTraceInfo()), cases[i].listed) << i;
    EXPECT_EQ(Filed(), cases[i].filed) << i;
  }
}

TEST_F(TraceCatcherTest, OneReleaseEndsTheGlobalAndTheLastReleaseSaysSo) {
  GPCTraceCatcher::initGlobal();
  EXPECT_EQ(GPCTraceCatcher::sharedInstance(), catcher_);
  catcher_->retain();  // keeps the old catcher inspectable after the global ends
  EXPECT_EQ(catcher_->retainCount(), 3);
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(catcher_->retainCount(), 2) << "one release ends the global, whatever came before";
  GPCTraceCatcher* fresh = GPCTraceCatcher::sharedInstance();
  EXPECT_EQ(fresh->retainCount(), 1);
  MacErrorTrace("seen");
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "the old catcher no longer observes";
  catcher_->release();
  catcher_->release();
  EXPECT_EQ(Listed(fresh->allTraceInfo()), (std::vector<std::string>{"3 GPCPlugin seen", "1 GPCPlugin Gpctracecatcher dealloc"}));
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(Query(false), "<none>") << "messages without a catcher reach nobody";
  GPCTraceCatcher::initGlobal();
}

TEST_F(TraceCatcherTest, ListSetToNoneKeepsNothingButStillWrites) {
  catcher_->setAllTraceInfo(nullptr);
  MacErrorTrace("only in the file");
  EXPECT_TRUE(catcher_->allTraceInfo().empty());
  EXPECT_EQ(Filed().size(), 1u);
  const GPCTraceCatcher::TraceList restored{Entry(3, "restored")};
  catcher_->setAllTraceInfo(&restored);
  MacErrorTrace("again");
  EXPECT_EQ(Listed(catcher_->allTraceInfo()), (std::vector<std::string>{"3 GPCPlugin restored", "3 GPCPlugin again"}));
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
      {{}, 3000, ""},
      {{Entry(2, "x"), Entry(2, std::string(10, 'y')), Entry(2, "zz")}, 10, "zz"},  // the walk stops at y
      {{Entry(2, "old"), Entry(2, "ab"), Entry(2, "abc")}, 6, "ab\nabc"},           // the line feed may reach it
      {{Entry(2, "\xE6\x97\xA5\xE6\x9C\xAC")}, 3000, "%E6%97%A5%E6"},  // six bytes a character: limit 12
  };
  for (const auto& c : cases) EXPECT_EQ(catcher_->stringValueForAllTrace(c.list, c.limit), c.text) << c.limit;
}

TEST_F(TraceCatcherTest, QueriesAnswerRecentWarningsAndResetWhenAsked) {
  MacDebugTrace("d");
  MacInfoTrace("i");
  EXPECT_EQ(Query(false), "no%20error");
  MacErrorTrace("%s", std::string(1000, ' ').c_str());  // 3000 characters once encoded: never fits
  EXPECT_EQ(Query(false), "no%20error");
  MacWarnTrace("first warning");
  EXPECT_EQ(Query(false, GPCUserInfo::CreateImmutable({{"RESETTRACES", true}})), "<none>");
  EXPECT_EQ(Query(true), "first%20warning") << "an immutable query neither got an answer nor reset";
  EXPECT_TRUE(catcher_->allTraceInfo().empty()) << "info entries go too";
  MacErrorTrace("%s", std::string(999, ' ').c_str());
  EXPECT_EQ(Query(false).size(), 2997u);
  catcher_->removeAllTraceInfo();

  GpcTracePost("ZExt", GPC_TRACE_WARNING, "ext %d warning");
  char answer[GPC_TRACE_ANSWER_MAX];
  const auto ask = [&](int reset, size_t size) {  // the answer's full length, then what fit
    return std::to_string(GpcTraceQueryWarnings(reset, answer, size)) + " " + answer;
  };
  EXPECT_EQ(ask(0, 8), "20 ext%20%");
  EXPECT_EQ(ask(1, sizeof answer), "20 ext%20%25d%20warning");
  EXPECT_EQ(ask(0, sizeof answer), "10 no%20error");
  GPCTraceCatcher::releaseGlobal();
  EXPECT_EQ(ask(0, sizeof answer), "-1 ");
  GPCTraceCatcher::initGlobal();
}

// Writers on other threads lose nothing, and a delivery under way keeps the catcher it reached
// while the global one comes and goes (the address sanitizer sees any use after the release).
TEST_F(TraceCatcherTest, WritersOnOtherThreadsLoseNothingAndOutliveTheRelease) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i) MacWarnTrace("%d %d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(catcher_->allTraceInfo().size(), 1000u);
  EXPECT_EQ(Filed().size(), 1000u);

  ASSERT_TRUE(tlvtra_reopen_for_testing(nullptr));
  std::atomic<bool> stop{false};
  std::atomic<int> posted{0};
  std::thread poster([&] {
    for (; !stop; ++posted) MacWarnTrace("from another thread");
  });
  while (posted == 0) std::this_thread::yield();
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

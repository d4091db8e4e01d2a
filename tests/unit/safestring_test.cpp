#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "safestring/safe_lib.h"

namespace {

std::vector<std::pair<std::string, errno_t>> g_reports;

void Record(const char* msg, void*, errno_t error) { g_reports.push_back({msg ? msg : "", error}); }

constexpr rsize_t kUnknown = 0x7fffffff;
constexpr rsize_t kTooBig = 0x80000000;

TEST(SafeString, DefaultHandlerIsSilentAndNullRestoresIt) {
  set_constraint_handler_s(nullptr);
  int ind = 1;
  EXPECT_EQ(strcmp_s(nullptr, kUnknown, "a", &ind), ESNULLP);  // no abort
  EXPECT_EQ(set_constraint_handler_s(nullptr), &ignore_handler_s);
}

TEST(SafeString, ViolationsAreRefusedAndReportedOnce) {
  set_constraint_handler_s(Record);
  char buf[16] = "0123456789", dst[4] = {'x', 'x', 'x', 'x'}, *at = nullptr;
  const char unterminated[3] = {'a', 'b', 'c'};
  int ind = 0;
  const std::tuple<const char*, errno_t, std::function<errno_t()>> cases[] = {
      {"strnlen_s", ESLEMAX, [&] { return strnlen_s("abc", kTooBig) == 0 ? ESLEMAX : EOK; }},
      {"strcmp_s", ESNULLP, [&] { return strcmp_s("a", kUnknown, nullptr, &ind); }},
      {"strcmp_s", ESZEROL, [&] { return strcmp_s("a", 0, "a", &ind); }},
      {"strcmp_s", ESLEMAX, [&] { return strcmp_s("a", kTooBig, "a", &ind); }},
      {"strcmp_s", ESUNTERM, [&] { return strcmp_s(unterminated, 3, "abc", &ind); }},  // equal for the whole bound
      {"strcasecmp_s", ESUNTERM, [&] { return strcasecmp_s("AB", 2, "ab", &ind); }},
      {"strstr_s", ESLEMAX, [&] { return strstr_s(buf, kTooBig, "a", 1, &at); }},
      {"strfirstchar_s", ESLEMAX, [&] { return strfirstchar_s(buf, kTooBig, '.', &at); }},
      {"memcpy_s", ESNOSPC, [&] { return memcpy_s(dst, sizeof dst, "01234", 5); }},
      {"memcpy_s", ESOVRLP, [&] { return memcpy_s(buf + 2, 8, buf, 4); }},
      {"memcpy_s", ESOVRLP, [&] { return memcpy_s(buf, 8, buf + 2, 4); }},
      {"memcpy_s", ESLEMAX, [&] { return memcpy_s(dst, kTooBig, "a", 1); }},
      {"memcpy_s", ESZEROL, [&] { return memcpy_s(dst, 0, "a", 0); }},
      {"memmove_s", ESNOSPC, [&] { return memmove_s(buf, 4, buf, 5); }},
      {"memmove_s", ESLEMAX, [&] { return memmove_s(buf, kTooBig, buf, 1); }},
      {"memcmp_s", ESLEMAX, [&] { return memcmp_s("ab", 2, "ab", 3, &ind); }},
      {"memset_s", ESNOSPC, [&] { return memset_s(buf, 3, 0, 4); }},
      {"memset_s", ESLEMAX, [&] { return memset_s(buf, kTooBig, 'q', 1); }},
      {"memset_s", ESNULLP, [&] { return memset_s(nullptr, 1, 'q', 1); }},
  };
  for (const auto& [routine, code, call] : cases) {
    g_reports.clear();
    EXPECT_EQ(call(), code) << routine << " " << code;
    ASSERT_EQ(g_reports.size(), 1u) << routine << " " << code;
    EXPECT_TRUE(g_reports[0].second == code && g_reports[0].first.rfind(routine, 0) == 0) << g_reports[0].first;
  }
  EXPECT_STREQ(buf, "0123456789");  // refused calls write nothing
  EXPECT_EQ(std::memcmp(dst, "xxxx", 4), 0);
  set_constraint_handler_s(nullptr);
}

TEST(SafeString, AnswersWithinBounds) {
  set_constraint_handler_s(Record);
  g_reports.clear();
  EXPECT_EQ(strnlen_s("abc", kUnknown) + strnlen_s(nullptr, 9) + strnlen_s("abcdef", 4) + strnlen_s("abc", 0), 7u);
  const char unterminated[3] = {'a', 'b', 'c'};
  const std::tuple<decltype(&strcmp_s), const char*, rsize_t, const char*, int> compared[] = {
      {strcmp_s, "abc", kUnknown, "abc", 0},  {strcmp_s, "abc", kUnknown, "abd", -1},
      {strcmp_s, "ab", kUnknown, "a", 1},     {strcmp_s, "\xe9", kUnknown, "a", 1},  // bytes are unsigned
      {strcmp_s, unterminated, 3, "ax", -1},  {strcasecmp_s, "GpcUrlRootAZ", kUnknown, "gpcurlrootaz", 0},
      {strcasecmp_s, "GpcUrlRoot", kUnknown, "gpcurlroo", 1}, {strcasecmp_s, "[", kUnknown, "{", -1}};  // ASCII letters only
  for (const auto& [compare, a, max, b, sign] : compared) {
    int ind = 99;
    EXPECT_EQ(compare(a, max, b, &ind), EOK) << a;
    EXPECT_EQ((ind > 0) - (ind < 0), sign) << a << " " << b;
  }
  char text[] = "path/lib-2.1.so", *at = nullptr;
  const std::tuple<rsize_t, const char*, rsize_t, int> found[] = {
      {kUnknown, "-2", kUnknown, 8}, {kUnknown, ".so", 2, 12}, {kUnknown, ".so", kUnknown, 12},  // at the very end
      {8, "-2", kUnknown, -1},       {kUnknown, "", kUnknown, 0}, {kUnknown, "zz", kUnknown, -1}};
  for (const auto& [max, needle, len, offset] : found) {
    EXPECT_EQ(strstr_s(text, max, needle, len, &at), offset < 0 ? ESNOTFND : EOK) << needle;
    EXPECT_EQ(at, offset < 0 ? nullptr : text + offset) << needle;
  }
  EXPECT_EQ(strfirstchar_s(text, kUnknown, '.', &at), EOK);
  EXPECT_EQ(at, text + 10);
  EXPECT_EQ(strfirstchar_s(text, 10, '.', &at), ESNOTFND);
  EXPECT_EQ(strfirstchar_s(text, kUnknown, '\0', &at), ESNOTFND);  // the NUL is not searched

  char buf[16] = "0123456789";
  EXPECT_EQ(memcpy_s(buf, 4, buf + 4, 4), EOK);  // adjacent, not overlapping, either way round
  EXPECT_EQ(memcpy_s(buf + 4, 4, buf, 4), EOK);
  EXPECT_EQ(memmove_s(buf, 4, buf + 1, 4), EOK);  // fills the destination exactly
  EXPECT_EQ(memmove_s(buf + 2, 8, buf, 6), EOK);
  EXPECT_EQ(memmove_s(buf, 10, buf + 4, 6), EOK);
  EXPECT_EQ(memset_s(buf, kUnknown, 'z', 2), EOK);
  EXPECT_STREQ(buf, "zz45894589");
  int diff = 99;
  EXPECT_TRUE(memcmp_s("abcX", 4, "abcY", 3, &diff) == EOK && diff == 0);
  EXPECT_TRUE(memcmp_s("abcX", 4, "abcY", 4, &diff) == EOK && diff < 0);
  EXPECT_TRUE(memcmp_s("\xff", 1, "\x01", 1, &diff) == EOK && diff > 0);
  EXPECT_TRUE(g_reports.empty());  // answers, not violations
  set_constraint_handler_s(nullptr);
}

}  // namespace

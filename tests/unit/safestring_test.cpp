#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "safe_lib.h"

namespace {

struct Report {
  std::string msg;
  errno_t error;
};
std::vector<Report> g_reports;

void Record(const char* msg, void*, errno_t error) { g_reports.push_back({msg ? msg : "", error}); }

class SafeString : public ::testing::Test {
 protected:
  void SetUp() override {
    g_reports.clear();
    previous_ = set_constraint_handler_s(Record);
  }
  void TearDown() override { set_constraint_handler_s(previous_); }

  // The one report the last call made, with its code.
  void ExpectReported(errno_t code, const char* routine) {
    ASSERT_EQ(g_reports.size(), 1u);
    EXPECT_EQ(g_reports[0].error, code);
    EXPECT_EQ(g_reports[0].msg.rfind(routine, 0), 0u) << g_reports[0].msg;
    g_reports.clear();
  }

  constraint_handler_t previous_ = nullptr;
};

constexpr rsize_t kUnknown = 0x7fffffff;
constexpr rsize_t kTooBig = 0x80000000;

TEST_F(SafeString, DefaultHandlerIsSilentAndNullRestoresIt) {
  set_constraint_handler_s(nullptr);
  int indicator = 1;
  EXPECT_EQ(strcmp_s(nullptr, kUnknown, "a", &indicator), ESNULLP);  // no abort
  EXPECT_EQ(set_constraint_handler_s(Record), &ignore_handler_s);
  EXPECT_TRUE(g_reports.empty());
}

TEST_F(SafeString, StrnlenCountsWithinBoundAndRefusesExcessiveMaximum) {
  EXPECT_EQ(strnlen_s("abc", kUnknown), 3u);
  EXPECT_EQ(strnlen_s(nullptr, kUnknown), 0u);
  EXPECT_EQ(strnlen_s("", kUnknown), 0u);
  EXPECT_EQ(strnlen_s("abcdef", 4), 4u);  // unterminated within the bound
  EXPECT_EQ(strnlen_s("abc", 0), 0u);
  EXPECT_TRUE(g_reports.empty());
  EXPECT_EQ(strnlen_s("abc", kTooBig), 0u);
  ExpectReported(ESLEMAX, "strnlen_s");
}

TEST_F(SafeString, CompareGivesSignAndReportsEachConstraint) {
  int ind = 99;
  EXPECT_EQ(strcmp_s("abc", kUnknown, "abc", &ind), EOK);
  EXPECT_EQ(ind, 0);
  EXPECT_EQ(strcmp_s("abc", kUnknown, "abd", &ind), EOK);
  EXPECT_LT(ind, 0);
  EXPECT_EQ(strcmp_s("ab", kUnknown, "a", &ind), EOK);
  EXPECT_GT(ind, 0);
  EXPECT_EQ(strcmp_s("\xe9", kUnknown, "a", &ind), EOK);  // bytes compare unsigned
  EXPECT_GT(ind, 0);
  EXPECT_TRUE(g_reports.empty());

  EXPECT_EQ(strcmp_s(nullptr, kUnknown, "a", &ind), ESNULLP);
  ExpectReported(ESNULLP, "strcmp_s");
  EXPECT_EQ(strcmp_s("a", kUnknown, nullptr, &ind), ESNULLP);
  ExpectReported(ESNULLP, "strcmp_s");
  EXPECT_EQ(strcmp_s("a", kUnknown, "a", nullptr), ESNULLP);
  ExpectReported(ESNULLP, "strcmp_s");
  EXPECT_EQ(strcmp_s("a", 0, "a", &ind), ESZEROL);
  ExpectReported(ESZEROL, "strcmp_s");
  EXPECT_EQ(strcmp_s("a", kTooBig, "a", &ind), ESLEMAX);
  ExpectReported(ESLEMAX, "strcmp_s");
  // Equal for the whole bound without reaching dest's end.
  const char unterminated[3] = {'a', 'b', 'c'};
  EXPECT_EQ(strcmp_s(unterminated, sizeof unterminated, "abc", &ind), ESUNTERM);
  ExpectReported(ESUNTERM, "strcmp_s");
  // A difference inside the bound is an answer, not a violation.
  EXPECT_EQ(strcmp_s(unterminated, sizeof unterminated, "ax", &ind), EOK);
  EXPECT_NE(ind, 0);
}

TEST_F(SafeString, CaseInsensitiveCompareFoldsAsciiOnly) {
  int ind = 99;
  EXPECT_EQ(strcasecmp_s("GpcUrlRoot", kUnknown, "gpcurlroot", &ind), EOK);
  EXPECT_EQ(ind, 0);
  EXPECT_EQ(strcasecmp_s("GpcUrlRoot", kUnknown, "gpcurlroo", &ind), EOK);
  EXPECT_NE(ind, 0);
  EXPECT_EQ(strcasecmp_s("[", kUnknown, "{", &ind), EOK);  // not letters: no folding
  EXPECT_NE(ind, 0);
  EXPECT_EQ(strcasecmp_s("A", kTooBig, "a", &ind), ESLEMAX);
  ExpectReported(ESLEMAX, "strcasecmp_s");
  EXPECT_EQ(strcasecmp_s(nullptr, kUnknown, "a", &ind), ESNULLP);
  ExpectReported(ESNULLP, "strcasecmp_s");
  EXPECT_EQ(strcasecmp_s("A", 0, "a", &ind), ESZEROL);
  ExpectReported(ESZEROL, "strcasecmp_s");
  const char unterminated[2] = {'A', 'B'};
  EXPECT_EQ(strcasecmp_s(unterminated, 2, "ab", &ind), ESUNTERM);
  ExpectReported(ESUNTERM, "strcasecmp_s");
}

TEST_F(SafeString, SubstringAndFirstCharSearchWithinBounds) {
  char text[] = "path/lib-2.1.so";
  char* at = nullptr;
  EXPECT_EQ(strstr_s(text, kUnknown, "-2", kUnknown, &at), EOK);
  EXPECT_EQ(at, text + 8);
  EXPECT_EQ(strstr_s(text, kUnknown, ".so", 2, &at), EOK);  // needle cut to ".s"
  EXPECT_EQ(at, text + 12);
  EXPECT_EQ(strstr_s(text, kUnknown, ".so", kUnknown, &at), EOK);  // the text's very end
  EXPECT_EQ(at, text + 12);
  EXPECT_EQ(strstr_s(text, 8, "-2", kUnknown, &at), ESNOTFND);  // beyond dest's bound
  EXPECT_EQ(at, nullptr);
  EXPECT_EQ(strstr_s(text, kUnknown, "", kUnknown, &at), EOK);
  EXPECT_EQ(at, text);
  EXPECT_EQ(strstr_s(text, kUnknown, "zz", kUnknown, &at), ESNOTFND);
  EXPECT_TRUE(g_reports.empty());  // not found is an answer
  EXPECT_EQ(strstr_s(text, kUnknown, "a", 0, &at), ESZEROL);
  ExpectReported(ESZEROL, "strstr_s");
  EXPECT_EQ(strstr_s(text, kTooBig, "a", 1, &at), ESLEMAX);
  ExpectReported(ESLEMAX, "strstr_s");
  EXPECT_EQ(strstr_s(text, kUnknown, "a", 1, nullptr), ESNULLP);
  ExpectReported(ESNULLP, "strstr_s");

  char* first = nullptr;
  EXPECT_EQ(strfirstchar_s(text, kUnknown, '.', &first), EOK);
  EXPECT_EQ(first, text + 10);
  EXPECT_EQ(strfirstchar_s(text, 10, '.', &first), ESNOTFND);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(strfirstchar_s(text, kUnknown, '\0', &first), ESNOTFND);  // the NUL is not searched
  EXPECT_EQ(strfirstchar_s(nullptr, kUnknown, '.', &first), ESNULLP);
  ExpectReported(ESNULLP, "strfirstchar_s");
  EXPECT_EQ(strfirstchar_s(text, kTooBig, '.', &first), ESLEMAX);
  ExpectReported(ESLEMAX, "strfirstchar_s");
}

TEST_F(SafeString, MemcpyRefusesOverlapAndShortDestinationUntouched) {
  char buf[16] = "0123456789";
  char dst[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(memcpy_s(dst, sizeof dst, "abcd", 4), EOK);
  EXPECT_EQ(std::memcmp(dst, "abcd", 4), 0);
  EXPECT_EQ(memcpy_s(dst, sizeof dst, "012345", 5), ESNOSPC);
  ExpectReported(ESNOSPC, "memcpy_s");
  EXPECT_EQ(std::memcmp(dst, "abcd", 4), 0);  // untouched
  EXPECT_EQ(memcpy_s(buf + 2, 8, buf, 4), ESOVRLP);
  ExpectReported(ESOVRLP, "memcpy_s");
  EXPECT_EQ(memcpy_s(buf, 8, buf + 2, 4), ESOVRLP);
  ExpectReported(ESOVRLP, "memcpy_s");
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_EQ(memcpy_s(buf + 4, 4, buf, 4), EOK);  // adjacent, not overlapping
  EXPECT_STREQ(buf, "0123012389");
  EXPECT_EQ(memcpy_s(dst, kUnknown, "a", 1), EOK);
  EXPECT_EQ(memcpy_s(dst, kTooBig, "a", 1), ESLEMAX);
  ExpectReported(ESLEMAX, "memcpy_s");
  EXPECT_EQ(memcpy_s(dst, 0, "a", 0), ESZEROL);
  ExpectReported(ESZEROL, "memcpy_s");
  EXPECT_EQ(memcpy_s(nullptr, 4, "a", 1), ESNULLP);
  ExpectReported(ESNULLP, "memcpy_s");
  EXPECT_EQ(memcpy_s(dst, 4, nullptr, 1), ESNULLP);
  ExpectReported(ESNULLP, "memcpy_s");
}

TEST_F(SafeString, MemmoveHandlesOverlapBothWays) {
  char buf[16] = "0123456789";
  EXPECT_EQ(memmove_s(buf + 2, 8, buf, 6), EOK);
  EXPECT_STREQ(buf, "0101234589");
  EXPECT_EQ(memmove_s(buf, 10, buf + 4, 6), EOK);
  EXPECT_STREQ(buf, "2345894589");
  EXPECT_TRUE(g_reports.empty());
  EXPECT_EQ(memmove_s(buf, 4, buf, 5), ESNOSPC);
  ExpectReported(ESNOSPC, "memmove_s");
  EXPECT_EQ(memmove_s(buf, kTooBig, buf, 1), ESLEMAX);
  ExpectReported(ESLEMAX, "memmove_s");
}

TEST_F(SafeString, MemcmpAndMemset) {
  int diff = 99;
  EXPECT_EQ(memcmp_s("abcX", 4, "abcY", 3, &diff), EOK);
  EXPECT_EQ(diff, 0);
  EXPECT_EQ(memcmp_s("abcX", 4, "abcY", 4, &diff), EOK);
  EXPECT_LT(diff, 0);
  EXPECT_EQ(memcmp_s("\xff", 1, "\x01", 1, &diff), EOK);
  EXPECT_GT(diff, 0);
  EXPECT_EQ(memcmp_s("ab", 2, "ab", 3, &diff), ESLEMAX);
  ExpectReported(ESLEMAX, "memcmp_s");
  EXPECT_EQ(memcmp_s("ab", 2, "ab", 2, nullptr), ESNULLP);
  ExpectReported(ESNULLP, "memcmp_s");

  char buf[8] = "abcdefg";
  EXPECT_EQ(memset_s(buf, sizeof buf, 'z', 3), EOK);
  EXPECT_STREQ(buf, "zzzdefg");
  EXPECT_EQ(memset_s(buf, 3, 0, 4), ESNOSPC);
  ExpectReported(ESNOSPC, "memset_s");
  EXPECT_STREQ(buf, "zzzdefg");  // refused without writing
  EXPECT_EQ(memset_s(buf, kUnknown, 'q', 1), EOK);
  EXPECT_EQ(memset_s(buf, kTooBig, 'q', 1), ESLEMAX);
  ExpectReported(ESLEMAX, "memset_s");
  EXPECT_EQ(memset_s(nullptr, 1, 'q', 1), ESNULLP);
  ExpectReported(ESNULLP, "memset_s");
  EXPECT_EQ(memset_s(buf, 0, 'q', 0), ESZEROL);
  ExpectReported(ESZEROL, "memset_s");
}

}  // namespace

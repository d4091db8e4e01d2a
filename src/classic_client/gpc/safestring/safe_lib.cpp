#include "safestring/safe_lib.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace {

std::atomic<constraint_handler_t> g_handler{&ignore_handler_s};

errno_t Violation(const char* msg, errno_t error) {
  constraint_handler_t handler = g_handler.load();
  handler(msg, nullptr, error);
  return error;
}

bool BlocksOverlap(const void* a, const void* b, rsize_t len) {
  uintptr_t pa = reinterpret_cast<uintptr_t>(a);
  uintptr_t pb = reinterpret_cast<uintptr_t>(b);
  return pa < pb ? pb - pa < len : pa - pb < len;
}

// Reports `msg` with `code` and returns the code when `cond` does not hold.
#define SAFE_REQUIRE(cond, msg, code) \
  do {                                \
    if (!(cond)) return Violation(msg, code); \
  } while (0)

// Compares `dest` and `src` byte by byte after `fold`; `dest` must end within `dmax`.
template <typename Fold>
errno_t CompareTexts(const char* dest, rsize_t dmax, const char* src, int* indicator, Fold fold,
                     const char* unterminated_msg) {
  const unsigned char* d = reinterpret_cast<const unsigned char*>(dest);
  const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
  for (rsize_t i = 0; i < dmax; ++i) {
    unsigned char a = fold(d[i]);
    unsigned char b = fold(s[i]);
    if (a != b || a == 0) {
      *indicator = static_cast<int>(a) - static_cast<int>(b);
      return EOK;
    }
  }
  return Violation(unterminated_msg, ESUNTERM);
}

}  // namespace

void ignore_handler_s(const char*, void*, errno_t) {}

constraint_handler_t set_constraint_handler_s(constraint_handler_t handler) {
  return g_handler.exchange(handler != nullptr ? handler : &ignore_handler_s);
}

rsize_t strnlen_s(const char* dest, rsize_t dmax) {
  if (dest == nullptr || dmax == 0) return 0;
  if (dmax > RSIZE_MAX_STR) {
    Violation("strnlen_s: dmax exceeds max", ESLEMAX);
    return 0;
  }
  rsize_t len = 0;
  while (len < dmax && dest[len] != '\0') ++len;
  return len;
}

errno_t strcmp_s(const char* dest, rsize_t dmax, const char* src, int* indicator) {
  SAFE_REQUIRE(indicator != nullptr, "strcmp_s: indicator is null", ESNULLP);
  *indicator = 0;
  SAFE_REQUIRE(dest != nullptr, "strcmp_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "strcmp_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "strcmp_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_STR, "strcmp_s: dmax exceeds max", ESLEMAX);
  return CompareTexts(dest, dmax, src, indicator, [](unsigned char c) { return c; },
                      "strcmp_s: dest is unterminated");
}

unsigned char AsciiLower(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

errno_t strcasecmp_s(const char* dest, rsize_t dmax, const char* src, int* indicator) {
  SAFE_REQUIRE(indicator != nullptr, "strcasecmp_s: indicator is null", ESNULLP);
  *indicator = 0;
  SAFE_REQUIRE(dest != nullptr, "strcasecmp_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "strcasecmp_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "strcasecmp_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_STR, "strcasecmp_s: dmax exceeds max", ESLEMAX);
  return CompareTexts(dest, dmax, src, indicator, AsciiLower, "strcasecmp_s: dest is unterminated");
}

errno_t strstr_s(char* dest, rsize_t dmax, const char* src, rsize_t slen, char** substring) {
  SAFE_REQUIRE(substring != nullptr, "strstr_s: substring is null", ESNULLP);
  *substring = nullptr;
  SAFE_REQUIRE(dest != nullptr, "strstr_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "strstr_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "strstr_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_STR, "strstr_s: dmax exceeds max", ESLEMAX);
  SAFE_REQUIRE(slen != 0, "strstr_s: slen is 0", ESZEROL);
  SAFE_REQUIRE(slen <= RSIZE_MAX_STR, "strstr_s: slen exceeds max", ESLEMAX);

  rsize_t needle = strnlen_s(src, slen);
  if (needle == 0) {
    *substring = dest;
    return EOK;
  }
  rsize_t hay = strnlen_s(dest, dmax);
  for (rsize_t start = 0; start + needle <= hay; ++start) {
    if (std::memcmp(dest + start, src, needle) == 0) {
      *substring = dest + start;
      return EOK;
    }
  }
  return ESNOTFND;
}

errno_t strfirstchar_s(char* dest, rsize_t dmax, char c, char** first) {
  SAFE_REQUIRE(first != nullptr, "strfirstchar_s: first is null", ESNULLP);
  *first = nullptr;
  SAFE_REQUIRE(dest != nullptr, "strfirstchar_s: dest is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "strfirstchar_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_STR, "strfirstchar_s: dmax exceeds max", ESLEMAX);
  for (rsize_t i = 0; i < dmax && dest[i] != '\0'; ++i) {
    if (dest[i] == c) {
      *first = dest + i;
      return EOK;
    }
  }
  return ESNOTFND;
}

errno_t memcpy_s(void* dest, rsize_t dmax, const void* src, rsize_t slen) {
  SAFE_REQUIRE(dest != nullptr, "memcpy_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "memcpy_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "memcpy_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_MEM, "memcpy_s: dmax exceeds max", ESLEMAX);
  SAFE_REQUIRE(slen <= dmax, "memcpy_s: slen exceeds dmax", ESNOSPC);
  SAFE_REQUIRE(!BlocksOverlap(dest, src, slen), "memcpy_s: overlap undefined", ESOVRLP);
  if (slen != 0) std::memcpy(dest, src, slen);
  return EOK;
}

errno_t memmove_s(void* dest, rsize_t dmax, const void* src, rsize_t slen) {
  SAFE_REQUIRE(dest != nullptr, "memmove_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "memmove_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "memmove_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_MEM, "memmove_s: dmax exceeds max", ESLEMAX);
  SAFE_REQUIRE(slen <= dmax, "memmove_s: slen exceeds dmax", ESNOSPC);
  if (slen != 0) std::memmove(dest, src, slen);
  return EOK;
}

errno_t memcmp_s(const void* dest, rsize_t dmax, const void* src, rsize_t slen, int* diff) {
  SAFE_REQUIRE(diff != nullptr, "memcmp_s: diff is null", ESNULLP);
  *diff = 0;
  SAFE_REQUIRE(dest != nullptr, "memcmp_s: dest is null", ESNULLP);
  SAFE_REQUIRE(src != nullptr, "memcmp_s: src is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "memcmp_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_MEM, "memcmp_s: dmax exceeds max", ESLEMAX);
  SAFE_REQUIRE(slen <= dmax, "memcmp_s: slen exceeds dmax", ESLEMAX);
  const unsigned char* d = static_cast<const unsigned char*>(dest);
  const unsigned char* s = static_cast<const unsigned char*>(src);
  for (rsize_t i = 0; i < slen; ++i) {
    if (d[i] != s[i]) {
      *diff = static_cast<int>(d[i]) - static_cast<int>(s[i]);
      break;
    }
  }
  return EOK;
}

errno_t memset_s(void* dest, rsize_t dmax, int value, rsize_t n) {
  SAFE_REQUIRE(dest != nullptr, "memset_s: dest is null", ESNULLP);
  SAFE_REQUIRE(dmax != 0, "memset_s: dmax is 0", ESZEROL);
  SAFE_REQUIRE(dmax <= RSIZE_MAX_MEM, "memset_s: dmax exceeds max", ESLEMAX);
  SAFE_REQUIRE(n <= dmax, "memset_s: n exceeds dmax", ESNOSPC);
  if (n != 0) std::memset(dest, value, n);
  // Keeps the store even when the block is never read again (clearing secrets).
  __asm__ __volatile__("" : : "r"(dest) : "memory");
  return EOK;
}

#include "plugin/plugin/npgpc_text.h"

#include "safestring/safe_lib.h"

bool GpcNamesEqual(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return false;
  int indicator = 0;
  if (strcasecmp_s(a, RSIZE_MAX_STR, b, &indicator) != EOK) return false;
  return indicator == 0;
}

bool GpcJoinQuery(const std::string& base, const std::string& query, std::string* out) {
  const bool hasQuery = base.find('?') != std::string::npos;
  const char last = base.empty() ? '\0' : base.back();
  if (hasQuery) {
    *out = (last == '?' || last == '&') ? base + query : base + "&" + query;
    return true;
  }
  if (last == '&') {
    *out = base;
    return false;
  }
  *out = base + "?" + query;
  return true;
}

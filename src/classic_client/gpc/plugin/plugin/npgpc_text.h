// Small text helpers shared by the instance's source files.
#pragma once

#include <string>

// Case-insensitive equality of two names; null texts and comparison errors count as no match.
bool GpcNamesEqual(const char* a, const char* b);

// Joins `query` to `base` the way the error page and the logging URL are joined: with a "?" in
// the base and a last character "?" or "&", directly; with a "?" and another last character,
// after "&"; without "?" and a last character other than "&", after "?". A base without "?"
// that ends in "&" cannot take a query: false, and `out` is `base` unchanged.
bool GpcJoinQuery(const std::string& base, const std::string& query, std::string* out);

// gpc-host's reader of the browser extension's messages: RFC 8259 values, and the reason for each refusal.
#include <gtest/gtest.h>

#include <string>

#include "http_test_server.h"
#include "json_value.h"

namespace {

// An array of `count` zeros: count + 1 values.
std::string ValuesArray(size_t count) {
  std::string text = "[0";
  for (size_t i = 1; i < count; ++i) text += ",0";
  return text + "]";
}

TEST(JsonValue, ReadsOneValueAndRefusesAnythingElseWithItsReason) {
  const gpctest::ScopedLocale german(LC_NUMERIC, "de_DE");  // a decimal comma
  ASSERT_TRUE(german.ok()) << "the locales package makes the de_DE locale";
  JsonValue value;
  std::string error;
  ASSERT_TRUE(ParseJson(" {\"a\":[true,false,null,-1.5e2,\"\\u00e9\\ud83d\\ude00\"],\"a\":{}}\r\n", &value, &error))
      << error;
  ASSERT_EQ(value.members.size(), 2u) << "a repeated key keeps both";
  const auto& items = value.members[0].second.items;
  ASSERT_EQ(items.size(), 5u);
  EXPECT_TRUE(items[0].kind == JsonValue::Kind::kBool && items[0].boolean && !items[1].boolean);
  EXPECT_TRUE(items[1].kind == JsonValue::Kind::kBool && items[2].kind == JsonValue::Kind::kNull);
  EXPECT_TRUE(items[3].number == -150 && items[4].text == "\xC3\xA9\xF0\x9F\x98\x80");

  const std::pair<std::string, const char*> refused[] = {
      {"{\"a\":1} x", "text after the value"},   {"\"\\udc00\"", "lone surrogate"},
      {"\"\\ud800\\u0041\"", "lone surrogate"}, {"\"\xC3\"", "invalid UTF-8"},
      {"\"a\nb\"", "control character"},        {"tru", "unexpected character"},
      {"[1,]", "unexpected character"},        {std::string(66, '[') + std::string(66, ']'), "nested too deeply"},
      {"", "unexpected character"},            {ValuesArray(65536), "more than 65536 values"},
  };
  for (const auto& [text, reason] : refused) {
    error.clear();
    EXPECT_FALSE(ParseJson(text, &value, &error)) << text;
    EXPECT_NE(error.find(reason), std::string::npos) << text.substr(0, 80) << ": " << error;
  }
  EXPECT_TRUE(ParseJson(ValuesArray(65535), &value, &error)) << error;  // 65,536 values in all
}

}  // namespace

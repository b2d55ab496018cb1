// teskctl's JSON encoder: escaping, separators, and the UTF-8 check that
// decides whether an SSID is printed as text or as hex.
#include "tools/teskctl/json_writer.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(JsonWriterTest, EscapesEverythingJsonRequires) {
  struct Case {
    std::string in;
    std::string out;
  } cases[] = {
      {"plain", "\"plain\""},
      {"quote \" and backslash \\", "\"quote \\\" and backslash \\\\\""},
      {"\n\r\t\b\f", "\"\\n\\r\\t\\b\\f\""},
      {std::string("nul\0x", 5), "\"nul\\u0000x\""},
      {"\x01\x1f\x7f", "\"\\u0001\\u001f\\u007f\""},
      {"caf\xc3\xa9 \xf0\x9f\x93\xb6", "\"caf\xc3\xa9 \xf0\x9f\x93\xb6\""},
  };
  for (const Case& c : cases) EXPECT_EQ(EscapeJsonString(c.in), c.out);
}

TEST(JsonWriterTest, SeparatesMembersAndElements) {
  JsonWriter json;
  json.BeginObject();
  json.UintField("a", 18446744073709551615ull);
  json.IntField("b", -2147483649ll);
  json.Key("c");
  json.BeginArray();
  json.Bool(true);
  json.Null();
  const uint8_t bytes[] = {0x00, 0xAB, 0xff};
  json.Hex(bytes, sizeof bytes);
  json.BeginObject();
  json.EndObject();
  json.EndArray();
  json.StringField("d", "x");
  json.EndObject();
  EXPECT_EQ(json.text(),
            "{\"a\":18446744073709551615,\"b\":-2147483649,\"c\":[true,null,\"00abff\",{}],"
            "\"d\":\"x\"}");
}

TEST(JsonWriterTest, AcceptsOnlyWellFormedUtf8) {
  struct Case {
    std::string bytes;
    bool valid;
  } cases[] = {
      {"", true},
      {"ascii", true},
      {"\xc3\xa9", true},
      {"\xe2\x82\xac", true},
      {"\xf4\x8f\xbf\xbf", true},  // U+10FFFF
      {"\xc3", false},             // cut short
      {"\xe2\x82", false},
      {"\x80", false},              // continuation without a lead
      {"\xc0\xaf", false},          // overlong
      {"\xe0\x80\xaf", false},      // overlong
      {"\xed\xa0\x80", false},      // surrogate
      {"\xf4\x90\x80\x80", false},  // past U+10FFFF
      {"\xff", false},
  };
  for (const Case& c : cases) {
    const auto* data = reinterpret_cast<const uint8_t*>(c.bytes.data());
    EXPECT_EQ(IsValidUtf8(data, c.bytes.size()), c.valid) << testing::PrintToString(c.bytes);
  }
}

}  // namespace

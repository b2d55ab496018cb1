// teskctl's JSON encoder: escaping, and the UTF-8 check that decides whether
// an SSID is printed as text or as hex.
#include "json_writer.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const uint8_t* Bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

TEST(JsonWriterTest, EscapesAndTellsTextFromBytes) {
  const struct Case {
    std::string in, out;
  } cases[] = {
      {"\" \\ \n\r\t\b\f", "\"\\\" \\\\ \\n\\r\\t\\b\\f\""},
      {std::string("\0\x01\x1f\x7f", 4), "\"\\u0000\\u0001\\u001f\\u007f\""},
      {"caf\xc3\xa9 \xf0\x9f\x93\xb6", "\"caf\xc3\xa9 \xf0\x9f\x93\xb6\""},
  };
  for (const Case& c : cases) EXPECT_EQ(EscapeJsonString(c.in), c.out);

  const std::string good[] = {"", "ascii", "\xc3\xa9", "\xe2\x82\xac", "\xf4\x8f\xbf\xbf"};
  // Cut short, a lone continuation, overlong, a surrogate, past U+10FFFF, never valid.
  const std::string bad[] = {"\xc3",         "\xe2\x82",         "\x80", "\xc0\xaf", "\xe0\x80\xaf",
                             "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"};
  for (const std::string& text : good) EXPECT_TRUE(IsValidUtf8(Bytes(text), text.size()));
  for (const std::string& text : bad) {
    EXPECT_FALSE(IsValidUtf8(Bytes(text), text.size())) << testing::PrintToString(text);
  }
}

}  // namespace

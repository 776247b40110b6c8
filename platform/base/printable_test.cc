#include "base/printable.h"

#include <gtest/gtest.h>

namespace base {
namespace {

TEST(Printable, DoesNotChangeTextInAnyScript) {
  for (const char* text : {"", "plain \\ text", "Störung ☂", "\u00a0", "\U0001f4a7", "\uffff"})
    EXPECT_EQ(Printable(text), text);
}

TEST(Printable, ControlCharactersAreEscaped) {
  EXPECT_EQ(Printable(std::string_view("\0\n\r\t\x1b[31m\x7f", 10)),
            "\\x00\\n\\r\\t\\x1b[31m\\x7f");
  EXPECT_EQ(Printable("\u0080 \u009b31m \u009f"), "\\xc2\\x80 \\xc2\\x9b31m \\xc2\\x9f");
}

// NOLINTBEGIN(misc-misleading-bidirectional): misleading text is what this test is about.
TEST(Printable, CharactersThatReorderTextOrBreakLinesAreEscaped) {
  for (const char* text :
       {"\u061c", "\u200e", "\u200f", "\u202a", "\u202e", "\u2028", "\u2029", "\u2066", "\u2069"}) {
    EXPECT_EQ(Printable(text).find("\\x"), 0u) << text;
    EXPECT_EQ(Printable(text).find(text), std::string::npos) << text;
  }
  EXPECT_EQ(Printable("a\u202eb"), "a\\xe2\\x80\\xaeb");
}
// NOLINTEND(misc-misleading-bidirectional)

TEST(Printable, InvalidUtf8IsEscaped) {
  const struct {
    const char* text;
    const char* printable;
  } kCases[] = {
      {"\x9b"
       "31m",
       "\\x9b31m"},         // The 8-bit form of the escape sequence.
      {"a\xc2", "a\\xc2"},  // Cut.
      {"\xc2 a", "\\xc2 a"},
      {"\xe2\x98", "\\xe2\\x98"},
      {"\xc0\x8a", "\\xc0\\x8a"},  // An overlong line break.
      {"\xe0\x82\x9b", "\\xe0\\x82\\x9b"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},  // A surrogate.
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"\xff", "\\xff"},
  };
  for (const auto& test : kCases) EXPECT_EQ(Printable(test.text), test.printable);
}

}  // namespace
}  // namespace base

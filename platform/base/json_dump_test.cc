// Compares the texts of `JSONWriter` with those of the library.

#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <utility>

#include "base/json.h"

#ifdef __SANITIZE_ADDRESS__
// No header of GCC declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace base {
namespace {

// The sanitizer replaces malloc.
size_t HeapBytes() {
#ifdef __SANITIZE_ADDRESS__
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

constexpr unsigned kSeed = 1;
constexpr int kValues = 3000;
constexpr int kNumbers = 20000;
constexpr int kDeepest = 4;

// The same value of both libraries.
struct Twins {
  Value ours;
  nlohmann::json theirs;
};

class Dice {
 public:
  // From 0 to below `end`.
  int Roll(int end) { return std::uniform_int_distribution(0, end - 1)(engine_); }

  // Plain, escaped and multi-byte pieces and, unless it is a key, invalid UTF-8: replacing it could
  // make keys equal or change their order.
  std::string Text(bool is_key = false) {
    static const std::string kPieces[] = {"a",
                                          ",}",
                                          "[{",
                                          "Z 9",
                                          "/",
                                          "\"",
                                          "\\",
                                          "\n",
                                          "\x1f",
                                          "\x7f",
                                          std::string(1, '\0'),
                                          std::string(300, 'x'),
                                          "\xc3\xa4",
                                          "\xe2\x82\xac",
                                          "\xf0\x9f\x98\x80",
                                          "\xc3",
                                          "\xff",
                                          "\xed\xa0\x80"};
    constexpr int kNoUtf8 = 3;
    const int end = static_cast<int>(std::size(kPieces)) - (is_key ? kNoUtf8 : 0);
    std::string text;
    for (int left = Roll(6); left > 0; --left) text += kPieces[Roll(end)];
    return text;
  }

  // Any bits, or a number with few decimal places.
  double Double() {
    constexpr double kScales[] = {1, 10, 1000, 1e6};
    if (Roll(2) == 0) return std::bit_cast<double>(engine_());
    return (Roll(2'000'001) - 1'000'000) / kScales[Roll(std::size(kScales))];
  }
  // A whole number of up to 15 digits.
  double Whole() { return static_cast<double>(engine_() % 1'000'000'000'000'000 >> Roll(50)); }
  // The library finds the shortest text for these.
  double Eighths() { return (Roll(2'000'001) - 1'000'000) / 8.0; }

  Twins Any(int depth) {
    switch (Roll(depth < kDeepest ? 7 : 5)) {
      case 0:
        return {Value(), nullptr};
      case 1:
        return Both(Roll(2) == 0);
      case 2:
        return Both(static_cast<int>(engine_()));
      case 3:
        return Both(Eighths());
      case 4:
        return Both(Text());
      case 5:
        return List(depth);
      default:
        return Object(depth);
    }
  }

  Twins Object(int depth) {
    DictionaryValue ours;
    nlohmann::json theirs = nlohmann::json::object();
    for (int left = Roll(6); left > 0; --left) {
      Twins member = Any(depth + 1);
      // Without dots, which would make a path.
      const std::string key = Text(/*is_key=*/true);
      ours.Set(key, std::move(member.ours));
      theirs[key] = std::move(member.theirs);
    }
    return {std::move(ours), std::move(theirs)};
  }

 private:
  template <typename T>
  static Twins Both(T value) {
    return {Value(value), nlohmann::json(value)};
  }

  Twins List(int depth) {
    ListValue ours;
    nlohmann::json theirs = nlohmann::json::array();
    for (int left = Roll(6); left > 0; --left) {
      Twins item = Any(depth + 1);
      ours.Append(std::move(item.ours));
      theirs.push_back(std::move(item.theirs));
    }
    return {std::move(ours), std::move(theirs)};
  }

  // The same sequence in every build.
  std::mt19937_64 engine_{kSeed};
};

std::string Dump(const nlohmann::json& json) {
  constexpr int kCompact = -1;
  return json.dump(kCompact, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
}

TEST(JSONWriter, WritesTheSameBytesAsTheLibraryAndTheyParseBack) {
  Dice dice;
  for (int i = 0; i < kValues; ++i) {
    const Twins twins = dice.Object(0);
    std::string text;
    JSONWriter::Write(twins.ours, &text);
    ASSERT_EQ(text, Dump(twins.theirs)) << "value " << i << " of seed " << kSeed;
    constexpr bool kAllowExceptions = false;
    ASSERT_EQ(Dump(nlohmann::json::parse(text, nullptr, kAllowExceptions)), text);
    ASSERT_NE(JSONReader::ReadDictionary(text), nullptr) << text;
  }
}

// The library does not always find the shortest text: 0.7881050000000001 for 0.788105.
TEST(JSONWriter, EveryDoubleParsesBackAndIsNoLongerThanTheLibrarysText) {
  Dice dice;
  for (int i = 0; i < kNumbers; ++i) {
    const double number = dice.Double();
    std::string text;
    JSONWriter::Write(Value(number), &text);
    const std::string theirs = nlohmann::json(number).dump();
    ASSERT_LE(text.size(), theirs.size()) << text << " for " << theirs;
    if (!std::isfinite(number)) continue;
    ASSERT_EQ(strtod(text.c_str(), nullptr), number) << text;
    ASSERT_NE(text.find_first_of(".e"), std::string::npos) << text;
  }
}

TEST(JSONWriter, ANumberWithFewPlacesHasItsShortestText) {
  Dice dice;
  for (const double scale : {1., 10., 100., 1e3, 1e4, 1e5}) {
    for (int i = 0; i < kNumbers; ++i) {
      const double number = (i % 2 == 0 ? i : dice.Whole()) / scale;
      std::array<char, 32> digits{};
      std::to_chars(digits.begin(), digits.end(), number, std::chars_format::fixed);
      std::string expected = digits.data();
      if (expected.find('.') == std::string::npos) expected += ".0";
      // Those have an exponent.
      if (number > 0 && number < 1e-4) continue;
      for (const char* sign : {"", "-"}) {
        std::string text;
        JSONWriter::Write(Value(*sign == '-' ? -number : number), &text);
        ASSERT_EQ(text, sign + expected);
      }
    }
  }
}

TEST(JSONWriter, ADoubleHasAPointOrAnExponent) {
  const struct {
    double number;
    const char* text;
  } kCases[] = {
      {0.0, "0.0"},
      {-0.0, "-0.0"},
      {1.0, "1.0"},
      {-100000.0, "-100000.0"},
      {0.1, "0.1"},
      {1.0 / 3, "0.3333333333333333"},
      {1e14, "100000000000000.0"},
      {999999999999999.0, "999999999999999.0"},
      {999999999999999.9, "999999999999999.9"},
      {1e15, "1e+15"},
      {-1234567890123456.0, "-1.234567890123456e+15"},
      {0.0001, "0.0001"},
      {0.00012345, "0.00012345"},
      {0.00009999999999999999, "9.999999999999999e-05"},
      {1e-5, "1e-05"},
      {1e100, "1e+100"},
      {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
      {std::numeric_limits<double>::min(), "2.2250738585072014e-308"},
      {std::numeric_limits<double>::denorm_min(), "5e-324"},
      {-2.2250738585072014e-308, "-2.2250738585072014e-308"},
      {-0.00012345678901234567, "-0.00012345678901234567"},
      {std::numeric_limits<double>::infinity(), "null"},
      {std::numeric_limits<double>::quiet_NaN(), "null"},
  };
  for (const auto& test : kCases) {
    std::string text;
    JSONWriter::Write(Value(test.number), &text);
    EXPECT_EQ(text, test.text);
  }
}

TEST(JSONWriter, WritesTheLongestIntegers) {
  for (const int number : {std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    std::string text;
    JSONWriter::Write(Value(number), &text);
    EXPECT_EQ(text, std::to_string(number));
  }
}

// The writer scans eight characters at a time.
TEST(JSONWriter, WritesEveryCharacterAtEveryPlaceLikeTheLibrary) {
  constexpr size_t kLongest = 17;
  constexpr int kCharacters = 256;
  for (size_t size = 1; size <= kLongest; ++size) {
    for (size_t place = 0; place < size; ++place) {
      for (int character = 0; character < kCharacters; ++character) {
        std::string text(size, 'x');
        text[place] = static_cast<char>(character);
        std::string ours;
        JSONWriter::Write(Value(text), &ours);
        ASSERT_EQ(ours, Dump(text)) << character << " at " << place << " of " << size;
      }
    }
  }
}

// Sets members at random paths of few keys, so that they replace each other.
TEST(DictionaryValue, HoldsWhatWasSetInAnyOrder) {
  static const std::string kKeys[] = {"a", "b", "\"", "\n", "\xc3\xa4", "ab", "\\"};
  Dice dice;
  const auto key = [&] { return kKeys[dice.Roll(std::size(kKeys))]; };
  for (int i = 0; i < kValues; ++i) {
    DictionaryValue ours;
    nlohmann::json theirs = nlohmann::json::object();
    for (int left = dice.Roll(20); left > 0; --left) {
      std::string path = key();
      nlohmann::json* place = &theirs[path];
      for (int depth = dice.Roll(3); depth > 0; --depth) {
        const std::string member = key();
        path += "." + member;
        if (!place->is_object()) *place = nlohmann::json::object();
        place = &(*place)[member];
      }
      Twins value = dice.Any(kDeepest);
      ours.Set(path, std::move(value.ours));
      *place = std::move(value.theirs);
      std::string text;
      JSONWriter::Write(ours, &text);
      ASSERT_EQ(text, Dump(theirs)) << path << " of value " << i << " of seed " << kSeed;
    }
  }
}

// Lists of all sizes at which blocks are copied, moved, begun and, for the last member, joined.
TEST(ListValue, KeepsTheOrderOfShortAndLongValues) {
  Dice dice;
  for (int i = 0; i < kDeepest * kDeepest; ++i) {
    ListValue outer;
    nlohmann::json theirs = nlohmann::json::array();
    for (int left = dice.Roll(40); left > 0; --left) {
      constexpr int kMostItems = 40;
      constexpr int kLongText = 300;
      ListValue inner;
      nlohmann::json their_inner = nlohmann::json::array();
      for (int items = dice.Roll(kMostItems); items > 0; --items) {
        const std::string text(dice.Roll(kLongText), static_cast<char>('a' + dice.Roll(20)));
        inner.Append(Value(text));
        their_inner.push_back(text);
      }
      DictionaryValue object;
      object.Set("list", std::move(inner));
      object.SetInteger("size", left);
      object.SetInteger("a", left);
      outer.Append(std::move(object));
      theirs.push_back({{"a", left}, {"list", their_inner}, {"size", left}});
    }
    std::string text;
    JSONWriter::Write(outer, &text);
    ASSERT_EQ(text, Dump(theirs)) << "list " << i << " of seed " << kSeed;
  }
}

// Blocks are at least half used: the short text between two that are moved has no block's room.
TEST(ListValue, HasLittleUnusedRoomWithItemsOfAnySize) {
  constexpr size_t kItems = 100;
  constexpr size_t kSmallest = 1000;
  constexpr size_t kLargest = 6000;
  constexpr size_t kStep = 250;
  for (size_t item_bytes = kSmallest; item_bytes <= kLargest; item_bytes += kStep) {
    const size_t before = HeapBytes();
    ListValue list;
    for (size_t i = 0; i < kItems; ++i) {
      ListValue item;
      for (size_t size = 0; size < item_bytes; size += 10) item.Append(Value(std::string(7, 'x')));
      item.ShrinkToFit();
      list.Append(std::move(item));
    }
    const size_t used = HeapBytes() - before;
    std::string text;
    JSONWriter::Write(list, &text);
    EXPECT_GT(used, text.size() / 2);
    EXPECT_LT(used, 2 * text.size()) << item_bytes;
  }
}

TEST(JsonDump, WritesALongTextInPiecesLikeAShortOne) {
  // The special characters start before, at and after the end of a piece.
  constexpr size_t kPieceBytes = size_t{64} * 1024;
  const std::string kEnds[] = {"\n",           "\xc3\xa4",
                               "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                               "\xf0\x9f\x98", "\xf0\x9f\x98\xc3\xa4",
                               "\x80\x80\x80", "\xed\xa0\x80"};
  for (const std::string& end : kEnds) {
    for (size_t before = 0; before <= 4; ++before) {
      const std::string text = "\"" + std::string(kPieceBytes - 1 - before, 'x') + end + "tail";
      std::string ours;
      JSONWriter::Write(Value(text), &ours);
      EXPECT_EQ(ours,
                nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
          << before;
    }
  }
}

}  // namespace
}  // namespace base

#include "base/values.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/json.h"

namespace base {
namespace {

std::string Write(const Value& value) {
  std::string text;
  JSONWriter::Write(value, &text);
  return text;
}

TEST(DictionaryValue, APathCreatesNestedObjects) {
  DictionaryValue value;
  value.SetString("properties.softwareVersion", "9000.1.0");
  value.SetString("properties.hardwareId", "board-a");
  value.SetInteger("deviceTimestamp.seconds", 1700000400);
  EXPECT_EQ(Write(value), R"({"deviceTimestamp":{"seconds":1700000400},)"
                          R"("properties":{"hardwareId":"board-a","softwareVersion":"9000.1.0"}})");
}

TEST(DictionaryValue, WithoutPathExpansionADotIsPartOfTheKey) {
  DictionaryValue value;
  value.SetStringWithoutPathExpansion("radio.0.band", "5g");
  EXPECT_EQ(Write(value), R"({"radio.0.band":"5g"})");
}

TEST(DictionaryValue, SettingReplacesAMemberOfAnyType) {
  DictionaryValue value;
  value.SetString("a", "text");
  value.SetInteger("a.b", 1);
  EXPECT_EQ(Write(value), R"({"a":{"b":1}})");
  value.SetBoolean("a", true);
  EXPECT_EQ(Write(value), R"({"a":true})");
}

TEST(DictionaryValue, GetStringReadsOnlyStringsByPath) {
  DictionaryValue value;
  value.SetString("a.b", "text");
  value.SetInteger("number", 5);
  std::string read = "as it was";
  EXPECT_FALSE(value.GetString("number", &read));
  EXPECT_FALSE(value.GetString("a", &read));
  EXPECT_FALSE(value.GetString("a.b.c", &read));
  EXPECT_FALSE(value.GetString("absent", &read));
  EXPECT_EQ(read, "as it was");
  EXPECT_TRUE(value.GetString("a.b", &read));
  EXPECT_EQ(read, "text");
}

TEST(DictionaryValue, GetStringReadsBackEveryText) {
  const std::string kTexts[] = {"",
                                "plain",
                                "\"\\\n\x1f\x7f",
                                std::string("a\0b", 3),
                                "\xc3\xa4",
                                std::string(100'000, 'x') + "\n",
                                "a.b"};
  for (const std::string& text : kTexts) {
    DictionaryValue value;
    value.SetString("c.\"\\.d", text);
    value.SetString("c.a", "before");
    value.SetString("b", std::string(100'000, 'y'));
    std::string read;
    EXPECT_TRUE(value.GetString("c.\"\\.d", &read));
    EXPECT_EQ(read, text);
  }
}

TEST(DictionaryValue, GetStringReadsInvalidUtf8AsItIsWritten) {
  DictionaryValue value;
  value.SetString("a", "x\xff");
  std::string read;
  EXPECT_TRUE(value.GetString("a", &read));
  EXPECT_EQ(read, "x\xef\xbf\xbd");
}

TEST(DictionaryValue, KeysWithInvalidUtf8AreWrittenAsJson) {
  DictionaryValue value;
  value.SetInteger("\xff", 1);
  value.SetInteger("\xf5", 2);
  EXPECT_EQ(Write(value), "{\"\xef\xbf\xbd\":1,\"\xef\xbf\xbd\":2}");
}

TEST(DictionaryValue, AnObjectCanBeExtendedInAnyOrderOfItsMembers) {
  DictionaryValue value;
  value.SetInteger("p.m", 1);
  value.SetInteger("z", 2);
  value.SetInteger("p.a", 3);
  value.SetInteger("p.z.y", 4);
  value.SetInteger("a", 5);
  EXPECT_EQ(Write(value), R"({"a":5,"p":{"a":3,"m":1,"z":{"y":4}},"z":2})");
}

// A long string is not part of the text until that is written.
TEST(DictionaryValue, LongKeysAndStringsAreMovedWithTheirMembers) {
  const std::string one(1000, '1');
  const std::string two(1000, '\2');
  DictionaryValue value;
  value.SetString("m." + two, one);
  value.SetString("m." + one, two);
  value.SetString("a", one);
  value.SetString("m." + two, "short");
  value.SetString("z", two);
  value.SetInteger("a", 3);
  value.SetString("m.a", one);
  std::string read;
  ASSERT_TRUE(value.GetString("m." + one, &read));
  EXPECT_EQ(read, two);
  ASSERT_TRUE(value.GetString("m." + two, &read));
  EXPECT_EQ(read, "short");
  std::string escaped;
  for (size_t left = two.size(); left > 0; --left) escaped += "\\u0002";
  EXPECT_EQ(Write(value), "{\"a\":3,\"m\":{\"" + escaped + "\":\"short\",\"" + one + "\":\"" +
                              escaped + "\",\"a\":\"" + one + "\"},\"z\":\"" + escaped + "\"}");
}

TEST(Value, OfEveryTypeIsWrittenAlone) {
  EXPECT_EQ(Write(Value()), "null");
  EXPECT_EQ(Write(Value(true)), "true");
  EXPECT_EQ(Write(Value(-7)), "-7");
  EXPECT_EQ(Write(Value(0.5)), "0.5");
  EXPECT_EQ(Write(Value(std::string("text"))), "\"text\"");
  EXPECT_EQ(Write(ListValue()), "[]");
  EXPECT_EQ(Write(DictionaryValue()), "{}");
}

TEST(JSONWriter, WritesMembersInByteOrder) {
  DictionaryValue value;
  value.SetInteger("b", 1);
  value.SetInteger("B", 2);
  value.SetInteger("\xc3\xa4", 3);
  value.SetInteger("ba", 4);
  EXPECT_EQ(Write(value), "{\"B\":2,\"b\":1,\"ba\":4,\"\xc3\xa4\":3}");
}

TEST(JSONWriter, WritesDoublesThatParseBack) {
  const struct {
    double value;
    const char* text;
  } kCases[] = {
      {0.25, "0.25"},
      {1.0, "1.0"},
      {-0.0, "-0.0"},
      {0.1, "0.1"},
      {1e300, "1e+300"},
      {5e-324, "5e-324"},
      {std::nan(""), "null"},
      {std::numeric_limits<double>::infinity(), "null"},
      {-std::numeric_limits<double>::infinity(), "null"},
  };
  for (const auto& test : kCases) {
    DictionaryValue value;
    value.SetDouble("d", test.value);
    EXPECT_EQ(Write(value), std::string("{\"d\":") + test.text + "}");
  }
}

TEST(JSONWriter, InvalidUtf8BecomesTheReplacementCharacter) {
  DictionaryValue value;
  value.SetString("s", "a\xff\x62");
  EXPECT_EQ(Write(value), "{\"s\":\"a\xef\xbf\xbd\x62\"}");
}

TEST(JSONWriter, ControlCharactersAndQuotesAreEscaped) {
  DictionaryValue value;
  value.SetString("s", std::string("\"\\\n\0", 4));
  EXPECT_EQ(Write(value), R"({"s":"\"\\\n\u0000"})");
}

TEST(JSONWriter, WritesLongTextsCompletely) {
  std::string text(100'000, 'x');
  DictionaryValue value;
  value.SetString("long", text);
  value.SetString("longer", text + "\n" + text);
  value.SetString("short", "y");
  EXPECT_EQ(Write(value), "{\"long\":\"" + text + "\",\"longer\":\"" + text + "\\n" + text +
                              "\",\"short\":\"y\"}");
}

TEST(JSONWriter, EscapesKeysLikeTexts) {
  DictionaryValue value;
  value.SetStringWithoutPathExpansion("\"\x7f\t\xff", "a");
  EXPECT_EQ(Write(value), "{\"\\\"\x7f\\t\xef\xbf\xbd\":\"a\"}");
}

TEST(JSONWriter, ReplacesThePreviousText) {
  std::string text = "previous text";
  JSONWriter::Write(DictionaryValue(), &text);
  EXPECT_EQ(text, "{}");
}

TEST(JSONWriter, ListsKeepTheirOrder) {
  ListValue list;
  DictionaryValue first;
  first.SetInteger("n", 1);
  list.Append(std::move(first));
  list.Append(DictionaryValue());
  EXPECT_EQ(Write(list), R"([{"n":1},{}])");
}

TEST(JSONReader, AcceptsExactlyOneObject) {
  const struct {
    const char* text;
    bool accepted;
  } kCases[] = {
      {R"({"a":"b"})", true}, {" {} ", true},      {"", false},
      {"[]", false},          {"\"text\"", false}, {"{} trailing", false},
      {"{\"a\"", false},      {"null", false},     {"{\"a\":\"\xff\"}", false},
  };
  for (const auto& test : kCases)
    EXPECT_EQ(JSONReader::ReadDictionary(test.text) != nullptr, test.accepted) << test.text;
}

TEST(JSONReader, ReadsEveryKindOfValue) {
  const auto value = JSONReader::ReadDictionary(
      R"({"text":"a","list":[null,true,false,[]],"object":{"b":{},"a":"\u00e4"},"number":-0.5})");
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(Write(*value),
            "{\"list\":[null,true,false,[]],\"number\":-0.5,"
            "\"object\":{\"a\":\"\xc3\xa4\",\"b\":{}},\"text\":\"a\"}");
}

TEST(JSONReader, TheLastOfTwoMembersWithOneKeyCounts) {
  const auto value = JSONReader::ReadDictionary(R"({"a":"first","a":"second"})");
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(Write(*value), R"({"a":"second"})");
}

TEST(JSONReader, OmitsValuesNestedTooDeep) {
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  const auto value = JSONReader::ReadDictionary("{\"a\":" + deep + ",\"b\":\"text\"}");
  ASSERT_NE(value, nullptr);
  std::string read;
  EXPECT_TRUE(value->GetString("b", &read));
  EXPECT_EQ(read, "text");
  EXPECT_LT(Write(*value).size(), 3 * static_cast<size_t>(kMaxJsonDepth));
}

TEST(JSONReader, OmitsTheKeyOfAnOmittedValue) {
  const std::string kept =
      std::string(kMaxJsonDepth - 1, '[') + std::string(kMaxJsonDepth - 1, ']');
  std::string nested = R"({"deep":[1,{"x":2}],"flat":3})";
  for (int depth = 2; depth < kMaxJsonDepth; ++depth)
    nested = std::string("[").append(nested).append("]");
  const auto value = JSONReader::ReadDictionary("{\"a\":" + kept + ",\"b\":" + nested + "}");
  ASSERT_NE(value, nullptr);
  EXPECT_THAT(Write(*value), testing::HasSubstr(kept));
  EXPECT_THAT(Write(*value), testing::HasSubstr("[{\"flat\":3.0}]"));
}

TEST(JSONReader, SurvivesDeepNesting) {
  std::string deep(100'000, '[');
  EXPECT_EQ(JSONReader::ReadDictionary("{\"a\":" + deep), nullptr);
}

}  // namespace
}  // namespace base

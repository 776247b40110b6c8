#include "pelmorctl/metric_value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace pelmorctl {
namespace {

// The value after its type, or the reason for the failure.
std::string Parse(const std::string& text, std::optional<ValueType> type) {
  const auto value = ParseMetricValue(text, type);
  if (!value) return "none: " + value.reason();
  if (const auto* number = value->TryGet<int64_t>()) return "int64 " + std::to_string(*number);
  if (const auto* number = value->TryGet<double>()) return "double " + std::to_string(*number);
  if (const auto* truth = value->TryGet<bool>()) return *truth ? "bool true" : "bool false";
  if (const auto* words = value->TryGet<std::string>()) return "string " + *words;
  return "a type that would stop the daemon";
}

TEST(MetricValue, TypeIsGuessedFromTheText) {
  const struct {
    const char* text;
    const char* value;
  } kCases[] = {
      {"true", "bool true"},
      {"false", "bool false"},
      {"True", "string True"},
      {"0", "int64 0"},
      {"-7", "int64 -7"},
      {"007", "int64 7"},
      {"9223372036854775807", "int64 9223372036854775807"},
      {"-9223372036854775808", "int64 -9223372036854775808"},
      {"9223372036854775808", "double 9223372036854775808.000000"},
      {"0.25", "double 0.250000"},
      {"-.5", "double -0.500000"},
      {"5.", "double 5.000000"},
      {"1e3", "double 1000.000000"},
      {"1e999", "none: '1e999' does not fit into a double"},
      {"+5", "string +5"},
      {"inf", "string inf"},
      {"nan", "string nan"},
      {"-", "string -"},
      {"0x10", "string 0x10"},
      {"5 ", "string 5 "},
      {"", "string "},
      {"5g", "string 5g"},
      {"\xff", "none: the value is not UTF-8 text that D-Bus can carry"},
  };
  for (const auto& test : kCases) EXPECT_EQ(Parse(test.text, std::nullopt), test.value);
}

TEST(MetricValue, TextMustBeOfTheGivenType) {
  const struct {
    ValueType type;
    const char* text;
    const char* value;
  } kCases[] = {
      {ValueType::kInt64, "12", "int64 12"},
      {ValueType::kDouble, "12", "double 12.000000"},
      {ValueType::kString, "12", "string 12"},
      {ValueType::kString, "true", "string true"},
      {ValueType::kBool, "true", "bool true"},
      {ValueType::kBool, "1", "none: '1' is not a bool: give true or false"},
      {ValueType::kInt64, "0.5",
       "none: '0.5' is not an int64: give a whole number from -9223372036854775808 to "
       "9223372036854775807, without a plus sign"},
      {ValueType::kDouble, "nan",
       "none: 'nan' is not a double: give a decimal number such as 0.25 or 1e-3"},
      {ValueType::kDouble, "1e999", "none: '1e999' does not fit into a double"},
  };
  for (const auto& test : kCases) EXPECT_EQ(Parse(test.text, test.type), test.value);
}

TEST(MetricValue, TypesAreParsedByName) {
  EXPECT_EQ(ParseValueType("int64"), ValueType::kInt64);
  EXPECT_EQ(ParseValueType("double"), ValueType::kDouble);
  EXPECT_EQ(ParseValueType("bool"), ValueType::kBool);
  EXPECT_EQ(ParseValueType("string"), ValueType::kString);
  EXPECT_EQ(ParseValueType("float"), std::nullopt);
  EXPECT_EQ(ParseValueType(""), std::nullopt);
}

}  // namespace
}  // namespace pelmorctl

#include "ap/pelmor/typed_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include "base/json.h"
#include "dbus/types.h"

namespace varelnos::ap {
namespace {

std::string Encoded(const kestle::Any& value) {
  base::DictionaryValue out;
  EncodeTypedValue(value, &out);
  std::string text;
  base::JSONWriter::Write(out, &text);
  return text;
}

TEST(EncodeTypedValue, TheKeyIsTheType) {
  char characters[] = "chars";
  const struct {
    kestle::Any value;
    const char* text;
  } kCases[] = {
      {std::string("text"), R"({"stringValue":"text"})"},
      {std::string(), R"({"stringValue":""})"},
      {"literal", R"({"stringValue":"literal"})"},
      {static_cast<char*>(characters), R"({"stringValue":"chars"})"},
      {0.5, R"({"doubleValue":0.5})"},
      {1.0, R"({"doubleValue":1.0})"},
      {std::nan(""), R"({"doubleValue":null})"},
      {true, R"({"boolValue":true})"},
      {false, R"({"boolValue":false})"},
      {int32_t{-7}, R"({"int64Value":"-7"})"},
      {uint8_t{255}, R"({"int64Value":"255"})"},
      {int16_t{-32768}, R"({"int64Value":"-32768"})"},
      {uint16_t{65535}, R"({"int64Value":"65535"})"},
      {uint32_t{4294967295}, R"({"int64Value":"4294967295"})"},
      {int64_t{INT64_MIN}, R"({"int64Value":"-9223372036854775808"})"},
      {uint64_t{9223372036854775807}, R"({"int64Value":"9223372036854775807"})"},
      {uint64_t{18446744073709551615u}, R"({"int64Value":"-1"})"},
      {0, R"({"int64Value":"0"})"},
  };
  for (const auto& test : kCases) EXPECT_EQ(Encoded(test.value), test.text);
}

TEST(EncodeTypedValue, ReplacesAnExistingKey) {
  base::DictionaryValue out;
  out.SetString("doubleValue", "old");
  EncodeTypedValue(0.5, &out);
  std::string text;
  base::JSONWriter::Write(out, &text);
  EXPECT_EQ(text, R"({"doubleValue":0.5})");
}

struct UnsupportedCase {
  kestle::Any value;
  const char* type;
};
// The name of a case in the output of GoogleTest.
void PrintTo(const UnsupportedCase& test, std::ostream* out) { *out << test.type; }

class EncodeTypedValueDeathTest : public testing::TestWithParam<UnsupportedCase> {};

TEST_P(EncodeTypedValueDeathTest, AnyOtherTypeIsFatalAndLogged) {
  EXPECT_DEATH(Encoded(GetParam().value),
               std::string("FATAL .*Unknown type: ") + GetParam().type + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Types, EncodeTypedValueDeathTest,
    testing::Values(UnsupportedCase{kestle::Any(), "void"}, UnsupportedCase{0.5f, "float"},
                    UnsupportedCase{kestle::Array{}, "kestle::Array"},
                    UnsupportedCase{kestle::Structure{}, "kestle::Structure"},
                    UnsupportedCase{kestle::Dictionary{}, "kestle::Dictionary"},
                    UnsupportedCase{kestle::VariantDictionary{}, "std::map<.*>"},
                    UnsupportedCase{std::vector<uint8_t>{}, "std::vector<.*>"},
                    UnsupportedCase{dbus::ObjectPath("/a"), "dbus::ObjectPath"},
                    UnsupportedCase{dbus::Signature("s"), "dbus::Signature"},
                    UnsupportedCase{dbus::FileDescriptor{}, "dbus::FileDescriptor"}));

}  // namespace
}  // namespace varelnos::ap

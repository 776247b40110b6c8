#include "kestle/any.h"

#include <gtest/gtest.h>

namespace kestle {
namespace {

TEST(Any, IsEmptyUntilItHoldsAValue) {
  Any value;
  EXPECT_EQ(value.GetTypeTag(), GetTypeTag<void>());
  EXPECT_FALSE(value.IsConvertibleToInteger());
  value = 5;
  EXPECT_EQ(value.GetTypeTag(), GetTypeTag<int>());
}

TEST(Any, ReturnsTheValueForItsExactTypeOnly) {
  const Any value = int32_t{5};
  ASSERT_NE(value.TryGet<int32_t>(), nullptr);
  EXPECT_EQ(*value.TryGet<int32_t>(), 5);
  EXPECT_EQ(value.TryGet<int64_t>(), nullptr);
  EXPECT_EQ(value.GetTypeTag(), GetTypeTag<int32_t>());
}

TEST(Any, ALiteralIsHeldAsAPointerToItsCharacters) {
  const Any value = "text";
  EXPECT_EQ(value.GetTypeTag(), GetTypeTag<const char*>());
}

TEST(Any, IntegersOfEveryWidthBecome64SignedBits) {
  EXPECT_EQ(Any(uint8_t{255}).GetAsInteger(), 255);
  EXPECT_EQ(Any(int16_t{-7}).GetAsInteger(), -7);
  EXPECT_EQ(Any(uint32_t{4294967295}).GetAsInteger(), 4294967295);
  EXPECT_EQ(Any(uint64_t{18446744073709551615u}).GetAsInteger(), -1);
  EXPECT_TRUE(Any(true).IsConvertibleToInteger());
}

TEST(Any, OtherTypesAreNotIntegers) {
  EXPECT_FALSE(Any(0.5).IsConvertibleToInteger());
  EXPECT_FALSE(Any(0.5f).IsConvertibleToInteger());
  EXPECT_FALSE(Any(std::string("5")).IsConvertibleToInteger());
  EXPECT_FALSE(Any(VariantDictionary{}).IsConvertibleToInteger());
}

TEST(Any, CopiesAreIndependent) {
  Any first = VariantDictionary{{"a", 1}};
  const Any second = first;
  first = 0.5;
  ASSERT_NE(second.TryGet<VariantDictionary>(), nullptr);
  EXPECT_EQ(second.TryGet<VariantDictionary>()->at("a").GetAsInteger(), 1);
}

TEST(TypeName, IsTheNameInCxxSyntax) {
  EXPECT_EQ(GetUndecoratedTypeNameForTag(GetTypeTag<float>()), "float");
  EXPECT_EQ(GetUndecoratedTypeNameForTag(GetTypeTag<Structure>()), "kestle::Structure");
  EXPECT_EQ(GetUndecoratedTypeNameForTag(Any().GetTypeTag()), "void");
}

}  // namespace
}  // namespace kestle

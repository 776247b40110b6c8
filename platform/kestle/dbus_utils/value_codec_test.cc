#include "kestle/dbus_utils/value_codec.h"

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/describe.h"

namespace kestle::dbus_utils {
namespace {

class ValueCodecTest : public dbus::BusTest {
 protected:
  // Makes the message readable.
  void Seal() { ASSERT_GE(sd_bus_message_seal(call_.raw(), /*cookie=*/1, /*timeout=*/0), 0); }

  // The value that is read from a variant with these contents, in the notation of sd-bus.
  template <typename... Values>
  Any Read(const char* signature, Values... values) {
    EXPECT_GE(sd_bus_message_append(call_.raw(), "v", signature, values...), 0);
    return ReadSealed();
  }

  Any ReadSealed() {
    Seal();
    dbus::MessageReader reader(&call_);
    Any value;
    EXPECT_TRUE(DBusType<Any>::Read(&reader, &value));
    EXPECT_FALSE(reader.HasMoreData());
    return value;
  }

  template <typename T>
  void ExpectHolds(const T& expected, const Any& value) {
    ASSERT_TRUE(value.TryGet<T>()) << GetUndecoratedTypeNameForTag(value.GetTypeTag());
    EXPECT_EQ(expected, *value.TryGet<T>());
  }

  dbus::ObjectProxy* proxy_ = bus_->GetObjectProxy("org.example.A", dbus::ObjectPath("/a"));
  dbus::MethodCall call_{*proxy_, "org.example.I", "Do"};
  dbus::MessageWriter writer_{&call_};
};

TEST_F(ValueCodecTest, AByteIsRead) { ExpectHolds<uint8_t>(255, Read("y", 255)); }
TEST_F(ValueCodecTest, ABooleanIsRead) { ExpectHolds(true, Read("b", 1)); }
TEST_F(ValueCodecTest, A16BitIntegerIsRead) { ExpectHolds<int16_t>(-7, Read("n", -7)); }
TEST_F(ValueCodecTest, AnUnsigned16BitIntegerIsRead) {
  ExpectHolds<uint16_t>(65535, Read("q", 65535));
}
TEST_F(ValueCodecTest, A32BitIntegerIsRead) { ExpectHolds<int32_t>(-7, Read("i", -7)); }
TEST_F(ValueCodecTest, AnUnsigned32BitIntegerIsRead) {
  ExpectHolds<uint32_t>(4294967295u, Read("u", 4294967295u));
}
TEST_F(ValueCodecTest, A64BitIntegerIsRead) {
  constexpr int64_t kLeast = std::numeric_limits<int64_t>::min();
  ExpectHolds(kLeast, Read("x", kLeast));
}
TEST_F(ValueCodecTest, AnUnsigned64BitIntegerIsRead) {
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
  ExpectHolds(kMost, Read("t", kMost));
}
TEST_F(ValueCodecTest, ADoubleIsRead) { ExpectHolds(0.5, Read("d", 0.5)); }
TEST_F(ValueCodecTest, AStringIsRead) { ExpectHolds<std::string>("Grüße", Read("s", "Grüße")); }
TEST_F(ValueCodecTest, AnObjectPathIsNotAString) {
  ExpectHolds(dbus::ObjectPath("/a/b"), Read("o", "/a/b"));
}
TEST_F(ValueCodecTest, ASignatureIsNotAString) {
  ExpectHolds(dbus::Signature("a{sv}"), Read("g", "a{sv}"));
}
TEST_F(ValueCodecTest, AFileDescriptorIsNotAnInteger) {
  const dbus::Connection connection = ConnectWithDescriptors();
  sd_bus_message* raw = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(connection.get(), &raw, "/a", "org.example.I", "Done"), 0);
  const dbus::Message signal{dbus::MessagePtr(raw)};
  ASSERT_GE(sd_bus_message_append(raw, "v", "h", 0), 0);
  ASSERT_GE(sd_bus_message_seal(raw, /*cookie=*/1, /*timeout=*/0), 0);
  dbus::MessageReader reader(&signal);
  Any value;
  ASSERT_TRUE(DBusType<Any>::Read(&reader, &value));
  EXPECT_TRUE(value.TryGet<dbus::FileDescriptor>());
  EXPECT_FALSE(value.IsConvertibleToInteger());
}

TEST_F(ValueCodecTest, AnArrayOfBytesIsRead) {
  ExpectHolds(std::vector<uint8_t>{1, 0, 3}, Read("ay", 3, 1, 0, 3));
}

TEST_F(ValueCodecTest, AnArrayIsRead) {
  const Any value = Read("as", 2, "one", "two");
  const auto* const array = value.TryGet<Array>();
  ASSERT_TRUE(array);
  ASSERT_EQ(2u, array->items.size());
  ExpectHolds<std::string>("two", array->items[1]);
}

TEST_F(ValueCodecTest, AnEmptyArrayIsRead) {
  const Any value = Read("a(is)", 0);
  ASSERT_TRUE(value.TryGet<Array>());
  EXPECT_TRUE(value.TryGet<Array>()->items.empty());
}

TEST_F(ValueCodecTest, AStructureIsRead) {
  const Any value = Read("(is(b))", 7, "seven", 1);
  const auto* const structure = value.TryGet<Structure>();
  ASSERT_TRUE(structure);
  ASSERT_EQ(3u, structure->fields.size());
  ExpectHolds<int32_t>(7, structure->fields[0]);
  ExpectHolds<std::string>("seven", structure->fields[1]);
  ASSERT_TRUE(structure->fields[2].TryGet<Structure>());
  ExpectHolds(true, structure->fields[2].TryGet<Structure>()->fields.at(0));
}

TEST_F(ValueCodecTest, ADictionaryKeepsTheOrderOfTheMessage) {
  const Any value = Read("a{is}", 2, 9, "nine", 1, "one");
  const auto* const dictionary = value.TryGet<Dictionary>();
  ASSERT_TRUE(dictionary);
  ASSERT_EQ(2u, dictionary->entries.size());
  ExpectHolds<int32_t>(9, dictionary->entries[0].first);
  ExpectHolds<std::string>("one", dictionary->entries[1].second);
}

TEST_F(ValueCodecTest, NamedValuesAreRead) {
  const Any value = Read("a{sv}", 2, "flag", "b", 1, "count", "x", int64_t{5});
  const auto* const values = value.TryGet<VariantDictionary>();
  ASSERT_TRUE(values);
  ASSERT_EQ(2u, values->size());
  ExpectHolds(true, values->at("flag"));
  ExpectHolds<int64_t>(5, values->at("count"));
}

TEST_F(ValueCodecTest, ARepeatedNameKeepsItsLastValue) {
  const Any value = Read("a{sv}", 2, "count", "i", 1, "count", "s", "two");
  const auto* const values = value.TryGet<VariantDictionary>();
  ASSERT_TRUE(values);
  ASSERT_EQ(1u, values->size());
  ExpectHolds<std::string>("two", values->at("count"));
}

TEST_F(ValueCodecTest, ANestedVariantIsItsInnerValue) {
  ExpectHolds<int32_t>(7, Read("v", "v", "v", "i", 7));
}

TEST_F(ValueCodecTest, VariantsNestedAsDeepAsTheBusAllowsAreRead) {
  constexpr int kDeepest = 64;
  for (int depth = 1; depth < kDeepest; ++depth) writer_.OpenContainer('v', "v");
  writer_.OpenContainer('v', "i");
  writer_.AppendInt32(7);
  for (int depth = 0; depth < kDeepest; ++depth) writer_.CloseContainer();
  ExpectHolds<int32_t>(7, ReadSealed());
}

TEST_F(ValueCodecTest, ArraysNestedAsDeepAsTheBusAllowsAreRead) {
  constexpr int kDeepest = 32;
  const std::string signature = std::string(kDeepest, 'a') + "i";
  writer_.OpenContainer('v', signature);
  for (int depth = 1; depth <= kDeepest; ++depth)
    writer_.OpenContainer('a', signature.substr(depth));
  writer_.AppendInt32(7);
  for (int depth = 0; depth <= kDeepest; ++depth) writer_.CloseContainer();
  Any value = ReadSealed();
  for (int depth = 0; depth < kDeepest; ++depth) {
    ASSERT_TRUE(value.TryGet<Array>()) << "at depth " << depth;
    value = Any(value.TryGet<Array>()->items.at(0));
  }
  ExpectHolds<int32_t>(7, value);
}

TEST_F(ValueCodecTest, AValueOfAnotherTypeIsNotAVariant) {
  writer_.AppendInt32(7);
  Seal();
  dbus::MessageReader reader(&call_);
  Any value;
  EXPECT_FALSE(DBusType<Any>::Read(&reader, &value));
  EXPECT_EQ(value.GetTypeTag(), GetTypeTag<void>());
}

TEST_F(ValueCodecTest, EveryWritableTypeIsReadAsItWasWritten) {
  const std::vector<Any> values = {
      uint8_t{1},
      false,
      int16_t{-2},
      uint16_t{2},
      int32_t{-3},
      3u,
      int64_t{-4},
      uint64_t{4},
      0.25,
      std::string("five"),
      dbus::ObjectPath("/six"),
      VariantDictionary{{"a", std::string("b")}, {"c", VariantDictionary{}}}};
  for (const Any& value : values) DBusType<Any>::Write(&writer_, value);
  Seal();
  EXPECT_THAT(dbus::DescribeArguments(call_),
              ::testing::ElementsAre("1", "false", "-2", "2", "-3", "3", "-4", "4", "0.25",
                                     "\"five\"", "\"/six\"", "{\"a\": \"b\", \"c\": {}}"));
  dbus::MessageReader reader(&call_);
  for (const Any& value : values) {
    Any read;
    ASSERT_TRUE(DBusType<Any>::Read(&reader, &read));
    EXPECT_EQ(value.GetTypeTag(), read.GetTypeTag());
  }
}

TEST_F(ValueCodecTest, MapsOfTextsAreReadAsTheyWereWritten) {
  using Map = std::map<std::string, std::string>;
  const Map written = {{"a", "1"}, {"b", ""}};
  DBusType<Map>::Write(&writer_, written);
  Seal();
  EXPECT_TRUE(call_.HasSignature("a{ss}"));
  dbus::MessageReader reader(&call_);
  Map read;
  EXPECT_TRUE(DBusType<Map>::Read(&reader, &read));
  EXPECT_EQ(written, read);
}

using ValueCodecDeathTest = ValueCodecTest;

TEST_F(ValueCodecDeathTest, AValueWithoutADBusFormIsFatal) {
  EXPECT_DEATH(DBusType<Any>::Write(&writer_, "a literal"),
               "No D-Bus form for a value of type char const\\*");
  EXPECT_DEATH(DBusType<Any>::Write(&writer_, Any()), "No D-Bus form for a value of type void");
}

}  // namespace
}  // namespace kestle::dbus_utils

#include "dbus/message.h"

#include <limits>
#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/describe.h"

namespace dbus {
namespace {

class MessageTest : public BusTest {
 protected:
  // Makes the message readable.
  void Seal() { ASSERT_GE(sd_bus_message_seal(call_.raw(), /*cookie=*/1, /*timeout=*/0), 0); }

  ObjectProxy* proxy_ = bus_->GetObjectProxy("org.example.A", ObjectPath("/a"));
  MethodCall call_{*proxy_, "org.example.I", "Do"};
  MessageWriter writer_{&call_};
};

TEST_F(MessageTest, EveryBasicTypeIsReadAsItWasWritten) {
  writer_.AppendByte(255);
  writer_.AppendBool(true);
  writer_.AppendInt16(std::numeric_limits<int16_t>::min());
  writer_.AppendUint16(std::numeric_limits<uint16_t>::max());
  writer_.AppendInt32(std::numeric_limits<int32_t>::min());
  writer_.AppendUint32(std::numeric_limits<uint32_t>::max());
  writer_.AppendInt64(std::numeric_limits<int64_t>::min());
  writer_.AppendUint64(std::numeric_limits<uint64_t>::max());
  writer_.AppendDouble(0.5);
  writer_.AppendString("Grüße");
  writer_.AppendObjectPath(ObjectPath("/a/b"));
  writer_.AppendSignature(Signature("a{sv}"));
  Seal();
  EXPECT_TRUE(call_.HasSignature("ybnqiuxtdsog"));
  EXPECT_THAT(DescribeArguments(call_),
              ::testing::ElementsAre("255", "true", "-32768", "65535", "-2147483648", "4294967295",
                                     "-9223372036854775808", "18446744073709551615", "0.5",
                                     "\"Grüße\"", "\"/a/b\"", "\"a{sv}\""));
}

TEST_F(MessageTest, AFileDescriptorIsNotReadAsAnInteger) {
  const Connection connection = ConnectWithDescriptors();
  sd_bus_message* raw = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(connection.get(), &raw, "/a", "org.example.I", "Done"), 0);
  const Message signal{MessagePtr(raw)};
  ASSERT_GE(sd_bus_message_append(raw, "h", 0), 0);
  ASSERT_GE(sd_bus_message_seal(raw, /*cookie=*/1, /*timeout=*/0), 0);
  EXPECT_THAT(DescribeArguments(signal), ::testing::ElementsAre("fd"));
}

TEST_F(MessageTest, AValueOfAnotherTypeRemainsNext) {
  writer_.AppendInt32(7);
  Seal();
  MessageReader reader(&call_);
  std::string text = "as it was";
  uint32_t number = 5;
  std::vector<uint8_t> bytes = {1};
  EXPECT_FALSE(reader.PopString(&text));
  EXPECT_FALSE(reader.PopUint32(&number));
  EXPECT_FALSE(reader.PopBytes(&bytes));
  EXPECT_FALSE(reader.EnterContainer('v', "i"));
  EXPECT_EQ("as it was", text);
  EXPECT_EQ(5u, number);
  EXPECT_EQ(std::vector<uint8_t>{1}, bytes);
  int32_t value = 0;
  EXPECT_TRUE(reader.PopInt32(&value));
  EXPECT_EQ(7, value);
  EXPECT_FALSE(reader.HasMoreData());
  EXPECT_EQ('\0', reader.GetDataType());
  EXPECT_FALSE(reader.PopInt32(&value));
}

TEST_F(MessageTest, AnArrayOfBytesIsReadAtOnce) {
  writer_.AppendBytes("a\0b", 3);
  writer_.AppendBytes(nullptr, 0);
  Seal();
  MessageReader reader(&call_);
  std::string text;
  std::vector<uint8_t> bytes = {1};
  EXPECT_TRUE(reader.PopBytes(&text));
  EXPECT_EQ(std::string("a\0b", 3), text);
  EXPECT_TRUE(reader.PopBytes(&bytes));
  EXPECT_TRUE(bytes.empty());
}

TEST_F(MessageTest, LeavingAContainerSkipsItsUnreadValues) {
  writer_.OpenContainer('a', "{sv}");
  writer_.OpenContainer('e', "sv");
  writer_.AppendString("key");
  writer_.OpenContainer('v', "(is)");
  writer_.OpenContainer('r', "is");
  writer_.AppendInt32(1);
  writer_.AppendString("one");
  writer_.CloseContainer();
  writer_.CloseContainer();
  writer_.CloseContainer();
  writer_.CloseContainer();
  writer_.AppendByte(9);
  Seal();
  MessageReader reader(&call_);
  EXPECT_EQ("{sv}", reader.GetContainerContents());
  EXPECT_FALSE(reader.EnterContainer('a', "{ss}"));
  ASSERT_TRUE(reader.EnterContainer('a', "{sv}"));
  ASSERT_TRUE(reader.EnterContainer('e', "sv"));
  EXPECT_TRUE(reader.ExitContainer());
  EXPECT_TRUE(reader.ExitContainer());
  uint8_t last = 0;
  EXPECT_TRUE(reader.PopByte(&last));
  EXPECT_EQ(9, last);
}

TEST_F(MessageTest, AReaderStartsFromTheFirstArgument) {
  writer_.AppendByte(9);
  Seal();
  for (int i = 0; i < 2; ++i) {
    uint8_t value = 0;
    EXPECT_TRUE(MessageReader(&call_).PopByte(&value));
    EXPECT_EQ(9, value);
  }
}

TEST_F(MessageTest, ACallHasItsPathInterfaceAndMethod) {
  EXPECT_EQ("/a", call_.GetPath());
  EXPECT_EQ("org.example.I", call_.GetInterface());
  EXPECT_EQ("Do", call_.GetMember());
  EXPECT_EQ("", call_.GetSender());
}

using MessageDeathTest = MessageTest;

TEST_F(MessageDeathTest, AppendingAnInvalidValueIsFatal) {
  EXPECT_DEATH(writer_.AppendString("\xff"), "Unable to append a value of type 's'");
  EXPECT_DEATH(writer_.AppendString(std::string("a\0b", 3)), "a text with a zero byte");
  EXPECT_DEATH(writer_.AppendObjectPath(ObjectPath("a")), "Unable to append a value of type 'o'");
  EXPECT_DEATH(MethodCall(*proxy_, "org.example.I", "not a name"),
               "Unable to make a call of org.example.I.not a name");
  Seal();
  EXPECT_DEATH(writer_.AppendByte(1), "Unable to append a value of type 'y'");
}

}  // namespace
}  // namespace dbus

#include "dbus/property_set.h"

#include <cstdint>
#include <string>
#include <vector>

#include "dbus/testing/call_timeouts.h"
#include "dbus/testing/zoo_fixture.h"

namespace dbus {
namespace {

using ::testing::ElementsAre;
using PropertySetTest = ZooTest;

TEST_F(PropertySetTest, AChangedPropertyIsStoredBeforeTheCallbackRuns) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.ChangeProperty(kLion, kAnimal, "Age", Number(7));
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Number(7));
  zoo_.ChangeProperty(kLion, kAnimal, "Food", Text("fish"));
  Settle();
  EXPECT_THAT(recorder_.notes,
              ElementsAre("added /zoo/lion Leo meat", "changed Name /zoo/lion Lea meat",
                          "changed Food /zoo/lion Lea fish"));
}

TEST_F(PropertySetTest, AnInvalidatedPropertyIsRequested) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.InvalidateProperty(kLion, kAnimal, "Age", Number(7));
  zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text("Lea"));
  WaitForNotes(2);
  EXPECT_EQ("changed Name /zoo/lion Lea meat", recorder_.notes.back());
  EXPECT_THAT(zoo_.LastArguments("Get"), ElementsAre("\"org.example.Zoo.Animal\"", "\"Name\""));
  EXPECT_EQ(1, zoo_.CallCount("Get")) << "not for a property that is not registered";

  zoo_.Refuse(kLion, kPropertiesInterface, "Get", "org.example.No", "");
  zoo_.InvalidateProperty(kLion, kAnimal, "Food", Text("fish"));
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 2; }));
  Settle();
  zoo_.Answer(kLion, kPropertiesInterface, "Get", Number(7));
  zoo_.InvalidateProperty(kLion, kAnimal, "Food", Text("fish"));
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 3; }));
  Settle();
  EXPECT_EQ(2u, recorder_.notes.size());
}

TEST_F(PropertySetTest, APropertyIsRequestedWithoutATimeout) {
  Open(&zoo_);
  WaitForNotes(1);
  TakeAsyncCallTimeouts();
  zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text("Lea"));
  WaitForNotes(2);
  EXPECT_EQ("changed Name /zoo/lion Lea meat", recorder_.notes.back());
  EXPECT_THAT(TakeAsyncCallTimeouts(), ElementsAre(UINT64_MAX));
}

TEST_F(PropertySetTest, APropertyNamedAThousandTimesIsRequestedOnce) {
  Open(&zoo_);
  WaitForNotes(1);
  const auto names = [](MessageWriter* writer) {
    writer->AppendString(kAnimal);
    writer->OpenContainer('a', "{sv}");
    writer->CloseContainer();
    writer->OpenContainer('a', "s");
    for (int time = 0; time < 1000; ++time) writer->AppendString("Name");
    writer->CloseContainer();
  };
  zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", names);
  WaitForNotes(2);
  Settle();
  EXPECT_EQ(1, zoo_.CallCount("Get"));
  zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", names);
  WaitForNotes(3);
  Settle();
  EXPECT_EQ(2, zoo_.CallCount("Get"));
}

TEST_F(PropertySetTest, APropertyThatChangesDuringItsRequestIsRequestedAgain) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.LeaveUnanswered(kLion, kPropertiesInterface, "Get");
  for (const char* name : {"Lea", "Leila", "Lola"})
    zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text(name));
  Settle();
  Settle();
  EXPECT_EQ(1, zoo_.CallCount("Get"));
  zoo_.AnswerUnanswered();
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 2; }));
  zoo_.InvalidateProperty(kLion, kAnimal, "Food", Text("fish"));
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 3; }));
  zoo_.AnswerUnanswered();
  WaitForNotes(4);
  Settle();
  EXPECT_EQ(3, zoo_.CallCount("Get"));
  EXPECT_EQ("changed Food /zoo/lion Lola fish", recorder_.notes.back());
}

TEST_F(PropertySetTest, AnObjectRemovedDuringARequestIsForgotten) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.RemoveObject(kLion, kAnimal);
  WaitForNotes(2);
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 1; }));
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "removed /zoo/lion"));
}

TEST_F(PropertySetTest, AChangedCallbackMayDropTheObject) {
  Open(&zoo_);
  WaitForNotes(1);
  recorder_.on_note = [this] { manager_->UnregisterInterface(kAnimal); };
  const auto both = [](MessageWriter* writer) {
    writer->AppendString(kAnimal);
    writer->OpenContainer('a', "{sv}");
    for (const char* name : {"Name", "Food"}) {
      writer->OpenContainer('e', "sv");
      writer->AppendString(name);
      Text("new")(writer);
      writer->CloseContainer();
    }
    writer->CloseContainer();
    writer->OpenContainer('a', "s");
    writer->CloseContainer();
  };
  zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", both);
  Settle();
  EXPECT_THAT(recorder_.notes,
              ElementsAre("added /zoo/lion Leo meat", "changed Name /zoo/lion new new"));
}

}  // namespace
}  // namespace dbus

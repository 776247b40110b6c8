#include "dbus/object_manager.h"

#include <poll.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/testing/log_capture.h"
#include "dbus/testing/zoo_fixture.h"

namespace dbus {
namespace {

using ::testing::ElementsAre;
using ObjectManagerTest = ZooTest;

TEST_F(ObjectManagerTest, ExistingObjectsAreAddedWithTheirProperties) {
  Open(&zoo_);
  WaitForNotes(1);
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
  EXPECT_FALSE(manager_->GetProperties(ObjectPath(kTiger), kAnimal));
}

TEST_F(ObjectManagerTest, AddedAndRemovedObjectsAreAnnounced) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  zoo_.RemoveObject(kLion, kAnimal);
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger Tia unset",
                                           "removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, EachListedObjectIsAnnouncedInItsOwnIteration) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  recorder_.on_note = [this] {
    loop_.PostTask([this] { recorder_.notes.emplace_back("iteration"); });
  };
  Open(&zoo_);
  WaitForNotes(4);
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "iteration",
                                           "added /zoo/tiger Tia unset", "iteration"));
}

TEST_F(ObjectManagerTest, AnObjectRemovedBeforeItsAnnouncementIsNeverAnnounced) {
  std::vector<std::string> expected = {"added /zoo/lion Leo meat"};
  for (const char* number : {"0", "1", "2", "3", "4", "5", "6", "7", "8"}) {
    zoo_.AddObject(std::string(kTiger) + number, kAnimal, {{"Name", Text("Tia")}});
    expected.push_back(std::string("added ") + kTiger + number + " Tia unset");
  }
  constexpr char kLast[] = "/zoo/tiger9";
  zoo_.AddObject(kLast, kAnimal, {{"Name", Text("Tia")}});
  recorder_.on_note = [&] {
    if (recorder_.notes.size() > 1) return;
    zoo_.RemoveObject(kLast, kAnimal);
    pollfd news = {sd_bus_get_fd(bus_->connection()), POLLIN, 0};
    EXPECT_EQ(1, poll(&news, 1, /*timeout=*/10'000));
  };
  Open(&zoo_);
  WaitForNotes(expected.size());
  Settle();
  EXPECT_EQ(expected, recorder_.notes);
}

TEST_F(ObjectManagerTest, ObjectsAreAnnouncedInTheOrderOfArrival) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  recorder_.on_note = [this] {
    if (recorder_.notes.size() > 1) return;
    zoo_.AddObject("/zoo/bear", kAnimal, {{"Name", Text("Ben")}});
  };
  Open(&zoo_);
  WaitForNotes(3);
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger Tia unset",
                                           "added /zoo/bear Ben unset"));
}

TEST_F(ObjectManagerTest, TheObjectsAreListedOnceAndAfterTheMatchesAreInForce) {
  Open(&zoo_);
  WaitForNotes(1);
  Settle();
  EXPECT_THAT(zoo_.Calls(), ElementsAre("/zoo org.freedesktop.DBus.ObjectManager."
                                        "GetManagedObjects()"));
  // An announcement before the list is not lost.
  zoo_.LeaveUnanswered(kRoot, kManagerInterface, "GetManagedObjects");
  zoo_.ReleaseName();
  zoo_.TakeName();
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("GetManagedObjects") == 2; }));
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "removed /zoo/lion",
                                           "added /zoo/tiger Tia unset"));
}

TEST_F(ObjectManagerTest, AListThatArrivesDuringALongBlockingCallIsReadAfterIt) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject("/zoo/keeper", kKeeper, {{"Name", Text("Kim")}});
  zoo_.LeaveUnanswered(kLion, kAnimal, "Roar");
  Settle();
  constexpr uint64_t kDefaultTimeoutMicroseconds = 1000;
  constexpr int kCallMilliseconds = 100;
  sd_bus_set_method_call_timeout(bus_->connection(), kDefaultTimeoutMicroseconds);
  manager_->RegisterInterface(kKeeper, &recorder_);
  ObjectProxy* const lion = bus_->GetObjectProxy(kService, ObjectPath(kLion));
  const auto response =
      lion->CallMethodAndBlock(MethodCall(*lion, kAnimal, "Roar"), kCallMilliseconds);
  ASSERT_TRUE(response && response->IsError());
  WaitForNotes(2);
  EXPECT_THAT(recorder_.notes,
              ElementsAre("added /zoo/lion Leo meat", "added /zoo/keeper Kim unset"));
}

TEST_F(ObjectManagerTest, AnObjectAnnouncedTwiceIsAddedOnceWithItsLastValues) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kLion, kAnimal, {{"Food", Text("fish")}});
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
  const auto* const lion =
      static_cast<AnimalProperties*>(manager_->GetProperties(ObjectPath(kLion), kAnimal));
  ASSERT_TRUE(lion);
  EXPECT_EQ("Leo", lion->name.value);
  EXPECT_EQ("fish", lion->food.value);
}

TEST_F(ObjectManagerTest, UnregisteredInterfacesAreIgnored) {
  zoo_.AddObject("/zoo/keeper", kKeeper, {{"Name", Text("Kim")}});
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kTiger, kKeeper, {});
  zoo_.RemoveObject(kTiger, kKeeper);
  zoo_.RemoveObject(kTiger, kAnimal);
  zoo_.ChangeProperty(kLion, kKeeper, "Name", Text("Kim"));
  zoo_.ChangeProperty(kTiger, kAnimal, "Name", Text("Tia"));
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, AChangeOfOwnerRemovesAllObjectsAndListsTheNewOwners) {
  Open(&zoo_);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  WaitForNotes(2);
  recorder_.notes.clear();
  zoo_.ReleaseName();
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("removed /zoo/lion", "removed /zoo/tiger"));

  recorder_.notes.clear();
  FakeService successor(kService);
  successor.AddObject(kTiger, kAnimal, {{"Name", Text("Tom")}});
  successor.AddObjectManager(kRoot);
  WaitForNotes(1);
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/tiger Tom unset"));
}

TEST_F(ObjectManagerTest, TheListOfAPreviousOwnerIsIgnored) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  zoo_.AddObjectManager(kRoot);
  zoo_.LeaveUnanswered(kRoot, kManagerInterface, "GetManagedObjects");
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("GetManagedObjects") == 1; }));
  zoo_.ReleaseName();
  FakeService successor(kService);
  Open(&successor);
  WaitForNotes(1);
  zoo_.AnswerUnanswered();
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, OnlySignalsOfTheOwnerCount) {
  Open(&zoo_);
  WaitForNotes(1);
  SubscribeToEverything();
  FakeService forger("org.example.Forger");
  forger.AddObjectManager(kRoot);
  for (FakeService* const sender : {&forger, &zoo_}) {
    EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
    sender->AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
    sender->ChangeProperty(kLion, kAnimal, "Name", Text("Lea"));
    sender->RemoveObject(kLion, kAnimal);
    Settle();
  }
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger Tia unset",
                                           "changed Name /zoo/lion Lea meat", "removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, SignalsWithWrongArgumentsAreIgnored) {
  Open(&zoo_);
  WaitForNotes(1);
  const auto path_only = [](MessageWriter* writer) { writer->AppendObjectPath(ObjectPath(kLion)); };
  const auto text = [](MessageWriter* writer) { writer->AppendString(kAnimal); };
  const auto surplus = [](MessageWriter* writer) {
    writer->AppendObjectPath(ObjectPath(kLion));
    writer->OpenContainer('a', "s");
    writer->AppendString(kAnimal);
    writer->CloseContainer();
    writer->AppendString("more");
  };
  for (const FakeService::Writer& body :
       std::vector<FakeService::Writer>{{}, path_only, text, Number(1), surplus}) {
    zoo_.Emit(kRoot, kManagerInterface, "InterfacesAdded", body);
    zoo_.Emit(kRoot, kManagerInterface, "InterfacesRemoved", body);
    zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", body);
  }
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, AFailedListIsLoggedOnce) {
  const base::LogCapture log;
  zoo_.Refuse(kRoot, kManagerInterface, "GetManagedObjects", "org.example.Closed", "Come tomorrow");
  ASSERT_TRUE(base::RunUntil([&log] { return !log.lines().empty(); }));
  Settle();
  EXPECT_THAT(log.lines(), ElementsAre("WARNING Failed to list the objects of org.example.Zoo: "
                                       "org.example.Closed: Come tomorrow"));
}

TEST_F(ObjectManagerTest, AListOfTheWrongTypeIsLogged) {
  const base::LogCapture log;
  zoo_.Answer(kRoot, kManagerInterface, "GetManagedObjects", Text("lions"));
  ASSERT_TRUE(base::RunUntil([&log] { return !log.lines().empty(); }));
  EXPECT_THAT(log.lines(), ElementsAre("WARNING Failed to list the objects of org.example.Zoo: "
                                       "The reply is no list of objects"));
}

TEST_F(ObjectManagerTest, AListWithASurplusArgumentIsLogged) {
  const base::LogCapture log;
  zoo_.Answer(kRoot, kManagerInterface, "GetManagedObjects", [](MessageWriter* writer) {
    writer->OpenContainer('a', "{oa{sa{sv}}}");
    writer->CloseContainer();
    writer->AppendString("more");
  });
  ASSERT_TRUE(base::RunUntil([&log] { return !log.lines().empty(); }));
  EXPECT_THAT(log.lines(), ElementsAre("WARNING Failed to list the objects of org.example.Zoo: "
                                       "The reply is no list of objects"));
}

TEST_F(ObjectManagerTest, AnAbsentServiceIsNotLogged) {
  const base::LogCapture log;
  zoo_.ReleaseName();
  Settle();
  Settle();
  EXPECT_THAT(log.lines(), ElementsAre());
  Open(&zoo_);
  WaitForNotes(1);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ObjectManagerTest, NothingIsAnnouncedForAnInterfaceAfterItsUnregistration) {
  Open(&zoo_);
  WaitForNotes(1);
  manager_->UnregisterInterface(kAnimal);
  EXPECT_FALSE(manager_->GetProperties(ObjectPath(kLion), kAnimal));
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.RemoveObject(kLion, kAnimal);
  zoo_.AddObject(kTiger, kAnimal, {});
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

// Attaches a token to the properties of each object and to a call of its proxy that stays
// unanswered.
class Tokens : public ObjectManager::Interface {
 public:
  std::unique_ptr<PropertySet> CreateProperties(ObjectProxy* object_proxy, const ObjectPath&,
                                                const std::string& interface_name) override {
    const auto of_set = std::make_shared<int>();
    const auto of_proxy = std::make_shared<int>();
    made.insert(made.end(), {of_set, of_proxy});
    object_proxy->CallMethod(MethodCall(*object_proxy, interface_name, "Sleep"),
                             ObjectProxy::kTimeoutUseDefault, [of_proxy](const Response&) {});
    return std::make_unique<PropertySet>(object_proxy, interface_name,
                                         [of_set](const std::string&) {});
  }
  void ObjectAdded(const ObjectPath&, const std::string&) override {}
  void ObjectRemoved(const ObjectPath&, const std::string&) override {}

  [[nodiscard]] ptrdiff_t left() const {
    return std::count_if(made.begin(), made.end(),
                         [](const auto& token) { return !token.expired(); });
  }

  std::vector<std::weak_ptr<int>> made;
};

TEST_F(ObjectManagerTest, RemovedObjectsReleaseTheirPropertiesAndCalls) {
  constexpr ptrdiff_t kTokensOfTwoObjects = 4;
  const std::function<void()> kEnds[] = {
      [this] {
        zoo_.RemoveObject(kLion, kKeeper);
        zoo_.RemoveObject(kTiger, kKeeper);
      },
      [this] { manager_->UnregisterInterface(kKeeper); },
      [this] { zoo_.ReleaseName(); },
  };
  zoo_.AddObjectManager(kRoot);
  for (const auto& end : kEnds) {
    Tokens tokens;
    manager_->RegisterInterface(kKeeper, &tokens);
    for (const char* path : {kLion, kTiger}) {
      zoo_.LeaveUnanswered(path, kKeeper, "Sleep");
      zoo_.AddObject(path, kKeeper, {});
    }
    ASSERT_TRUE(base::RunUntil([&] { return tokens.left() == kTokensOfTwoObjects; }));
    end();
    EXPECT_TRUE(base::RunUntil([&] { return tokens.left() == 0; }));
    manager_->UnregisterInterface(kKeeper);
  }
}

TEST_F(ObjectManagerTest, ExistingObjectsAreAnnouncedToAnInterfaceRegisteredLater) {
  zoo_.AddObject(kTiger, kKeeper, {{"Name", Text("Kim")}});
  Open(&zoo_);
  WaitForNotes(1);
  Recorder late(manager_);
  manager_->RegisterInterface(kKeeper, &late);
  ASSERT_TRUE(base::RunUntil([&late] { return !late.notes.empty(); }));
  EXPECT_THAT(late.notes, ElementsAre("added /zoo/tiger Kim unset"));
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, ACallbackMayCallTheServiceAndUnregister) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  zoo_.Answer(kLion, kAnimal, "Roar");
  ObjectProxy* const lion = bus_->GetObjectProxy(kService, ObjectPath(kLion));
  recorder_.on_note = [&] {
    EXPECT_TRUE(lion->CallMethodAndBlock(MethodCall(*lion, kAnimal, "Roar"), -1));
    manager_->UnregisterInterface(kAnimal);
  };
  Open(&zoo_);
  WaitForNotes(1);
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
  EXPECT_EQ(1, zoo_.CallCount("Roar"));
}

TEST_F(ObjectManagerTest, ACallbackMayReplaceTheRegistration) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  Recorder next(manager_);
  recorder_.on_note = [&] {
    manager_->UnregisterInterface(kAnimal);
    manager_->RegisterInterface(kAnimal, &next);
  };
  Open(&zoo_);
  ASSERT_TRUE(base::RunUntil([&next] { return next.notes.size() == 2; }));
  EXPECT_THAT(recorder_.notes, ElementsAre("added /zoo/lion Leo meat"));
  EXPECT_THAT(next.notes, ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger Tia unset"));
}

TEST_F(ObjectManagerTest, ARemovedCallbackMayUnregister) {
  Open(&zoo_);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  WaitForNotes(2);
  recorder_.notes.clear();
  recorder_.on_note = [this] { manager_->UnregisterInterface(kAnimal); };
  zoo_.ReleaseName();
  Settle();
  EXPECT_THAT(recorder_.notes, ElementsAre("removed /zoo/lion"));
}

}  // namespace
}  // namespace dbus

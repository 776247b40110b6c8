#include "dbus/object_manager.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/testing/log_capture.h"
#include "dbus/testing/bus_test.h"
#include "dbus/testing/fake_service.h"

namespace dbus {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.example.Zoo";
constexpr char kRoot[] = "/zoo";
constexpr char kAnimal[] = "org.example.Zoo.Animal";
constexpr char kKeeper[] = "org.example.Zoo.Keeper";
constexpr char kLion[] = "/zoo/lion";
constexpr char kTiger[] = "/zoo/tiger";
constexpr char kManagerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

FakeService::Writer Text(const std::string& text) {
  return [text](MessageWriter* writer) {
    writer->OpenContainer('v', "s");
    writer->AppendString(text);
    writer->CloseContainer();
  };
}

FakeService::Writer Number(int32_t number) {
  return [number](MessageWriter* writer) {
    writer->OpenContainer('v', "i");
    writer->AppendInt32(number);
    writer->CloseContainer();
  };
}

class TextProperty : public PropertyBase {
 public:
  std::string GetSignature() const override { return "s"; }
  bool ReadFrom(MessageReader* reader) override { return reader->PopString(&value); }

  std::string value = "unset";
};

struct AnimalProperties : PropertySet {
  AnimalProperties(ObjectProxy* object_proxy, const std::string& interface,
                   const ChangedCallback& on_changed)
      : PropertySet(object_proxy, interface, on_changed) {
    RegisterProperty("Name", &name);
    RegisterProperty("Food", &food);
  }

  TextProperty name;
  TextProperty food;
};

// Notes down what it is told, as "added /path Name Food".
class Visitor : public ObjectManager::Interface {
 public:
  explicit Visitor(ObjectManager* manager) : manager_(manager) {}

  std::unique_ptr<PropertySet> CreateProperties(ObjectProxy* object_proxy, const ObjectPath& path,
                                                const std::string& interface_name) override {
    EXPECT_EQ(path, object_proxy->object_path());
    return std::make_unique<AnimalProperties>(
        object_proxy, interface_name, [this, path, interface_name](const std::string& name) {
          Note("changed " + name, path, interface_name);
        });
  }
  void ObjectAdded(const ObjectPath& path, const std::string& interface_name) override {
    Note("added", path, interface_name);
  }
  void ObjectRemoved(const ObjectPath& path, const std::string& interface_name) override {
    EXPECT_FALSE(manager_->GetProperties(path, interface_name));
    notes.push_back("removed " + path.value());
    if (on_note) on_note();
  }

  std::vector<std::string> notes;
  std::function<void()> on_note;

 private:
  void Note(const std::string& what, const ObjectPath& path, const std::string& interface_name) {
    const auto* const animal =
        static_cast<AnimalProperties*>(manager_->GetProperties(path, interface_name));
    ASSERT_TRUE(animal);
    notes.push_back(what + " " + path.value() + " " + animal->name.value + " " +
                    animal->food.value);
    if (on_note) on_note();
  }

  ObjectManager* const manager_;
};

class ObjectManagerTest : public BusTest {
 protected:
  ObjectManagerTest() { manager_->RegisterInterface(kAnimal, &visitor_); }
  ~ObjectManagerTest() override { bus_.reset(); }

  // A zoo with a manager; its objects are listed, not announced.
  void Open(FakeService* zoo) {
    zoo->AddObject(kLion, kAnimal, {{"Name", Text("Leo")}, {"Food", Text("meat")}});
    zoo->AddObjectManager(kRoot);
    zoo->TakeName();
  }

  void WaitForNotes(size_t count) {
    ASSERT_TRUE(base::RunUntil([this, count] { return visitor_.notes.size() >= count; }));
  }

  ObjectManager* const manager_ = bus_->GetObjectManager(kService, ObjectPath(kRoot));
  Visitor visitor_{manager_};
  FakeService zoo_{kService};
};

TEST_F(ObjectManagerTest, ObjectsAlreadyThereAreAddedWithTheirProperties) {
  Open(&zoo_);
  WaitForNotes(1);
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
  EXPECT_FALSE(manager_->GetProperties(ObjectPath(kTiger), kAnimal));
}

TEST_F(ObjectManagerTest, ObjectsComeAndGo) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  zoo_.RemoveObject(kLion, kAnimal);
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger Tia unset",
                                          "removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, TheObjectsAreListedOnceAndAfterTheMatches) {
  Open(&zoo_);
  WaitForNotes(1);
  Settle();
  EXPECT_THAT(zoo_.Calls(), ElementsAre("/zoo org.freedesktop.DBus.ObjectManager."
                                        "GetManagedObjects()"));
  // Nothing announced before the list came is lost.
  zoo_.LeaveUnanswered(kRoot, kManagerInterface, "GetManagedObjects");
  zoo_.ReleaseName();
  zoo_.TakeName();
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("GetManagedObjects") == 2; }));
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat", "removed /zoo/lion",
                                          "added /zoo/tiger Tia unset"));
}

TEST_F(ObjectManagerTest, AnObjectAnnouncedTwiceIsAddedOnceWithItsLastValues) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kLion, kAnimal, {{"Food", Text("fish")}});
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
  const auto* const lion =
      static_cast<AnimalProperties*>(manager_->GetProperties(ObjectPath(kLion), kAnimal));
  ASSERT_TRUE(lion);
  EXPECT_EQ("Leo", lion->name.value);
  EXPECT_EQ("fish", lion->food.value);
}

TEST_F(ObjectManagerTest, InterfacesThatNobodyRegisteredAreIgnored) {
  zoo_.AddObject("/zoo/keeper", kKeeper, {{"Name", Text("Kim")}});
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.AddObject(kTiger, kKeeper, {});
  zoo_.RemoveObject(kTiger, kKeeper);
  zoo_.RemoveObject(kTiger, kAnimal);
  zoo_.ChangeProperty(kLion, kKeeper, "Name", Text("Kim"));
  zoo_.ChangeProperty(kTiger, kAnimal, "Name", Text("Tia"));
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, AChangedPropertyIsStoredAndThenTold) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.ChangeProperty(kLion, kAnimal, "Age", Number(7));
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Number(7));
  zoo_.ChangeProperty(kLion, kAnimal, "Food", Text("fish"));
  Settle();
  EXPECT_THAT(visitor_.notes,
              ElementsAre("added /zoo/lion Leo meat", "changed Name /zoo/lion Lea meat",
                          "changed Food /zoo/lion Lea fish"));
}

TEST_F(ObjectManagerTest, AnInvalidatedPropertyIsAskedFor) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.InvalidateProperty(kLion, kAnimal, "Age", Number(7));
  zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text("Lea"));
  WaitForNotes(2);
  EXPECT_EQ("changed Name /zoo/lion Lea meat", visitor_.notes.back());
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
  EXPECT_EQ(2u, visitor_.notes.size());
}

TEST_F(ObjectManagerTest, AnObjectRemovedWhileItsPropertyIsAskedForIsForgotten) {
  Open(&zoo_);
  WaitForNotes(1);
  zoo_.InvalidateProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.RemoveObject(kLion, kAnimal);
  WaitForNotes(2);
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("Get") == 1; }));
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat", "removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, EverythingIsRemovedWhenTheOwnerGoesAndListedWhenOneComes) {
  Open(&zoo_);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  WaitForNotes(2);
  visitor_.notes.clear();
  zoo_.ReleaseName();
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("removed /zoo/lion", "removed /zoo/tiger"));

  visitor_.notes.clear();
  FakeService successor(kService);
  successor.AddObject(kTiger, kAnimal, {{"Name", Text("Tom")}});
  successor.AddObjectManager(kRoot);
  WaitForNotes(1);
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/tiger Tom unset"));
}

TEST_F(ObjectManagerTest, AnOldOwnersListIsDropped) {
  const base::LogCapture log;
  zoo_.AddObjectManager(kRoot);
  zoo_.LeaveUnanswered(kRoot, kManagerInterface, "GetManagedObjects");
  ASSERT_TRUE(base::RunUntil([this] { return zoo_.CallCount("GetManagedObjects") == 1; }));
  zoo_.ReleaseName();
  FakeService successor(kService);
  Open(&successor);
  WaitForNotes(1);
  EXPECT_EQ(1, zoo_.CallCount("GetManagedObjects"));
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, OnlyTheOwnersSignalsCount) {
  Open(&zoo_);
  WaitForNotes(1);
  FakeService forger("org.example.Forger");
  const auto added = [](MessageWriter* writer) {
    writer->AppendObjectPath(ObjectPath(kTiger));
    writer->OpenContainer('a', "{sa{sv}}");
    writer->OpenContainer('e', "sa{sv}");
    writer->AppendString(kAnimal);
    writer->OpenContainer('a', "{sv}");
    writer->CloseContainer();
    writer->CloseContainer();
    writer->CloseContainer();
  };
  const auto removed = [](MessageWriter* writer) {
    writer->AppendObjectPath(ObjectPath(kLion));
    writer->OpenContainer('a', "s");
    writer->AppendString(kAnimal);
    writer->CloseContainer();
  };
  const auto changed = [](MessageWriter* writer) {
    writer->AppendString(kAnimal);
    writer->OpenContainer('a', "{sv}");
    writer->OpenContainer('e', "sv");
    writer->AppendString("Name");
    Text("forged")(writer);
    writer->CloseContainer();
    writer->CloseContainer();
    writer->OpenContainer('a', "s");
    writer->CloseContainer();
  };
  for (const std::string& destination : {std::string(), OwnUniqueName()}) {
    forger.Emit(kRoot, kManagerInterface, "InterfacesAdded", added, destination);
    forger.Emit(kRoot, kManagerInterface, "InterfacesRemoved", removed, destination);
    forger.Emit(kLion, kPropertiesInterface, "PropertiesChanged", changed, destination);
  }
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
  // The same signals count when they come from the owner.
  zoo_.Emit(kRoot, kManagerInterface, "InterfacesAdded", added);
  zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", changed);
  zoo_.Emit(kRoot, kManagerInterface, "InterfacesRemoved", removed);
  Settle();
  EXPECT_THAT(visitor_.notes,
              ElementsAre("added /zoo/lion Leo meat", "added /zoo/tiger unset unset",
                          "changed Name /zoo/lion forged meat", "removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, MalformedBodiesAreIgnored) {
  Open(&zoo_);
  WaitForNotes(1);
  const auto path_only = [](MessageWriter* writer) { writer->AppendObjectPath(ObjectPath(kLion)); };
  const auto text = [](MessageWriter* writer) { writer->AppendString(kAnimal); };
  for (const FakeService::Writer& body :
       std::vector<FakeService::Writer>{{}, path_only, text, Number(1)}) {
    zoo_.Emit(kRoot, kManagerInterface, "InterfacesAdded", body);
    zoo_.Emit(kRoot, kManagerInterface, "InterfacesRemoved", body);
    zoo_.Emit(kLion, kPropertiesInterface, "PropertiesChanged", body);
  }
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, AFailedListingIsLoggedOnce) {
  const base::LogCapture log;
  zoo_.Refuse(kRoot, kManagerInterface, "GetManagedObjects", "org.example.Closed", "Come tomorrow");
  ASSERT_TRUE(base::RunUntil([&log] { return !log.lines().empty(); }));
  Settle();
  EXPECT_THAT(log.lines(), ElementsAre("WARNING Failed to list the objects of org.example.Zoo: "
                                       "org.example.Closed: Come tomorrow"));
}

TEST_F(ObjectManagerTest, AListOfTheWrongTypeIsAFailedListing) {
  const base::LogCapture log;
  zoo_.Answer(kRoot, kManagerInterface, "GetManagedObjects", Text("lions"));
  ASSERT_TRUE(base::RunUntil([&log] { return !log.lines().empty(); }));
  EXPECT_THAT(log.lines(), ElementsAre("WARNING Failed to list the objects of org.example.Zoo: "
                                       "The reply is no list of objects"));
}

TEST_F(ObjectManagerTest, AnAbsentServiceIsWaitedForInSilence) {
  const base::LogCapture log;
  zoo_.ReleaseName();
  Settle();
  Settle();
  EXPECT_THAT(log.lines(), ElementsAre());
  Open(&zoo_);
  WaitForNotes(1);
  EXPECT_THAT(log.lines(), ElementsAre());
}

TEST_F(ObjectManagerTest, NothingIsToldOfAnUnregisteredInterface) {
  Open(&zoo_);
  WaitForNotes(1);
  manager_->UnregisterInterface(kAnimal);
  EXPECT_FALSE(manager_->GetProperties(ObjectPath(kLion), kAnimal));
  zoo_.ChangeProperty(kLion, kAnimal, "Name", Text("Lea"));
  zoo_.RemoveObject(kLion, kAnimal);
  zoo_.AddObject(kTiger, kAnimal, {});
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, AnInterfaceRegisteredLateIsToldOfWhatIsThere) {
  zoo_.AddObject(kTiger, kKeeper, {{"Name", Text("Kim")}});
  Open(&zoo_);
  WaitForNotes(1);
  Visitor late(manager_);
  manager_->RegisterInterface(kKeeper, &late);
  ASSERT_TRUE(base::RunUntil([&late] { return !late.notes.empty(); }));
  EXPECT_THAT(late.notes, ElementsAre("added /zoo/tiger Kim unset"));
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
}

TEST_F(ObjectManagerTest, ACallbackMayCallTheServiceAndUnregister) {
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  zoo_.Answer(kLion, kAnimal, "Roar");
  ObjectProxy* const lion = bus_->GetObjectProxy(kService, ObjectPath(kLion));
  visitor_.on_note = [&] {
    EXPECT_TRUE(lion->CallMethodAndBlock(MethodCall(*lion, kAnimal, "Roar"), -1));
    manager_->UnregisterInterface(kAnimal);
  };
  Open(&zoo_);
  WaitForNotes(1);
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("added /zoo/lion Leo meat"));
  EXPECT_EQ(1, zoo_.CallCount("Roar"));
}

TEST_F(ObjectManagerTest, ARemovalsCallbackMayUnregister) {
  Open(&zoo_);
  zoo_.AddObject(kTiger, kAnimal, {{"Name", Text("Tia")}});
  WaitForNotes(2);
  visitor_.notes.clear();
  visitor_.on_note = [this] { manager_->UnregisterInterface(kAnimal); };
  zoo_.ReleaseName();
  Settle();
  EXPECT_THAT(visitor_.notes, ElementsAre("removed /zoo/lion"));
}

TEST_F(ObjectManagerTest, AChangesCallbackMayDropTheObject) {
  Open(&zoo_);
  WaitForNotes(1);
  visitor_.on_note = [this] { manager_->UnregisterInterface(kAnimal); };
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
  EXPECT_THAT(visitor_.notes,
              ElementsAre("added /zoo/lion Leo meat", "changed Name /zoo/lion new new"));
}

}  // namespace
}  // namespace dbus

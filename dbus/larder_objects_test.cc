#include <memory>
#include <string>
#include <vector>

#include "bindings/larder_proxies.h"
#include "dbus/larder_fixture.h"

namespace org::quintara::Larder {
namespace {

using kestle::ErrorPtr;
using kestle::VariantDictionary;
using kestle::dbus_utils::DBusType;
using kestle::dbus_utils::FakeService;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;

using LarderObjects = LarderTest;
using LarderBeforeStart = dbus::BusTest;

TEST_F(LarderObjects, PropertiesAreAvailableWithTheObject) {
  ManagerProxy* const manager = AddManager({{"Status", std::string("1")},
                                            {"DeviceId", std::string("2")},
                                            {"State", std::string("3")},
                                            {"OemName", std::string("4")},
                                            {"ModelName", std::string("5")},
                                            {"ModelId", std::string("6")},
                                            {"Name", std::string("7")},
                                            {"Description", std::string("8")},
                                            {"Location", std::string("9")},
                                            {"QTDBootstrapState", std::string("10")},
                                            {"PairingInfo", VariantDictionary{{"pin", 11}}}});
  EXPECT_EQ(manager->Status(), "1");
  EXPECT_EQ(manager->DeviceId(), "2");
  EXPECT_EQ(manager->State(), "3");
  EXPECT_EQ(manager->OemName(), "4");
  EXPECT_EQ(manager->ModelName(), "5");
  EXPECT_EQ(manager->ModelId(), "6");
  EXPECT_EQ(manager->Name(), "7");
  EXPECT_EQ(manager->Description(), "8");
  EXPECT_EQ(manager->Location(), "9");
  EXPECT_EQ(manager->QTDBootstrapState(), "10");
  ASSERT_THAT(manager->PairingInfo(), ElementsAre(Key("pin")));
  EXPECT_EQ(manager->PairingInfo().at("pin").GetAsInteger(), 11);

  CommandProxy* const command = AddCommand({{"Name", std::string("1")},
                                            {"Id", std::string("2")},
                                            {"State", std::string("3")},
                                            {"Parameters", VariantDictionary{{"a", 4}}},
                                            {"Progress", VariantDictionary{{"b", 5}}},
                                            {"Results", VariantDictionary{{"c", 6}}},
                                            {"Origin", std::string("7")}});
  EXPECT_EQ(command->Name(), "1");
  EXPECT_EQ(command->Id(), "2");
  EXPECT_EQ(command->State(), "3");
  EXPECT_THAT(command->Parameters(), ElementsAre(Key("a")));
  EXPECT_THAT(command->Progress(), ElementsAre(Key("b")));
  EXPECT_THAT(command->Results(), ElementsAre(Key("c")));
  EXPECT_EQ(command->Origin(), "7");
  EXPECT_EQ(larder_.CallCount("Get"), 0);
}

TEST_F(LarderObjects, MissingPropertiesAreEmpty) {
  EXPECT_EQ(AddManager()->ModelId(), "");
  EXPECT_THAT(AddCommand()->Parameters(), IsEmpty());
}

TEST_F(LarderObjects, AManagerAnnouncedElsewhereIsCalledAtTheFixedPath) {
  constexpr char kElsewhere[] = "/org/quintara/Larder/Elsewhere";
  larder_.Answer(kManagerPath, kManager, "UpdateState");
  ManagerProxy* const manager = AddManager({{"Name", std::string("n")}}, kElsewhere);
  EXPECT_THAT(proxies_->GetManagerProxies(), ElementsAre(Key(dbus::ObjectPath(kElsewhere))));
  EXPECT_EQ(manager->GetObjectPath(), dbus::ObjectPath(kManagerPath));
  EXPECT_EQ(manager->GetObjectProxy()->object_path().value(), kManagerPath);
  EXPECT_TRUE(manager->UpdateState({}, nullptr));
  EXPECT_EQ(manager->Name(), "n");
  larder_.ChangeProperty(kElsewhere, kManager, "Name", std::string("m"));
  EXPECT_TRUE(base::RunUntil([&] { return manager->Name() == "m"; }));
  larder_.RemoveObject(kElsewhere, kManager);
  ASSERT_TRUE(RunUntilEvents(2));
  EXPECT_THAT(events_,
              ElementsAre("manager added", "manager removed /org/quintara/Larder/Elsewhere"));
  EXPECT_THAT(proxies_->GetManagerProxies(), IsEmpty());
}

TEST_F(LarderObjects, ProxiesAreOrderedByPath) {
  AddCommand({}, "/org/quintara/Larder/commands/2");
  AddCommand({}, "/org/quintara/Larder/commands/1");
  AddManager();
  EXPECT_THAT(proxies_->GetCommandProxies(),
              ElementsAre(Key(dbus::ObjectPath("/org/quintara/Larder/commands/1")),
                          Key(dbus::ObjectPath("/org/quintara/Larder/commands/2"))));
  EXPECT_THAT(proxies_->GetManagerProxies(), SizeIs(1));
}

TEST_F(LarderObjects, AnAddedCallbackFindsTheProxyInItsTable) {
  CommandProxy* added = nullptr;
  bool in_table = false;
  std::string state;
  proxies_->SetCommandAddedCallback([&](CommandProxy* command) {
    added = command;
    in_table = proxies_->GetCommandProxies().at(command->GetObjectPath()).get() == command;
    state = command->State();
  });
  larder_.AddObject(kCommandPath, kCommand, {{"State", std::string("queued")}});
  ASSERT_TRUE(base::RunUntil([&added] { return added != nullptr; }));
  EXPECT_TRUE(in_table);
  EXPECT_EQ(state, "queued");
}

TEST_F(LarderObjects, ARemovedCommandLeavesTheTableBeforeItsProxyIsDestroyed) {
  CommandProxy* const command = AddCommand({{"Name", std::string("n")}});
  bool called = false;
  proxies_->SetCommandRemovedCallback([&](const dbus::ObjectPath& path) {
    called = true;
    EXPECT_EQ(path, dbus::ObjectPath(kCommandPath));
    EXPECT_THAT(proxies_->GetCommandProxies(), IsEmpty());
    EXPECT_EQ(command->Name(), "n");
    ErrorPtr error;
    EXPECT_FALSE(command->Cancel(&error));
    EXPECT_TRUE(error);
  });
  larder_.RemoveObject(kCommandPath, kCommand);
  EXPECT_TRUE(base::RunUntil([&called] { return called; }));
}

TEST_F(LarderObjects, AReplacedCommandIsAnotherProxy) {
  CommandProxy* const replaced = AddCommand({{"State", std::string("queued")}});
  replaced->SetPropertyChangedCallback([](CommandProxyInterface*, const std::string& name) {
    ADD_FAILURE() << name << " of a destroyed proxy";
  });
  const base::WeakPtr<CommandProxy> weak = replaced->GetWeakPtr();
  EXPECT_EQ(weak.get(), replaced);
  larder_.RemoveObject(kCommandPath, kCommand);
  larder_.AddObject(kCommandPath, kCommand, {{"State", std::string("inProgress")}});
  ASSERT_TRUE(RunUntilEvents(3));
  const std::string path = kCommandPath;
  EXPECT_THAT(events_, ElementsAre("command added " + path, "command removed " + path,
                                   "command added " + path));
  CommandProxy* const command = proxies_->GetCommandProxies().at(dbus::ObjectPath(path)).get();
  EXPECT_EQ(command->State(), "inProgress");
  // The new proxy may have the old one's address.
  EXPECT_EQ(weak.get(), nullptr);
  larder_.ChangeProperty(kCommandPath, kCommand, "State", std::string("done"));
  EXPECT_TRUE(base::RunUntil([command] { return command->State() == "done"; }));
}

TEST_F(LarderObjects, WhenTheServiceExitsItsObjectsAreRemoved) {
  AddManager();
  AddCommand();
  larder_.ReleaseName();
  ASSERT_TRUE(RunUntilEvents(4));
  EXPECT_THAT(proxies_->GetManagerProxies(), IsEmpty());
  EXPECT_THAT(proxies_->GetCommandProxies(), IsEmpty());
  larder_.TakeName();
  ASSERT_TRUE(RunUntilEvents(6));
  EXPECT_THAT(proxies_->GetManagerProxies(), SizeIs(1));
  EXPECT_THAT(proxies_->GetCommandProxies(), SizeIs(1));
}

TEST_F(LarderObjects, AnObjectWithBothInterfacesIsInBothTables) {
  AddManager({}, kCommandPath);
  AddCommand({}, kCommandPath);
  EXPECT_THAT(proxies_->GetManagerProxies(), ElementsAre(Key(dbus::ObjectPath(kCommandPath))));
  larder_.RemoveObject(kCommandPath, kManager);
  ASSERT_TRUE(RunUntilEvents(3));
  EXPECT_THAT(proxies_->GetManagerProxies(), IsEmpty());
  EXPECT_THAT(proxies_->GetCommandProxies(), ElementsAre(Key(dbus::ObjectPath(kCommandPath))));
}

TEST_F(LarderObjects, TheTablesAreKeptWithoutCallbacks) {
  proxies_->SetManagerAddedCallback({});
  proxies_->SetManagerRemovedCallback({});
  proxies_->SetCommandAddedCallback({});
  proxies_->SetCommandRemovedCallback({});
  const auto sizes = [this] {
    return proxies_->GetManagerProxies().size() + proxies_->GetCommandProxies().size();
  };
  larder_.AddObject(kManagerPath, kManager, VariantDictionary());
  larder_.AddObject(kCommandPath, kCommand, VariantDictionary());
  EXPECT_TRUE(base::RunUntil([&sizes] { return sizes() == 2; }));
  larder_.RemoveObject(kManagerPath, kManager);
  larder_.RemoveObject(kCommandPath, kCommand);
  EXPECT_TRUE(base::RunUntil([&sizes] { return sizes() == 0; }));
}

TEST_F(LarderObjects, ObjectsWithOtherInterfacesAreIgnored) {
  larder_.AddObject("/org/quintara/Larder/x", "org.quintara.Larder.Other", VariantDictionary());
  AddCommand();
  EXPECT_THAT(proxies_->GetCommandProxies(), SizeIs(1));
  EXPECT_THAT(proxies_->GetManagerProxies(), IsEmpty());
  proxies_->ObjectAdded(dbus::ObjectPath("/x"), "org.quintara.Larder.Other");
  proxies_->ObjectRemoved(dbus::ObjectPath(kCommandPath), "org.quintara.Larder.Other");
  EXPECT_THAT(proxies_->GetCommandProxies(), SizeIs(1));
}

TEST_F(LarderObjects, AChangeIsReportedToTheProxyOfItsObject) {
  CommandProxy* const changing = AddCommand({{"State", std::string("queued")}});
  CommandProxy* const other = AddCommand({}, "/org/quintara/Larder/commands/2");
  ManagerProxy* const manager = AddManager();
  std::vector<std::string> changes;
  changing->SetPropertyChangedCallback([&](CommandProxyInterface* proxy, const std::string& name) {
    EXPECT_EQ(proxy, changing);
    changes.push_back(name + " " + proxy->State());
  });
  other->SetPropertyChangedCallback(
      [](CommandProxyInterface*, const std::string&) { ADD_FAILURE() << "another command"; });
  manager->SetPropertyChangedCallback([&](ManagerProxyInterface* proxy, const std::string& name) {
    EXPECT_EQ(proxy, manager);
    changes.push_back(name + " " + proxy->Status());
  });
  larder_.ChangeProperty(kCommandPath, kCommand, "State", std::string("done"));
  larder_.ChangeProperty(kManagerPath, kManager, "Status", std::string("idle"));
  ASSERT_TRUE(base::RunUntil([&changes] { return changes.size() >= 2; }));
  EXPECT_THAT(changes, ElementsAre("State done", "Status idle"));
  changing->SetPropertyChangedCallback({});
  larder_.ChangeProperty(kCommandPath, kCommand, "State", std::string("gone"));
  EXPECT_TRUE(base::RunUntil([changing] { return changing->State() == "gone"; }));
  EXPECT_THAT(changes, SizeIs(2));
}

TEST_F(LarderObjects, AValueOfAnotherTypeKeepsTheOldOne) {
  CommandProxy* const command = AddCommand({{"State", std::string("queued")}});
  larder_.ChangeProperty(kCommandPath, kCommand, "State", int32_t{5});
  larder_.ChangeProperty(kCommandPath, kCommand, "Id", std::string("after"));
  ASSERT_TRUE(base::RunUntil([command] { return command->Id() == "after"; }));
  EXPECT_EQ(command->State(), "queued");
}

TEST_F(LarderObjects, NoCallbackRunsAfterDestruction) {
  AddCommand();
  proxies_.reset();
  larder_.ChangeProperty(kCommandPath, kCommand, "State", std::string("done"));
  larder_.RemoveObject(kCommandPath, kCommand);
  Settle();
  EXPECT_THAT(events_, SizeIs(1));
  proxies_ = std::make_unique<ObjectManagerProxy>(bus_);
  larder_.AddObject(kCommandPath, kCommand, VariantDictionary());
  EXPECT_TRUE(base::RunUntil([this] { return !proxies_->GetCommandProxies().empty(); }));
}

TEST_F(LarderBeforeStart, ExistingObjectsAreAddedOnceTheLoopRuns) {
  FakeService larder(kService);
  larder.AddObjectManager(kRoot);
  larder.AddObject(kManagerPath, kManager, {{"ModelId", std::string("AAAAA")}});
  larder.AddObject(kCommandPath, kCommand, {{"State", std::string("queued")}});
  ObjectManagerProxy proxies(bus_);
  EXPECT_THAT(proxies.GetManagerProxies(), IsEmpty());
  std::string seen;
  proxies.SetManagerAddedCallback([&seen](ManagerProxy* manager) { seen += manager->ModelId(); });
  proxies.SetCommandAddedCallback([&seen](CommandProxy* command) { seen += command->State(); });
  ASSERT_TRUE(base::RunUntil([&] { return proxies.GetCommandProxies().size() == 1; }));
  ASSERT_TRUE(base::RunUntil([&] { return proxies.GetManagerProxies().size() == 1; }));
  EXPECT_THAT(seen, ::testing::AnyOf("AAAAAqueued", "queuedAAAAA"));
}

TEST_F(LarderBeforeStart, AChangeOfAnObjectOutsideTheTablesIsIgnored) {
  ObjectManagerProxy proxies(bus_);
  const dbus::ObjectPath path(kCommandPath);
  dbus::ObjectProxy* const proxy = bus_->GetObjectProxy(kService, path);
  for (const char* const interface : {kManager, kCommand}) {
    const auto properties = proxies.CreateProperties(proxy, path, interface);
    dbus::MethodCall changes(*proxy, interface, "Changed");
    dbus::MessageWriter writer(&changes);
    DBusType<VariantDictionary>::Write(&writer, {{"State", std::string("x")}});
    writer.OpenContainer('a', "s");
    writer.CloseContainer();
    ASSERT_GE(sd_bus_message_seal(changes.raw(), /*cookie=*/1, /*timeout=*/0), 0);
    dbus::MessageReader reader(&changes);
    properties->ApplyChanges(&reader);
  }
  EXPECT_THAT(proxies.GetManagerProxies(), IsEmpty());
  EXPECT_THAT(proxies.GetCommandProxies(), IsEmpty());
}

TEST_F(LarderBeforeStart, PropertiesOfAnUnknownInterfaceAreFatal) {
  ObjectManagerProxy proxies(bus_);
  const dbus::ObjectPath path("/x");
  dbus::ObjectProxy* const proxy = bus_->GetObjectProxy(kService, path);
  EXPECT_DEATH(proxies.CreateProperties(proxy, path, "org.quintara.Larder.Other"),
               "Creating properties for unsupported interface org.quintara.Larder.Other\n");
}

}  // namespace
}  // namespace org::quintara::Larder

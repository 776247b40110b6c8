// A fake service with example objects, and a recorder of the object manager's callbacks.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbus/object_manager.h"
#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/fake_service.h"

namespace dbus {

inline constexpr char kService[] = "org.example.Zoo";
inline constexpr char kRoot[] = "/zoo";
inline constexpr char kAnimal[] = "org.example.Zoo.Animal";
inline constexpr char kKeeper[] = "org.example.Zoo.Keeper";
inline constexpr char kLion[] = "/zoo/lion";
inline constexpr char kTiger[] = "/zoo/tiger";
inline constexpr char kManagerInterface[] = "org.freedesktop.DBus.ObjectManager";
inline constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

inline FakeService::Writer Text(const std::string& text) {
  return [text](MessageWriter* writer) {
    writer->OpenContainer('v', "s");
    writer->AppendString(text);
    writer->CloseContainer();
  };
}

inline FakeService::Writer Number(int32_t number) {
  return [number](MessageWriter* writer) {
    writer->OpenContainer('v', "i");
    writer->AppendInt32(number);
    writer->CloseContainer();
  };
}

class TextProperty : public PropertyBase {
 public:
  [[nodiscard]] std::string GetSignature() const override { return "s"; }
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

// Records its callbacks, as "added /path Name Food".
class Recorder : public ObjectManager::Interface {
 public:
  explicit Recorder(ObjectManager* manager) : manager_(manager) {}

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

class ZooTest : public BusTest {
 protected:
  ZooTest() { manager_->RegisterInterface(kAnimal, &recorder_); }
  ~ZooTest() override { bus_.reset(); }

  // Adds an object manager and starts the zoo, whose objects are then listed and not announced.
  void Open(FakeService* zoo) {
    zoo->AddObject(kLion, kAnimal, {{"Name", Text("Leo")}, {"Food", Text("meat")}});
    zoo->AddObjectManager(kRoot);
    zoo->TakeName();
  }

  // Subscribes to the signals of all connections, as another match of this process may.
  void SubscribeToEverything() {
    MethodCall call(*Driver(), "org.freedesktop.DBus", "AddMatch");
    MessageWriter(&call).AppendString("type='signal'");
    const auto response = Driver()->CallMethodAndBlock(call, ObjectProxy::kTimeoutUseDefault);
    ASSERT_TRUE(response && !response->IsError());
  }

  void WaitForNotes(size_t count) {
    ASSERT_TRUE(base::RunUntil([this, count] { return recorder_.notes.size() >= count; }));
  }

  ObjectManager* const manager_ = bus_->GetObjectManager(kService, ObjectPath(kRoot));
  Recorder recorder_{manager_};
  FakeService zoo_{kService};
};

}  // namespace dbus

#include "kestle/dbus_utils/dbus_object.h"

#include <memory>
#include <optional>
#include <string>

#include "dbus/testing/bus_fixture.h"
#include "dbus/testing/describe.h"
#include "dbus/testing/fake_service.h"
#include "kestle/dbus_utils/testing/remote_call.h"

namespace kestle::dbus_utils {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kRoot[] = "/shelf";
constexpr char kPath[] = "/shelf/book";
constexpr char kInterface[] = "org.example.Book";

// Fails with the error that a test sets.
class Book {
 public:
  bool Turn(ErrorPtr* error, int32_t pages) {
    turned_ += pages;
    if (!code_.empty()) Error::AddTo(error, "book", code_, "The page is torn");
    return succeeds_;
  }
  bool Close(ErrorPtr*) {
    ++closed_;
    return true;
  }

  bool succeeds_ = true;
  std::string code_;
  int turned_ = 0;
  int closed_ = 0;
};

class DBusObjectTest : public dbus::BusTest {
 protected:
  DBusObjectTest() {
    manager_.RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    DBusInterface* const interface = object_->AddOrGetInterface(kInterface);
    interface->AddSimpleMethodHandlerWithError("Turn", {"pages"}, &book_, &Book::Turn);
    interface->AddSimpleMethodHandlerWithError("Close", {}, &book_, &Book::Close);
  }

  bool Register(DBusObject* object) {
    std::optional<bool> result;
    object->RegisterAsync([&result](bool success) { result = success; });
    EXPECT_TRUE(result.has_value());
    return result.value_or(false);
  }

  RemoteCall Call(const std::string& interface, const std::string& method) {
    return {OwnUniqueName(), kPath, interface, method};
  }
  RemoteCall Turn(int pages) {
    RemoteCall call = Call(kInterface, "Turn");
    call.arguments = Append("i", pages);
    return call;
  }
  std::string ManagedObjects() {
    const RemoteReply reply = CallFromOutside(
        {OwnUniqueName(), kRoot, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"});
    return dbus::Join(reply.arguments);
  }

  Book book_;
  ExportedObjectManager manager_{bus_, dbus::ObjectPath(kRoot)};
  std::unique_ptr<DBusObject> object_ =
      std::make_unique<DBusObject>(&manager_, bus_, dbus::ObjectPath(kPath));
};

TEST_F(DBusObjectTest, ASuccessIsAnEmptyReply) {
  ASSERT_TRUE(Register(object_.get()));
  EXPECT_EQ(CallFromOutside(Turn(3)), RemoteReply());
  EXPECT_EQ(CallFromOutside(Call(kInterface, "Close")), RemoteReply());
  EXPECT_EQ(book_.turned_, 3);
  EXPECT_EQ(book_.closed_, 1);
}

TEST_F(DBusObjectTest, AFailureRepliesWithTheErrorOfTheMethod) {
  ASSERT_TRUE(Register(object_.get()));
  book_.succeeds_ = false;
  book_.code_ = "org.example.Error.Torn";
  EXPECT_EQ(CallFromOutside(Turn(1)), ErrorReply("org.example.Error.Torn", "The page is torn"));
}

TEST_F(DBusObjectTest, AnInvalidErrorNameIsRepliedAsFailed) {
  ASSERT_TRUE(Register(object_.get()));
  book_.succeeds_ = false;
  book_.code_ = "torn page";
  EXPECT_EQ(CallFromOutside(Turn(1)), ErrorReply(kFailed, "The page is torn"));
}

TEST_F(DBusObjectTest, AFailureWithoutAnErrorIsRepliedAsFailed) {
  ASSERT_TRUE(Register(object_.get()));
  book_.succeeds_ = false;
  EXPECT_EQ(CallFromOutside(Turn(1)), ErrorReply(kFailed, "The call failed"));
}

TEST_F(DBusObjectTest, ACallThatWantsNoReplyIsHandledOnceAndGetsNone) {
  ASSERT_TRUE(Register(object_.get()));
  EXPECT_EQ(CallWithoutReplyFromOutside(Turn(2)), 0);
  EXPECT_EQ(book_.turned_, 2);
  book_.succeeds_ = false;
  EXPECT_EQ(CallWithoutReplyFromOutside(Turn(2)), 0);
  EXPECT_EQ(CallWithoutReplyFromOutside(Call(kInterface, "Turn")), 0);
  EXPECT_EQ(book_.turned_, 4);
}

TEST_F(DBusObjectTest, ACallMayOmitTheInterface) {
  ASSERT_TRUE(Register(object_.get()));
  EXPECT_EQ(CallFromOutside(Call("", "Close")), RemoteReply());
  EXPECT_EQ(book_.closed_, 1);
}

TEST_F(DBusObjectTest, OtherMethodsAndInterfacesAreUnknown) {
  ASSERT_TRUE(Register(object_.get()));
  EXPECT_EQ(CallFromOutside(Call(kInterface, "Burn")).error_name,
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(CallFromOutside(Call("org.example.Fire", "Close")).error_name,
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(book_.closed_, 0);
}

TEST_F(DBusObjectTest, AnInterfaceIsCreatedOnce) {
  EXPECT_EQ(object_->AddOrGetInterface(kInterface), object_->AddOrGetInterface(kInterface));
  EXPECT_NE(object_->AddOrGetInterface(kInterface), object_->AddOrGetInterface("org.example.Toy"));
}

TEST_F(DBusObjectTest, TheObjectIsListedWhileItLives) {
  EXPECT_THAT(ManagedObjects(), Not(HasSubstr(kPath)));
  ASSERT_TRUE(Register(object_.get()));
  EXPECT_THAT(ManagedObjects(), HasSubstr(kPath));
  EXPECT_THAT(ManagedObjects(), HasSubstr(kInterface));
  object_.reset();
  EXPECT_THAT(ManagedObjects(), Not(HasSubstr(kPath)));
}

TEST_F(DBusObjectTest, ADestroyedObjectIsNoLongerExported) {
  ASSERT_TRUE(Register(object_.get()));
  object_.reset();
  EXPECT_EQ(CallFromOutside(Turn(1)).error_name, "org.freedesktop.DBus.Error.UnknownObject");
  EXPECT_EQ(book_.turned_, 0);
}

TEST_F(DBusObjectTest, AnObjectNeedsNoObjectManager) {
  DBusObject alone(nullptr, bus_, dbus::ObjectPath("/alone"));
  alone.AddOrGetInterface(kInterface)
      ->AddSimpleMethodHandlerWithError("Close", {}, &book_, &Book::Close);
  ASSERT_TRUE(Register(&alone));
  EXPECT_EQ(CallFromOutside({OwnUniqueName(), "/alone", kInterface, "Close"}), RemoteReply());
}

TEST_F(DBusObjectTest, RegisteringAnInvalidPathFails) {
  DBusObject object(&manager_, bus_, dbus::ObjectPath("no path"));
  EXPECT_FALSE(Register(&object));
}

TEST_F(DBusObjectTest, RegisteringAnInvalidInterfaceNameFailsAndExportsNothing) {
  object_->AddOrGetInterface("nodots");
  EXPECT_FALSE(Register(object_.get()));
  EXPECT_EQ(CallFromOutside(Call(kInterface, "Close")).error_name,
            "org.freedesktop.DBus.Error.UnknownObject");
}

TEST_F(DBusObjectTest, AnObjectCanBeDestroyedAfterTheLossOfTheConnection) {
  ASSERT_TRUE(Register(object_.get()));
  bool lost = false;
  bus_->SetDisconnectedCallback([&lost] { lost = true; });
  private_bus_.Stop();
  ASSERT_TRUE(base::RunUntil([&lost] { return lost; }));
  object_.reset();
}

// Counts the announcements of the object manager that a client receives.
class Watcher : public dbus::ObjectManager::Interface {
 public:
  std::unique_ptr<dbus::PropertySet> CreateProperties(dbus::ObjectProxy* proxy,
                                                      const dbus::ObjectPath&,
                                                      const std::string& name) override {
    return std::make_unique<dbus::PropertySet>(proxy, name, dbus::PropertySet::ChangedCallback());
  }
  void ObjectAdded(const dbus::ObjectPath& path, const std::string&) override {
    seen_.push_back("+" + path.value());
  }
  void ObjectRemoved(const dbus::ObjectPath& path, const std::string&) override {
    seen_.push_back("-" + path.value());
  }

  std::vector<std::string> seen_;
};

TEST_F(DBusObjectTest, RegistrationAndDestructionAreAnnounced) {
  constexpr char kService[] = "org.example.Library";
  ErrorPtr error;
  ASSERT_TRUE(bus_->RequestOwnership(kService, &error)) << error->GetMessage();
  const auto client = dbus::Bus::ConnectToSystemBus(&error);
  ASSERT_TRUE(client) << error->GetMessage();
  Watcher watcher;
  dbus::ObjectManager* const remote = client->GetObjectManager(kService, dbus::ObjectPath(kRoot));
  remote->RegisterInterface(kInterface, &watcher);
  Settle();
  EXPECT_THAT(watcher.seen_, IsEmpty());
  ASSERT_TRUE(Register(object_.get()));
  ASSERT_TRUE(base::RunUntil([&watcher] { return !watcher.seen_.empty(); }));
  object_.reset();
  ASSERT_TRUE(base::RunUntil([&watcher] { return watcher.seen_.size() > 1; }));
  EXPECT_THAT(watcher.seen_, ElementsAre("+/shelf/book", "-/shelf/book"));
  remote->UnregisterInterface(kInterface);
}

}  // namespace
}  // namespace kestle::dbus_utils

#include "kestle/dbus_utils/property.h"

#include <memory>
#include <string>
#include <vector>

#include "dbus/testing/bus_fixture.h"
#include "kestle/dbus_utils/testing/fake_service.h"

namespace kestle::dbus_utils {
namespace {

using ::testing::ElementsAre;

constexpr char kService[] = "org.example.Shop";
constexpr char kShelf[] = "/shop/shelf";
constexpr char kInterface[] = "org.example.Shop.Shelf";

struct ShelfProperties : dbus::PropertySet {
  ShelfProperties(dbus::ObjectProxy* object_proxy, const ChangedCallback& on_changed)
      : PropertySet(object_proxy, kInterface, on_changed) {
    RegisterProperty("Label", &label);
    RegisterProperty("Goods", &goods);
    RegisterProperty("Open", &open);
  }

  Property<std::string> label;
  Property<VariantDictionary> goods;
  Property<bool> open;
};

class PropertyTest : public dbus::BusTest, public dbus::ObjectManager::Interface {
 protected:
  PropertyTest() {
    bus_->GetObjectManager(kService, dbus::ObjectPath("/shop"))
        ->RegisterInterface(kInterface, this);
    shop_.AddObject(kShelf, kInterface,
                    {{"Label", std::string("fruit")},
                     {"Goods", VariantDictionary{{"apples", 3}, {"pears", 4}}},
                     {"Open", true}});
    shop_.AddObjectManager("/shop");
    EXPECT_TRUE(base::RunUntil([this] { return shelf_ != nullptr; }));
  }
  ~PropertyTest() override { bus_.reset(); }

  std::unique_ptr<dbus::PropertySet> CreateProperties(dbus::ObjectProxy* object_proxy,
                                                      const dbus::ObjectPath& /*path*/,
                                                      const std::string& /*name*/) override {
    auto properties = std::make_unique<ShelfProperties>(
        object_proxy, [this](const std::string& name) { changed_.push_back(name); });
    shelf_ = properties.get();
    return properties;
  }
  void ObjectAdded(const dbus::ObjectPath&, const std::string&) override {}
  void ObjectRemoved(const dbus::ObjectPath&, const std::string&) override { shelf_ = nullptr; }

  FakeService shop_{kService};
  ShelfProperties* shelf_ = nullptr;
  std::vector<std::string> changed_;
};

TEST_F(PropertyTest, ValuesHaveTheirTypes) {
  EXPECT_EQ("fruit", shelf_->label.value());
  EXPECT_TRUE(shelf_->open.value());
  EXPECT_EQ(4, shelf_->goods.value().at("pears").GetAsInteger());
  EXPECT_THAT(changed_, ElementsAre());
}

TEST_F(PropertyTest, ValuesFollowChanges) {
  shop_.ChangeProperty(kShelf, kInterface, "Goods", VariantDictionary{{"plums", 5}});
  shop_.ChangeProperty(kShelf, kInterface, "Open", false);
  Settle();
  EXPECT_THAT(changed_, ElementsAre("Goods", "Open"));
  EXPECT_EQ(1u, shelf_->goods.value().size());
  EXPECT_TRUE(shelf_->goods.value().contains("plums"));
  EXPECT_FALSE(shelf_->open.value());
}

TEST_F(PropertyTest, AnInvalidatedValueIsRequested) {
  shop_.InvalidateProperty(kShelf, kInterface, "Label", std::string("vegetables"));
  ASSERT_TRUE(base::RunUntil([this] { return !changed_.empty(); }));
  EXPECT_THAT(changed_, ElementsAre("Label"));
  EXPECT_EQ("vegetables", shelf_->label.value());
}

TEST_F(PropertyTest, AValueOfAnotherTypeKeepsTheOldOne) {
  shop_.ChangeProperty(kShelf, kInterface, "Label", 7);
  shop_.ChangeProperty(kShelf, kInterface, "Goods", std::string("none"));
  shop_.ChangeProperty(kShelf, kInterface, "Open", 0);
  Settle();
  EXPECT_THAT(changed_, ElementsAre());
  EXPECT_EQ("fruit", shelf_->label.value());
  EXPECT_EQ(2u, shelf_->goods.value().size());
  EXPECT_TRUE(shelf_->open.value());
}

}  // namespace
}  // namespace kestle::dbus_utils

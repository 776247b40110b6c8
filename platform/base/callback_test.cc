#include "base/callback.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace base {
namespace {

struct Receiver {
  void Take(const std::string& bound, int given) { last = bound + std::to_string(given); }
  int Add(int given) { return given + 1; }
  void TakeOwned(std::unique_ptr<int> owned) { last = std::to_string(*owned); }
  std::string last;
  WeakPtrFactory<Receiver> weak{this};
};

TEST(Callback, IsNullUntilItGetsAFunction) {
  Callback<void()> callback;
  EXPECT_TRUE(callback.is_null());
  callback = [] {};
  EXPECT_FALSE(callback.is_null());
  callback.Reset();
  EXPECT_TRUE(callback.is_null());
}

TEST(Bind, PassesBoundArgumentsBeforeCallArguments) {
  Receiver receiver;
  const Callback<void(int)> callback =
      Bind(&Receiver::Take, Unretained(&receiver), std::string("bound "));
  callback.Run(7);
  EXPECT_EQ(receiver.last, "bound 7");
}

TEST(Bind, ReturnsTheResult) {
  Receiver receiver;
  const Callback<int(int)> callback = Bind(&Receiver::Add, Unretained(&receiver));
  EXPECT_EQ(callback.Run(1), 2);
}

TEST(Bind, PassesOwnership) {
  Receiver receiver;
  const Callback<void(std::unique_ptr<int>)> callback =
      Bind(&Receiver::TakeOwned, Unretained(&receiver));
  callback.Run(std::make_unique<int>(5));
  EXPECT_EQ(receiver.last, "5");
}

TEST(Bind, WeakCallAfterTheReceiverIsDestroyedDoesNothing) {
  auto receiver = std::make_unique<Receiver>();
  const Callback<void(int)> callback =
      Bind(&Receiver::Take, receiver->weak.GetWeakPtr(), std::string("bound "));
  callback.Run(1);
  EXPECT_EQ(receiver->last, "bound 1");
  receiver.reset();
  callback.Run(2);
}

TEST(WeakPtr, IsNullAfterItsObjectIsDestroyed) {
  auto receiver = std::make_unique<Receiver>();
  const WeakPtr<Receiver> pointer = receiver->weak.GetWeakPtr();
  EXPECT_EQ(pointer.get(), receiver.get());
  receiver.reset();
  EXPECT_EQ(pointer.get(), nullptr);
}

}  // namespace
}  // namespace base

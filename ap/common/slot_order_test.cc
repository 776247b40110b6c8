// Substitutes for these classes rely on the order of their virtual operations.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "ap/common/cloud_device.h"
#include "ap/common/oauth2_manager.h"
#include "ap/common/system_clock_client.h"

namespace varelnos::ap {
namespace {

// The two destructors of the Itanium C++ ABI come first.
constexpr uintptr_t kFirstSlot = 2;
constexpr uintptr_t kNotVirtual = UINTPTR_MAX;

// A pointer to a virtual member function is its offset in the table, marked by a bit that depends
// on the processor.
template <typename Operation>
uintptr_t SlotOf(Operation operation) {
  struct {
    uintptr_t pointer;
    uintptr_t adjustment;
  } parts{};
  static_assert(sizeof(parts) == sizeof(operation));
  memcpy(&parts, &operation, sizeof(parts));
#if defined(__arm__) || defined(__aarch64__)
  if ((parts.adjustment & 1) == 0) return kNotVirtual;
  return parts.pointer / sizeof(void*);
#else
  if ((parts.pointer & 1) == 0) return kNotVirtual;
  return (parts.pointer - 1) / sizeof(void*);
#endif
}

struct Plain {
  void Operation() {}
};

TEST(SlotOrder, DetectsANonVirtualOperation) {
  Plain().Operation();
  EXPECT_EQ(SlotOf(&Plain::Operation), kNotVirtual);
}

TEST(SlotOrder, OfTheCloudDevice) {
  EXPECT_TRUE(std::has_virtual_destructor_v<CloudDevice>);
  EXPECT_EQ(SlotOf(&CloudDevice::RegisterDevice), kFirstSlot);
  EXPECT_EQ(SlotOf(&CloudDevice::SetName), kFirstSlot + 1);
  EXPECT_EQ(SlotOf(&CloudDevice::CheckDeviceRegistered), kFirstSlot + 2);
  EXPECT_EQ(SlotOf(&CloudDevice::GetModelId), kFirstSlot + 3);
}

TEST(SlotOrder, OfTheOAuth2Manager) {
  EXPECT_TRUE(std::has_virtual_destructor_v<OAuth2Manager>);
  EXPECT_EQ(SlotOf(&OAuth2Manager::HasRefreshToken), kFirstSlot);
  EXPECT_EQ(SlotOf(&OAuth2Manager::ExchangeAuthorizationCode), kFirstSlot + 1);
  EXPECT_EQ(SlotOf(&OAuth2Manager::GetAccessToken), kFirstSlot + 2);
  EXPECT_EQ(SlotOf(&OAuth2Manager::ValidateResponse), kFirstSlot + 3);
}

TEST(SlotOrder, OfTheSystemClockClient) {
  EXPECT_TRUE(std::has_virtual_destructor_v<SystemClockClient>);
  EXPECT_EQ(SlotOf(&SystemClockClient::GetLastSyncInfo), kFirstSlot);
  EXPECT_EQ(SlotOf(&SystemClockClient::HasNetworkTime), kFirstSlot + 1);
  EXPECT_EQ(SlotOf(&SystemClockClient::WaitForNetworkTime), kFirstSlot + 2);
}

}  // namespace
}  // namespace varelnos::ap

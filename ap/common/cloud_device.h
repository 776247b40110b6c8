// The device as its cloud registration knows it: a narrow view of the `Manager` object of `Larder`.
//
// Runs on the message loop; a call to `Larder` blocks it until the answer or the bus's time-out.
// While `Larder` is not on the bus, every operation fails with "ap" / "service_unavailable". All
// operations are virtual, so that a substitute can stand in.
#pragma once

#include <string>

#include "bindings/larder_proxies.h"
#include "kestle/error.h"

namespace varelnos::ap {

class CloudDevice {
 public:
  // `object_manager` is not owned and outlives this object.
  explicit CloudDevice(org::quintara::Larder::ObjectManagerProxy* object_manager)
      : object_manager_(object_manager) {}
  virtual ~CloudDevice() = default;
  CloudDevice(const CloudDevice&) = delete;
  CloudDevice& operator=(const CloudDevice&) = delete;

  // Each returns false on failure and adds what went wrong to `error`, which may be null.

  // Registers the device with the cloud by a registration ticket.
  [[nodiscard]] virtual bool RegisterDevice(const std::string& ticket_id, std::string* device_id,
                                            kestle::ErrorPtr* error);
  // Renames the device; its description and location stay as they are.
  [[nodiscard]] virtual bool SetName(const std::string& name, kestle::ErrorPtr* error);
  // Stores the id that the cloud knows the device by; empty when it is not registered.
  [[nodiscard]] virtual bool CheckDeviceRegistered(std::string* device_id, kestle::ErrorPtr* error);
  // Stores the model id as it was last announced; empty before the first time. No call is made.
  [[nodiscard]] virtual bool GetModelId(std::string* model_id, kestle::ErrorPtr* error);

 private:
  org::quintara::Larder::ManagerProxyInterface* GetManagerProxy(kestle::ErrorPtr* error) const;

  org::quintara::Larder::ObjectManagerProxy* const object_manager_;
};

}  // namespace varelnos::ap

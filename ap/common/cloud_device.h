// The device's cloud registration: the part of `Larder`'s `Manager` object that the daemon needs.
//
// Runs on the message loop; a call to `Larder` blocks it until the reply or the default
// timeout of D-Bus calls.
// While `Larder` is not on the bus, every operation fails with "ap" / "service_unavailable". All
// operations are virtual, so that a test can replace the object.
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

  // On failure each returns false and adds an entry to `error`, which may be null.

  // Registers the device with the cloud, using a registration ticket.
  [[nodiscard]] virtual bool RegisterDevice(const std::string& ticket_id, std::string* device_id,
                                            kestle::ErrorPtr* error);
  // Renames the device; its description and location stay the same.
  [[nodiscard]] virtual bool SetName(const std::string& name, kestle::ErrorPtr* error);
  // Sets `device_id` to the cloud's id of the device; empty if it is not registered.
  [[nodiscard]] virtual bool CheckDeviceRegistered(std::string* device_id, kestle::ErrorPtr* error);
  // Sets `model_id` to the last announced model id, without a call; empty before the first one.
  [[nodiscard]] virtual bool GetModelId(std::string* model_id, kestle::ErrorPtr* error);

 private:
  org::quintara::Larder::ManagerProxyInterface* GetManagerProxy(kestle::ErrorPtr* error) const;

  org::quintara::Larder::ObjectManagerProxy* const object_manager_;
};

}  // namespace varelnos::ap

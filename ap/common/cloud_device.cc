#include "ap/common/cloud_device.h"

#include "ap/common/errors.h"

namespace varelnos::ap {

using org::quintara::Larder::ManagerProxyInterface;

ManagerProxyInterface* CloudDevice::GetManagerProxy(kestle::ErrorPtr* error) const {
  const auto& managers = object_manager_->GetManagerProxies();
  if (!managers.empty() && managers.begin()->second) return managers.begin()->second.get();
  kestle::Error::AddTo(error, errors::kDomain, errors::kServiceUnavailable,
                       "Larder is not available");
  return nullptr;
}

bool CloudDevice::RegisterDevice(const std::string& ticket_id, std::string* device_id,
                                 kestle::ErrorPtr* error) {
  ManagerProxyInterface* const manager = GetManagerProxy(error);
  return manager && manager->RegisterDevice(ticket_id, device_id, error);
}

bool CloudDevice::SetName(const std::string& name, kestle::ErrorPtr* error) {
  ManagerProxyInterface* const manager = GetManagerProxy(error);
  return manager &&
         manager->UpdateDeviceInfo(name, manager->Description(), manager->Location(), error);
}

bool CloudDevice::CheckDeviceRegistered(std::string* device_id, kestle::ErrorPtr* error) {
  ManagerProxyInterface* const manager = GetManagerProxy(error);
  return manager && manager->CheckDeviceRegistered(device_id, error);
}

bool CloudDevice::GetModelId(std::string* model_id, kestle::ErrorPtr* error) {
  const ManagerProxyInterface* const manager = GetManagerProxy(error);
  if (!manager) return false;
  *model_id = manager->ModelId();
  return true;
}

}  // namespace varelnos::ap

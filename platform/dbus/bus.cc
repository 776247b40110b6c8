#include "dbus/bus.h"

#include <systemd/sd-event.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/message_loop.h"
#include "dbus/message.h"

namespace dbus {

namespace {
// The sender of the signals that sd-bus itself generates.
constexpr char kLocalService[] = "org.freedesktop.DBus.Local";
constexpr char kLocalPath[] = "/org/freedesktop/DBus/Local";
constexpr char kStandardAddress[] = "unix:path=/run/dbus/system_bus_socket";

// `result` is a negative errno, as sd-bus returns it.
void AddErrno(int result, base::ErrorPtr* error) {
  base::Error::AddTo(error, "errno", std::to_string(-result), strerror(-result));
}

// A signal ends the waits of sd-bus.
template <typename Call>
int DespiteSignals(const Call& call) {
  int result = call();
  while (result == -EINTR) result = call();
  return result;
}

int Configure(sd_bus* connection) {
  // `Bus` reports a lost connection; the loop continues.
  sd_bus_set_exit_on_disconnect(connection, 0);
  sd_bus_set_close_on_exit(connection, 0);
  // A blocking call queues what arrives meanwhile, and the connection breaks once the descriptors
  // in it exhaust the process's limit. So the bus must not forward descriptors.
  sd_bus_negotiate_fds(connection, 0);
  sd_bus_set_bus_client(connection, 1);
  const char* const address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
  return sd_bus_set_address(connection, address ? address : kStandardAddress);
}

// Waits until the bus has authenticated us.
int Open(sd_bus* connection) {
  int result = Configure(connection);
  if (result >= 0) result = sd_bus_start(connection);
  const char* unique_name = nullptr;
  if (result < 0) return result;
  return DespiteSignals([&] { return sd_bus_get_unique_name(connection, &unique_name); });
}

// An authenticated connection, attached to the current loop.
Connection Connect(base::ErrorPtr* error) {
  sd_bus* raw = nullptr;
  int result = sd_bus_new(&raw);
  Connection connection(raw);
  if (result >= 0) result = Open(raw);
  if (result >= 0)
    result =
        sd_bus_attach_event(raw, base::MessageLoop::Current()->event(), SD_EVENT_PRIORITY_NORMAL);
  if (result >= 0) return connection;
  AddErrno(result, error);
  return nullptr;
}

}  // namespace

void ConnectionDeleter::operator()(sd_bus* connection) const {
  sd_bus_detach_event(connection);
  DespiteSignals([connection] { return sd_bus_flush(connection); });
  sd_bus_close_unref(connection);
}

scoped_refptr<Bus> Bus::ConnectToSystemBus(base::ErrorPtr* error) {
  Connection connection = Connect(error);
  if (!connection) return nullptr;
  // sd-bus checks timeouts before it reads: after a long blocking call elsewhere a reply that has
  // arrived would count as late, and a late AddMatch ends the connection. So sd-bus's own calls of
  // the bus, which always replies, have no timeout; `ObjectProxy` sets its own.
  sd_bus_set_method_call_timeout(connection.get(), UINT64_MAX);
  return scoped_refptr<Bus>(new Bus(std::move(connection)));
}

Bus::Bus(Connection connection) : connection_(std::move(connection)) {
  end_matches_.push_back(WatchEnd(connection_.get()));
}

bool Bus::SeparateService(base::ErrorPtr* error) {
  service_connection_ = Connect(error);
  if (!service_connection_) return false;
  end_matches_.push_back(WatchEnd(service_connection_.get()));
  return true;
}

Slot Bus::WatchEnd(sd_bus* connection) {
  sd_bus_slot* slot = nullptr;
  sd_bus_match_signal(connection, &slot, kLocalService, kLocalPath, kLocalService, "Disconnected",
                      &Bus::OnDisconnected, this);
  return Slot(slot);
}

Bus::~Bus() {
  // Managers use proxies, and both use the connection.
  object_managers_.clear();
  object_proxies_.clear();
}

bool Bus::RequestOwnership(const std::string& service_name, base::ErrorPtr* error) const {
  const int result = sd_bus_request_name(service_connection(), service_name.c_str(), /*flags=*/0);
  if (result >= 0 || result == -EALREADY) return true;
  AddErrno(result, error);
  if (result == -EEXIST)
    base::Error::AddTo(error, "dbus", "org.freedesktop.DBus.Error.Failed",
                       "The name " + service_name + " has another owner");
  return false;
}

bool Bus::IsConnected() const {
  return sd_bus_is_open(connection_.get()) > 0 && sd_bus_is_open(service_connection()) > 0;
}

bool Bus::HasUnsentMessages() const {
  uint64_t count = 0;
  return sd_bus_get_n_queued_write(connection_.get(), &count) >= 0 && count > 0;
}

void Bus::SetDisconnectedCallback(const base::Callback<void()>& callback) {
  disconnected_callback_ = callback;
}

ObjectProxy* Bus::GetObjectProxy(const std::string& service_name, const ObjectPath& path) {
  std::unique_ptr<ObjectProxy>& proxy = object_proxies_[{service_name, path}];
  if (!proxy) proxy = std::make_unique<ObjectProxy>(connection(), service_name, path);
  return proxy.get();
}

ObjectManager* Bus::GetObjectManager(const std::string& service_name, const ObjectPath& path) {
  std::unique_ptr<ObjectManager>& manager = object_managers_[{service_name, path}];
  if (!manager) manager = std::make_unique<ObjectManager>(connection(), service_name, path);
  return manager.get();
}

int Bus::OnDisconnected(sd_bus_message* message, void* bus, sd_bus_error* /*error*/) {
  const char* const sender = sd_bus_message_get_sender(message);
  if (!sender || strcmp(sender, kLocalService) != 0) return 0;
  const base::Callback<void()> callback =
      std::exchange(static_cast<Bus*>(bus)->disconnected_callback_, {});
  if (!callback.is_null()) callback.Run();
  return 0;
}

}  // namespace dbus

// Client of the tlsdate daemon: whether the system clock has been set from the network.
//
// Runs on the message loop. `HasNetworkTime` makes a blocking D-Bus call until it is first true,
// and stays true without a call from then on. All operations are virtual, so that a test can
// replace the object.
#pragma once

#include <string>

#include "base/callback.h"
#include "base/ref_counted.h"
#include "base/time.h"
#include "base/weak_ptr.h"
#include "dbus/bus.h"
#include "dbus/object_proxy.h"

namespace varelnos::ap {

class SystemClockClient {
 public:
  explicit SystemClockClient(scoped_refptr<dbus::Bus> bus);
  virtual ~SystemClockClient() = default;
  SystemClockClient(const SystemClockClient&) = delete;
  SystemClockClient& operator=(const SystemClockClient&) = delete;

  // Asks tlsdate how the clock was last set: whether it is synced, from which source, and when. On
  // failure returns false and leaves the outputs unchanged.
  [[nodiscard]] virtual bool GetLastSyncInfo(bool* synced, std::string* source,
                                             base::Time* sync_time);

  virtual bool HasNetworkTime();

  // Runs `callback` once, as soon as the clock is set from the network. One wait at a time; a
  // second one is a fatal check.
  virtual void WaitForNetworkTime(const base::Callback<void()>& callback);

  // What is known so far, without a call.
  [[nodiscard]] bool network_time_acquired() const { return network_time_acquired_; }
  // `callback` runs when network time is acquired.
  void SetChangedCallback(const base::Callback<void()>& callback) { changed_callback_ = callback; }

 protected:
  // For fakes: no bus, no tlsdate.
  SystemClockClient() : weak_ptr_factory_(this) {}

 private:
  void OnSignalConnected(const std::string& interface, const std::string& signal, bool success);
  void OnTimeUpdated(const std::string& source);
  void FinishWait();
  void NoteNetworkTime();

  scoped_refptr<dbus::Bus> bus_;
  bool network_time_acquired_ = false;
  dbus::ObjectProxy* object_proxy_ = nullptr;  // Owned by the bus.
  base::Callback<void()> network_time_callback_;
  base::Callback<void()> changed_callback_;
  base::WeakPtrFactory<SystemClockClient> weak_ptr_factory_;
};

}  // namespace varelnos::ap

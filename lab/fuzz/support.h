// Shared by the targets: silent logs, a fake clock and file system, and an uploader among fakes.
//
// One thread. A target reports a fault by a failed check, which ends its process.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ap/common/testing/fakes.h"
#include "ap/pelmor/uploader.h"
#include "base/testing/fake_clock.h"
#include "base/testing/scoped_root.h"
#include "kestle/http/testing/scripted_transport.h"
#include "metrics/metrics_library.h"

namespace fuzz {

inline constexpr base::Time kNow = base::Time::FromTimeT(1700000000);

// Created once, before the first input. Log lines are formatted and discarded, and misuse of a fake
// ends the process.
class Quiet {
 public:
  Quiet();
};

// Up to `max_size` arbitrary bytes.
std::string AnyText(FuzzedDataProvider* input, size_t max_size = 64);
// Valid UTF-8 without a zero byte, as the bus requires.
std::string BusText(FuzzedDataProvider* input, size_t max_size = 64);

// The files of a device that is configured but not provisioned. Created once, because that takes
// longer than most inputs; `Fresh` removes the files that a target may have created.
class DeviceFiles {
 public:
  static const DeviceFiles& Fresh();
  [[nodiscard]] const base::ScopedRoot& root() const { return root_; }

 private:
  DeviceFiles();
  base::ScopedRoot root_;
};

class SilentMetrics : public MetricsLibrary {
 public:
  bool SendSparse(const std::string&, int) override { return true; }
};

// An uploader that may upload, among fakes.
class UploaderRig {
 public:
  UploaderRig();

  // Replaces the uploader, as a restart of the daemon does. The files are kept.
  void Restart();
  varelnos::ap::Uploader* uploader() { return uploader_.get(); }
  kestle::http::ScriptedTransport* transport() { return transport_.get(); }
  // Removes and returns the points recorded since the last call, ordered by name.
  std::vector<varelnos::ap::MetricPoint> TakePoints();
  // Runs an upload cycle in which every request is accepted. Returns the bodies in order.
  std::vector<std::string> UploadedBodies();

 private:
  base::FakeClock clock_{kNow};
  varelnos::ap::Journal journal_;
  varelnos::ap::FakeCloudDevice device_{&journal_};
  varelnos::ap::FakeOAuth2Manager oauth2_{&journal_};
  varelnos::ap::FakeSystemClockClient clock_client_{&journal_};
  SilentMetrics metrics_;
  std::shared_ptr<kestle::http::ScriptedTransport> transport_;
  std::unique_ptr<varelnos::ap::Uploader> uploader_;
};

}  // namespace fuzz

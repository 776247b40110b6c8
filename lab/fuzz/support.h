// What the targets stand on: quiet logs, a clock that stands still, a file system and neighbours of
// their own.
//
// One thread. Whatever a target finds wrong ends its process by a failed check.
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

// Made once, before the first input: log lines are made and thrown away, and a fake that is misused
// ends the process.
class Quiet {
 public:
  Quiet();
};

// Text of up to `max_size` bytes, any bytes at all.
std::string AnyText(FuzzedDataProvider* input, size_t max_size = 64);
// A text from bytes that is valid UTF-8 without a zero byte, as the bus lets through.
std::string BusText(FuzzedDataProvider* input, size_t max_size = 64);

// The files of a device that is configured but not provisioned. Made once, since that takes longer
// than most inputs; what a target may change in them is as new each time.
class DeviceFiles {
 public:
  static const DeviceFiles& Fresh();
  const base::ScopedRoot& root() const { return root_; }

 private:
  DeviceFiles();
  base::ScopedRoot root_;
};

class SilentMetrics : public MetricsLibrary {
 public:
  bool SendSparse(const std::string&, int) override { return true; }
};

// An uploader that may upload, with everything around it faked.
class UploaderRig {
 public:
  UploaderRig();

  // A new uploader over the files as they are, as after a restart of the daemon.
  void Restart();
  varelnos::ap::Uploader* uploader() { return uploader_.get(); }
  kestle::http::ScriptedTransport* transport() { return transport_.get(); }
  // Takes the points recorded since the last time, by name.
  std::vector<varelnos::ap::MetricPoint> TakePoints();
  // Runs a cycle, in which everything is accepted; the bodies of its requests, in the order of the
  // posting.
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

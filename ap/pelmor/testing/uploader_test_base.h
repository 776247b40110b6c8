// An uploader with fake collaborators, ready to upload at Unix time 1700000000.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ap/common/testing/fakes.h"
#include "ap/pelmor/uploader.h"
#include "base/testing/fake_clock.h"
#include "base/testing/log_capture.h"
#include "base/testing/scoped_root.h"
#include "kestle/http/testing/scripted_transport.h"
#include "metrics/metrics_library.h"

namespace varelnos::ap {

inline constexpr base::Time kNow = base::Time::FromTimeT(1700000000);

// Records samples in the journal.
class JournalingMetrics : public MetricsLibrary {
 public:
  explicit JournalingMetrics(Journal* journal) : journal_(journal) {}
  bool SendSparse(const std::string& name, int sample) override {
    journal_->push_back("sample " + name + " " + std::to_string(sample));
    return true;
  }

 private:
  Journal* const journal_;
};

// Records requests in the journal.
class JournalingTransport : public kestle::http::ScriptedTransport {
 public:
  explicit JournalingTransport(Journal* journal) : journal_(journal) {}
  kestle::http::RequestID Send(kestle::http::Request request,
                               const kestle::http::SuccessCallback& success,
                               const kestle::http::ErrorCallback& error) override {
    journal_->push_back("post " + request.url);
    return ScriptedTransport::Send(std::move(request), success, error);
  }

 private:
  Journal* const journal_;
};

// Gives tests access to private functions.
class UploaderPeer {
 public:
  static void RecordLog(Uploader* uploader, LogKind kind, const std::string& type_url,
                        const std::string& data) {
    uploader->RecordLog(kind, type_url, data);
  }
};

class UploaderTest : public testing::Test {
 protected:
  UploaderTest() {
    root_.MakeFolder("/tmp/ap/pelmor");
    root_.Put("/etc/lsb-release",
              "VARELNOS_RELEASE_VERSION=9000.1.0\nVARELNOS_RELEASE_BOARD=board-a\n");
    device_.Register("dev");
    oauth2_.HoldToken("token");
    clock_client_.AcquireNetworkTime();
    Restart();
  }

  // A new uploader, as after a restart of the daemon.
  void Restart() { RestartWith("https://service/v1"); }
  void RestartWith(const std::string& url) {
    uploader_.reset();
    transport_ = std::make_shared<JournalingTransport>(&journal_);
    uploader_ =
        std::make_unique<Uploader>(&device_, &oauth2_, &metrics_, &clock_client_, url, transport_);
    journal_.clear();
  }

  void Record(const std::string& name, const kestle::Any& value = 1) {
    uploader_->RecordMetric(name, {}, value);
  }
  // Points named "p", valued `first` to `last`.
  void RecordNumbered(int first, int last) {
    for (int value = first; value <= last; ++value) Record("p", value);
  }
  // Runs a cycle and returns the body of its metrics request; empty if there is none.
  std::string UploadedBody() {
    const size_t before = transport_->requests().size();
    uploader_->Upload();
    return transport_->requests().size() == before ? "" : transport_->requests().back().body;
  }

  Journal journal_;
  base::ScopedRoot root_;
  base::FakeClock clock_{kNow};
  base::LogCapture log_;
  FakeCloudDevice device_{&journal_};
  FakeOAuth2Manager oauth2_{&journal_};
  FakeSystemClockClient clock_client_{&journal_};
  JournalingMetrics metrics_{&journal_};
  std::shared_ptr<JournalingTransport> transport_;
  std::unique_ptr<Uploader> uploader_;
};

// The values of the "p" points of a body: "1 2 3".
std::string NumbersIn(const std::string& body);

}  // namespace varelnos::ap

// our_post URL FILE COUNT: posts the file COUNT times with the daemon's transport, one request at a
// time, and prints the CPU microseconds of one. The first, which connects, is not measured.
#include <memory>
#include <string>
#include <utility>

#include "base/message_loop.h"
#include "check.h"
#include "kestle/http/transport.h"
#include "process/cpu_time.h"

namespace {

void Post(kestle::http::Transport* transport, kestle::http::Request request) {
  bool done = false;
  transport->Send(
      std::move(request),
      [&](kestle::http::RequestID, std::unique_ptr<kestle::http::Response> response) {
        if (!response->IsSuccessful()) bench::Fail("post", "not accepted");
        done = true;
      },
      [](kestle::http::RequestID, const kestle::Error* error) {
        bench::Fail("post", error->GetMessage().c_str());
      });
  while (!done) base::MessageLoop::Current()->RunOnce(base::TimeDelta::FromSeconds(1));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) bench::Fail("usage", "our_post URL FILE COUNT");
  const kestle::http::Request request{
      argv[1],
      {{"Authorization", "Bearer access-1"}, {"Content-Type", "application/json"}},
      bench::ReadFile(argv[2])};
  base::MessageLoop loop;
  const std::shared_ptr<kestle::http::Transport> transport =
      kestle::http::Transport::CreateDefault();
  transport->SetDefaultTimeout(base::TimeDelta::FromSeconds(10));
  // Sending consumes a request, so each is a copy.
  bench::PrintCpuOfOne(
      atol(argv[3]), [&] { return kestle::http::Request(request); },
      [&](kestle::http::Request fresh) { Post(transport.get(), std::move(fresh)); });
}

// our_post URL FILE COUNT: posts the file as often over the daemon's transport, one request after
// the other, and tells the CPU time of one in microseconds. The first, which connects, is not
// counted.
#include <fstream>
#include <iterator>
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
  std::ifstream file(argv[2], std::ios::binary);
  const kestle::http::Request request{
      argv[1],
      {{"Authorization", "Bearer access-1"}, {"Content-Type", "application/json"}},
      std::string(std::istreambuf_iterator<char>(file), {})};
  base::MessageLoop loop;
  const std::shared_ptr<kestle::http::Transport> transport =
      kestle::http::Transport::CreateDefault();
  transport->SetDefaultTimeout(base::TimeDelta::FromSeconds(10));
  // A request is given away; the daemon's comes fresh from the writer of its text.
  bench::TellCpuOfOne(
      atol(argv[3]), [&] { return kestle::http::Request(request); },
      [&](kestle::http::Request fresh) { Post(transport.get(), std::move(fresh)); });
}

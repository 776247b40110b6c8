// Posts "{}" to each URL given, one after the other, through the real transport, and prints a line
// for each: "<status> <body>", or "error <code> <message>". An argument "!<command>" is a shell
// command, which is run in its place. The TLS tests run it in a sandbox with their own CAs.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/message_loop.h"
#include "kestle/http/transport.h"

namespace {

using kestle::Error;
using kestle::http::RequestID;
using kestle::http::Response;

void Probe(const char* url, kestle::http::Transport* transport, base::MessageLoop* loop) {
  bool done = false;
  transport->Send(
      {url, {{"Authorization", "Bearer secret"}}, "{}"},
      [&](RequestID, std::unique_ptr<Response> response) {
        printf("%d %s\n", response->GetStatusCode(), response->ExtractDataAsString().c_str());
        done = true;
      },
      [&](RequestID, const Error* error) {
        printf("error %s %s\n", error->GetCode().c_str(), error->GetMessage().c_str());
        done = true;
      });
  while (!done) loop->RunOnce(base::TimeDelta::FromSeconds(1));
}

}  // namespace

int main(int argc, char** argv) {
  base::MessageLoop loop;
  const auto transport = kestle::http::Transport::CreateDefault();
  transport->SetDefaultTimeout(base::TimeDelta::FromSeconds(20));
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '!')
      Probe(argv[i], transport.get(), &loop);
    else if (system(argv[i] + 1) != 0)
      printf("failed: %s\n", argv[i]);
  }
  // As in a daemon, the transport and its connections are destroyed after the loop has ended.
  loop.Quit(0);
  return loop.Run();
}

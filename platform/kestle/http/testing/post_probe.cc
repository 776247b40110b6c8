// Posts "{}" to each URL given, one after the other, through the real transport, and prints a line
// for each: "<status> <body>", or "error <code> <message>". An argument "!<command>" is a shell
// command, which is run in its place; "timeout=<milliseconds>" is for the URLs after it. The TLS
// tests run it in a sandbox with their own CAs.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "base/message_loop.h"
#include "kestle/http/transport.h"

namespace {

using kestle::Error;
using kestle::http::RequestID;
using kestle::http::Response;

constexpr std::string_view kTimeout = "timeout=";

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

// Other than a URL. Returns false if the command fails.
bool Take(const char* step, kestle::http::Transport* transport) {
  if (step[0] == '!') return system(step + 1) == 0;
  transport->SetDefaultTimeout(base::TimeDelta::FromMilliseconds(atoi(step + kTimeout.size())));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  base::MessageLoop loop;
  const auto transport = kestle::http::Transport::CreateDefault();
  transport->SetDefaultTimeout(base::TimeDelta::FromSeconds(20));
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '!' && !std::string_view(argv[i]).starts_with(kTimeout))
      Probe(argv[i], transport.get(), &loop);
    else if (!Take(argv[i], transport.get()))
      printf("failed: %s\n", argv[i]);
  }
  // As in a daemon, the transport and its connections are destroyed after the loop has ended.
  loop.Quit(0);
  return loop.Run();
}

// Feeds the transport the bytes of an HTTP server: each of two requests ends exactly once, with a
// status and a body within the limit, or with an error that has a message.
//
// The first byte of the input is the length of the first response, in 256ths of the rest; the
// remaining bytes are the second. The network is a pair of sockets in the process.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "base/logging.h"
#include "base/message_loop.h"
#include "kestle/http/curl_transfer.h"
#include "kestle/http/post.h"
#include "kestle/http/transport.h"
#include "lab/fuzz/dbus_input.h"
#include "lab/fuzz/support.h"

namespace {

// The server's end of the latest connection.
int g_server = -1;
std::string g_answer;

void HangUp() {
  if (g_server >= 0) close(g_server);
  g_server = -1;
}

// Sends the response, if there is a connection.
void SendAnswer() {
  if (g_server < 0) return;
  fuzz::ReadAvailable(g_server);
  if (!g_answer.empty()) send(g_server, g_answer.data(), g_answer.size(), MSG_NOSIGNAL);
  g_answer.clear();
}

void CheckResponse(kestle::http::Response* response) {
  CHECK(response->GetStatusCode() >= 100 && response->GetStatusCode() <= 999);
  kestle::http::Response copy = *response;
  CHECK(response->ExtractDataAsString().size() <= kestle::http::kMaxResponseBodyBytes);
  int status = 0;
  kestle::ErrorPtr error;
  const auto fields = kestle::http::ParseJsonResponse(&copy, &status, &error);
  CHECK(status == response->GetStatusCode() && (fields != nullptr) == (error == nullptr));
}

// Runs the loop until the request has ended. Halfway through the iterations, the server hangs up.
void Exchange(kestle::http::Transport* transport, const std::string& answer) {
  constexpr int kIterations = 40;
  int ends = 0;
  g_answer = answer;
  transport->Send(
      {"http://127.0.0.1:1/", {}, "{}"},
      [&](kestle::http::RequestID, std::unique_ptr<kestle::http::Response> response) {
        ++ends;
        CheckResponse(response.get());
      },
      [&](kestle::http::RequestID, const kestle::Error* error) {
        ++ends;
        CHECK(error->GetDomain() == "http" && !error->GetMessage().empty());
      });
  for (int done = 0; done < 2 * kIterations && ends == 0; ++done) {
    SendAnswer();
    if (done == kIterations) HangUp();
    base::MessageLoop::Current()->RunOnce(base::TimeDelta());
  }
  CHECK(ends == 1);
}

}  // namespace

// These replace the functions of the system: every connection is to the server above.
extern "C" int socket(int, int, int) {
  HangUp();
  int ends[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
  g_server = ends[1];
  return ends[0];
}

extern "C" int connect(int, const sockaddr*, socklen_t) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Quiet quiet;
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t first = bytes.size() * data[0] / 256;
  base::MessageLoop loop;
  const auto transport = kestle::http::Transport::CreateDefault();
  Exchange(transport.get(), bytes.substr(0, first));
  Exchange(transport.get(), bytes.substr(first));
  HangUp();
  return 0;
}

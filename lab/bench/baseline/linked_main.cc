// baseline_linked NAME [URL]: runs the no-op service in a process that uses the daemon's libraries:
// libcurl and a JSON value. With a URL it posts once and keeps the TLS connection, as the daemon
// does once it has its access token.
#include <curl/curl.h>

#include <nlohmann/json.hpp>
#include <string>

#include "baseline/noop_service.h"
#include "check.h"

namespace {

size_t Ignore(char* /*data*/, size_t unit, size_t size, void* /*user*/) { return unit * size; }

void Post(CURLM* multi, CURL* easy, const char* url, const std::string& body) {
  curl_easy_setopt(easy, CURLOPT_URL, url);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Ignore);
  curl_multi_add_handle(multi, easy);
  constexpr int kPollMilliseconds = 1000;
  int running = 1;
  while (running > 0) {
    if (curl_multi_perform(multi, &running) != CURLM_OK) bench::Fail("post", "libcurl failed");
    if (running > 0) curl_multi_poll(multi, nullptr, 0, kPollMilliseconds, nullptr);
  }
  int left = 0;
  const CURLMsg* const message = curl_multi_info_read(multi, &left);
  if (!message || message->data.result != CURLE_OK)
    bench::Fail("post", message ? curl_easy_strerror(message->data.result) : "no result");
  curl_multi_remove_handle(multi, easy);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) bench::Fail("usage", "baseline_linked NAME [URL]");
  bench::NoopService service;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* const multi = curl_multi_init();
  CURL* const easy = curl_easy_init();
  const nlohmann::json value = {{"grant_type", "refresh_token"}};
  service.TakeName(argv[1]);
  if (argc == 3) Post(multi, easy, argv[2], value.dump());
  // The daemon frees its handle after each request; the multi handle keeps the connection.
  curl_easy_cleanup(easy);
  service.Run();
  curl_multi_cleanup(multi);
  curl_global_cleanup();
}

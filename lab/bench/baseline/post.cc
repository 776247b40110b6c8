// baseline_post URL FILE COUNT CA_FILE: posts the file COUNT times with libcurl alone, on one
// handle, and prints the CPU microseconds of one post. The first, which connects, is not measured.
#include <curl/curl.h>

#include <string>

#include "check.h"
#include "process/cpu_time.h"

namespace {

size_t Ignore(char* /*data*/, size_t unit, size_t size, void* /*user*/) { return unit * size; }

void Post(CURL* easy) {
  const CURLcode result = curl_easy_perform(easy);
  if (result != CURLE_OK) bench::Fail("post", curl_easy_strerror(result));
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  constexpr long kOk = 200;
  if (status != kOk) bench::Fail("post", "not accepted");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) bench::Fail("usage", "baseline_post URL FILE COUNT CA_FILE");
  const std::string body = bench::ReadFile(argv[2]);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* const easy = curl_easy_init();
  curl_slist* headers = curl_slist_append(nullptr, "Authorization: Bearer access-1");
  headers = curl_slist_append(headers, "Content-Type: application/json");
  headers = curl_slist_append(headers, "Expect:");
  curl_easy_setopt(easy, CURLOPT_URL, argv[1]);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_CAINFO, argv[4]);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Ignore);
  bench::PrintCpuOfOne(
      atol(argv[3]), [&] { return easy; }, &Post);
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  curl_global_cleanup();
}

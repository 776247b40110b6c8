// One POST on its way through libcurl: what is sent, what has come back, and what it came to.
//
// libcurl keeps pointers into it, so it stays where it is, and lives until its handle is out of the
// multi handle.
#pragma once

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "base/time.h"
#include "kestle/error.h"
#include "kestle/http/transport.h"
#include "kestle/http/url_policy.h"

namespace kestle::http {

// Of a response's body as much is kept; the transfer ends when more comes.
inline constexpr size_t kMaxResponseBodyBytes = size_t{1024} * 1024;
// A response with more than this in its headers and trailers, interim ones too, is an error.
inline constexpr size_t kMaxResponseHeaderBytes = size_t{256} * 1024;

class CurlTransfer {
 public:
  // A `timeout` of zero is none.
  CurlTransfer(Request request, base::TimeDelta timeout);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  // Neither one that others have used nor one that others will.
  void UseConnectionOfItsOwn();
  // True when the request must not be sent; it is then not started, and fails.
  [[nodiscard]] bool is_refused() const { return refusal_ != nullptr; }
  [[nodiscard]] CURL* easy() const { return easy_.get(); }
  // libcurl itself only bounds the time until there is a connection.
  [[nodiscard]] base::TimeDelta timeout() const { return timeout_; }

  // The response of a transfer that ended with `result`; null, with an entry in `error`, when there
  // is none. The entry quotes neither headers nor bodies. Called once.
  [[nodiscard]] std::unique_ptr<Response> TakeResponse(CURLcode result, ErrorPtr* error);

 private:
  struct EasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  [[nodiscard]] bool HasAnswer(CURLcode result) const;
  [[nodiscard]] bool HasStatus() const;
  // What has come without TLS ends with the connection, whoever ends that.
  [[nodiscard]] bool HasCertainEnd() const;
  [[nodiscard]] std::string FailureText(CURLcode result) const;
  [[nodiscard]] std::string TimeoutText() const;
  template <typename Value>
  void Set(CURLoption option, Value value);
  void AppendHeaderLine(const std::string& line);
  void SetRequest();
  void SetRules();
  static size_t OnHeader(char* data, size_t unit, size_t size, void* transfer);
  static size_t OnBody(char* data, size_t unit, size_t size, void* transfer);

  const Request request_;
  const base::TimeDelta timeout_;
  ErrorPtr refusal_;
  std::array<char, CURL_ERROR_SIZE> error_text_{};
  size_t header_bytes_ = 0;
  // Of the latest status line; zero when there is none of HTTP/1.
  int status_ = 0;
  // libcurl takes an answer that ends after its status line for a whole one.
  bool headers_ended_ = false;
  std::string body_;
  bool body_cut_ = false;
  ParsedUrl url_;
  std::unique_ptr<curl_slist, ListDeleter> header_lines_;
  std::unique_ptr<CURL, EasyDeleter> easy_;
};

}  // namespace kestle::http

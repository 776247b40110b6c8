// One POST through libcurl: the request, the part of the response that has arrived, and the result.
//
// libcurl keeps pointers into it: it does not move, and must live until its handle is removed from
// the multi handle.
#pragma once

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "base/time.h"
#include "kestle/error.h"
#include "kestle/http/ca_source.h"
#include "kestle/http/transport.h"
#include "kestle/http/url_policy.h"

namespace kestle::http {

// A longer response body is cut to this size, and the transfer ends.
inline constexpr size_t kMaxResponseBodyBytes = size_t{1024} * 1024;
// More bytes than this in all headers and trailers, those of interim responses included, are an
// error.
inline constexpr size_t kMaxResponseHeaderBytes = size_t{256} * 1024;

class CurlTransfer {
 public:
  // A zero `timeout` means none. `cas` must outlive this.
  CurlTransfer(Request request, base::TimeDelta timeout, CaSource* cas);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;

  // Opens a connection for this request, and closes it afterwards.
  void UseOwnConnection();
  // True when the request must not be sent; it is then not started, and fails.
  [[nodiscard]] bool is_refused() const { return refusal_ != nullptr; }
  [[nodiscard]] CURL* easy() const { return easy_.get(); }
  // Enforced by `CurlMulti`; libcurl itself only limits the time to connect.
  [[nodiscard]] base::TimeDelta time_left() const { return time_left_; }

  // True if the transfer ended because the folder of CAs does not verify the server's certificate.
  // Nothing was sent then, and the transfer is to be started again: it uses the bundle now.
  [[nodiscard]] bool TurnToCaBundle(CURLcode result);

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
  // False if the response could be truncated without notice: over TLS, its end must be marked by a
  // length or chunks.
  [[nodiscard]] bool HasCertainEnd() const;
  [[nodiscard]] std::string FailureText(CURLcode result) const;
  [[nodiscard]] std::string TimeoutText() const;
  template <typename Value>
  void Set(CURLoption option, Value value);
  void AppendHeaderLine(const std::string& line);
  void SetRequest();
  void SetRules();
  void SetCas();
  static size_t OnHeader(char* data, size_t unit, size_t size, void* transfer);
  static size_t OnBody(char* data, size_t unit, size_t size, void* transfer);

  const Request request_;
  const base::TimeDelta timeout_;
  base::TimeDelta time_left_;
  CaSource* const cas_;
  bool uses_ca_folder_ = false;
  ErrorPtr refusal_;
  std::array<char, CURL_ERROR_SIZE> error_text_{};
  size_t header_bytes_ = 0;
  // From the latest status line; zero if that is not one of HTTP/1.
  int status_ = 0;
  // Needed because libcurl accepts a response that ends within its headers.
  bool headers_ended_ = false;
  std::string body_;
  bool body_cut_ = false;
  ParsedUrl url_;
  std::unique_ptr<curl_slist, ListDeleter> header_lines_;
  std::unique_ptr<CURL, EasyDeleter> easy_;
};

}  // namespace kestle::http

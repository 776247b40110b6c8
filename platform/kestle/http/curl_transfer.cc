#include "kestle/http/curl_transfer.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/logging.h"

namespace kestle::http {

namespace {

// A header value can come from outside, such as a token. A line break in it would start another
// header, and HTTP allows neither control characters nor trailing blanks. They are replaced, and
// the server rejects the value: only its 401 makes the sender fetch another token.
std::string OneLine(std::string line) {
  const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7f; };
  std::replace_if(line.begin(), line.end(), is_control, ' ');
  line.resize(line.find_last_not_of(' ') + 1);
  return line;
}

// The status of a status line of HTTP/1 (RFC 9112, section 4), or zero if there is none. Versions
// of libcurl parse other lines differently: some read "HTTP/2 0" as the status 200.
int ParseStatusLine(std::string_view line) {
  constexpr std::string_view kVersion = "HTTP/1.";
  constexpr size_t kStatusPosition = kVersion.size() + 2;
  constexpr size_t kStatusDigits = 3;
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  line = line.substr(0, line.find_last_not_of("\r\n") + 1);
  if (line.size() < kStatusPosition + kStatusDigits || !line.starts_with(kVersion)) return 0;
  if (!is_digit(line[kVersion.size()]) || line[kStatusPosition - 1] != ' ') return 0;
  const std::string_view digits = line.substr(kStatusPosition, kStatusDigits);
  const std::string_view rest = line.substr(kStatusPosition + kStatusDigits);
  if (!std::all_of(digits.begin(), digits.end(), is_digit) || digits.front() == '0') return 0;
  if (!rest.empty() && rest.front() != ' ') return 0;
  int status = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), status);
  return status;
}

// For these codes libcurl's message is about the connection or contains only numbers. For others it
// may quote the response.
bool QuotesNoResponse(CURLcode result) {
  constexpr CURLcode kCodes[] = {CURLE_PARTIAL_FILE,      CURLE_PEER_FAILED_VERIFICATION,
                                 CURLE_SSL_CONNECT_ERROR, CURLE_SSL_CACERT_BADFILE,
                                 CURLE_SSL_CIPHER,        CURLE_SEND_ERROR};
  return std::find(std::begin(kCodes), std::end(kCodes), result) != std::end(kCodes);
}

// libcurl's message about an unusable proxy may quote the environment variable, with user and
// password.
bool QuotesProxyCredentials(std::string_view text) {
  constexpr std::string_view kSchemeEnd = "://";
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
    const char* const value = getenv(name);
    std::string_view proxy = value ? value : "";
    if (const size_t end = proxy.find(kSchemeEnd); end != std::string_view::npos)
      proxy.remove_prefix(end + kSchemeEnd.size());
    const size_t at = proxy.rfind('@');
    if (at == 0 || at == std::string_view::npos) continue;
    if (text.find(proxy.substr(0, at)) != std::string_view::npos) return true;
  }
  return false;
}

constexpr long kFirstNonSuccessStatus = 300;

// A timeout for libcurl, to which zero means its own default: less than a millisecond is one.
long CurlMilliseconds(base::TimeDelta timeout) {
  if (timeout <= base::TimeDelta()) return 0;
  return static_cast<long>(std::clamp<int64_t>(timeout.InMilliseconds(), 1, LONG_MAX));
}

}  // namespace

CurlTransfer::CurlTransfer(Request request, base::TimeDelta timeout, CaSource* cas)
    : request_(std::move(request)),
      timeout_(timeout),
      time_left_(timeout),
      cas_(cas),
      easy_(curl_easy_init()) {
  CHECK(easy_ != nullptr) << "Unable to create a libcurl handle";
  url_ = ParseSendableUrl(request_.url, &refusal_);
  if (!url_) return;
  SetRequest();
  SetRules();
  SetCas();
}

void CurlTransfer::UseOwnConnection() {
  Set(CURLOPT_FRESH_CONNECT, 1L);
  Set(CURLOPT_FORBID_REUSE, 1L);
}

bool CurlTransfer::TurnToCaBundle(CURLcode result) {
  if (result != CURLE_PEER_FAILED_VERIFICATION || !uses_ca_folder_) return false;
  // Zero if only the name in the certificate is wrong.
  long verification = 0;
  CHECK(curl_easy_getinfo(easy(), CURLINFO_SSL_VERIFYRESULT, &verification) == CURLE_OK);
  if (verification == 0) return false;
  curl_off_t microseconds = 0;
  CHECK(curl_easy_getinfo(easy(), CURLINFO_TOTAL_TIME_T, &microseconds) == CURLE_OK);
  // Zero would mean no limit.
  if (timeout_ > base::TimeDelta())
    time_left_ = base::TimeDelta::FromMicroseconds(
        std::max<int64_t>(timeout_.InMicroseconds() - microseconds, 1));
  cas_->RejectFolder();
  SetCas();
  return true;
}

bool CurlTransfer::HasAnswer(CURLcode result) const {
  // A cut body ends the transfer with this error.
  return result == CURLE_OK || (result == CURLE_WRITE_ERROR && body_cut_);
}

std::unique_ptr<Response> CurlTransfer::TakeResponse(CURLcode result, ErrorPtr* error) {
  const auto fail = [error](CURLcode code, const std::string& message) {
    Error::AddTo(error, "http", std::to_string(code), message);
    return nullptr;
  };
  if (refusal_) {
    *error = std::move(refusal_);
    return nullptr;
  }
  if (!HasAnswer(result)) return fail(result, FailureText(result));
  if (!headers_ended_)
    return fail(CURLE_PARTIAL_FILE, "The server's answer ends within its headers");
  if (!HasStatus())
    return fail(CURLE_WEIRD_SERVER_REPLY,
                "The status of the server's answer is no number of three digits");
  if (!HasCertainEnd())
    return fail(CURLE_PARTIAL_FILE,
                "The server's answer does not tell where it ends, and may have been cut");
  return std::make_unique<Response>(status_, std::move(body_));
}

// Both parsers must agree, since libcurl framed the response by the status that it parsed itself.
bool CurlTransfer::HasStatus() const {
  long status = 0;
  CHECK(curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &status) == CURLE_OK);
  return status_ != 0 && status == status_;
}

bool CurlTransfer::HasCertainEnd() const {
  constexpr int kNoContent = 204;
  constexpr int kNotModified = 304;
  if (IsPlaintext(url_.get()) || body_cut_) return true;
  if (status_ == kNoContent || status_ == kNotModified) return true;
  curl_off_t length = -1;
  CHECK(curl_easy_getinfo(easy(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK);
  if (length >= 0) return true;
  constexpr int kLastRequest = -1;
  curl_header* encoding = nullptr;
  return curl_easy_header(easy(), "Transfer-Encoding", 0, CURLH_HEADER, kLastRequest, &encoding) ==
             CURLHE_OK &&
         strcasecmp(encoding->value, "chunked") == 0;
}

std::string CurlTransfer::FailureText(CURLcode result) const {
  const std::string_view text = error_text_.data();
  if (QuotesProxyCredentials(text))
    return "The proxy that the environment names is none that can be used";
  long tunnel_status = 0;
  CHECK(curl_easy_getinfo(easy(), CURLINFO_HTTP_CONNECTCODE, &tunnel_status) == CURLE_OK);
  if (tunnel_status >= kFirstNonSuccessStatus)
    return "The proxy refuses a tunnel with status " + std::to_string(tunnel_status);
  if (result == CURLE_OPERATION_TIMEDOUT) return TimeoutText();
  const bool is_harmless = header_bytes_ == 0 || QuotesNoResponse(result);
  return is_harmless && !text.empty() ? std::string(text) : curl_easy_strerror(result);
}

// The same text whether libcurl or `CurlMulti` noticed the timeout.
std::string CurlTransfer::TimeoutText() const {
  const auto has_begun = [this](CURLINFO phase) {
    curl_off_t microseconds = 0;
    CHECK(curl_easy_getinfo(easy(), phase, &microseconds) == CURLE_OK);
    return microseconds != 0;
  };
  const std::string time =
      " timed out after " + std::to_string(timeout_.InMilliseconds()) + " milliseconds";
  if (has_begun(CURLINFO_PRETRANSFER_TIME_T)) {
    return "Operation" + time + " with " +
           (header_bytes_ == 0 ? "no answer" : "an unfinished answer");
  }
  return (has_begun(CURLINFO_NAMELOOKUP_TIME_T) ? "Connection" : "Resolving") + time;
}

template <typename Value>
void CurlTransfer::Set(CURLoption option, Value value) {
  const CURLcode result = curl_easy_setopt(easy(), option, value);
  CHECK(result == CURLE_OK) << "libcurl refuses option " << option << ": "
                            << curl_easy_strerror(result);
}

void CurlTransfer::AppendHeaderLine(const std::string& line) {
  curl_slist* const longer = curl_slist_append(header_lines_.get(), OneLine(line).c_str());
  CHECK(longer != nullptr);
  // The head is new only for the first line.
  static_cast<void>(header_lines_.release());
  header_lines_.reset(longer);
}

void CurlTransfer::SetRequest() {
  Set(CURLOPT_CURLU, url_.get());
  Set(CURLOPT_POST, 1L);
  Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
  Set(CURLOPT_POSTFIELDS, request_.body.data());
  // libcurl's syntax for a header without a value is "Name;"; "Name:" would omit the header.
  for (const auto& [name, value] : request_.headers)
    AppendHeaderLine(value.empty() ? name + ";" : std::string(name).append(": ").append(value));
  // Waiting for "100 Continue" would cost a round trip for every body over a megabyte.
  AppendHeaderLine("Expect:");
  Set(CURLOPT_HTTPHEADER, header_lines_.get());
  Set(CURLOPT_HEADERFUNCTION, &CurlTransfer::OnHeader);
  Set(CURLOPT_HEADERDATA, this);
  Set(CURLOPT_WRITEFUNCTION, &CurlTransfer::OnBody);
  Set(CURLOPT_WRITEDATA, this);
  Set(CURLOPT_ERRORBUFFER, error_text_.data());
}

void CurlTransfer::SetRules() {
  // HTTP/2 has no advantage for a request or two per interval, and libcurl 7.88 copes worse with a
  // stalled server over it: the loop spins while the body can't be sent, and the stalled connection
  // is reused.
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  Set(CURLOPT_SSL_VERIFYPEER, 1L);
  Set(CURLOPT_SSL_VERIFYHOST, 2L);
  Set(CURLOPT_FOLLOWLOCATION, 0L);
  // libcurl divides this time among the addresses of a name. Its limit for the whole request is not
  // used: it would drop a response that arrived while something else blocked the loop.
  Set(CURLOPT_CONNECTTIMEOUT_MS, CurlMilliseconds(timeout_));
  Set(CURLOPT_NOSIGNAL, 1L);
  // An unresponsive name server must not block the loop when a transfer is dropped.
  Set(CURLOPT_QUICK_EXIT, 1L);
  // Plaintext requests to loopback bypass a proxy from the environment.
  if (IsPlaintext(url_.get())) Set(CURLOPT_PROXY, "");
}

// By default libcurl reads both, and does not cache a store that includes a folder.
void CurlTransfer::SetCas() {
  if (IsPlaintext(url_.get())) return;
  uses_ca_folder_ = cas_->UsesFolder();
  if (cas_->bundle().empty()) return;
  Set(CURLOPT_CAINFO, uses_ca_folder_ ? nullptr : cas_->bundle().c_str());
  Set(CURLOPT_CAPATH, uses_ca_folder_ ? cas_->folder().c_str() : nullptr);
}

// libcurl stores all headers, and limits the size of each trailer but not their number.
size_t CurlTransfer::OnHeader(char* data, size_t unit, size_t size, void* transfer) {
  auto* const self = static_cast<CurlTransfer*>(transfer);
  const std::string_view line(data, unit * size);
  self->header_bytes_ += line.size();
  // An interim response has its own headers, before those of the final one.
  if (line.starts_with("HTTP/")) {
    self->headers_ended_ = false;
    self->status_ = ParseStatusLine(line);
  }
  if (line == "\r\n" || line == "\n") self->headers_ended_ = true;
  return self->header_bytes_ <= kMaxResponseHeaderBytes ? line.size() : 0;
}

size_t CurlTransfer::OnBody(char* data, size_t unit, size_t size, void* transfer) {
  auto* const self = static_cast<CurlTransfer*>(transfer);
  const size_t kept = std::min(unit * size, kMaxResponseBodyBytes - self->body_.size());
  self->body_.append(data, kept);
  self->body_cut_ = kept < unit * size;
  return kept;
}

}  // namespace kestle::http

#include "kestle/http/post.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <utility>

#include "base/json.h"
#include "base/logging.h"
#include "kestle/mime.h"

namespace kestle::http {

namespace {

bool HasHeader(const HeaderList& headers, const char* name) {
  return std::any_of(headers.begin(), headers.end(), [name](const auto& header) {
    return strcasecmp(header.first.c_str(), name) == 0;
  });
}

RequestID Post(const std::string& url, std::string body, const std::string& content_type,
               const HeaderList& headers, Transport* transport, const SuccessCallback& success,
               const ErrorCallback& error) {
  Request request{url, headers, std::move(body)};
  if (!HasHeader(headers, request_header::kContentType))
    request.headers.emplace_back(request_header::kContentType, content_type);
  return transport->Send(std::move(request), success, error);
}

std::string PercentEncode(const std::string& text) {
  // libcurl's encoder is limited to some megabytes per call.
  constexpr size_t kPieceBytes = size_t{1024} * 1024;
  std::string encoded;
  for (size_t start = 0; start < text.size(); start += kPieceBytes) {
    const size_t size = std::min(kPieceBytes, text.size() - start);
    const std::unique_ptr<char, decltype(&curl_free)> piece(
        curl_easy_escape(nullptr, text.data() + start, static_cast<int>(size)), &curl_free);
    CHECK(piece != nullptr) << "Unable to encode a form field of " << text.size() << " bytes";
    encoded += piece.get();
  }
  return encoded;
}

std::string EncodeForm(const FormFieldList& fields) {
  std::string form;
  for (const auto& [name, value] : fields) {
    if (!form.empty()) form.push_back('&');
    form += PercentEncode(name) + "=" + PercentEncode(value);
  }
  return form;
}

}  // namespace

RequestID PostJson(const std::string& url, const base::Value& body, const HeaderList& headers,
                   const std::shared_ptr<Transport>& transport, const SuccessCallback& success,
                   const ErrorCallback& error) {
  std::string text;
  base::JSONWriter::Write(body, &text);
  return Post(url, std::move(text), std::string(mime::application::kJson) + "; charset=utf-8",
              headers, transport.get(), success, error);
}

RequestID PostFormData(const std::string& url, const FormFieldList& fields,
                       const HeaderList& headers, const std::shared_ptr<Transport>& transport,
                       const SuccessCallback& success, const ErrorCallback& error) {
  return Post(url, EncodeForm(fields), mime::application::kFormUrlEncoded, headers, transport.get(),
              success, error);
}

std::unique_ptr<base::DictionaryValue> ParseJsonResponse(Response* response, int* status_code,
                                                         ErrorPtr* error) {
  if (status_code) *status_code = response->GetStatusCode();
  auto object = base::JSONReader::ReadDictionary(response->ExtractDataAsString());
  // The message does not quote the body, which may contain a token.
  if (!object)
    Error::AddTo(error, "http", "invalid_json", "The response's body is not a JSON object");
  return object;
}

}  // namespace kestle::http

// The two kinds of requests that this system sends, and the parsing of JSON responses.
#pragma once

#include <memory>
#include <string>

#include "base/values.h"
#include "kestle/http/transport.h"

namespace kestle::http {

namespace request_header {
inline constexpr char kAuthorization[] = "Authorization";
inline constexpr char kContentType[] = "Content-Type";
}  // namespace request_header

// Names with their values, encoded in this order.
using FormFieldList = std::vector<std::pair<std::string, std::string>>;

// Posts `body` as compact JSON. A header given here replaces the default one of the same name
// ("Content-Type: application/json; charset=utf-8").
RequestID PostJson(const std::string& url, const base::Value& body, const HeaderList& headers,
                   const std::shared_ptr<Transport>& transport, const SuccessCallback& success,
                   const ErrorCallback& error);

// Posts the fields as application/x-www-form-urlencoded. Headers as above.
RequestID PostFormData(const std::string& url, const FormFieldList& fields,
                       const HeaderList& headers, const std::shared_ptr<Transport>& transport,
                       const SuccessCallback& success, const ErrorCallback& error);

// Parses the body as a JSON object, for any status, which is stored in `status_code` unless that is
// null. Null, with an entry in `error`, if the body is not a JSON object.
[[nodiscard]] std::unique_ptr<base::DictionaryValue> ParseJsonResponse(Response* response,
                                                                       int* status_code,
                                                                       ErrorPtr* error);

}  // namespace kestle::http

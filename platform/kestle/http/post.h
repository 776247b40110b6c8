// The two requests that this system makes, and the reading of their answers.
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

// Posts `body` as compact JSON. A header given here replaces the one of the same name that would be
// set otherwise ("Content-Type: application/json; charset=utf-8").
RequestID PostJson(const std::string& url, const base::Value& body, const HeaderList& headers,
                   const std::shared_ptr<Transport>& transport, const SuccessCallback& success,
                   const ErrorCallback& error);

// Posts the fields as application/x-www-form-urlencoded. Headers as above.
RequestID PostFormData(const std::string& url, const FormFieldList& fields,
                       const HeaderList& headers, const std::shared_ptr<Transport>& transport,
                       const SuccessCallback& success, const ErrorCallback& error);

// Reads the body as a JSON object, whatever the status, which is stored in `status_code` when that
// is not null. Null, with an entry in `error`, when the body is no JSON object.
[[nodiscard]] std::unique_ptr<base::DictionaryValue> ParseJsonResponse(Response* response,
                                                                       int* status_code,
                                                                       ErrorPtr* error);

}  // namespace kestle::http

#include "pelmorctl/config_values.h"

#include "ap/common/configuration.h"
#include "base/strings.h"
#include "kestle/http/sendable_url.h"
#include "pelmorctl/cloud_checks.h"

namespace pelmorctl {

namespace {

// The value is everything from the equals sign to the end of the line, unchanged.
std::string CheckForm(const std::string& value) {
  if (value.empty()) return {};
  const char first = value.front();
  const char last = value.back();
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  if (last == '\r') return "the line ends with CR LF, and the CR becomes part of the value";
  if (is_blank(last)) return "the trailing blanks are part of the value";
  if (is_blank(first)) return "the blanks after the equals sign are part of the value";
  if (value.size() > 1 && first == last && (first == '"' || first == '\''))
    return "the quotes are part of the value";
  return {};
}

void CheckInterval(const std::string& value, std::vector<ValueFault>* faults) {
  int seconds = 0;
  if (!base::StringToInt(value, &seconds)) {
    const std::string form = CheckForm(value);
    *faults = {{Severity::kError, "not a whole number of seconds from -2147483648 to 2147483647" +
                                      (form.empty() ? form : ": " + form)}};
  } else if (seconds <= 0) {
    faults->push_back({Severity::kWarning,
                       "with zero or less, the daemon uploads without a pause; give the seconds "
                       "between uploads"});
  } else if (base::TimeDelta::FromSeconds(seconds) > varelnos::ap::kMaxPointAge) {
    faults->push_back(
        {Severity::kWarning,
         "points older than 1800 seconds are dropped, so a longer interval loses some"});
  }
}

// How the package's configuration marks the values to replace.
constexpr char kPlaceholderPrefix[] = "replace-with-";
// RFC 2606 reserves this domain for documentation.
constexpr char kExampleDomain[] = ".example";

void CheckCredential(const std::string& value, std::vector<ValueFault>* faults) {
  constexpr char kRejection[] = "; the identity provider will probably reject the device";
  if (value.empty()) faults->push_back({Severity::kWarning, std::string("empty") + kRejection});
  if (value.starts_with(kPlaceholderPrefix))
    faults->push_back(
        {Severity::kWarning, std::string("still the package's default") + kRejection});
}

bool IsExample(const std::string& url) {
  const std::string origin = OriginOf(url);
  const size_t port = origin.find(':', origin.find("://") + 1);
  return origin.substr(0, port).ends_with(kExampleDomain);
}

void CheckUrl(const std::string& value, std::vector<ValueFault>* faults) {
  kestle::ErrorPtr error;
  if (!kestle::http::IsSendableUrl(value, &error)) {
    faults->push_back({Severity::kWarning, error->GetMessage() + "; nothing will be uploaded"});
  } else if (value.find_first_of("?#") != std::string::npos) {
    faults->push_back(
        {Severity::kWarning, "paths are appended to the URL, after its query or fragment"});
  }
  if (IsExample(value))
    faults->push_back({Severity::kWarning, std::string(kExampleDomain) +
                                               " is a reserved domain without servers; nothing "
                                               "will be uploaded"});
}

}  // namespace

std::vector<ValueFault> CheckValue(const std::string& key, const std::string& value) {
  std::vector<ValueFault> faults;
  if (const std::string form = CheckForm(value); !form.empty())
    faults.push_back({Severity::kWarning, form});
  if (key == varelnos::ap::kUploadIntervalKey) CheckInterval(value, &faults);
  if (key == varelnos::ap::kUrlKey) CheckUrl(value, &faults);
  if (key == varelnos::ap::kClientIdKey || key == varelnos::ap::kClientSecretKey ||
      key == varelnos::ap::kScopeKey)
    CheckCredential(value, &faults);
  return faults;
}

}  // namespace pelmorctl

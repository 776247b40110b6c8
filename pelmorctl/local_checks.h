// The conditions on the device's files.
#pragma once

#include <string>

#include "pelmorctl/account.h"
#include "pelmorctl/condition.h"
#include "pelmorctl/config_check.h"

namespace pelmorctl {

Condition CheckConfiguration(const ConfigReport& report);
Condition CheckReleaseFile(const std::string& path, const Account& account);
Condition CheckStartTimeFolder(const std::string& folder, const Account& account);
// `advice_without_one` is the advice if the file does not exist.
Condition CheckRefreshToken(const std::string& path, const Account& account,
                            const std::string& advice_without_one);

}  // namespace pelmorctl

// The errors of this program's own domain.
#pragma once

namespace varelnos::ap::errors {

inline constexpr char kDomain[] = "ap";

inline constexpr char kServiceUnavailable[] = "service_unavailable";
inline constexpr char kFailedToApplyConfiguration[] = "failed_to_apply_configuration";
inline constexpr char kGenericError[] = "generic_error";
inline constexpr char kIoError[] = "io_error";

}  // namespace varelnos::ap::errors

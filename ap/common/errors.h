// The domain and the codes of the daemon's own errors.
#pragma once

namespace varelnos::ap::errors {

inline constexpr char kDomain[] = "ap";

inline constexpr char kServiceUnavailable[] = "service_unavailable";
inline constexpr char kFailedToApplyConfiguration[] = "failed_to_apply_configuration";
inline constexpr char kGenericError[] = "generic_error";
inline constexpr char kIoError[] = "io_error";

}  // namespace varelnos::ap::errors

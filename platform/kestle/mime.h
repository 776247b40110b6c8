// Media types.
#pragma once

namespace kestle::mime::application {

inline constexpr char kJson[] = "application/json";
inline constexpr char kFormUrlEncoded[] = "application/x-www-form-urlencoded";

}  // namespace kestle::mime::application

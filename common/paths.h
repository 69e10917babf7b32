// The store's and the daemon's fixed paths. They are taken below $KEL_ROOT when it is set
// (tests and demos run in a scratch tree), else below "/".
#pragma once

#include <string>

namespace kel::paths {

inline constexpr const char *kEtcDir = "/etc/kel";
inline constexpr const char *kDbFile = "/etc/kel/kel.db";
inline constexpr const char *kLockFile = "/etc/kel/kel.lock";
inline constexpr const char *kRunDir = "/run/kel";

// `absolute` (a path beginning with "/") placed under the configured root.
std::string under_root(const char *absolute);

}  // namespace kel::paths

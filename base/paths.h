// The store's and the daemon's fixed paths. They are taken below $KEL_ROOT when it is set
// (tests and demos run in a scratch tree), else below "/".
#pragma once

#include <sys/types.h>

#include <string>

namespace kel::paths {

inline constexpr const char *kEtcDir = "/etc/kel";
inline constexpr const char *kDbFile = "/etc/kel/kel.db";
inline constexpr const char *kLockFile = "/etc/kel/kel.lock";
inline constexpr const char *kRunDir = "/run/kel";
inline constexpr const char *kSocketFile = "/run/kel/keld.sock";  // keld's interfaces
inline constexpr const char *kPidFile = "/run/kel/keld.pid";      // the running keld
inline constexpr const char *kFanOutFile = "/run/kel/fan-out";    // the hosts the last call to many answered
inline constexpr const char *kLinksDir = "/run/kel/links";        // link locks and kept link properties
// What the fabric made on this host, a file per link: the VNICs bound through the
// library, and the links made on demand under them. Only root writes there.
inline constexpr const char *kVnicsDir = "/run/kel/vnics";
inline constexpr const char *kLowersDir = "/run/kel/lowers";
// The VNICs whose mac-nospoof lets another address through, a file each (allowed-mac).
inline constexpr const char *kAllowedMacsDir = "/run/kel/allowed-macs";
// The namespaces the fabric named under /run/netns itself, one empty file each.
inline constexpr const char *kAttachedNetnsDir = "/run/kel/netns";
inline constexpr const char *kServiceDir = "/etc/kel/svc";  // service settings, a file per instance

// `absolute` (a path beginning with "/") placed under the configured root.
std::string under_root(const char *absolute);

// Creates `dir` and any missing parents with exactly `mode`, whatever the umask: an
// umask of 077 must not hide settings from the users who read them, nor one of 0 make
// the fabric's directories writable by everyone. Directories already there keep theirs.
// false with errno on failure.
bool make_dirs(const std::string &dir, mode_t mode);

}  // namespace kel::paths

// Which engine holds the store. The controller's service instance may name a PostgreSQL
// database in "config/store" (a libpq connection string); without it the store is the
// SQLite file under /etc/kel, as it always was.
#pragma once

#include <string>

namespace kel::store {

inline constexpr const char *kControllerInstance = "svc:/network/kel-controller:default";
inline constexpr const char *kSettingGroup = "config";
inline constexpr const char *kSettingName = "store";

// The connection string of the controller's PostgreSQL store, or "" for the SQLite file.
// Read afresh on every call: an operator who moves the store needs no restart.
std::string conninfo();

}  // namespace kel::store

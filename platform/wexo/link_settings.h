// The link properties kept for each link (run/kel/links/KEY.conf), so that a change to one
// rebuilds its filters from all of them, and what a VNIC was given can be read back.
#pragma once

#include <map>
#include <string>

namespace wexo::settings {

using Props = std::map<std::string, std::string>;

// The name a link's settings are kept under: "NAMESPACE/LINK" for a link in a named
// namespace, so that links of one name in two namespaces keep theirs apart.
std::string key(const std::string &ns, const std::string &link);
// What is kept under `key` (none when nothing is).
Props load(const std::string &key);
// Keeps `props` (those with a value) under `key`, replacing what was; false on failure.
bool save(const std::string &key, const Props &props);
// Drops what is kept under `key`.
void forget(const std::string &key);

}  // namespace wexo::settings

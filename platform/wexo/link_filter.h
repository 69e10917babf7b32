// A link's filters: what they are made of, parsed from the link's kept property texts,
// and the nftables commands that put them in place, built as libnftables JSON from the
// parsed values alone. No text a caller gave ever reaches a command: an address is
// parsed into bytes and printed again by inet_ntop, a MAC address into six bytes, a
// protection into flags, so no value can change a command's structure.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace wexo::filter {

using Json = nlohmann::json;
using Mac = std::array<uint8_t, 6>;

// An address with its prefix length: IPv4 in the first 4 bytes, IPv6 in all 16. The
// bits past the prefix are zero.
struct Prefix {
	int family = 0;  // AF_INET or AF_INET6
	std::array<uint8_t, 16> bytes{};
	unsigned len = 0;
	bool operator==(const Prefix &) const = default;
};

enum class Priority { Low, Medium, High };

// Everything the filters of one link are built from.
struct Settings {
	Priority priority = Priority::Medium;
	bool mac_nospoof = false, ip_nospoof = false, dhcp_nospoof = false, restricted = false;
	Mac mac{};                               // what the guest's frames must carry: allowed-mac, else the link's own
	std::vector<Prefix> allowed4, allowed6;  // disjoint, in order
	// Whether there is anything to filter at all.
	bool any() const;
	bool protects() const { return mac_nospoof || ip_nospoof || dhcp_nospoof || restricted; }
};

// More addresses than a port could sensibly have is a hostile caller: refused.
inline constexpr size_t kMaxAllowed = 256;

// "xx:xx:..." in any of the forms the fabric writes (one or two hex digits a byte);
// false unless exactly six bytes.
bool parse_mac(const std::string &text, Mac *out);
// A comma-separated list of addresses, each with an optional "/LEN" (a decimal
// integer within the family's bits); false when any piece is not one, or there are more
// than kMaxAllowed. Covered prefixes are dropped, so what is left is disjoint.
bool parse_allowed(const std::string &text, std::vector<Prefix> *v4, std::vector<Prefix> *v6);
// The link's kept properties ("priority", "protection", "allowed-ips", "allowed-mac")
// over the link's own MAC address; false when a value does not parse.
bool parse(const std::map<std::string, std::string> &props, const Mac &own, Settings *out);

// The text forms the fabric writes and reads back.
std::string mac_text(const Mac &mac);
std::string prefix_text(const Prefix &p);  // "10.0.0.1", "10.1.0.0/16"
// The IPv6 link-local address a MAC address gives (modified EUI-64).
Prefix link_local(const Mac &mac);

// The table the links' filters of one namespace share: one table however many VNICs a
// host has, so that no nftables command reads more of the ruleset as they grow (each
// table costs every command's cache its own requests). Each link's chains and sets in
// it are named "KEY.NAME" (Placement::key).
inline constexpr const char *kLinkTable = "kel";

// Where one link's filters sit: the key naming its objects in the shared table, the
// hooks it takes on which devices, and, for a guest's VNIC seen from its lower link,
// which frames are that VNIC's.
struct Placement {
	std::string key;
	std::vector<std::pair<std::string, std::string>> hooks;  // ("egress" or "ingress", device)
	std::optional<Mac> selector;
	bool host_side = false;  // in the caller's namespace rather than the link's
};

// The key of `link` in namespace `ns` ("" for the host's own): "LINK", "NS/LINK".
std::string link_key(const std::string &ns, const std::string &link);
// The table a link had to itself before the links shared one ("kel_KEY"): taken away
// whenever the link's filters are made, so that a host carried over keeps no second copy.
std::string legacy_table(const std::string &key);
// The name of a lower link's guard table: "kel-lower_LINK" (a name no link table has).
std::string lower_table(const std::string &link);

// One batch that makes the filters of `at` anew from `s`, or removes them when nothing is
// left to filter; applied at once, so the link is never seen half filtered. It asks
// nftables nothing of what is there: whatever of the link's objects the shared table
// holds goes first ("add", then "flush", then "delete" never fails).
Json ruleset(const Placement &at, const Settings &s);
// One batch that takes the filters of the link `key` out of the shared table, if there.
Json removal_of(const std::string &key);
// What a listing of the shared table (as nftables lists it) has in force for `at`, by
// its rules' comments: each protection ("mac-nospoof", "ip-nospoof", ...) or priority
// ("priority=high") whose rules are all there, and "tagged" for the drop of tagged
// frames, in the order listed; nothing when its hooks are not all taken.
std::vector<std::string> in_force(const Json &listing, const Placement &at);
// What the counted drops of link `key` took, by what the rules are for ("mac-nospoof",
// "ip-nospoof", ...), summed over each one's rules, from a listing of the shared table
// that carries the rules' counters, or ("" for `key`) of a lower link's guard table; in
// the order first met.
struct Dropped {
	std::string rule;
	uint64_t packets = 0, bytes = 0;
};
std::vector<Dropped> drops(const Json &listing, const std::string &key);
// The names link `key` may have objects under in the shared table: its chains, and its
// address sets with the family of their addresses.
std::vector<std::string> chain_names(const std::string &key);
std::vector<std::pair<std::string, int>> set_names(const std::string &key);
// The keys of the links with chains in a listing of the shared table.
std::vector<std::string> keys(const Json &listing);
// One batch that makes the guard of lower link `device` anew: what leaves through it
// must come from one of `macs`. With no address, the guard goes.
Json lower_guard(const std::string &device, const std::vector<Mac> &macs);
// One batch that adds `macs` to the guard of lower link `device`, which must be there:
// nftables refuses it otherwise, and the guard is then made anew.
Json lower_guard_addition(const std::string &device, const std::vector<Mac> &macs);
// One batch that takes `macs` out of the guard of lower link `device`; nftables refuses
// it when one is not there, and the guard is then made anew.
Json lower_guard_removal(const std::string &device, const std::vector<Mac> &macs);
// One batch that removes table `name` if it is there.
Json removal(const std::string &name);
// The table that keeps the host's own network stack from taking anything in through
// `device` (the address responder's link, whose frames its packet sockets read before
// this hook), and its name.
std::string sealed_table(const std::string &link);
Json sealed(const std::string &device);

}  // namespace wexo::filter

// The rules, in the order a guest's frame meets them (each rule drops, or passes it on):
//   guard             priority; mac-nospoof; under any protection every tagged frame
//                     (802.1Q, 802.1ad, the old QinQ type: any VLAN ID, a priority tag
//                     of 0 too, since what follows a tag is not checked); restricted;
//                     dhcp-nospoof; then ip-nospoof by protocol:
//   guard_ip4         a DHCP client's DISCOVER and REQUEST from 0.0.0.0 pass; any other
//                     source must be allowed; ICMP redirects are dropped
//   guard_arp         only Ethernet/IPv4 ARP, whose sender is the port's own MAC and an
//                     allowed address (a probe, from 0.0.0.0, may ask)
//   guard_ip6         router advertisements and redirects are dropped (a guest is never
//                     a router on a kel); the source must be allowed or the port's own
//                     link-local address; from :: (guard_ip6_unspec) only duplicate
//                     address detection and listener reports
//   guard_nd          neighbour solicitations and advertisements: no extension headers,
//                     at most one option, the port's own MAC in a link-layer option, and
//   guard_nd_target   a target that, when advertised or probed for, is the port's own
// Each dropping rule counts, and every rule of a protection carries a comment "kel:" and
// what it is for, by which what is in force is read back.
#include "link_filter.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "kelnet.h"

namespace wexo::filter {
namespace {

// ICMPv6 neighbour discovery: the target address follows 8 bytes of header; the first
// option, 8 bytes long, follows the 16 bytes of the target.
constexpr unsigned kTargetOffset = 64, kOptionOffset = 192, kOptionMacOffset = 208;
constexpr unsigned kNdBare = 24, kNdOneOption = 32;
// The option types a guest may send with a solicitation or advertisement, each 8 bytes
// long (length 1): its source or target link-layer address, or a DAD nonce.
constexpr unsigned kSourceLladdr = 1, kTargetLladdr = 2, kNonce = 14;

const char *const kFamily = "netdev";
// The comment of a base chain's rule into the guard: without it nothing is in force.
const char *const kHooked = "hooked";

std::vector<std::string> pieces(const std::string &text)
{
	std::vector<std::string> out;
	size_t start = 0;
	for (;;) {
		const size_t comma = text.find(',', start);
		out.push_back(text.substr(start, comma - start));
		if (comma == std::string::npos)
			return out;
		start = comma + 1;
	}
}

// A decimal prefix length of at most `bits`: digits only, no sign, no spaces.
bool parse_len(const std::string &text, unsigned bits, unsigned *out)
{
	if (text.empty() || text.size() > 3 ||
	    !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
		return false;
	*out = static_cast<unsigned>(std::atoi(text.c_str()));
	return *out <= bits;
}

bool parse_prefix(const std::string &text, Prefix *out)
{
	const size_t slash = text.find('/');
	const std::string addr = text.substr(0, slash);
	*out = Prefix{};
	if (inet_pton(AF_INET, addr.c_str(), out->bytes.data()) == 1)
		out->family = AF_INET;
	else if (inet_pton(AF_INET6, addr.c_str(), out->bytes.data()) == 1)
		out->family = AF_INET6;
	else
		return false;
	const unsigned bits = out->family == AF_INET ? 32 : 128;
	out->len = bits;
	if (slash != std::string::npos && !parse_len(text.substr(slash + 1), bits, &out->len))
		return false;
	for (unsigned bit = out->len; bit < bits; bit++)
		out->bytes[bit / 8] &= static_cast<uint8_t>(~(0x80u >> (bit % 8)));
	return true;
}

// Whether `outer` holds every address of `inner` (same family).
bool covers(const Prefix &outer, const Prefix &inner)
{
	if (outer.len > inner.len)
		return false;
	for (unsigned bit = 0; bit < outer.len; bit++) {
		const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit % 8));
		if ((outer.bytes[bit / 8] & mask) != (inner.bytes[bit / 8] & mask))
			return false;
	}
	return true;
}

// Sorted, with every prefix another covers left out: an interval set refuses overlaps.
void make_disjoint(std::vector<Prefix> *list)
{
	std::sort(list->begin(), list->end(),
	    [](const Prefix &a, const Prefix &b) { return a.bytes != b.bytes ? a.bytes < b.bytes : a.len < b.len; });
	std::vector<Prefix> out;
	for (const Prefix &p : *list)
		if (out.empty() || !covers(out.back(), p))
			out.push_back(p);
	*list = std::move(out);
}

bool has_word(const std::string &list, const char *word)
{
	for (const std::string &w : pieces(list))
		if (w == word)
			return true;
	return false;
}

// The hex text nft reads as an integer of the given bytes.
std::string hex(const uint8_t *bytes, size_t count)
{
	std::string out = "0x";
	char buf[3];
	for (size_t i = 0; i < count; i++) {
		std::snprintf(buf, sizeof(buf), "%02x", bytes[i]);
		out += buf;
	}
	return out;
}

Json element(const Prefix &p)
{
	char buf[INET6_ADDRSTRLEN];
	inet_ntop(p.family, p.bytes.data(), buf, sizeof(buf));
	if (p.len == (p.family == AF_INET ? 32u : 128u))
		return buf;
	return {{"prefix", {{"addr", buf}, {"len", p.len}}}};
}

// Expressions.
Json field(const char *protocol, const char *name)
{
	return {{"payload", {{"protocol", protocol}, {"field", name}}}};
}
Json raw(const char *base, unsigned offset, unsigned len)
{
	return {{"payload", {{"base", base}, {"offset", offset}, {"len", len}}}};
}
Json match(const char *op, Json left, Json right)
{
	return {{"match", {{"op", op}, {"left", std::move(left)}, {"right", std::move(right)}}}};
}
Json eq(Json left, Json right)
{
	return match("==", std::move(left), std::move(right));
}
Json ne(Json left, Json right)
{
	return match("!=", std::move(left), std::move(right));
}
// A match against several values is several tests rather than an anonymous set: the
// kernel keeps a table's sets in one list, which every set made and every set looked up
// walks, so a set per rule per link would make each link's filters cost more as a host's
// links grow. "Not any of" is one rule of tests, "any of" a rule per value.
std::vector<Json> none_of(const Json &left, std::initializer_list<Json> values)
{
	std::vector<Json> out;
	for (const Json &v : values)
		out.push_back(ne(left, v));
	return out;
}
// `exprs` and then `more`.
std::vector<Json> plus(std::vector<Json> exprs, const std::vector<Json> &more)
{
	exprs.insert(exprs.end(), more.begin(), more.end());
	return exprs;
}
Json verdict(const char *what)
{
	return {{what, nullptr}};
}

// The chains and sets a link may have in the shared table, by their own names.
const char *const kLinkChains[] = {"egress", "ingress", "guard", "guard_ip4", "guard_arp", "guard_ip6",
    "guard_ip6_unspec", "guard_nd", "guard_nd_target"};
const char *const kLinkSets[] = {"allowed4", "allowed6"};

// Commands of one table; with a key, of one link's objects in the shared table, named
// "KEY.NAME" (every name given below is the link's own, the key added here). The dot is
// a character nftables' own language takes in a name, so that a listing of the table
// reads back; no name of the link's own has one, so the last dot ends the key.
class Batch {
public:
	explicit Batch(std::string table, std::string key = "") : table_(std::move(table)), key_(std::move(key)) {}

	std::string name(const std::string &own) const { return key_.empty() ? own : key_ + "." + own; }
	Json jump(const char *chain) const { return {{"jump", {{"target", name(chain)}}}}; }
	// Past a chain reached by goto, evaluation goes on in the base chain, whose policy lets
	// the frame through: every chain below the guard is reached so, and a "return" passes.
	Json go(const char *chain) const { return {{"goto", {{"target", name(chain)}}}}; }
	std::string set_ref(const char *set) const { return "@" + name(set); }

	// Clearing goes first, then tables, sets and chains, then every rule, which may jump
	// to any chain.
	void command(const char *verb, const char *what, Json object)
	{
		object["family"] = kFamily;
		(std::strcmp(what, "rule") == 0 ? rules_ : objects_).push_back({{verb, {{what, std::move(object)}}}});
	}
	// Whatever the link had in the shared table goes, and its table of old: each is
	// added first, so that its deletion never fails, and the chains are emptied before
	// any is deleted, so that no jump holds one. Nothing is asked of what is there.
	void clear_link()
	{
		const auto clear = [&](const char *verb, const char *what, Json object) {
			object["family"] = kFamily;
			clears_.push_back({{verb, {{what, std::move(object)}}}});
		};
		clear("add", "table", {{"name", table_}});
		for (const char *verb : {"add", "flush", "delete"})
			for (const char *chain : kLinkChains)
				clear(verb, "chain", {{"table", table_}, {"name", name(chain)}});
		for (const char *verb : {"add", "delete"})
			for (const char *set : kLinkSets)
				clear(verb, "set",
				    {{"table", table_}, {"name", name(set)},
				        {"type", std::strcmp(set, "allowed4") == 0 ? "ipv4_addr" : "ipv6_addr"},
				        {"flags", {"interval"}}});
		for (const char *verb : {"add", "delete"})
			clear(verb, "table", {{"name", legacy_table(key_)}});
	}
	// Whatever table of that name was there goes: "add" makes it if it was not, so the
	// "delete" never fails.
	void replace_table()
	{
		command("add", "table", {{"name", table_}});
		command("delete", "table", {{"name", table_}});
	}
	void table() { command("add", "table", {{"name", table_}}); }
	void set(const char *own, const char *type, const std::vector<Prefix> &prefixes)
	{
		Json object = {{"table", table_}, {"name", name(own)}, {"type", type}, {"flags", {"interval"}}};
		if (!prefixes.empty()) {
			Json elems = Json::array();
			for (const Prefix &p : prefixes)
				elems.push_back(element(p));
			object["elem"] = std::move(elems);
		}
		command("add", "set", std::move(object));
	}
	void chain(const char *own) { command("add", "chain", {{"table", table_}, {"name", name(own)}}); }
	void base_chain(const std::string &own, const std::string &hook, const std::string &device)
	{
		command("add", "chain",
		    {{"table", table_}, {"name", name(own)}, {"type", "filter"}, {"hook", hook}, {"dev", device},
		        {"prio", 0}, {"policy", "accept"}});
	}
	void rule(const char *chain, std::vector<Json> exprs, const std::string &what = "")
	{
		Json object = {{"table", table_}, {"chain", name(chain)}, {"expr", std::move(exprs)}};
		if (!what.empty())
			object["comment"] = "kel:" + what;
		command("add", "rule", std::move(object));
	}
	// A counted drop of whatever `exprs` match, named by its comment.
	void drop(const char *chain, std::vector<Json> exprs, const std::string &what)
	{
		exprs.push_back({{"counter", nullptr}});
		exprs.push_back(verdict("drop"));
		rule(chain, std::move(exprs), what);
	}
	Json done()
	{
		Json::array_t all = std::move(clears_);
		for (Json::array_t *part : {&objects_, &rules_})
			for (Json &o : *part)
				all.push_back(std::move(o));
		return {{"nftables", std::move(all)}};
	}

private:
	std::string table_, key_;
	Json::array_t clears_, objects_, rules_;
};

void ip4_rules(Batch &b)
{
	b.chain("guard_ip4");
	b.rule("guard_ip4",
	    {eq(field("ip", "saddr"), "0.0.0.0"), eq(field("udp", "sport"), 68), eq(field("udp", "dport"), 67),
	        verdict("return")});
	b.drop("guard_ip4", {ne(field("ip", "saddr"), b.set_ref("allowed4"))}, "ip-nospoof");
	b.drop("guard_ip4", {eq(field("icmp", "type"), "redirect")}, "ip-nospoof");
}

void arp_rules(Batch &b, const Mac &mac)
{
	b.chain("guard_arp");
	b.drop("guard_arp", {ne(field("arp", "htype"), 1)}, "ip-nospoof");
	b.drop("guard_arp", {ne(field("arp", "ptype"), "ip")}, "ip-nospoof");
	b.drop("guard_arp", {ne(field("arp", "hlen"), 6)}, "ip-nospoof");
	b.drop("guard_arp", {ne(field("arp", "plen"), 4)}, "ip-nospoof");
	b.drop("guard_arp", {ne(field("arp", "saddr ether"), mac_text(mac))}, "ip-nospoof");
	b.rule("guard_arp",
	    {eq(field("arp", "saddr ip"), "0.0.0.0"), eq(field("arp", "operation"), "request"), verdict("return")});
	b.drop("guard_arp", {ne(field("arp", "saddr ip"), b.set_ref("allowed4"))}, "ip-nospoof");
}

// The target of an advertisement, or of a solicitation from :: (duplicate address
// detection), must be one of the port's own: its link-local address or an allowed one.
void target_rules(Batch &b, const Settings &s)
{
	b.chain("guard_nd_target");
	std::vector<Prefix> own = s.allowed6;
	own.push_back(link_local(s.mac));
	for (const Prefix &p : own) {
		if (p.len == 0) {
			b.rule("guard_nd_target", {verdict("return")});
			continue;
		}
		// The bytes the prefix reaches into, the bits past it masked off (they are 0 in
		// the prefix itself).
		const unsigned bytes = (p.len + 7) / 8;
		Json target = raw("th", kTargetOffset, bytes * 8);
		if (p.len % 8 != 0) {
			std::array<uint8_t, 16> mask{};
			for (unsigned bit = 0; bit < p.len; bit++)
				mask[bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8));
			target = {{"&", {target, hex(mask.data(), bytes)}}};
		}
		b.rule("guard_nd_target", {eq(target, hex(p.bytes.data(), bytes)), verdict("return")});
	}
	b.drop("guard_nd_target", {}, "ip-nospoof");
}

void ip6_rules(Batch &b, const Settings &s)
{
	const Json icmp6 = field("icmpv6", "type");
	const Json own_ll = element(link_local(s.mac));
	b.chain("guard_ip6");
	for (const char *type : {"nd-router-advert", "nd-redirect"})
		b.drop("guard_ip6", {eq(icmp6, type)}, "ip-nospoof");
	b.rule("guard_ip6", {eq(field("ip6", "saddr"), "::"), b.go("guard_ip6_unspec")});
	b.drop("guard_ip6", {ne(field("ip6", "saddr"), b.set_ref("allowed6")), ne(field("ip6", "saddr"), own_ll)},
	    "ip-nospoof");
	for (const char *type : {"nd-neighbor-solicit", "nd-neighbor-advert"})
		b.rule("guard_ip6", {eq(icmp6, type), b.go("guard_nd")});

	b.chain("guard_ip6_unspec");
	b.rule("guard_ip6_unspec", {eq(icmp6, "nd-neighbor-solicit"), b.go("guard_nd")});
	for (const char *type : {"mld-listener-report", "mld2-listener-report"})
		b.rule("guard_ip6_unspec", {eq(icmp6, type), verdict("return")});
	b.drop("guard_ip6_unspec", {}, "ip-nospoof");

	b.chain("guard_nd");
	b.drop("guard_nd", {ne(field("ip6", "nexthdr"), "ipv6-icmp")}, "ip-nospoof");
	b.drop("guard_nd", none_of(field("ip6", "length"), {kNdBare, kNdOneOption}), "ip-nospoof");
	const auto option = [](unsigned type) { return type << 8 | 1; };  // type, then length 1
	b.drop("guard_nd",
	    plus({eq(field("ip6", "length"), kNdOneOption)},
	        none_of(raw("th", kOptionOffset, 16), {option(kSourceLladdr), option(kTargetLladdr), option(kNonce)})),
	    "ip-nospoof");
	for (const unsigned type : {kSourceLladdr, kTargetLladdr})
		b.drop("guard_nd",
		    {eq(field("ip6", "length"), kNdOneOption), eq(raw("th", kOptionOffset, 8), type),
		        ne(raw("th", kOptionMacOffset, 48), hex(s.mac.data(), s.mac.size()))},
		    "ip-nospoof");
	b.rule("guard_nd", {eq(icmp6, "nd-neighbor-advert"), b.go("guard_nd_target")});
	b.rule("guard_nd", {eq(field("ip6", "saddr"), "::"), b.go("guard_nd_target")});
	target_rules(b, s);
}

// Calls `visit(what, rule)` for each rule of link `key` whose comment says what it is
// for ("kel:WHAT"), in the order met: in a batch ("add" of a rule) or in a listing of
// the shared table (a rule). An empty `key` takes every rule: a table of one link's own.
template <class Visit>
void each_commented_rule(const Json &j, const std::string &key, Visit &&visit)
{
	const auto objects = j.find("nftables");
	if (objects == j.end() || !objects->is_array())
		return;
	for (const Json &o : *objects) {
		const Json *rule = o.contains("add") ? &o["add"] : &o;
		if (!rule->is_object() || !rule->contains("rule") || !(*rule)["rule"].is_object())
			continue;
		const Json &r = (*rule)["rule"];
		const auto chain = r.find("chain");
		if (chain == r.end() || !chain->is_string() ||
		    (!key.empty() && chain->get_ref<const std::string &>().rfind(key + ".", 0) != 0))
			continue;
		const auto comment = r.find("comment");
		if (comment == r.end() || !comment->is_string() ||
		    comment->get_ref<const std::string &>().rfind("kel:", 0) != 0)
			continue;
		visit(comment->get_ref<const std::string &>().substr(4), r);
	}
}

// What the rules of link `key` say in their comments, each with how many rules carry
// it, in the order first met. The base chains' rules come last in both.
std::vector<std::pair<std::string, size_t>> comments(const Json &j, const std::string &key)
{
	std::vector<std::pair<std::string, size_t>> out;
	each_commented_rule(j, key, [&](const std::string &what, const Json &) {
		const auto it = std::find_if(out.begin(), out.end(), [&](const auto &c) { return c.first == what; });
		if (it == out.end())
			out.emplace_back(what, 1);
		else
			it->second++;
	});
	// The hooks are named last whatever the order their rules were met in.
	std::stable_partition(out.begin(), out.end(), [](const auto &c) { return c.first != kHooked; });
	return out;
}

}  // namespace

bool Settings::any() const
{
	return protects() || priority != Priority::Medium;
}

bool parse_mac(const std::string &text, Mac *out)
{
	int len = 0;
	unsigned char *bytes = _link_aton(text.c_str(), &len);
	const bool ok = bytes != nullptr && len == 6 && text.size() == std::strlen(text.c_str());
	if (ok)
		std::copy(bytes, bytes + 6, out->begin());
	std::free(bytes);
	return ok;
}

bool parse_allowed(const std::string &text, std::vector<Prefix> *v4, std::vector<Prefix> *v6)
{
	v4->clear();
	v6->clear();
	if (text.empty())
		return true;
	const std::vector<std::string> list = pieces(text);
	if (list.size() > kMaxAllowed)
		return false;
	for (const std::string &piece : list) {
		Prefix p;
		if (!parse_prefix(piece, &p))
			return false;
		(p.family == AF_INET ? v4 : v6)->push_back(p);
	}
	make_disjoint(v4);
	make_disjoint(v6);
	return true;
}

bool parse(const std::map<std::string, std::string> &props, const Mac &own, Settings *out)
{
	*out = Settings{};
	out->mac = own;
	const auto value = [&](const char *name) {
		const auto it = props.find(name);
		return it == props.end() ? std::string() : it->second;
	};
	const std::string priority = value("priority");
	if (priority == "low")
		out->priority = Priority::Low;
	else if (priority == "high")
		out->priority = Priority::High;
	else if (!priority.empty() && priority != "medium")
		return false;
	const std::string protection = value("protection");
	if (!protection.empty()) {
		for (const std::string &flag : pieces(protection))
			if (flag != "none" && flag != "mac-nospoof" && flag != "ip-nospoof" && flag != "dhcp-nospoof" &&
			    flag != "restricted")
				return false;
		out->mac_nospoof = has_word(protection, "mac-nospoof");
		out->ip_nospoof = has_word(protection, "ip-nospoof");
		out->dhcp_nospoof = has_word(protection, "dhcp-nospoof");
		out->restricted = has_word(protection, "restricted");
	}
	if (const std::string mac = value("allowed-mac"); !mac.empty() && !parse_mac(mac, &out->mac))
		return false;
	return parse_allowed(value("allowed-ips"), &out->allowed4, &out->allowed6);
}

std::string mac_text(const Mac &mac)
{
	char buf[18];
	std::snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
	    mac[5]);
	return buf;
}

std::string prefix_text(const Prefix &p)
{
	const Json e = element(p);
	if (e.is_string())
		return e.get<std::string>();
	return e["prefix"]["addr"].get<std::string>() + "/" + std::to_string(p.len);
}

Prefix link_local(const Mac &mac)
{
	Prefix p;
	p.family = AF_INET6;
	p.len = 128;
	p.bytes = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(mac[0] ^ 0x02), mac[1], mac[2], 0xff, 0xfe,
	    mac[3], mac[4], mac[5]};
	return p;
}

std::string link_key(const std::string &ns, const std::string &link)
{
	return ns.empty() ? link : ns + "/" + link;
}

std::string legacy_table(const std::string &key)
{
	return "kel_" + key;
}

std::string lower_table(const std::string &link)
{
	return "kel-lower_" + link;
}

Json removal(const std::string &name)
{
	Batch b(name);
	b.replace_table();
	return b.done();
}

Json removal_of(const std::string &key)
{
	Batch b(kLinkTable, key);
	b.clear_link();
	return b.done();
}

Json ruleset(const Placement &at, const Settings &s)
{
	Batch b(kLinkTable, at.key);
	b.clear_link();
	if (!s.any())
		return b.done();
	b.set("allowed4", "ipv4_addr", s.allowed4);
	b.set("allowed6", "ipv6_addr", s.allowed6);
	b.chain("guard");
	if (s.priority != Priority::Medium) {
		const bool high = s.priority == Priority::High;
		b.rule("guard",
		    {{{"mangle", {{"key", {{"meta", {{"key", "priority"}}}}}, {"value", high ? "0:6" : "0:2"}}}}},
		    high ? "priority=high" : "priority=low");
	}
	const Json ether_type = field("ether", "type");
	if (s.mac_nospoof)
		b.drop("guard", {ne(field("ether", "saddr"), mac_text(s.mac))}, "mac-nospoof");
	if (s.protects())
		for (const Json &tag : {Json("8021q"), Json("8021ad"), Json(0x9100)})
			b.drop("guard", {eq(ether_type, tag)}, "tagged");
	if (s.restricted)
		b.drop("guard", none_of(ether_type, {"ip", "ip6", "arp"}), "restricted");
	if (s.dhcp_nospoof)
		for (const unsigned port : {67, 547})
			b.drop("guard", {eq(field("udp", "sport"), port)}, "dhcp-nospoof");
	if (s.ip_nospoof) {
		b.rule("guard", {eq(ether_type, "ip"), b.go("guard_ip4")}, "ip-nospoof");
		b.rule("guard", {eq(ether_type, "arp"), b.go("guard_arp")}, "ip-nospoof");
		b.rule("guard", {eq(ether_type, "ip6"), b.go("guard_ip6")}, "ip-nospoof");
		ip4_rules(b);
		arp_rules(b, s.mac);
		ip6_rules(b, s);
	}
	for (const auto &[hook, device] : at.hooks) {
		b.base_chain(hook, hook, device);
		std::vector<Json> exprs;
		if (at.selector)
			exprs.push_back(eq(field("ether", "saddr"), mac_text(*at.selector)));
		exprs.push_back(b.jump("guard"));
		b.rule(hook.c_str(), std::move(exprs), kHooked);
	}
	return b.done();
}

std::vector<std::string> in_force(const Json &listing, const Placement &at)
{
	// What every protection and priority takes, counted on the table they would have.
	Settings all;
	all.priority = Priority::High;
	all.mac_nospoof = all.ip_nospoof = all.dhcp_nospoof = all.restricted = true;
	const auto want = comments(ruleset(at, all), at.key);
	const auto found = comments(listing, at.key);
	std::vector<std::string> out;
	if (found.empty() || found.back().first != kHooked || found.back().second != want.back().second)
		return out;  // unhooked, its rules are in force nowhere
	for (const auto &entry : found) {
		const std::string &what = entry.first;
		const size_t count = entry.second;
		const auto it = std::find_if(want.begin(), want.end(), [&](const auto &w) { return w.first == what; });
		if (what != kHooked &&
		    (what.rfind("priority=", 0) == 0 ? count == 1 : it != want.end() && it->second == count))
			out.push_back(what);
	}
	return out;
}

std::vector<Dropped> drops(const Json &listing, const std::string &key)
{
	std::vector<Dropped> out;
	each_commented_rule(listing, key, [&](const std::string &what, const Json &rule) {
		const auto exprs = rule.find("expr");
		if (exprs == rule.end() || !exprs->is_array())
			return;
		for (const Json &e : *exprs) {
			const auto counter = e.find("counter");
			if (counter == e.end() || !counter->is_object())
				continue;
			const auto packets = counter->find("packets"), bytes = counter->find("bytes");
			const auto count = [&](Json::const_iterator n) {
				return n != counter->end() && n->is_number_integer() &&
				    (n->is_number_unsigned() || n->get<int64_t>() >= 0);
			};
			if (!count(packets) || !count(bytes))
				continue;
			auto it = std::find_if(out.begin(), out.end(),
			    [&](const Dropped &d) { return d.rule == what; });
			if (it == out.end())
				it = out.insert(out.end(), Dropped{what, 0, 0});
			it->packets += packets->get<uint64_t>();
			it->bytes += bytes->get<uint64_t>();
		}
	});
	return out;
}

std::vector<std::string> chain_names(const std::string &key)
{
	std::vector<std::string> out;
	for (const char *chain : kLinkChains)
		out.push_back(key + "." + chain);
	return out;
}

std::vector<std::pair<std::string, int>> set_names(const std::string &key)
{
	return {{key + ".allowed4", AF_INET}, {key + ".allowed6", AF_INET6}};
}

std::vector<std::string> keys(const Json &listing)
{
	std::set<std::string> out;
	const auto objects = listing.find("nftables");
	if (objects == listing.end() || !objects->is_array())
		return {};
	for (const Json &o : *objects) {
		const auto chain = o.find("chain");
		if (chain == o.end() || !chain->is_object() || chain->value("table", "") != kLinkTable)
			continue;
		const std::string name = chain->value("name", "");
		const size_t dot = name.rfind('.');
		if (dot != std::string::npos && dot > 0)
			out.insert(name.substr(0, dot));
	}
	return {out.begin(), out.end()};
}

Json lower_guard(const std::string &device, const std::vector<Mac> &macs)
{
	Batch b(lower_table(device));
	b.replace_table();
	if (macs.empty())
		return b.done();
	b.table();
	Json elems = Json::array();
	for (const Mac &m : macs)
		elems.push_back(mac_text(m));
	b.command("add", "set",
	    {{"table", lower_table(device)}, {"name", "vnics"}, {"type", "ether_addr"}, {"elem", elems}});
	b.base_chain("egress", "egress", device);
	b.drop("egress", {ne(field("ether", "saddr"), "@vnics")}, "foreign-mac");
	return b.done();
}

namespace {

// One batch that adds `macs` to, or deletes them from, the guard of lower link `device`.
Json lower_guard_elements(const char *verb, const std::string &device, const std::vector<Mac> &macs)
{
	Json elems = Json::array();
	for (const Mac &m : macs)
		elems.push_back(mac_text(m));
	return {{"nftables",
	    {{{verb,
	        {{"element",
	            {{"family", kFamily}, {"table", lower_table(device)}, {"name", "vnics"},
	                {"elem", std::move(elems)}}}}}}}}};
}

}  // namespace

Json lower_guard_addition(const std::string &device, const std::vector<Mac> &macs)
{
	return lower_guard_elements("add", device, macs);
}

Json lower_guard_removal(const std::string &device, const std::vector<Mac> &macs)
{
	return lower_guard_elements("delete", device, macs);
}

std::string sealed_table(const std::string &link)
{
	return "kel-sealed_" + link;
}

Json sealed(const std::string &device)
{
	Batch b(sealed_table(device));
	b.replace_table();
	b.table();
	b.base_chain("ingress", "ingress", device);
	b.drop("ingress", {}, "sealed");
	return b.done();
}

}  // namespace wexo::filter

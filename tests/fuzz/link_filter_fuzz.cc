// Link property texts, as a caller sends them, into a link's filters: each text parses or
// is refused; what parses becomes a batch of nftables commands whose structure no value
// can change (one table, of the names and kinds the builder writes, its set elements
// the parsed addresses printed anew), and which reads back as the protections asked for.
// Input: "NAME=VALUE" lines.
#include <arpa/inet.h>

#include <cstdint>
#include <set>
#include <string>

#include "fuzz_check.h"
#include "link_filter.h"

namespace {

using namespace wexo::filter;

const std::set<std::string> kVerbs = {"add", "flush", "delete"}, kKinds = {"table", "set", "chain", "rule"},
                            kComments = {"kel:priority=high", "kel:priority=low", "kel:mac-nospoof", "kel:tagged",
                                "kel:restricted", "kel:dhcp-nospoof", "kel:ip-nospoof", "kel:hooked",
                                "kel:foreign-mac"};

// Every object is a command of the builder's on table `table`, in the netdev family; with
// a `key`, on that link's own objects there (or its table of old) alone.
void check_structure(const Json &batch, const std::string &table, const std::string &key)
{
	FUZZ_CHECK(batch.is_object() && batch.size() == 1 && batch["nftables"].is_array());
	for (const Json &cmd : batch["nftables"]) {
		FUZZ_CHECK(cmd.is_object() && cmd.size() == 1 && kVerbs.count(cmd.begin().key()) == 1);
		const Json &inner = cmd.begin().value();
		FUZZ_CHECK(inner.is_object() && inner.size() == 1 && kKinds.count(inner.begin().key()) == 1);
		const Json &obj = inner.begin().value();
		FUZZ_CHECK(obj["family"] == "netdev");
		const bool is_table = inner.begin().key() == "table";
		FUZZ_CHECK(obj[is_table ? "name" : "table"] == table || (is_table && obj["name"] == legacy_table(key)));
		if (!key.empty() && !is_table)
			FUZZ_CHECK(obj[inner.begin().key() == "rule" ? "chain" : "name"].get<std::string>().rfind(
			               key + ".", 0) == 0);
		if (obj.contains("comment"))
			FUZZ_CHECK(kComments.count(obj["comment"].get<std::string>()) == 1);
		if (obj.contains("elem"))
			for (const Json &e : obj["elem"]) {
				const std::string addr = e.is_string() ? e.get<std::string>()
				                                       : e["prefix"]["addr"].get<std::string>();
				unsigned char buf[16];
				FUZZ_CHECK(inet_pton(AF_INET, addr.c_str(), buf) == 1 ||
				    inet_pton(AF_INET6, addr.c_str(), buf) == 1 ||
				    (obj["name"] == "vnics" && addr.size() == 17));
				// A rule's set and jump targets are the link's own.
				if (obj.contains("expr") && !key.empty()) {
					const std::string text = obj["expr"].dump();
					for (size_t at = text.find("\"@"); at != std::string::npos;
					     at = text.find("\"@", at + 1))
						FUZZ_CHECK(text.compare(at + 2, key.size() + 1, key + ".") == 0);
					for (size_t at = text.find("\"target\":\""); at != std::string::npos;
					     at = text.find("\"target\":\"", at + 1))
						FUZZ_CHECK(text.compare(at + 10, key.size() + 1, key + ".") == 0);
				}
			}
	}
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text(reinterpret_cast<const char *>(data), size);
	std::map<std::string, std::string> props;
	for (size_t start = 0; start < text.size();) {
		size_t end = text.find('\n', start);
		if (end == std::string::npos)
			end = text.size();
		const std::string line = text.substr(start, end - start);
		const size_t eq = line.find('=');
		if (eq != std::string::npos)
			props[line.substr(0, eq)] = line.substr(eq + 1);
		start = end + 1;
	}
	const Mac own = {2, 8, 0x20, 1, 2, 3};
	Settings s;
	if (!parse(props, own, &s))
		return 0;
	FUZZ_CHECK(s.allowed4.size() + s.allowed6.size() <= kMaxAllowed);
	// The allowed addresses print and parse back to themselves.
	std::string printed;
	for (const auto *list : {&s.allowed4, &s.allowed6})
		for (const Prefix &p : *list)
			printed += (printed.empty() ? "" : ",") + prefix_text(p);
	std::vector<Prefix> v4, v6;
	FUZZ_CHECK(parse_allowed(printed, &v4, &v6) && v4 == s.allowed4 && v6 == s.allowed6);

	Placement at;
	at.key = link_key("guest", "eth0");
	at.hooks = {{"egress", "kel-vxlan5000"}, {"ingress", "kel-vxlan5000"}};
	at.selector = s.mac;
	at.host_side = true;
	const Json batch = Json::parse(ruleset(at, s).dump());
	check_structure(batch, kLinkTable, at.key);
	// What was built reads back as what was asked.
	const std::vector<std::string> held = in_force(batch, at);
	const auto has = [&](const char *what) { return std::find(held.begin(), held.end(), what) != held.end(); };
	FUZZ_CHECK(has("mac-nospoof") == s.mac_nospoof && has("ip-nospoof") == s.ip_nospoof &&
	    has("dhcp-nospoof") == s.dhcp_nospoof && has("restricted") == s.restricted &&
	    has("tagged") == s.protects());
	FUZZ_CHECK(has("priority=high") == (s.priority == Priority::High) &&
	    has("priority=low") == (s.priority == Priority::Low));
	check_structure(Json::parse(lower_guard("eth0", {own, s.mac}).dump()), lower_table("eth0"), "");
	return 0;
}

// A link's filters from its property texts: what parses, what is refused, and how what
// is in force is read back from a table that may have been tampered with.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <set>
#include <string>
#include <vector>

#include "link_filter.h"

namespace {

using namespace wexo::filter;

const Mac kOwn = {0x02, 0x08, 0x20, 0x01, 0x02, 0x03};

std::string texts(const std::vector<Prefix> &list)
{
	std::string out;
	for (const Prefix &p : list)
		out += (out.empty() ? "" : ",") + prefix_text(p);
	return out;
}

TEST(LinkFilter, AllowedAddressesParseWholeOrNotAtAll)
{
	struct Case {
		const char *text;
		bool ok;
		const char *v4, *v6;  // what is kept, disjoint and in order
	} cases[] = {
	    {"", true, "", ""},
	    {"10.0.0.1", true, "10.0.0.1", ""},
	    {"10.0.0.7/24,2001:db8::1", true, "10.0.0.0/24", "2001:db8::1"},
	    // Covered prefixes go; what is left does not overlap, as an interval set wants.
	    {"10.1.2.3,10.0.0.0/8,10.1.0.0/16,192.168.0.1", true, "10.0.0.0/8,192.168.0.1", ""},
	    {"2001:db8::/61,2001:db8::5,fe80::1/128", true, "", "2001:db8::/61,fe80::1"},
	    {"0.0.0.0/0,10.0.0.1", true, "0.0.0.0/0", ""},
	    // Only an address and a plain decimal length within the family's bits.
	    {"10.0.0.1/33", false, "", ""},
	    {"10.0.0.1/+8", false, "", ""},
	    {"10.0.0.1/ 8", false, "", ""},
	    {"10.0.0.1/", false, "", ""},
	    {"2001:db8::/129", false, "", ""},
	    {"10.0.0", false, "", ""},
	    {"10.0.0.1,", false, "", ""},
	    {"10.0.0.1 }; flush ruleset", false, "", ""},
	    {"10.0.0.1/32 }; }; }; flush ruleset; table netdev kel_lo { set allowed4 { type ipv4_addr", false, "", ""},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.text);
		std::vector<Prefix> v4, v6;
		ASSERT_EQ(parse_allowed(c.text, &v4, &v6), c.ok);
		if (c.ok) {
			EXPECT_EQ(texts(v4), c.v4);
			EXPECT_EQ(texts(v6), c.v6);
		}
	}
	// More addresses than a port could have are refused, not built into rules.
	std::string many;
	for (size_t i = 0; i <= kMaxAllowed; i++)
		many += (many.empty() ? "" : ",") + std::string("10.0.") + std::to_string(i / 250) + "." +
		    std::to_string(i % 250);
	std::vector<Prefix> v4, v6;
	EXPECT_FALSE(parse_allowed(many, &v4, &v6));
}

TEST(LinkFilter, SettingsTakeOnlyWhatTheyKnow)
{
	struct Case {
		std::map<std::string, std::string> props;
		bool ok;
	} cases[] = {
	    {{{"protection", "mac-nospoof,ip-nospoof,dhcp-nospoof,restricted"}}, true},
	    {{{"protection", "none"}}, true},
	    {{{"protection", "ip-nospoof,"}}, false},
	    {{{"protection", "mac-spoof"}}, false},
	    {{{"priority", "medium"}, {"allowed-mac", "2:8:20:a:b:c"}}, true},
	    {{{"priority", "urgent"}}, false},
	    {{{"allowed-mac", "2:8:20:a:b"}}, false},
	    {{{"allowed-mac", "2:8:20:a:b:c:d"}}, false},
	    {{{"allowed-mac", "02:08:20:0a:0b:0c\" counter"}}, false},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.props.begin()->second);
		Settings s;
		EXPECT_EQ(parse(c.props, kOwn, &s), c.ok);
	}
	Settings s;
	ASSERT_TRUE(parse({{"allowed-mac", "2:8:20:a:b:c"}, {"protection", "mac-nospoof"}}, kOwn, &s));
	EXPECT_EQ(mac_text(s.mac), "02:08:20:0a:0b:0c");
	ASSERT_TRUE(parse({}, kOwn, &s));
	EXPECT_EQ(s.mac, kOwn);
	EXPECT_FALSE(s.any());
}

TEST(LinkFilter, TheLinkLocalAddressOfAMac)
{
	char buf[INET6_ADDRSTRLEN];
	const Prefix ll = link_local(kOwn);
	ASSERT_NE(inet_ntop(AF_INET6, ll.bytes.data(), buf, sizeof(buf)), nullptr);
	EXPECT_STREQ(buf, "fe80::8:20ff:fe01:203");  // the universal/local bit flipped
	EXPECT_EQ(ll.len, 128u);
}

// The listing nftables gives of a table is what the builder made, comment for comment:
// taking rules away from it must take what they are for out of what is in force.
TEST(LinkFilter, WhatIsInForceNeedsAllItsRulesAndHooks)
{
	Placement at;
	at.key = link_key("guest", "eth0");
	at.hooks = {{"egress", "kel-vxlan5000"}, {"ingress", "kel-vxlan5000"}};
	at.selector = kOwn;
	Settings s;
	ASSERT_TRUE(parse({{"protection", "mac-nospoof,ip-nospoof"}, {"priority", "high"}, {"allowed-ips", "10.0.0.1"}},
	    kOwn, &s));
	const Json built = ruleset(at, s);
	EXPECT_EQ(in_force(built, at),
	    (std::vector<std::string>{"priority=high", "mac-nospoof", "tagged", "ip-nospoof"}));

	// Rules of one chain gone, one hook gone: a listing with those objects left out.
	const auto without = [&](auto &&drop) {
		Json listing = {{"nftables", Json::array()}};
		for (const Json &cmd : built["nftables"])
			if (cmd.contains("add") && cmd["add"].contains("rule") && !drop(cmd["add"]["rule"]))
				listing["nftables"].push_back({{"rule", cmd["add"]["rule"]}});
		return in_force(listing, at);
	};
	EXPECT_EQ(without([](const Json &r) { return r["chain"] == "guest/eth0.guard_arp"; }),
	    (std::vector<std::string>{"priority=high", "mac-nospoof", "tagged"}));
	EXPECT_EQ(without([](const Json &r) { return r["chain"] == "guest/eth0.guard"; }),
	    (std::vector<std::string>{}));
	EXPECT_TRUE(without([](const Json &r) { return r["chain"] == "guest/eth0.ingress"; }).empty());
	EXPECT_TRUE(in_force(Json::object(), at).empty());
	// Another link's rules in the same table are not this one's.
	Placement other = at;
	other.key = link_key("guest2", "eth0");
	EXPECT_TRUE(in_force(built, other).empty());
	EXPECT_EQ(keys({{"nftables",
	              {{{"chain", {{"table", "kel"}, {"name", "guest/eth0.guard"}}}},
	                  {{"chain", {{"table", "kel"}, {"name", "vt0.egress"}}}},
	                  {{"chain", {{"table", "kel-lower_x"}, {"name", "egress"}}}}}}}),
	    (std::vector<std::string>{"guest/eth0", "vt0"}));

	// Nothing to filter: the batch only takes the link's objects away, and asks nothing
	// of what is there: every object named is the link's own, in the shared table (or the
	// link's table of old), added before it is deleted.
	Settings none;
	const Json removal_only = ruleset(at, none);
	EXPECT_EQ(removal_only, removal_of(at.key));
	EXPECT_TRUE(in_force(removal_only, at).empty());
	std::set<std::string> added;
	for (const Json &cmd : removal_only["nftables"]) {
		const std::string verb = cmd.begin().key(), kind = cmd.begin().value().begin().key();
		const Json &obj = cmd.begin().value().begin().value();
		const std::string name = kind == "table"
		    ? obj["name"].get<std::string>()
		    : obj["table"].get<std::string>() + " " + obj["name"].get<std::string>();
		EXPECT_TRUE(
		    kind == "table" ? name == "kel" || name == "kel_guest/eth0" : name.rfind("kel guest/eth0.", 0) == 0)
		    << name;
		if (verb == "add")
			added.insert(kind + name);
		else
			EXPECT_EQ(added.count(kind + name), 1u) << verb << " " << name;
	}
}

TEST(LinkFilter, ALowerLinksGuardLetsOutItsVnicsAlone)
{
	const Mac other = {0x02, 0x08, 0x20, 0x09, 0x09, 0x09};
	const Json guard = lower_guard("kel-vxlan5000", {kOwn, other});
	const std::string text = guard.dump();
	EXPECT_NE(text.find("\"02:08:20:01:02:03\""), std::string::npos);
	EXPECT_NE(text.find("\"02:08:20:09:09:09\""), std::string::npos);
	EXPECT_NE(text.find("\"kel-lower_kel-vxlan5000\""), std::string::npos);
	EXPECT_NE(text.find("\"@vnics\""), std::string::npos);
	// No VNIC: the guard goes.
	EXPECT_EQ(lower_guard("eth0", {}), removal(lower_table("eth0")));
}

}  // namespace

// What each protection dropped, summed over its rules from a listing's counters: the
// rules of other links and rules without a counter (a jump, a hook) count nothing.
TEST(LinkFilter, DropsAreSummedByWhatTheRulesAreFor)
{
	const auto rule = [](const std::string &chain, const std::string &comment, Json counter) {
		Json r = {{"family", "netdev"}, {"table", "kel"}, {"chain", chain}, {"comment", "kel:" + comment}};
		if (!counter.is_null())
			r["expr"] = Json::array({{{"match", {}}}, {{"counter", counter}}, {{"drop", nullptr}}});
		return Json{{"rule", r}};
	};
	const Json listing = {{"nftables",
	    {rule("g/eth0.guard", "mac-nospoof", {{"packets", 2}, {"bytes", 120}}),
	        rule("g/eth0.guard_ip4", "ip-nospoof", {{"packets", 3}, {"bytes", 138}}),
	        rule("g/eth0.guard_arp", "ip-nospoof", {{"packets", 1}, {"bytes", 42}}),
	        rule("g/eth0.guard", "ip-nospoof", nullptr),
	        rule("g/eth0.guard", "restricted", {{"packets", -1}, {"bytes", 1}}),
	        rule("g2/eth0.guard", "mac-nospoof", {{"packets", 50}, {"bytes", 5000}})}}};
	const std::vector<Dropped> got = drops(listing, "g/eth0");
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].rule, "mac-nospoof");
	EXPECT_EQ(got[0].packets, 2u);
	EXPECT_EQ(got[1].rule, "ip-nospoof");
	EXPECT_EQ(got[1].packets, 4u);
	EXPECT_EQ(got[1].bytes, 180u);
	// The rules as built carry counters with no numbers yet: nothing to read.
	Settings s;
	ASSERT_TRUE(parse({{"protection", "mac-nospoof,ip-nospoof"}}, kOwn, &s));
	Placement at;
	at.key = "g/eth0";
	EXPECT_TRUE(drops(ruleset(at, s), at.key).empty());
	// A lower link's guard table holds one link's rules: read whole.
	const Json guard = {{"nftables", {rule("egress", "foreign-mac", {{"packets", 7}, {"bytes", 700}})}}};
	ASSERT_EQ(drops(guard, "").size(), 1u);
	EXPECT_EQ(drops(guard, "")[0].packets, 7u);
}

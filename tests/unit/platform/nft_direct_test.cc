// The filter batches sent straight to nf_tables must leave the kernel holding what
// libnftables makes of the same batches: each case is run both ways, in namespaces of
// its own, and the two tables listed back must read the same.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "link_filter.h"
#include "netns.h"
#include "nft.h"
#include "nft_direct.h"
#include "nft_read.h"

namespace {

using kel::test::InNetNs;
using kel::test::NetNs;
using wexo::nft::Direct;
namespace filter = wexo::filter;

std::string output_of(const std::string &cmd)
{
	std::string out;
	if (FILE *p = popen(cmd.c_str(), "r")) {
		char buf[4096];
		for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;)
			out.append(buf, n);
		pclose(p);
	}
	return out;
}

// A namespace with the devices the placements below hook.
struct Host {
	NetNs ns;
	explicit Host(const char *tag) : ns(tag) { ok = ns.ok() && ns.exec("ip link add v0 type veth peer name v1"); }
	bool ok = false;
	Direct direct(const filter::Json &batch) const
	{
		InNetNs in(ns);
		return in.entered() ? wexo::nft::run_direct(batch) : Direct::Refused;
	}
	// The same batch through libnftables, as nft's own command reads it.
	bool reference(const filter::Json &batch) const
	{
		const std::string file = "/tmp/kelt-nft-" + ns.name() + ".json";
		std::ofstream(file) << batch.dump();
		const bool ok = ns.exec("nft -j -f " + file);
		std::remove(file.c_str());
		return ok;
	}
	// One link's part of the shared table, read by name or from the whole table's listing
	// through libnftables: what is in force for it, and its address sets' elements.
	std::pair<std::vector<std::string>, filter::Json> link_state(const filter::Placement &at, bool by_name) const
	{
		InNetNs in(ns);
		filter::Json listing;
		const bool read = in.entered() &&
		    (by_name ? wexo::nft::read_link(filter::kLinkTable, filter::chain_names(at.key),
		                   filter::set_names(at.key), &listing)
		             : wexo::nft::list_table(-1, filter::kLinkTable, &listing) == WEXO_STATUS_OK);
		filter::Json sets = filter::Json::object();
		for (const filter::Json &o : read ? listing["nftables"] : filter::Json::array())
			if (o.contains("set") && o["set"].contains("elem") &&
			    o["set"]["name"].get<std::string>().rfind(at.key + ".", 0) == 0)
				sets[o["set"]["name"].get<std::string>()] = o["set"]["elem"];
		return {filter::in_force(listing, at), sets};
	}
	std::string listing(const std::string &table = filter::kLinkTable) const
	{
		return output_of("ip netns exec " + ns.name() + " nft list table netdev " + table + " 2>&1");
	}
};

filter::Settings settings(const char *props, const char *mac = "02:08:20:34:d6:49")
{
	filter::Mac own{};
	EXPECT_TRUE(filter::parse_mac(mac, &own));
	std::map<std::string, std::string> map;
	std::string text = props;
	for (size_t start = 0; start < text.size();) {
		const size_t semi = std::min(text.find(';', start), text.size());
		const std::string kv = text.substr(start, semi - start);
		map[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
		start = semi + 1;
	}
	filter::Settings s;
	EXPECT_TRUE(filter::parse(map, own, &s)) << props;
	return s;
}

TEST(NftDirect, LeavesWhatLibnftablesLeaves)
{
	Host direct("nd"), reference("nr"), mixed("nm");
	if (!direct.ok || !reference.ok || !mixed.ok)
		GTEST_SKIP() << "needs root and network namespaces";
	filter::Placement guest{filter::link_key("", "v0"), {{"egress", "v0"}, {"ingress", "v0"}}, std::nullopt, false};
	filter::Mac selector{};
	ASSERT_TRUE(filter::parse_mac("02:08:20:34:d6:49", &selector));
	filter::Placement lower{filter::link_key("g1", "eth0"), {{"egress", "v1"}}, selector, true};
	// Each step over what the step before left: made, changed, lifted, gone.
	const std::vector<filter::Json> steps = {
	    filter::ruleset(guest, settings("protection=mac-nospoof,ip-nospoof;allowed-ips=10.0.1.45")),
	    filter::ruleset(lower,
	        settings("protection=mac-nospoof,ip-nospoof,dhcp-nospoof,restricted;priority=high;"
	                 "allowed-ips=10.0.1.45,10.2.0.0/16,2001:db8::/61,2001:db8:1::5,10.0.1.47")),
	    filter::ruleset(guest,
	        settings("priority=low;protection=ip-nospoof;allowed-ips=0.0.0.0/0,fd00::/7", "2:0:0:0:0:1")),
	    filter::ruleset(guest,
	        settings("protection=restricted;allowed-ips=255.255.255.255,ffff::/16,10.0.0.0/25,10.0.0.128/25")),
	    filter::ruleset(lower, settings("protection=none")),
	    filter::removal_of(guest.key),
	    filter::lower_guard("v1", {selector, filter::Mac{2, 0, 0, 0, 0, 7}}),
	    filter::lower_guard_addition("v1", {filter::Mac{2, 0, 0, 0, 0, 9}, selector}),
	    filter::lower_guard_removal("v1", {filter::Mac{2, 0, 0, 0, 0, 7}}),
	    filter::sealed("v0"),
	};
	for (size_t i = 0; i < steps.size(); i++) {
		SCOPED_TRACE("step " + std::to_string(i) + ": " + steps[i].dump());
		ASSERT_EQ(direct.direct(steps[i]), Direct::Done);
		ASSERT_TRUE(reference.reference(steps[i]));
		// Taking over what libnftables made, and the other way round.
		if (i % 2 == 0)
			ASSERT_TRUE(mixed.reference(steps[i]));
		else
			ASSERT_EQ(mixed.direct(steps[i]), Direct::Done);
		for (const std::string &table :
		    {std::string(filter::kLinkTable), filter::lower_table("v1"), filter::sealed_table("v0")}) {
			const std::string want = reference.listing(table);
			EXPECT_EQ(direct.listing(table), want) << table;
			EXPECT_EQ(mixed.listing(table), want) << table;
		}
		for (const filter::Placement *at : {&guest, &lower}) {
			const auto want = reference.link_state(*at, false);
			for (const Host *h : {&direct, &reference, &mixed})
				EXPECT_EQ(h->link_state(*at, true), want) << at->key;
		}
		if (i == 1) {
			EXPECT_NE(direct.listing().find("ip saddr != @g1/eth0.allowed4"), std::string::npos);
			const auto state = direct.link_state(lower, true);
			EXPECT_EQ(state.first.size(), 6u);  // priority, four protections, the tags
			EXPECT_EQ(state.second.size(), 2u);
		}
	}
}

TEST(NftDirect, RefusedBatchesChangeNothingAndUnknownOnesAreNotSent)
{
	Host host("nx");
	if (!host.ok)
		GTEST_SKIP() << "needs root and network namespaces";
	filter::Placement at{"v0", {{"egress", "v0"}}, std::nullopt, false};
	ASSERT_EQ(host.direct(filter::ruleset(at, settings("protection=mac-nospoof"))), Direct::Done);
	const std::string before = host.listing();
	ASSERT_NE(before.find("kel:mac-nospoof"), std::string::npos);

	// A jump to a chain that is not there, at the end: the kernel refuses the whole batch.
	filter::Json broken = filter::ruleset(at, settings("protection=ip-nospoof"));
	broken["nftables"].push_back({{"add",
	    {{"rule",
	        {{"family", "netdev"}, {"table", "kel"}, {"chain", "v0.guard"},
	            {"expr", {{{"jump", {{"target", "v0.nosuch"}}}}}}}}}}});
	EXPECT_EQ(host.direct(broken), Direct::Refused);
	EXPECT_EQ(host.listing(), before);

	// An address for a guard that is not there: refused, and the guard is made whole.
	EXPECT_EQ(host.direct(filter::lower_guard_addition("v0", {filter::Mac{2, 0, 0, 0, 0, 9}})), Direct::Refused);
	// Likewise an address taken out that the guard does not hold.
	ASSERT_EQ(host.direct(filter::lower_guard("v0", {filter::Mac{2, 0, 0, 0, 0, 8}})), Direct::Done);
	EXPECT_EQ(host.direct(filter::lower_guard_removal("v0", {filter::Mac{2, 0, 0, 0, 0, 9}})), Direct::Refused);

	const auto one = [](filter::Json command) { return filter::Json{{"nftables", {std::move(command)}}}; };
	for (const filter::Json &odd : {
	         one({{"add", {{"table", {{"family", "inet"}, {"name", "x"}}}}}}),
	         one({{"add", {{"flowtable", {{"family", "netdev"}, {"table", "kel"}, {"name", "f"}}}}}}),
	         one({{"add",
	             {{"rule",
	                 {{"family", "netdev"}, {"table", "kel"}, {"chain", "v0.guard"},
	                     {"expr",
	                         {{{"match",
	                             {{"op", "<"}, {"left", {{"payload", {{"protocol", "ip"}, {"field", "saddr"}}}}},
	                                 {"right", "10.0.0.1"}}}}}}}}}}}),
	         one({{"add",
	             {{"rule",
	                 {{"family", "netdev"}, {"table", "kel"}, {"chain", "v0.guard"},
	                     {"expr",
	                         {{{"match",
	                             {{"op", "=="}, {"left", {{"payload", {{"protocol", "tcp"}, {"field", "dport"}}}}},
	                                 {"right", 22}}}}}}}}}}}),
	         one({{"add",
	             {{"rule",
	                 {{"family", "netdev"}, {"table", "kel"}, {"chain", "v0.guard"},
	                     {"expr",
	                         {{{"match",
	                             {{"op", "=="}, {"left", {{"payload", {{"protocol", "udp"}, {"field", "sport"}}}}},
	                                 {"right", {{"set", {67, 547}}}}}}}}}}}}}}),
	         filter::Json{{"nftables", "not a list"}},
	     }) {
		EXPECT_EQ(host.direct(odd), Direct::Unsupported) << odd.dump();
	}
	EXPECT_EQ(host.listing(), before);
}

}  // namespace

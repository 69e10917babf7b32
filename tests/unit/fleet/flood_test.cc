// Flood lists of VXLAN links without a multicast group, against the kernel's forwarding
// table as `bridge fdb` shows it.
#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "flood_lists.h"
#include "flood_sync.h"
#include "netns.h"
#include "wexo.h"

namespace {

using kel::test::NetNs;
using Remotes = std::vector<std::string>;

std::string fdb_of(const char *link)
{
	std::string out;
	if (FILE *p = popen((std::string("bridge fdb show dev ") + link + " 2>&1").c_str(), "r")) {
		char buf[256];
		while (std::fgets(buf, sizeof(buf), p) != nullptr)
			out += buf;
		pclose(p);
	}
	return out;
}

// The all-zero entries of `link` as `bridge fdb` prints them, without the address, sorted.
std::vector<std::string> zero_entries(const char *link)
{
	std::vector<std::string> lines;
	std::istringstream in(fdb_of(link));
	const std::string zero = "00:00:00:00:00:00 ";
	for (std::string line; std::getline(in, line);) {
		if (line.compare(0, zero.size(), zero) != 0)
			continue;
		line.erase(0, zero.size());
		line.erase(line.find_last_not_of(' ') + 1);
		lines.push_back(line);
	}
	std::sort(lines.begin(), lines.end());
	return lines;
}

// What zero_entries shows of a list as the flood calls make it.
std::vector<std::string> plain_entries(const Remotes &remotes)
{
	std::vector<std::string> lines;
	for (const std::string &r : remotes)
		lines.push_back("dst " + r + " self permanent");
	std::sort(lines.begin(), lines.end());
	return lines;
}

class Flood : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (!ns_.ok())
			GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2)";
		in_ = std::make_unique<kel::test::InNetNs>(ns_);
		ASSERT_TRUE(in_->entered());
		for (const char *cmd : {"ip link add up0 type veth peer name up0p", "ip addr add 10.79.0.1/24 dev up0",
		         "ip addr add fd00:79::1/64 dev up0 nodad", "ip link set up0 up",
		         "ip link add vx0 type vxlan id 5000 local 10.79.0.1 dstport 4789",
		         "ip link add vx6 type vxlan id 5001 local fd00:79::1 dstport 4789"})
			ASSERT_TRUE(NetNs::run(cmd)) << cmd;
		ASSERT_EQ(wexo_open(&h_), WEXO_STATUS_OK);
		ASSERT_EQ(wexo_name2info(h_, "vx0", &vx_, nullptr), WEXO_STATUS_OK);
		ASSERT_EQ(wexo_name2info(h_, "vx6", &vx6_, nullptr), WEXO_STATUS_OK);
	}
	void TearDown() override
	{
		wexo_close(h_);
		in_.reset();
	}
	Remotes flood(bool v6 = false)
	{
		std::string local;
		Remotes r;
		EXPECT_EQ(kel::test::get_flood(h_, v6 ? vx6_ : vx_, &local, &r), WEXO_STATUS_OK);
		EXPECT_EQ(local, v6 ? "fd00:79::1" : "10.79.0.1");
		return r;
	}
	// Entries added by hand to link `link`, as `bridge fdb append` takes them.
	static void by_hand(const char *link, const std::vector<const char *> &entries)
	{
		for (const char *e : entries)
			ASSERT_TRUE(
			    NetNs::run(std::string("bridge fdb append 00:00:00:00:00:00 dev ") + link + " " + e))
			    << e;
	}

	NetNs ns_{"flood"};
	std::unique_ptr<kel::test::InNetNs> in_;
	wexo_handle_t h_ = nullptr;
	datalink_id_t vx_ = 0, vx6_ = 0;
};

TEST_F(Flood, ListsAreSetExactlyOrOnlyAddedTo)
{
	const struct {
		Remotes set;
		bool only_add;
		Remotes want;
	} steps[] = {
	    {{"10.79.0.2", "10.79.0.3"}, false, {"10.79.0.2", "10.79.0.3"}},
	    {{"10.79.0.3", "10.79.0.2"}, false, {"10.79.0.2", "10.79.0.3"}},  // no change
	    {{"10.79.0.3", "10.79.0.4"}, false, {"10.79.0.3", "10.79.0.4"}},
	    {{"10.79.0.5"}, true, {"10.79.0.3", "10.79.0.4", "10.79.0.5"}},
	    {{}, true, {"10.79.0.3", "10.79.0.4", "10.79.0.5"}},
	    {{}, false, {}},
	};
	for (const auto &s : steps) {
		ASSERT_EQ(kel::test::set_flood(h_, vx_, s.set, s.only_add), WEXO_STATUS_OK);
		EXPECT_EQ(flood(), s.want);
	}
	ASSERT_EQ(kel::test::set_flood(h_, vx_, {"10.79.0.7"}, false), WEXO_STATUS_OK);
	// The kernel holds exactly one all-zero entry, towards the one remote.
	const std::string fdb = fdb_of("vx0");
	EXPECT_NE(fdb.find("00:00:00:00:00:00 dst 10.79.0.7"), std::string::npos) << fdb;
	EXPECT_EQ(fdb.find("00:00:00:00:00:00", fdb.find("00:00:00:00:00:00") + 1), std::string::npos) << fdb;
}

TEST_F(Flood, LearnedAndOtherEntriesAreLeftAlone)
{
	ASSERT_TRUE(NetNs::run("bridge fdb add 02:08:20:00:00:09 dev vx0 dst 10.79.0.9"));
	ASSERT_EQ(kel::test::set_flood(h_, vx_, {"10.79.0.2"}, false), WEXO_STATUS_OK);
	ASSERT_EQ(kel::test::set_flood(h_, vx_, {}, false), WEXO_STATUS_OK);
	EXPECT_EQ(flood(), Remotes{});
	EXPECT_NE(fdb_of("vx0").find("02:08:20:00:00:09 dst 10.79.0.9"), std::string::npos);
}

// Whatever odd entries a link holds (an unspecified destination, whose removal would
// take every entry with it; another port, VNI or lower link; an entry that ages), a set
// leaves exactly the list asked for, and adding leaves only the plain entries beside it.
TEST_F(Flood, OddEntriesAreMadeExact)
{
	const struct {
		const char *what;
		std::vector<const char *> found;
		Remotes set;
		bool only_add;
		Remotes want;
	} cases[] = {
	    {"an unspecified destination", {"dst 10.79.0.2", "dst 10.79.0.3", "dst 0.0.0.0"},
	        {"10.79.0.2", "10.79.0.3"}, false, {"10.79.0.2", "10.79.0.3"}},
	    {"an unspecified destination, added to", {"dst 10.79.0.3", "dst 0.0.0.0"}, {"10.79.0.2"}, true,
	        {"10.79.0.2", "10.79.0.3"}},
	    {"another port", {"dst 10.79.0.2 port 5000"}, {"10.79.0.2"}, false, {"10.79.0.2"}},
	    {"the same twice, one on another port", {"dst 10.79.0.2", "dst 10.79.0.2 port 5000"}, {"10.79.0.2"}, true,
	        {"10.79.0.2"}},
	    {"another VNI and another lower link", {"dst 10.79.0.4 vni 77", "dst 10.79.0.5 via up0"},
	        {"10.79.0.4", "10.79.0.5"}, false, {"10.79.0.4", "10.79.0.5"}},
	    {"an entry that ages", {"dst 10.79.0.2", "dst 10.79.0.3 dynamic"}, {"10.79.0.2", "10.79.0.3"}, false,
	        {"10.79.0.2", "10.79.0.3"}},
	    {"nothing wanted", {"dst 0.0.0.0", "dst 10.79.0.2 port 5000"}, {}, false, {}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		(void)NetNs::run("bridge fdb del 00:00:00:00:00:00 dev vx0");
		by_hand("vx0", c.found);
		ASSERT_EQ(kel::test::set_flood(h_, vx_, c.set, c.only_add), WEXO_STATUS_OK);
		EXPECT_EQ(flood(), c.want);
		EXPECT_EQ(zero_entries("vx0"), plain_entries(c.want));
	}

	// Over IPv6 alike, the wanted list written any way an address may be.
	by_hand("vx6", {"dst fd00:79::2", "dst ::"});
	ASSERT_EQ(kel::test::set_flood(h_, vx6_, {"FD00:79:0::2", "fd00:79::3"}, false), WEXO_STATUS_OK);
	EXPECT_EQ(flood(true), (Remotes{"fd00:79::2", "fd00:79::3"}));
	EXPECT_EQ(zero_entries("vx6"), plain_entries({"fd00:79::2", "fd00:79::3"}));
}

// Odd entries are read as what they are, so that a comparison with the wanted list sees
// them.
TEST_F(Flood, OddEntriesAreReadAsSuch)
{
	by_hand("vx0",
	    {"dst 10.79.0.2", "dst 0.0.0.0", "dst 10.79.0.2 port 5000", "dst 10.79.0.4 vni 77",
	        "dst 10.79.0.5 via up0"});
	EXPECT_EQ(flood(),
	    (Remotes{"0.0.0.0", "10.79.0.2", "10.79.0.2 port 5000", "10.79.0.4 vni 77", "10.79.0.5 via up0"}));
	// Ageing is the entry's, whose destinations all share it.
	by_hand("vx0", {"dst 10.79.0.6 dynamic"});
	EXPECT_EQ(flood(),
	    (Remotes{"0.0.0.0 (not permanent)", "10.79.0.2 (not permanent)", "10.79.0.2 port 5000 (not permanent)",
	        "10.79.0.4 vni 77 (not permanent)", "10.79.0.5 via up0 (not permanent)", "10.79.0.6 (not permanent)"}));
}

TEST_F(Flood, BadRemotesAndOtherLinksAreRefused)
{
	for (const char *bad : {"10.79.0", "10.79.0.0/24", "fast", ""})
		EXPECT_EQ(kel::test::set_flood(h_, vx_, {bad}, false), WEXO_STATUS_BADVAL) << bad;
	EXPECT_EQ(flood(), Remotes{});
	// Nowhere a copy of a frame could go, or the link itself: the whole list is refused.
	ASSERT_EQ(kel::test::set_flood(h_, vx_, {"10.79.0.2"}, false), WEXO_STATUS_OK);
	for (const char *bad : {"0.0.0.0", "0.1.2.3", "255.255.255.255", "224.0.0.1", "239.1.1.1", "127.0.0.1",
	         "127.8.9.10", "10.79.0.1", "fd00:79::2", "::ffff:10.79.0.3"}) {
		EXPECT_EQ(kel::test::set_flood(h_, vx_, {"10.79.0.3", bad}, false), WEXO_STATUS_BADVAL) << bad;
		EXPECT_EQ(kel::test::set_flood(h_, vx_, {bad}, true), WEXO_STATUS_BADVAL) << bad;
	}
	for (const char *bad : {"::", "::1", "ff02::1", "ff0e::5", "fd00:79::1", "FD00:79::1", "10.79.0.3"})
		EXPECT_EQ(kel::test::set_flood(h_, vx6_, {"fd00:79::3", bad}, false), WEXO_STATUS_BADVAL) << bad;
	EXPECT_EQ(flood(), Remotes{"10.79.0.2"});
	EXPECT_EQ(flood(true), Remotes{});
	datalink_id_t veth = 0;
	ASSERT_EQ(wexo_name2info(h_, "up0", &veth, nullptr), WEXO_STATUS_OK);
	std::string local;
	Remotes r;
	EXPECT_EQ(kel::test::get_flood(h_, veth, &local, &r), WEXO_STATUS_BADARG);
	EXPECT_EQ(kel::test::set_flood(h_, veth, {"10.79.0.2"}, false), WEXO_STATUS_BADARG);
}

// What the controller asks of each host's link: the others' endpoints, each once, and
// none that a flood list cannot hold (which would have the whole list refused).
TEST(FloodWanted, OnlyEndpointsAListCanHold)
{
	const struct {
		const char *local;
		bool has_link;
	} hosts[] = {{"10.79.0.1", true}, {"10.79.0.2", true}, {"10.79.0.2", true}, {"0.0.0.0", true},
	    {"127.0.0.1", true}, {"239.1.1.1", true}, {"255.255.255.255", true}, {"fd00:79::2", true},
	    {"10.79.0.1", true}, {"10.79.0.9", false}, {"10.79.0.3", true}, {"bogus", true}};
	std::vector<kel::FloodMember> members(std::size(hosts));
	for (size_t i = 0; i < std::size(hosts); i++) {
		members[i].local = hosts[i].local;
		members[i].has_link = hosts[i].has_link;
	}
	EXPECT_EQ(kel::flood_wanted(members, members[0]), (Remotes{"10.79.0.2", "10.79.0.3"}));
	EXPECT_EQ(kel::flood_wanted(members, members[7]), Remotes{});
}

}  // namespace

// Flood lists of VXLAN links without a multicast group, against the kernel's forwarding
// table as `bridge fdb` shows it.
#include <cstdio>
#include <string>
#include <vector>

#include "netns.h"
#include "flood_lists.h"
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

class Flood : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (!ns_.ok())
			GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2)";
		in_ = std::make_unique<kel::test::InNetNs>(ns_);
		ASSERT_TRUE(in_->entered());
		for (const char *cmd : {"ip link add up0 type veth peer name up0p", "ip addr add 10.79.0.1/24 dev up0",
		         "ip link set up0 up", "ip link add vx0 type vxlan id 5000 local 10.79.0.1 dstport 4789"})
			ASSERT_TRUE(NetNs::run(cmd)) << cmd;
		ASSERT_EQ(wexo_open(&h_), WEXO_STATUS_OK);
		ASSERT_EQ(wexo_name2info(h_, "vx0", &vx_, nullptr), WEXO_STATUS_OK);
	}
	void TearDown() override
	{
		wexo_close(h_);
		in_.reset();
	}
	Remotes flood()
	{
		std::string local;
		Remotes r;
		EXPECT_EQ(kel::test::get_flood(h_, vx_, &local, &r), WEXO_STATUS_OK);
		EXPECT_EQ(local, "10.79.0.1");
		return r;
	}

	NetNs ns_{"flood"};
	std::unique_ptr<kel::test::InNetNs> in_;
	wexo_handle_t h_ = nullptr;
	datalink_id_t vx_ = 0;
};

TEST_F(Flood, ListsAreSetExactlyOrOnlyAddedTo)
{
	const struct {
		Remotes set;
		bool only_add;
		Remotes want;
	} steps[] = {
	    {{"10.79.0.2", "10.79.0.3"}, false, {"10.79.0.2", "10.79.0.3"}},
	    {{"10.79.0.3", "10.79.0.2"}, false, {"10.79.0.2", "10.79.0.3"}},	// no change
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

TEST_F(Flood, BadRemotesAndOtherLinksAreRefused)
{
	for (const char *bad : {"10.79.0", "10.79.0.0/24", "fast", ""})
		EXPECT_EQ(kel::test::set_flood(h_, vx_, {bad}, false), WEXO_STATUS_BADVAL) << bad;
	EXPECT_EQ(flood(), Remotes{});
	datalink_id_t veth = 0;
	ASSERT_EQ(wexo_name2info(h_, "up0", &veth, nullptr), WEXO_STATUS_OK);
	std::string local;
	Remotes r;
	EXPECT_EQ(kel::test::get_flood(h_, veth, &local, &r), WEXO_STATUS_BADARG);
	EXPECT_EQ(kel::test::set_flood(h_, veth, {"10.79.0.2"}, false), WEXO_STATUS_BADARG);
}

}  // namespace

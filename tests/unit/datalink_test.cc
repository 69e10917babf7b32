// The datalink and IP interface layers against the kernel: two namespaces joined by a
// veth pair, traffic sent only between them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "fenu.h"
#include "netns.h"
#include "wexo.h"

namespace {

using kel::test::NetNs;

class Datalinks : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (!a_.ok() || !b_.ok())
			GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2)";
		ASSERT_TRUE(NetNs::run("ip link add va netns " + a_.name() + " type veth peer name vb netns " + b_.name()));
		ASSERT_TRUE(a_.exec("ip addr add 10.77.0.1/24 dev va"));
		ASSERT_TRUE(b_.exec("ip addr add 10.77.0.2/24 dev vb"));
		ASSERT_TRUE(a_.exec("ip link set va up"));
		ASSERT_TRUE(b_.exec("ip link set vb up"));
		ASSERT_TRUE(a_.exec("ip link set lo up"));
	}

	NetNs a_{"a"}, b_{"b"};
};

// Sends `count` UDP datagrams from inside the namespace to 10.77.0.2.
bool send_udp(int count)
{
	const int fd = socket(AF_INET, SOCK_DGRAM, 0);
	struct sockaddr_in to {};
	to.sin_family = AF_INET;
	to.sin_port = htons(9);
	inet_pton(AF_INET, "10.77.0.2", &to.sin_addr);
	bool ok = fd != -1;
	for (int i = 0; ok && i < count; i++) {
		ok = sendto(fd, "kel", 3, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) == 3;
		usleep(20000);
	}
	close(fd);
	return ok;
}

TEST_F(Datalinks, LinksClassesAndCounters)
{
	const int status = a_.inside([] {
		wexo_handle_t h = nullptr;
		if (wexo_open(&h) != WEXO_SUCCESS)
			return 1;
		datalink_id_t id = 0, lo = 0;
		datalink_class_t cls{};
		if (wexo_name2info(h, "va", &id, &cls) != WEXO_SUCCESS || cls != DATALINK_CLASS_VNIC || id == 0)
			return 2;
		if (wexo_name2info(h, "lo", &lo, &cls) != WEXO_SUCCESS || cls != DATALINK_CLASS_PHYS)
			return 3;
		if (wexo_name2info(h, "nope0", &lo, &cls) != WEXO_NOTFOUND)
			return 4;
		char name[16];
		if (wexo_datalink_id2info(h, id, &cls, name, sizeof(name)) != WEXO_SUCCESS ||
		    std::strcmp(name, "va") != 0)
			return 5;
		if (wexo_datalink_id2info(h, 999999, &cls, name, sizeof(name)) != WEXO_NOTFOUND)
			return 6;
		wexo_stats_t before{}, after{};
		if (wexo_link_stats(h, id, &before) != WEXO_SUCCESS || !send_udp(5))
			return 7;
		usleep(100000);
		if (wexo_link_stats(h, id, &after) != WEXO_SUCCESS)
			return 8;
		// Five datagrams left (ARP may add frames both ways).
		if (after.ws_opackets < before.ws_opackets + 5 || after.ws_obytes <= before.ws_obytes ||
		    after.ws_ipackets < before.ws_ipackets + 1)
			return 9;
		wexo_close(h);
		return 0;
	});
	EXPECT_EQ(status, 0);
	// The other end counted them in.
	EXPECT_EQ(b_.inside([] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		wexo_stats_t st{};
		const bool ok = wexo_open(&h) == WEXO_SUCCESS && wexo_name2info(h, "vb", &id, nullptr) == 0 &&
		    wexo_link_stats(h, id, &st) == 0 && st.ws_ipackets >= 5;
		wexo_close(h);
		return ok ? 0 : 1;
	}), 0);
}

TEST_F(Datalinks, InterfaceAddresses)
{
	EXPECT_EQ(a_.inside([] {
		fenu_addr_t addr{};
		if (fenu_interface_addr("va", AF_INET, &addr) != FENU_SUCCESS ||
		    std::strcmp(addr.fa_addr, "10.77.0.1") != 0 || addr.fa_prefixlen != 24 ||
		    std::strcmp(addr.fa_ifname, "va") != 0)
			return 1;
		fenu_addr_t local{};
		if (fenu_local_addr("10.77.0.1", &local) != FENU_SUCCESS || local.fa_ifindex != addr.fa_ifindex)
			return 2;
		if (fenu_local_addr("10.77.0.2", &local) != FENU_NOTFOUND)	// the other namespace's
			return 3;
		if (fenu_interface_addr("va", AF_INET6, &local) == FENU_SUCCESS &&
		    std::strncmp(local.fa_addr, "fe80:", 5) != 0)
			return 4;
		if (fenu_interface_addr("nope0", AF_INET, &local) != FENU_NOTFOUND ||
		    fenu_local_addr("not-an-address", &local) != FENU_BADARG)
			return 5;
		return 0;
	}), 0);
}

}  // namespace

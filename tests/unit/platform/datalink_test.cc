// The datalink and IP interface layers against the kernel: two namespaces joined by a
// veth pair, traffic sent only between them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <signal.h>
#include <sys/wait.h>

#include <barrier>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "client.h"
#include "fenu.h"
#include "harl.h"
#include "netns.h"
#include "nuq_errors.h"
#include "wexo.h"

namespace {

using kel::test::NetNs;

class Datalinks : public ::testing::Test {
protected:
	void SetUp() override
	{
		char tmpl[] = "/tmp/kel-links-XXXXXX";
		root_ = mkdtemp(tmpl);
		setenv("KEL_ROOT", root_.c_str(), 1);
		if (!a_.ok() || !b_.ok())
			GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2)";
		ASSERT_TRUE(
		    NetNs::run("ip link add va netns " + a_.name() + " type veth peer name vb netns " + b_.name()));
		ASSERT_TRUE(a_.exec("ip addr add 10.77.0.1/24 dev va"));
		ASSERT_TRUE(b_.exec("ip addr add 10.77.0.2/24 dev vb"));
		ASSERT_TRUE(a_.exec("ip link set va up"));
		ASSERT_TRUE(b_.exec("ip link set vb up"));
		ASSERT_TRUE(a_.exec("ip link set lo up"));
	}

	void TearDown() override
	{
		unsetenv("KEL_ROOT");
		std::filesystem::remove_all(root_);
	}

	std::string root_;
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
		if (wexo_open(&h) != WEXO_STATUS_OK)
			return 1;
		datalink_id_t id = 0, lo = 0;
		datalink_class_t cls{};
		if (wexo_name2info(h, "va", &id, &cls) != WEXO_STATUS_OK || cls != DATALINK_CLASS_VNIC || id == 0)
			return 2;
		if (wexo_name2info(h, "lo", &lo, &cls) != WEXO_STATUS_OK || cls != DATALINK_CLASS_PHYS)
			return 3;
		if (wexo_name2info(h, "nope0", &lo, &cls) != WEXO_STATUS_NOTFOUND)
			return 4;
		char name[16];
		if (wexo_datalink_id2info(h, id, nullptr, &cls, nullptr, name, sizeof(name)) != WEXO_STATUS_OK ||
		    std::strcmp(name, "va") != 0)
			return 5;
		if (wexo_datalink_id2info(h, 999999, nullptr, &cls, nullptr, name, sizeof(name)) !=
		    WEXO_STATUS_NOTFOUND)
			return 6;
		wexo_stats_t before{}, after{};
		if (wexo_link_stats(h, id, &before) != WEXO_STATUS_OK || !send_udp(5))
			return 7;
		usleep(100000);
		if (wexo_link_stats(h, id, &after) != WEXO_STATUS_OK)
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
		const bool ok = wexo_open(&h) == WEXO_STATUS_OK && wexo_name2info(h, "vb", &id, nullptr) == 0 &&
		    wexo_link_stats(h, id, &st) == 0 && st.ws_ipackets >= 5;
		wexo_close(h);
		return ok ? 0 : 1;
	}),
	    0);
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
		if (fenu_local_addr("10.77.0.2", &local) != FENU_NOTFOUND)  // the other namespace's
			return 3;
		if (fenu_interface_addr("va", AF_INET6, &local) == FENU_SUCCESS &&
		    std::strncmp(local.fa_addr, "fe80:", 5) != 0)
			return 4;
		if (fenu_interface_addr("nope0", AF_INET, &local) != FENU_NOTFOUND ||
		    fenu_local_addr("not-an-address", &local) != FENU_BADARG)
			return 5;
		return 0;
	}),
	    0);
}

// Sets a property on "va" inside its namespace; the datalink status.
int set_prop(const NetNs &ns, const char *name, const char *value, const char *link = "va")
{
	return ns.inside([&] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		if (wexo_open(&h) != WEXO_STATUS_OK || wexo_name2info(h, link, &id, nullptr) != WEXO_STATUS_OK)
			return 100;
		const int st = wexo_set_linkprop(h, id, name, value);
		wexo_close(h);
		return st;
	});
}

// Which of a good datagram (from 10.77.0.2) and a spoofed one (from 10.77.0.99) sent by
// the far end of the link reach 10.77.0.1: bit 1 for the good, bit 2 for the spoofed.
int delivered(const NetNs &a, const NetNs &b)
{
	int ready[2];
	if (pipe(ready) != 0)
		return -1;
	const pid_t rx = fork();
	if (rx == 0) {
		const int fd = open(("/run/netns/" + a.name()).c_str(), O_RDONLY);
		if (fd == -1 || setns(fd, CLONE_NEWNET) != 0)
			_exit(99);
		const int s = socket(AF_INET, SOCK_DGRAM, 0);
		struct sockaddr_in me {};
		me.sin_family = AF_INET;
		me.sin_port = htons(5000);
		inet_pton(AF_INET, "10.77.0.1", &me.sin_addr);
		if (bind(s, reinterpret_cast<struct sockaddr *>(&me), sizeof(me)) != 0)
			_exit(98);
		struct timeval tv = {1, 500000};
		setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
		(void)!write(ready[1], "r", 1);
		int got = 0;
		char buf[16];
		ssize_t n;
		while ((n = recv(s, buf, sizeof(buf), 0)) > 0)
			got |= buf[0] == 'g' ? 1 : buf[0] == 's' ? 2 : 0;
		_exit(got);
	}
	char c;
	(void)!read(ready[0], &c, 1);
	close(ready[0]);
	close(ready[1]);
	(void)b.inside([] {
		for (const char *from : {"10.77.0.2", "10.77.0.99"}) {
			const int s = socket(AF_INET, SOCK_DGRAM, 0);
			struct sockaddr_in src {
			}, dst{};
			src.sin_family = dst.sin_family = AF_INET;
			inet_pton(AF_INET, from, &src.sin_addr);
			inet_pton(AF_INET, "10.77.0.1", &dst.sin_addr);
			dst.sin_port = htons(5000);
			bind(s, reinterpret_cast<struct sockaddr *>(&src), sizeof(src));
			const char *payload = std::string(from) == "10.77.0.2" ? "g" : "s";
			for (int i = 0; i < 3; i++) {
				sendto(s, payload, 1, 0, reinterpret_cast<struct sockaddr *>(&dst), sizeof(dst));
				usleep(50000);
			}
			close(s);
		}
		return 0;
	});
	return kel::test::wait_exit(rx);
}

TEST_F(Datalinks, LinkPropertiesTakeEffectInTheKernel)
{
	ASSERT_TRUE(b_.exec("ip addr add 10.77.0.99/24 dev vb"));
	const std::string tc = "tc qdisc show dev va", nft = "nft list table netdev kel";
	EXPECT_EQ(delivered(a_, b_), 3) << "both pass without protection";

	ASSERT_EQ(set_prop(a_, "maxbw", "10M"), WEXO_STATUS_OK);
	EXPECT_TRUE(a_.exec("sh -c '" + tc + " | grep -q \"tbf.*rate 10Mbit\"'"));
	ASSERT_EQ(set_prop(a_, "priority", "high"), WEXO_STATUS_OK);
	EXPECT_TRUE(a_.exec("sh -c '" + nft + " | grep -q \"meta priority set\"'"));

	ASSERT_EQ(set_prop(a_, "allowed-ips", "10.77.0.2"), WEXO_STATUS_OK);
	ASSERT_EQ(set_prop(a_, "protection", "ip-nospoof,dhcp-nospoof"), WEXO_STATUS_OK);
	EXPECT_TRUE(a_.exec("sh -c '" + nft + " | grep -q \"ip saddr != @va.allowed4\"'"));
	EXPECT_EQ(delivered(a_, b_), 1) << "the spoofed source is dropped";
	// The allowed list changes in place: now only the other address passes.
	ASSERT_EQ(set_prop(a_, "allowed-ips", "10.77.0.99"), WEXO_STATUS_OK);
	EXPECT_EQ(delivered(a_, b_), 2);

	// The far end's MAC is not the link's own: mac-nospoof drops everything until it
	// is named as the allowed one.
	ASSERT_EQ(set_prop(a_, "allowed-ips", "10.77.0.2,10.77.0.99"), WEXO_STATUS_OK);
	ASSERT_EQ(set_prop(a_, "protection", "mac-nospoof"), WEXO_STATUS_OK);
	EXPECT_EQ(delivered(a_, b_), 0);
	const std::string macfile = root_ + "/vb-mac";
	ASSERT_EQ(b_.inside([&] {
		const std::string cmd = "ip link show vb | grep -o 'link/ether [0-9a-f:]*' | cut -d' ' -f2 > " +
		    macfile;
		return system(cmd.c_str()) == 0 ? 0 : 1;
	}),
	    0);
	std::string mac;
	std::ifstream(macfile) >> mac;
	ASSERT_EQ(set_prop(a_, "allowed-mac", mac.c_str()), WEXO_STATUS_OK);
	EXPECT_EQ(delivered(a_, b_), 3);

	// Clearing takes everything away again: the link's chains and sets leave the table.
	ASSERT_EQ(set_prop(a_, "protection", ""), WEXO_STATUS_OK);
	ASSERT_EQ(set_prop(a_, "priority", "medium"), WEXO_STATUS_OK);
	EXPECT_TRUE(a_.exec(nft));
	EXPECT_FALSE(a_.exec("sh -c '" + nft + " | grep -q \" va\\.\"'"));
	ASSERT_EQ(set_prop(a_, "maxbw", ""), WEXO_STATUS_OK);
	EXPECT_FALSE(a_.exec("sh -c '" + tc + " | grep -q tbf'"));

	// Caps beyond what 32 bits of bytes per second hold are programmed as they are.
	for (const char *rate : {"25G", "40G", "100G", "8K"}) {
		SCOPED_TRACE(rate);
		const std::string shown = std::string(rate) + "bit";
		ASSERT_EQ(set_prop(a_, "maxbw", rate), WEXO_STATUS_OK);
		EXPECT_TRUE(a_.exec("sh -c '" + tc + " | grep -q \"tbf.*rate " + shown + " \"'"));
	}
	ASSERT_EQ(set_prop(a_, "maxbw", ""), WEXO_STATUS_OK);

	// Values are checked; cos is kept and reported.
	EXPECT_EQ(set_prop(a_, "maxbw", "fast"), WEXO_STATUS_BADVAL);
	EXPECT_EQ(set_prop(a_, "protection", "mac-spoof"), WEXO_STATUS_BADVAL);
	EXPECT_EQ(set_prop(a_, "colour", "blue"), WEXO_STATUS_NOTSUP);
	ASSERT_EQ(set_prop(a_, "cos", "5"), WEXO_STATUS_OK);
	EXPECT_EQ(a_.inside([] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		char value[16] = "";
		const bool ok = wexo_open(&h) == 0 && wexo_name2info(h, "va", &id, nullptr) == 0 &&
		    wexo_get_linkprop(h, id, "cos", value, sizeof(value)) == 0 && std::string(value) == "5";
		wexo_close(h);
		return ok ? 0 : 1;
	}),
	    0);
}

// A lower link's guard lets out the addresses of the VNICs recorded over it. A VNIC that
// goes takes its own out, unless another VNIC's allowed-mac is the same address; the last
// one takes the guard.
TEST_F(Datalinks, ALowerLinksGuardFollowsItsVnics)
{
	const auto guard_has = [&](const std::string &mac) {
		return a_.exec("sh -c 'nft list set netdev kel-lower_va vnics | grep -q " + mac + "'");
	};
	const auto gone = [&](const char *vnic) {
		if (!a_.exec(std::string("ip link del ") + vnic))
			return -1;
		return a_.inside([&] {
			wexo_handle_t h = nullptr;
			const int st = wexo_open(&h) == WEXO_STATUS_OK ? wexo_vnic_disown(h, vnic) : 100;
			wexo_close(h);
			return st;
		});
	};
	for (const char *n : {"1", "2", "3"})
		ASSERT_TRUE(
		    kel::test::fabric_vnic(a_, std::string("g") + n, "va", std::string("02:00:00:00:00:1") + n));
	ASSERT_EQ(set_prop(a_, "allowed-mac", "02:00:00:00:00:13", "g2"), WEXO_STATUS_OK);  // g2 may send as g3
	EXPECT_TRUE(guard_has("02:00:00:00:00:11"));

	ASSERT_EQ(gone("g1"), WEXO_STATUS_OK);
	EXPECT_FALSE(guard_has("02:00:00:00:00:11"));
	EXPECT_TRUE(guard_has("02:00:00:00:00:12"));
	ASSERT_EQ(gone("g3"), WEXO_STATUS_OK);
	EXPECT_TRUE(guard_has("02:00:00:00:00:13")) << "g2's allowed-mac";
	ASSERT_EQ(set_prop(a_, "allowed-mac", "", "g2"), WEXO_STATUS_OK);
	EXPECT_FALSE(guard_has("02:00:00:00:00:13"));
	ASSERT_EQ(gone("g2"), WEXO_STATUS_OK);
	EXPECT_FALSE(a_.exec("nft list table netdev kel-lower_va"));
}

// A VNIC the fabric bound, "vm0" over "va", with the address va had: keld acts on it.
void bind_vnic(const NetNs &ns)
{
	(void)ns.exec("ip addr del 10.77.0.1/24 dev va");
	ASSERT_TRUE(kel::test::fabric_vnic(ns, "vm0", "va", "02:00:00:00:00:10"));
	ASSERT_TRUE(ns.exec("ip addr add 10.77.0.1/24 dev vm0"));
}

// What a datalink call through keld answered: 0, or the datalink status it refused with.
int refusal(nuq_conn_t *conn, const char *name, const char *text)
{
	nuq_instance_t *link = nullptr;
	if (harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", name) != 0)
		return -1;
	harl_DatalinkError *err = nullptr;
	HarlLinkState state;
	const int r = text != nullptr ? harl_Datalink_setProperty(link, text, 0x8001, &err)
	                              : harl_Datalink_getState(link, &state, &err);
	const int st = r == 0 ? 0 : err != nullptr ? err->dde_err : -2;
	harl_DatalinkError_free(err);
	nuq_instance_rele(link);
	return st;
}

TEST_F(Datalinks, TheDatalinkServiceOfKeld)
{
	// keld serves the datalinks of the namespace it runs in.
	kel::test::Keld keld(a_.name());
	ASSERT_GT(keld.pid(), 0);
	nuq_conn_t *conn = kel::test::connect_keld();
	ASSERT_NE(conn, nullptr);
	bind_vnic(a_);

	nuq_instance_t *link = nullptr;
	EXPECT_EQ(harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", "nope0"), NUQ_E_NOTFOUND);
	ASSERT_EQ(harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", "vm0"), 0);
	ASSERT_TRUE(a_.inside([] { return send_udp(4) ? 0 : 1; }) == 0);
	harl_StatValue *value = nullptr;
	harl_DatalinkError *err = nullptr;
	ASSERT_EQ(harl_Datalink_getStat(link, nullptr, &value, &err), 0);
	ASSERT_NE(value, nullptr);
	EXPECT_EQ(value->dsv_discriminant, DST_LINK);
	EXPECT_GE(value->dsv_linkstat->dls_opackets, 4u);
	EXPECT_GT(value->dsv_linkstat->dls_obytes, 0u);
	harl_StatValue_free(value);

	ASSERT_EQ(harl_Datalink_setProperty(link, "maxbw=20M", 0x8001, &err), 0);
	EXPECT_TRUE(a_.exec("sh -c 'tc qdisc show dev vm0 | grep -q \"rate 20Mbit\"'"));
	// A text holding a NUL is refused whole, not taken for what precedes the NUL.
	EXPECT_EQ(nuq::call(link, "setProperty", {{"text", std::string("maxbw=30M\0x", 11)}, {"flags", 0x8001}},
	              nullptr, nullptr),
	    NUQ_E_BADARGS);
	EXPECT_TRUE(a_.exec("sh -c 'tc qdisc show dev vm0 | grep -q \"rate 20Mbit\"'"));
	EXPECT_EQ(harl_Datalink_setProperty(link, "maxbw=fast", 0x8001, &err), 1);
	ASSERT_NE(err, nullptr);
	EXPECT_EQ(err->dde_err, WEXO_STATUS_BADVAL);
	EXPECT_STREQ(err->dde_errmsg, "invalid datalink property value");
	harl_DatalinkError_free(err);
	EXPECT_EQ(harl_Datalink_setProperty(link, "maxbw=", 0x8001, nullptr), 0);
	EXPECT_FALSE(a_.exec("sh -c 'tc qdisc show dev vm0 | grep -q tbf'"));
	nuq_instance_rele(link);

	// Links the fabric did not make are left alone, whatever is asked of them: the
	// host's own, one in a namespace the fabric never touched, a VNIC's name now taken
	// by a link of another kind.
	EXPECT_EQ(refusal(conn, "va", "maxbw=8K"), WEXO_STATUS_NOTFABRIC);
	EXPECT_EQ(refusal(conn, "va", "protection=mac-nospoof"), WEXO_STATUS_NOTFABRIC);
	EXPECT_EQ(refusal(conn, "lo", nullptr), WEXO_STATUS_NOTFABRIC);
	EXPECT_EQ(refusal(conn, (b_.name() + "/vb").c_str(), "protection=ip-nospoof"), WEXO_STATUS_NOTFABRIC);
	EXPECT_FALSE(a_.exec("sh -c 'tc qdisc show dev va | grep -q tbf'"));
	EXPECT_FALSE(a_.exec("sh -c 'nft list table netdev kel | grep -q \"chain va\\.\"'"));
	EXPECT_FALSE(b_.exec("sh -c 'nft list table netdev kel | grep -q \"chain vb\\.\"'"));
	ASSERT_TRUE(a_.exec("ip link del vm0"));
	ASSERT_TRUE(a_.exec("ip link add vm0 type veth peer name vm0p"));
	EXPECT_EQ(refusal(conn, "vm0", "maxbw=8K"), WEXO_STATUS_NOTFABRIC);

	// A value can never become more of a command: this one is refused whole, and the
	// namespace's rules are all still there.
	ASSERT_TRUE(a_.exec("nft add table inet keep"));
	ASSERT_TRUE(a_.exec("ip link del vm0"));
	bind_vnic(a_);
	EXPECT_EQ(refusal(conn, "vm0",
	              "allowed-ips=10.0.0.1/32 }; }; }; flush ruleset; table netdev kel_lo { set allowed4 { type "
	              "ipv4_addr; flags interval; elements = { 10.0.0.2/32"),
	    WEXO_STATUS_BADVAL);
	EXPECT_TRUE(a_.exec("nft list table inet keep"));
	nuq_disconnect(conn);

	EXPECT_EQ(keld.stop(), 0);
}

// What keld reads back of a link is what was applied to it, and a change made by hand
// shows: the bandwidth cap, the filters (by their rules' comments) and the allowed set.
TEST_F(Datalinks, KeldReadsBackWhatIsInForce)
{
	kel::test::Keld keld(a_.name());
	ASSERT_GT(keld.pid(), 0);
	nuq_conn_t *conn = kel::test::connect_keld();
	ASSERT_NE(conn, nullptr);
	bind_vnic(a_);
	nuq_instance_t *link = nullptr;
	ASSERT_EQ(harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", "vm0"), 0);
	HarlLinkState state;
	ASSERT_EQ(harl_Datalink_getState(link, &state, nullptr), 0);
	EXPECT_EQ(state.maxbw, 0u);
	EXPECT_FALSE(state.filtered);
	EXPECT_EQ(state.mac.size(), 17u) << state.mac;
	for (const char *text :
	    {"maxbw=20M", "priority=high", "allowed-ips=10.0.0.5", "protection=mac-nospoof,ip-nospoof"})
		ASSERT_EQ(harl_Datalink_setProperty(link, text, 0x8001, nullptr), 0) << text;
	ASSERT_EQ(harl_Datalink_getState(link, &state, nullptr), 0);
	EXPECT_EQ(state.maxbw, 20000000u);
	// A cap beyond the 32-bit field's 34 Gbit/s reads back whole, as it was made.
	ASSERT_EQ(harl_Datalink_setProperty(link, "maxbw=40G", 0x8001, nullptr), 0);
	ASSERT_EQ(harl_Datalink_getState(link, &state, nullptr), 0);
	EXPECT_EQ(state.maxbw, 40000000000u);
	ASSERT_EQ(harl_Datalink_setProperty(link, "maxbw=20M", 0x8001, nullptr), 0);
	ASSERT_EQ(harl_Datalink_getState(link, &state, nullptr), 0);
	EXPECT_TRUE(state.filtered);
	EXPECT_EQ(state.filters, "priority=high,mac-nospoof,tagged,ip-nospoof");
	EXPECT_EQ(state.allowed, "10.0.0.5");
	// By hand: the cap and the rules go, the table stays.
	ASSERT_TRUE(a_.exec("tc qdisc del dev vm0 root"));
	for (const char *chain :
	    {"guard", "guard_ip4", "guard_arp", "guard_ip6", "guard_ip6_unspec", "guard_nd", "guard_nd_target"})
		ASSERT_TRUE(a_.exec(std::string("nft flush chain netdev kel vm0.") + chain)) << chain;
	ASSERT_EQ(harl_Datalink_getState(link, &state, nullptr), 0);
	EXPECT_EQ(state.maxbw, 0u);
	EXPECT_TRUE(state.filtered);
	EXPECT_EQ(state.filters, "");
	EXPECT_EQ(state.allowed, "10.0.0.5");
	nuq_instance_rele(link);
	nuq_disconnect(conn);
	EXPECT_EQ(keld.stop(), 0);
}

// Two changes to one link at once, as keld's threads and a node's processes make them:
// both land, in what is kept and in what is in force.
TEST_F(Datalinks, ChangesAtOnceToOneLinkAllLand)
{
	bind_vnic(a_);
	EXPECT_EQ(a_.inside([] {
		int lost = 0;
		for (int trial = 0; trial < 30; trial++) {
			std::barrier start(2);
			const auto change = [&](const char *name, const char *value) {
				wexo_handle_t h = nullptr;
				datalink_id_t id = 0;
				(void)(wexo_open(&h) == WEXO_STATUS_OK &&
				    wexo_name2info(h, "vm0", &id, nullptr) == WEXO_STATUS_OK);
				start.arrive_and_wait();
				const wexo_status_t st = wexo_set_linkprop(h, id, name, value);
				wexo_close(h);
				return st;
			};
			wexo_status_t priority = 1, protection = 1;
			std::thread one([&] { priority = change("priority", trial % 2 ? "high" : "low"); });
			std::thread two(
			    [&] { protection = change("protection", trial % 2 ? "mac-nospoof" : "ip-nospoof"); });
			one.join();
			two.join();
			if (priority != WEXO_STATUS_OK || protection != WEXO_STATUS_OK)
				return 100 + trial;
			wexo_handle_t h = nullptr;
			datalink_id_t id = 0;
			wexo_link_state_t state;
			if (wexo_open(&h) != WEXO_STATUS_OK ||
			    wexo_name2info(h, "vm0", &id, nullptr) != WEXO_STATUS_OK ||
			    wexo_link_state(h, id, &state) != WEXO_STATUS_OK)
				return 99;
			wexo_close(h);
			const std::string held = std::string(",") + state.wls_filters + ",";
			lost += held.find(trial % 2 ? ",priority=high," : ",priority=low,") == std::string::npos ||
			    held.find(trial % 2 ? ",mac-nospoof," : ",ip-nospoof,") == std::string::npos;
		}
		return lost;
	}),
	    0)
	    << "changes lost";
}

// A link made over one in another namespace (a veth's peer) names its lower link by that
// namespace's index: read here, it would name whatever link has that index here.
TEST_F(Datalinks, ALowerLinkElsewhereIsNotReadHere)
{
	std::string index;
	ASSERT_TRUE(b_.exec("sh -c 'ip link show vb | cut -d: -f1 | head -1 > " + root_ + "/vb-index'"));
	std::ifstream(root_ + "/vb-index") >> index;
	ASSERT_FALSE(index.empty());
	// A decoy of that index here, unless one has it already.
	(void)a_.exec("ip link add decoy index " + index + " type veth peer name decoyp");
	EXPECT_EQ(a_.inside([] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		wexo_link_state_t state;
		const bool ok = wexo_open(&h) == WEXO_STATUS_OK &&
		    wexo_name2info(h, "va", &id, nullptr) == WEXO_STATUS_OK &&
		    wexo_link_state(h, id, &state) == WEXO_STATUS_OK && state.wls_lower[0] == '\0';
		wexo_close(h);
		return ok ? 0 : 1;
	}),
	    0);
}

TEST_F(Datalinks, ClassOfServiceOnVlanLinks)
{
	if (!a_.exec("ip link add link va name va.10 type vlan id 10"))
		GTEST_SKIP() << "this kernel cannot make VLAN links";
	EXPECT_EQ(a_.inside([] {
		wexo_handle_t h = nullptr;
		datalink_id_t id = 0;
		if (wexo_open(&h) != 0 || wexo_name2info(h, "va.10", &id, nullptr) != 0)
			return 1;
		const int st = wexo_set_linkprop(h, id, "cos", "5");
		wexo_close(h);
		return st;
	}),
	    WEXO_STATUS_OK);
	EXPECT_TRUE(
	    a_.exec("sh -c 'ip -d link show va.10 | grep -q \"egress-qos-map { 0:5 1:5 2:5 3:5 4:5 5:5 6:5 7:5 }\"'"));
}

}  // namespace

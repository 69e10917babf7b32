// VNICs joining kels on real links: controller and node share one network namespace and
// talk over unix://; macvlan links stand for the VNICs a hypervisor would make.
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <kel/libkel_node.h>
#include "connections.h"
#include "error_code.h"
#include "flood_lists.h"
#include "harl.h"
#include "netns.h"
#include "nuq_errors.h"
#include "store_fixture.h"
#include "vnic.h"
#include "wexo.h"

namespace {

using kel::test::NetNs;

// What a connect returned, freed when it goes.
struct Attach {
	int rc = -1;
	datalink_id_t link = 0;
	std::string props;  // "name=value;..." as the argument list reads
	kelcntl_KELImplInfo *info = nullptr;
	~Attach() { kelcntl_KELImplInfo_free(info); }
};

std::string out_of(const std::string &cmd)
{
	std::string out;
	if (FILE *p = popen((cmd + " 2>&1").c_str(), "r")) {
		char buf[512];
		while (std::fgets(buf, sizeof(buf), p) != nullptr)
			out += buf;
		pclose(p);
	}
	return out;
}

class Vnics : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		if (!ns_.ok())
			GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2)";
		in_ = std::make_unique<kel::test::InNetNs>(ns_);
		ASSERT_TRUE(in_->entered());
		// Uplinks are veth links: every kernel has them.
		for (const char *cmd : {"ip link set lo up", "ip link add up0 type veth peer name up0p",
		         "ip addr add 10.79.0.1/24 dev up0", "ip link set up0p up", "ip link set up0 up",
		         "ip link add ep0 type veth peer name ep0p", "ip addr add 10.80.0.1/24 dev ep0",
		         "ip link set ep0p up", "ip link set ep0 up"})
			ASSERT_TRUE(NetNs::run(cmd)) << cmd;
		char host[256];
		ASSERT_EQ(kel_get_hostname(host, sizeof(host)), KEL_SUCCESS);
		host_ = host;
		ASSERT_EQ(kel_set_client_togprop("controller=unix://"), KEL_SUCCESS);
		for (const char *prop : {"vxlan-range=5000-5999", "vlan-range=100-199", "uri-template=unix://"})
			ASSERT_EQ(kel_db_set_ctrlprop(h_, prop, nullptr), KEL_SUCCESS) << prop;
		keld_ = std::make_unique<kel::test::Keld>(ns_.name());
		ASSERT_GT(keld_->pid(), 0);
		ASSERT_EQ(wexo_open(&wh_), WEXO_STATUS_OK);
	}
	void TearDown() override
	{
		wexo_close(wh_);
		keld_.reset();
		in_.reset();
		StoreFixture::TearDown();
	}

	void host_prop(const std::string &prop)
	{
		ASSERT_EQ(kel_db_set_ctrlprop(h_, prop.c_str(), host_.c_str()), KEL_SUCCESS) << prop;
	}

	// A kel with a network of its own and ports p1..p<ports>.
	void make_kel(const char *name, const char *props, int ports = 2)
	{
		const std::string subnet = "subnet=10.9" + std::to_string(kels_++) + ".0.0/24";
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, nullptr, name, props, 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
		kel_ipnet_t *ip = nullptr;
		ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", name, (std::string(name) + "net").c_str(), subnet.c_str(),
		              &ip, 0),
		    KEL_SUCCESS);
		kel_free_ipnet(ip);
		for (int i = 1; i <= ports; i++)
			ASSERT_EQ(kel_db_add_vport(h_, "sys-global", name, ("p" + std::to_string(i)).c_str(), nullptr,
			              nullptr, 0),
			    KEL_SUCCESS);
	}

	void connect(const char *kel, const char *vport, const char *vnic, Attach *a)
	{
		wexo_arg_list_t *args = nullptr;
		a->rc = kel_connect_vnic(wh_, nullptr, kel, vport, vnic, &args, nullptr, &a->link, &a->info, 0);
		for (uint_t i = 0; i < wexo_arg_count(args); i++)
			a->props += std::string(wexo_arg_name(args, i)) + "=" + wexo_arg_value(args, i) + ";";
		wexo_free_args(args);
		if (a->rc != KEL_SUCCESS) {
			EXPECT_EQ(a->link, 0u);
			EXPECT_EQ(a->info, nullptr);
			EXPECT_EQ(args, nullptr);
		}
	}

	// "status vnic host" of a port, as the store holds it.
	std::string binding(const char *vport)
	{
		return value("SELECT vport_status || ' ' || vport_vnicname || ' ' || vport_hostname "
		             "FROM vport_tbl WHERE vport_name = ?",
		    {vport});
	}
	std::string bound(const char *vnic) { return "1 " + std::string(vnic) + " " + host_; }
	// Every port's binding, and the switches and networks with their pools.
	std::string state()
	{
		return joined("SELECT vport_name || ':' || vport_status || ':' || ifnull(vport_vnicname, '') || ':' || "
		              "vport_hostname FROM vport_tbl ORDER BY 1") +
		    "/" + joined("SELECT kel_name || kel_props FROM kel_tbl ORDER BY 1") + "/" +
		    joined("SELECT ipnet_avail_range FROM ipnet_tbl ORDER BY 1");
	}

	datalink_id_t link_id(const char *name)
	{
		datalink_id_t id = 0;
		return wexo_name2info(wh_, name, &id, nullptr) == WEXO_STATUS_OK ? id : 0;
	}

	NetNs ns_{"vn"};
	std::unique_ptr<kel::test::InNetNs> in_;
	std::unique_ptr<kel::test::Keld> keld_;
	wexo_handle_t wh_ = nullptr;
	std::string host_;
	int kels_ = 0;
};

TEST_F(Vnics, VxlanLinkIsSharedAndGoesWithItsLastUser)
{
	host_prop("vxlan-addr=10.80.0.1");
	make_kel("db", "l2-type=vxlan,vni=5000");
	Attach a, b;
	connect("db", "p1", "vn1", &a);
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	ASSERT_EQ(a.link, link_id("kel-vxlan5000"));
	const std::string link = out_of("ip -d link show kel-vxlan5000");
	for (const char *want : {"vxlan id 5000 local 10.80.0.1 ", "dstport 4789", "state UNKNOWN", " mtu 1450 "})
		EXPECT_NE(link.find(want), std::string::npos) << want << " in " << link;
	EXPECT_EQ(binding("p1"), bound("vn1"));
	// The kel's default protection holds ip-nospoof: the port's address is let through,
	// without its prefix length.
	const char *ip = kel_propattrset_lookup(a.info->ekelii_kelinfo->ekeli_vports[0]->evpi_props,
	    a.info->ekelii_kelinfo->ekeli_vports[0]->evpi_props_count, "ipaddr");
	ASSERT_NE(ip, nullptr);
	const std::string addr = std::string(ip).substr(0, std::string(ip).find('/'));
	EXPECT_EQ(a.props, "allowed-ips=" + addr + ";iov=off;protection=mac-nospoof,ip-nospoof;");
	ASSERT_TRUE(NetNs::run("ip link add vn1 link kel-vxlan5000 type macvlan mode bridge"));

	connect("db", "p2", "vn2", &b);
	ASSERT_EQ(b.rc, KEL_SUCCESS);
	EXPECT_EQ(b.link, a.link);  // the same link, reused
	ASSERT_TRUE(NetNs::run("ip link add vn2 link kel-vxlan5000 type macvlan mode bridge"));

	// While a VNIC is made over it the link stays, whoever asks.
	EXPECT_EQ(wexo_vxlan_delete(wh_, a.link, WEXO_OPT_ACTIVE), WEXO_STATUS_LINKBUSY);
	ASSERT_TRUE(NetNs::run("ip link del vn1"));
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vxlan5000"), a.link);
	EXPECT_NE(link_id("vn2"), 0u);
	EXPECT_EQ(binding("p1"), "0  ");
	ASSERT_TRUE(NetNs::run("ip link del vn2"));
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn2", nullptr, b.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vxlan5000"), 0u);
	EXPECT_EQ(binding("p2"), "0  ");
}

// A VXLAN link leaves room for the encapsulation on its underlay (50 bytes over IPv4, 70
// over IPv6), with or without a group, found by its endpoint's address or by the uplink
// named; a VNIC over it takes its MTU.
TEST_F(Vnics, VxlanLinksAndTheirVnicsFitTheUnderlay)
{
	ASSERT_TRUE(NetNs::run("ip addr add fd00:80::1/64 dev ep0 nodad"));
	const auto mtu_of = [](const std::string &link) {
		const std::string out = out_of("ip -o link show dev " + link);
		const size_t at = out.find(" mtu ");
		return at == std::string::npos ? 0 : std::stoi(out.substr(at + 5));
	};
	const struct {
		int underlay;
		const char *params;
		int want;
	} cases[] = {
	    {9000, "addr=10.80.0.1", 8950},
	    {1500, "addr=10.80.0.1", 1450},
	    {9000, "addr=10.80.0.1,mgroup=239.1.1.1", 8950},
	    {1500, "addr=10.80.0.1,mgroup=239.1.1.1", 1450},
	    {9000, "addr=fd00:80::1", 8930},
	    {1500, "addr=fd00:80::1", 1430},
	    {9000, "addr=fd00:80::1,mgroup=ff05::1", 8930},
	    {1500, "addr=fd00:80::1,mgroup=ff05::1", 1430},
	    {9000, "interface=ep0,ipvers=v4", 8950},
	    {1500, "interface=ep0,ipvers=v6", 1430},
	    {4000, "interface=ep0,ipvers=v6,mgroup=ff05::1", 3930},
	};
	int vni = 5100;
	for (const auto &c : cases) {
		SCOPED_TRACE(std::to_string(c.underlay) + " " + c.params);
		ASSERT_TRUE(NetNs::run("ip link set ep0 mtu " + std::to_string(c.underlay)));
		const std::string link = "kel-vxlan" + std::to_string(++vni);
		wexo_arg_list_t *args = nullptr;
		ASSERT_EQ(
		    wexo_parse_link_props(("vni=" + std::to_string(vni) + "," + c.params).c_str(), &args, B_FALSE),
		    WEXO_STATUS_OK);
		vxlan_kparams_t kp;
		datalink_id_t id = 0, vnic = 0;
		EXPECT_EQ(kel_vxlan_props2kparams(wh_, args, &kp), WEXO_STATUS_OK);
		EXPECT_EQ(wexo_vxlan_create(wh_, link.c_str(), &kp, args, WEXO_OPT_ACTIVE | WEXO_OPT_ONDEMAND, &id),
		    WEXO_STATUS_OK);
		wexo_free_args(args);
		EXPECT_EQ(mtu_of(link), c.want);
		for (const wexo_vnic_kind_t kind : {WEXO_VNIC_MACVLAN, WEXO_VNIC_MACVTAP}) {
			ASSERT_EQ(wexo_vnic_create(wh_, "vm0", id, kind, nullptr, &vnic), WEXO_STATUS_OK);
			EXPECT_EQ(mtu_of("vm0"), c.want);
			EXPECT_EQ(wexo_vnic_delete(wh_, "vm0", nullptr), WEXO_STATUS_OK);
		}
		EXPECT_EQ(wexo_vxlan_delete(wh_, id, WEXO_OPT_ACTIVE), WEXO_STATUS_OK);
	}
}

TEST_F(Vnics, VxlanOverTheUplinkJoinsTheGroupThere)
{
	host_prop("uplink-port=up0");
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-mgroup=239.1.1.1", nullptr), KEL_SUCCESS);
	make_kel("db", "l2-type=vxlan,vni=5001", 1);
	Attach a;
	connect("db", "p1", "vn1", &a);
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	ASSERT_EQ(a.link, link_id("kel-vxlan5001"));
	const std::string link = out_of("ip -d link show kel-vxlan5001");
	for (const char *want : {"vxlan id 5001 group 239.1.1.1 local 10.79.0.1 dev up0 ", "dstport 4789"})
		EXPECT_NE(link.find(want), std::string::npos) << want << " in " << link;
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vxlan5001"), 0u);
}

TEST_F(Vnics, FlatKelsUseTheUplink)
{
	make_kel("lan", "l2-type=flat", 1);
	host_prop("uplink-port=up0,flat=yes");
	Attach a;
	connect("lan", "p1", "vn1", &a);
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	EXPECT_EQ(a.link, link_id("up0"));
	// The uplink is no link of ours to remove.
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("up0"), a.link);
}

TEST_F(Vnics, VlanKelsGetATaggedLinkOnTheUplink)
{
	make_kel("vl", "l2-type=vlan,vlanid=150", 2);
	host_prop("uplink-port=up0");
	const std::string before = state();
	Attach a, b;
	connect("vl", "p1", "vn1", &a);
	if (!NetNs::run("ip link add link up0 name probe.9 type vlan id 9")) {
		// A kernel without VLAN links: the VNIC cannot be made, and nothing stays bound.
		EXPECT_EQ(a.rc, kel::compose_error(WEXO_STATUS_NOTSUP, KEL_E_WEXO));
		EXPECT_EQ(state(), before);
		GTEST_SKIP() << "this kernel cannot make VLAN links";
	}
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	ASSERT_EQ(a.link, link_id("kel-vlan150"));
	const std::string link = out_of("ip -d link show kel-vlan150");
	EXPECT_NE(link.find("kel-vlan150@up0"), std::string::npos) << link;
	EXPECT_NE(link.find("vlan protocol 802.1Q id 150"), std::string::npos) << link;
	ASSERT_TRUE(NetNs::run("ip link add vn1 link kel-vlan150 type macvlan mode bridge"));
	connect("vl", "p2", "vn2", &b);
	ASSERT_EQ(b.rc, KEL_SUCCESS);
	EXPECT_EQ(b.link, a.link);  // shared
	ASSERT_TRUE(NetNs::run("ip link add vn2 link kel-vlan150 type macvlan mode bridge"));
	ASSERT_TRUE(NetNs::run("ip link del vn1"));
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vlan150"), a.link);  // vn2 is made over it
	ASSERT_TRUE(NetNs::run("ip link del vn2"));
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn2", nullptr, b.link, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vlan150"), 0u);
	EXPECT_NE(link_id("up0"), 0u);
}

TEST_F(Vnics, NothingStaysBoundWhenTheLowerLinkCannotBeMade)
{
	make_kel("vl", "l2-type=vlan", 1);
	make_kel("db", "l2-type=vxlan,vni=5002", 1);
	const std::string before = state();
	Attach refused;
	connect("vl", "p1", "vn1", &refused);  // no uplink on this host
	EXPECT_EQ(refused.rc, KEL_E_UPLINK_REQUIRED);
	EXPECT_EQ(state(), before);

	const std::string too_long = "UPDATE vport_tbl SET vport_props = vport_props || ',protection=mac-nospoof" +
	    std::string(1100, ',') + "ip-nospoof'";
	struct {
		const char *what, *setup, *kel;
		int rc;
	} cases[] = {
	    {"an uplink without an address", "uplink-port=nic0", "db",
	        kel::compose_error(WEXO_STATUS_BADVXLANIF, KEL_E_WEXO)},
	    {"an endpoint this host does not hold", "vxlan-addr=10.81.0.1", "db",
	        kel::compose_error(WEXO_STATUS_NOADDR, KEL_E_WEXO)},
	    {"a type the node does not know",
	        "UPDATE kel_tbl SET kel_props = 'l2-type=bogus,vlanid=100' "
	        "WHERE kel_name = 'vl'",
	        "vl", 1061},
	    {"a link property text too long for the VNIC", too_long.c_str(), "db", KEL_E_NOSPACE},
	};
	ASSERT_TRUE(NetNs::run("ip link add nic0 type veth peer name nic0p"));
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		if (std::string(c.setup).rfind("UPDATE", 0) == 0)
			sql(c.setup);
		else
			host_prop(c.setup);
		const std::string ready = state();
		Attach a;
		connect(c.kel, "p1", "vn1", &a);
		EXPECT_EQ(a.rc, c.rc);
		EXPECT_EQ(state(), ready);  // the port was bound, and is free again
	}
	EXPECT_EQ(link_id("kel-vxlan5002"), 0u);
}

// One call makes the whole VNIC, and one takes it apart: a failure at any step leaves
// nothing made or bound, and a VNIC gone by other means still has its port and its link
// taken back.
TEST_F(Vnics, OneCallForTheWholeVnic)
{
	host_prop("vxlan-addr=10.80.0.1");
	make_kel("db", "l2-type=vxlan,vni=5003", 3);
	const std::string before = state();
	kel_vnic_t v;
	ASSERT_EQ(kel_vnic_create(nullptr, "db", "p1", "vn1", "vmid=a", WEXO_VNIC_MACVLAN, KEL_VNIC_ADDRESS, &v),
	    KEL_SUCCESS);
	EXPECT_EQ(v.kv_linkid, link_id("vn1"));
	EXPECT_EQ(v.kv_lower, link_id("kel-vxlan5003"));
	EXPECT_STREQ(v.kv_lowername, "kel-vxlan5003");
	EXPECT_EQ(v.kv_mtu, 1450u);
	const kelcntl_VPortInfo *port = v.kv_implinfo->ekelii_kelinfo->ekeli_vports[0];
	const std::string ip = kel_propattrset_lookup(port->evpi_props, port->evpi_props_count, "ipaddr");
	const std::string link = out_of(
	    "ip -o addr show dev vn1; ip route show default; tc qdisc show dev vn1; nft list tables");
	for (const std::string &want :
	    std::vector<std::string>{" inet " + ip + " ", "default via 10.90.0.1 dev vn1", "table netdev kel"})
		EXPECT_NE(link.find(want), std::string::npos) << want << " in " << link;
	EXPECT_EQ(binding("p1"), bound("vn1"));
	kel_vnic_free(&v);
	kel_vnic_free(nullptr);

	const struct {
		const char *what, *vport, *vnic, *setup;
		int stage, rc;
	} refused[] = {
	    {"a port in use", "p1", "vn2", nullptr, KEL_VNIC_STAGE_BIND, KEL_E_VPORT_INUSE},
	    {"a name taken", "p2", "vn1", nullptr, KEL_VNIC_STAGE_MAKE,
	        kel::compose_error(WEXO_STATUS_EXIST, KEL_E_WEXO)},
	    {"a property the link refuses", "p2", "vn2",
	        "UPDATE vport_tbl SET vport_props = vport_props || ',maxbw=lots' WHERE vport_name = 'p2'",
	        KEL_VNIC_STAGE_PROPS, kel::compose_error(WEXO_STATUS_BADVAL, KEL_E_WEXO)},
	};
	for (const auto &c : refused) {
		SCOPED_TRACE(c.what);
		if (c.setup != nullptr)
			sql(c.setup);
		const std::string ready = state();
		EXPECT_EQ(kel_vnic_create(nullptr, "db", c.vport, c.vnic, nullptr, WEXO_VNIC_MACVTAP, 0, &v), c.rc);
		EXPECT_EQ(v.kv_stage, c.stage);
		EXPECT_EQ(v.kv_implinfo, nullptr);
		EXPECT_EQ(state(), ready);
		EXPECT_EQ(link_id("vn2"), 0u);
	}
	EXPECT_EQ(kel_vnic_create(nullptr, "db", "p3", "vn3", nullptr, WEXO_VNIC_MACVLAN, 0x80, &v),
	    KEL_E_INVALID_ARGS);
	EXPECT_EQ(kel_vnic_create(nullptr, "db", "p3", "vn3; x", nullptr, WEXO_VNIC_MACVLAN, 0, &v),
	    KEL_E_INVALID_ARGS);

	// Removed in one call, the link under it too; a second time there is nothing.
	EXPECT_EQ(kel_vnic_remove("vn1", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("vn1"), 0u);
	EXPECT_EQ(link_id("kel-vxlan5003"), 0u);
	EXPECT_EQ(binding("p1"), "0  ");
	EXPECT_EQ(kel_vnic_remove("vn1", nullptr, 0), KEL_E_VPORT_NOTFOUND);

	// Gone by other means (its namespace went with its container): the port and the link
	// the host recorded for it are still taken back.
	ASSERT_EQ(kel_vnic_create(nullptr, "db", "p1", "vn1", nullptr, WEXO_VNIC_MACVLAN, 0, &v), KEL_SUCCESS);
	kel_vnic_free(&v);
	ASSERT_TRUE(NetNs::run("ip link del vn1"));
	EXPECT_EQ(kel_vnic_remove("vn1", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(link_id("kel-vxlan5003"), 0u);
	sql("UPDATE vport_tbl SET vport_props = replace(vport_props, ',maxbw=lots', '') WHERE vport_name = 'p2'");
	EXPECT_EQ(state(), before);
}

TEST_F(Vnics, ArgumentsAndMissingSettings)
{
	kelcntl_VPortInfo **ports = reinterpret_cast<kelcntl_VPortInfo **>(1);
	int count = 7;
	EXPECT_EQ(kel_get_vnicinfo(nullptr, &ports, &count), KEL_E_INVALID_ARGS);
	EXPECT_EQ(ports, nullptr);
	// A name that would add alternatives to the controller's filter is no VNIC name.
	EXPECT_EQ(kel_get_vnicinfo("vn1,host=other", &ports, &count), KEL_E_INVALID_ARGS);
	Attach a;
	wexo_arg_list_t *args = nullptr;
	EXPECT_EQ(kel_connect_vnic(wh_, nullptr, nullptr, nullptr, "vn1", &args, nullptr, &a.link, &a.info, 0),
	    KEL_E_INVALID_ARGS);

	host_prop("uplink-port=up0,flat=yes");
	make_kel("lan", "l2-type=flat", 1);
	connect("lan", nullptr, "vn9", &a);  // no port named: a system port is made
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	ASSERT_EQ(kel_get_vnicinfo("vn9", &ports, &count), KEL_SUCCESS);
	ASSERT_EQ(count, 1);
	EXPECT_STREQ(ports[0]->evpi_name, "sys-vport0");
	EXPECT_STREQ(ports[0]->evpi_hostname, host_.c_str());
	kelcntl_VPortInfo_array_free(ports, count);
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn9", nullptr, a.link, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_get_vnicinfo("vn9", &ports, &count), KEL_SUCCESS);
	EXPECT_EQ(count, 0);
	kelcntl_VPortInfo_array_free(ports, count);

	// A controller that does not answer is passed over for the next one named.
	ASSERT_EQ(kel_set_client_togprop("controller=unix://localhost/nowhere/keld.sock,unix://"), KEL_SUCCESS);
	ASSERT_EQ(kel_get_vnicinfo("vn9", &ports, &count), KEL_SUCCESS);
	kelcntl_VPortInfo_array_free(ports, count);
	Attach second;
	connect("lan", "p1", "vn1", &second);
	ASSERT_EQ(second.rc, KEL_SUCCESS);
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, second.link, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_set_client_togprop("controller=unix://localhost/nowhere/keld.sock"), KEL_SUCCESS);
	EXPECT_EQ(kel_get_vnicinfo("vn9", &ports, &count), KEL_E_CTRL_CONNECT);

	// Without a controller setting a node reaches no controller.
	ASSERT_EQ(kel_set_client_togprop("controller="), KEL_SUCCESS);
	EXPECT_EQ(kel_get_vnicinfo("vn9", &ports, &count), KEL_E_CTRL_CONNECT);
	Attach none;
	connect("lan", "p1", "vn1", &none);
	EXPECT_EQ(none.rc, KEL_E_CTRL_CONNECT);
}

// Sends `n` broadcast frames of `size` bytes out of `ifname`, from its own address.
bool send_frames(const char *ifname, int n, size_t size)
{
	// Asked of the kernel: this thread's namespace is not the one /sys shows.
	struct ifreq req {};
	std::snprintf(req.ifr_name, sizeof(req.ifr_name), "%s", ifname);
	const int fd = socket(AF_PACKET, SOCK_RAW, 0);
	struct sockaddr_ll to {};
	to.sll_family = AF_PACKET;
	to.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
	to.sll_halen = ETH_ALEN;
	std::memset(to.sll_addr, 0xff, ETH_ALEN);
	std::string frame(size, '\0');
	std::memset(frame.data(), 0xff, ETH_ALEN);
	if (fd != -1 && ioctl(fd, SIOCGIFHWADDR, &req) == 0)
		std::memcpy(frame.data() + ETH_ALEN, req.ifr_hwaddr.sa_data, ETH_ALEN);
	frame[12] = static_cast<char>(0x88);  // a local experimental EtherType
	frame[13] = static_cast<char>(0xb5);
	bool ok = fd != -1 && to.sll_ifindex != 0;
	for (int i = 0; ok && i < n; i++)
		ok = sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) ==
		    static_cast<ssize_t>(frame.size());
	if (fd != -1)
		close(fd);
	return ok;
}

// The kernel's counters of `ifname` in this namespace, as /proc/net/dev lists them:
// received bytes, packets, errs, drop, fifo, frame, compressed, multicast, then sent.
std::vector<uint64_t> kernel_counters(const std::string &ifname)
{
	std::ifstream in("/proc/net/dev");
	std::string line;
	while (std::getline(in, line)) {
		const size_t colon = line.find(':');
		if (colon == std::string::npos || line.substr(0, colon).find(ifname) == std::string::npos ||
		    line.substr(0, colon).find_first_not_of(' ') != line.substr(0, colon).find(ifname))
			continue;
		std::istringstream fields(line.substr(colon + 1));
		std::vector<uint64_t> out;
		for (uint64_t v; fields >> v;)
			out.push_back(v);
		return out;
	}
	return {};
}

TEST_F(Vnics, StatisticsAreTheKernelsCounters)
{
	host_prop("uplink-port=up0,flat=yes");
	make_kel("lan", "l2-type=flat", 1);
	// Two VNICs on one uplink, quiet but for the frames sent here: one of the host's own,
	// there before the fabric's, and the port's, with its address.
	ASSERT_TRUE(NetNs::run("ip link add vn2 link up0 type macvlan mode bridge"));
	Attach a;
	connect("lan", "p1", "vn1", &a);
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	const kelcntl_VPortInfo *port = a.info->ekelii_kelinfo->ekeli_vports[0];
	const std::string mac = kel_propattrset_lookup(port->evpi_props, port->evpi_props_count, "macaddr");
	for (const std::string &cmd : {"ip link add vn1 address " + mac + " link up0 type macvlan mode bridge",
	         std::string("sysctl -qw net.ipv6.conf.vn1.disable_ipv6=1"),
	         std::string("sysctl -qw net.ipv6.conf.vn2.disable_ipv6=1"), std::string("ip link set vn1 up"),
	         std::string("ip link set vn2 up")})
		ASSERT_TRUE(NetNs::run(cmd)) << cmd;
	ASSERT_TRUE(send_frames("vn1", 5, 100));
	ASSERT_TRUE(send_frames("vn2", 3, 200));  // broadcast: vn1 receives them

	nuq_conn_t *conn = nullptr;
	ASSERT_EQ(kel_nuq_connection_to_kelnode(h_, host_.c_str(), &conn), KEL_SUCCESS);
	link_stat_t s;
	ASSERT_TRUE(kel::test::eventually(
	    [&] { return kel_get_vnicstat(conn, "vn1", &s) == KEL_SUCCESS && s.ls_ipackets == 3; }));
	EXPECT_EQ(s.ls_opackets, 5u);
	const std::vector<uint64_t> k = kernel_counters("vn1");
	ASSERT_EQ(k.size(), 16u);
	EXPECT_EQ(s.ls_rbytes, k[0]);
	EXPECT_EQ(s.ls_ipackets, k[1]);
	EXPECT_EQ(s.ls_idrops, k[3]);
	EXPECT_EQ(s.ls_obytes, k[8]);
	EXPECT_EQ(s.ls_opackets, k[9]);
	EXPECT_EQ(s.ls_odrops, k[11]);
	for (uint64_t other :
	    {s.ls_ierrors, s.ls_idropbytes, s.ls_multircv, s.ls_oerrors, s.ls_odropbytes, s.ls_multixmt})
		EXPECT_EQ(other, 0u);
	EXPECT_EQ(kel_get_vnicstat(conn, "nosuch0", &s), kel::compose_error(NUQ_E_NOTFOUND, KEL_E_NUQ));
	EXPECT_EQ(s.ls_opackets, 0u);
	nuq_disconnect(conn);
	ASSERT_TRUE(NetNs::run("ip link del vn1"));
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
}

TEST_F(Vnics, ConcurrentConnectsOfOneVniShareOneLink)
{
	host_prop("vxlan-addr=10.80.0.1");
	make_kel("db", "l2-type=vxlan,vni=5003");
	for (int round = 0; round < 5; round++) {
		SCOPED_TRACE(round);
		pid_t kids[2];
		for (int i = 0; i < 2; i++) {
			const std::string vport = "p" + std::to_string(i + 1), vnic = "vn" + std::to_string(i + 1);
			if ((kids[i] = fork()) == 0) {
				wexo_handle_t h = nullptr;
				wexo_arg_list_t *args = nullptr;
				kelcntl_KELImplInfo *info = nullptr;
				datalink_id_t link = 0;
				const int rc = wexo_open(&h) == WEXO_STATUS_OK
				    ? kel_connect_vnic(h, nullptr, "db", vport.c_str(), vnic.c_str(), &args, nullptr,
				          &link, &info, 0)
				    : -1;
				_exit(rc == KEL_SUCCESS ? 0 : 1);
			}
		}
		EXPECT_EQ(kel::test::wait_exit(kids[0]), 0);
		EXPECT_EQ(kel::test::wait_exit(kids[1]), 0);
		EXPECT_EQ(out_of("ip -o link show type vxlan | wc -l"), "1\n");
		EXPECT_EQ(binding("p1"), bound("vn1"));
		EXPECT_EQ(binding("p2"), bound("vn2"));
		const datalink_id_t link = link_id("kel-vxlan5003");
		ASSERT_NE(link, 0u);
		ASSERT_TRUE(NetNs::run("ip link add vn2 link kel-vxlan5003 type macvlan"));
		EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, link, 0), KEL_SUCCESS);
		ASSERT_TRUE(NetNs::run("ip link del vn2"));
		EXPECT_EQ(kel_disconnect_vnic(wh_, "vn2", nullptr, link, 0), KEL_SUCCESS);
		EXPECT_EQ(link_id("kel-vxlan5003"), 0u);
	}
}

}  // namespace

namespace {

std::vector<std::string> flood_of(wexo_handle_t h, datalink_id_t link)
{
	std::string local;
	std::vector<std::string> remotes;
	EXPECT_EQ(kel::test::get_flood(h, link, &local, &remotes), WEXO_STATUS_OK);
	return remotes;
}

}  // namespace

// One real host here: what is checked is that the lists follow the store, that a host
// that does not answer only ever adds, and which kels are left alone.
TEST_F(Vnics, FloodListsFollowTheHostsOfTheKel)
{
	using Remotes = std::vector<std::string>;
	host_prop("vxlan-addr=10.80.0.1");
	make_kel("db", "l2-type=vxlan,vni=5002", 2);
	Attach a;
	connect("db", "p1", "vn1", &a);
	ASSERT_EQ(a.rc, KEL_SUCCESS);
	// keld refuses a destination no copy of a frame could reach, and the list stays.
	nuq_conn_t *conn = kel::test::connect_keld();
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *link = nullptr;
	ASSERT_EQ(harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", "kel-vxlan5002"), 0);
	for (const char *bad : {"0.0.0.0", "255.255.255.255", "239.1.1.1", "127.0.0.1", "10.80.0.1"}) {
		harl_DatalinkError *err = nullptr;
		EXPECT_EQ(harl_Datalink_setFlood(link, {"10.80.0.5", bad}, false, &err), NUQ_E_OBJECT) << bad;
		ASSERT_NE(err, nullptr);
		EXPECT_EQ(err->dde_err, WEXO_STATUS_BADVAL);
		harl_DatalinkError_free(err);
	}
	nuq_instance_rele(link);
	nuq_disconnect(conn);
	EXPECT_EQ(flood_of(wh_, a.link), Remotes{});
	// An entry left by a host that went away unseen.
	ASSERT_EQ(kel::test::set_flood(wh_, a.link, {"10.80.0.77"}, false), WEXO_STATUS_OK);
	EXPECT_EQ(kel_sync_vxlan_flood(h_, nullptr, "db"), KEL_SUCCESS);
	EXPECT_EQ(flood_of(wh_, a.link), Remotes{});

	// A port bound on a host whose keld cannot be reached: nothing is taken away.
	for (const char *prop : {"uri-template=ssh://", "vxlan-addr=10.80.0.2"})
		ASSERT_EQ(kel_db_set_ctrlprop(h_, prop, "localhost"), KEL_SUCCESS) << prop;
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_assign_vport(h_, "sys-global", "db", "p2", "vm9", "localhost", nullptr, &k), KEL_SUCCESS);
	kel_free_kel(k);
	ASSERT_EQ(kel::test::set_flood(wh_, a.link, {"10.80.0.77"}, false), WEXO_STATUS_OK);
	EXPECT_EQ(kel_sync_vxlan_flood(h_, "sys-global", "db"), KEL_E_HOST_CONNECT);
	EXPECT_EQ(flood_of(wh_, a.link), Remotes{"10.80.0.77"});
	// Once every host answers, the list is what the store says again.
	ASSERT_EQ(kel_db_unassign_vport(h_, "vm9", "localhost", nullptr), KEL_SUCCESS);
	EXPECT_EQ(kel_sync_vxlan_flood(h_, nullptr, "db"), KEL_SUCCESS);
	EXPECT_EQ(flood_of(wh_, a.link), Remotes{});

	// With a group the kel floods by multicast: its lists are not ours.
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-mgroup=239.1.1.1", nullptr), KEL_SUCCESS);
	ASSERT_EQ(kel::test::set_flood(wh_, a.link, {"10.80.0.77"}, false), WEXO_STATUS_OK);
	EXPECT_EQ(kel_sync_vxlan_flood(h_, nullptr, "db"), KEL_SUCCESS);
	EXPECT_EQ(flood_of(wh_, a.link), Remotes{"10.80.0.77"});

	EXPECT_EQ(kel_sync_vxlan_flood(h_, nullptr, "nosuch"), KEL_E_KEL_NOTFOUND);
	for (const char *bad : {"db,web", "", "db=1"})
		EXPECT_EQ(kel_sync_vxlan_flood(h_, nullptr, bad), KEL_E_INVALID_ARGS) << bad;
	EXPECT_EQ(kel_sync_vxlan_flood(h_, "a,b", "db"), KEL_E_INVALID_ARGS);
	EXPECT_EQ(kel_disconnect_vnic(wh_, "vn1", nullptr, a.link, 0), KEL_SUCCESS);
}

#include <functional>
#include <memory>
#include <string>

#include <kel/libkel.h>
#include "fault.h"
#include "netns.h"
#include "store_fixture.h"

namespace {

class Vports : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		for (const char *name : {"web", "bare"}) {
			kel_t *k = nullptr;
			ASSERT_EQ(kel_db_create_kel(h_, nullptr, name, "l2-type=flat", 0, &k), KEL_SUCCESS);
			kel_free_kel(k);
		}
		kel_ipnet_t *ip = nullptr;
		ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", "web", "n", "subnet=10.0.0.0/24", &ip, 0), KEL_SUCCESS);
		kel_free_ipnet(ip);
	}
	void TearDown() override
	{
		kel::fault::disarm();
		StoreFixture::TearDown();
	}

	// Adds a port; "ok <ipaddr> <mac prefix ok>" or "error N".
	std::string add(const char *name, const char *props = nullptr, const char *kel = "web", uint32_t flags = 0)
	{
		kel_vport_t *vp = nullptr;
		const int rc = kel_db_add_vport(h_, "sys-global", kel, name, props, &vp, flags);
		EXPECT_EQ(h_->edh_cnt, 0);
		if (rc != KEL_SUCCESS)
			return "error " + std::to_string(rc);
		char *ip = nullptr, *mac = nullptr;
		EXPECT_EQ(attrset_lookup_string(vp->evp_props, "ipaddr", &ip), 0);
		EXPECT_EQ(attrset_lookup_string(vp->evp_props, "macaddr", &mac), 0);
		const std::string out = std::string("ok ") + ip +
		    (std::string(mac).rfind("2:8:20:", 0) == 0 ? "" : " foreign-mac");
		kel_free_vport(vp);
		return out;
	}

	std::string pools()
	{
		return value("SELECT ipnet_avail_range || '|' || ipnet_avail_pool_range FROM ipnet_tbl");
	}

	std::string err(int rc) { return "error " + std::to_string(rc); }
};

TEST_F(Vports, AddressesAndMacs)
{
	EXPECT_EQ(add("p1"), "ok 10.0.0.2/24");
	EXPECT_EQ(add("p2"), "ok 10.0.0.3/24");
	EXPECT_EQ(add("p3", "ipaddr=10.0.0.1"), "ok 10.0.0.1/24");  // the router, once
	EXPECT_EQ(add("p4", "ipaddr=10.0.0.1"), err(KEL_E_IPADDR_INUSE));
	EXPECT_EQ(add("p4", "ipaddr=10.0.0.3"), err(KEL_E_IPADDR_INUSE));
	EXPECT_EQ(add("p4", "ipaddr=10.0.1.3"), err(KEL_E_IP_NOT_IN_IPNET));
	EXPECT_EQ(add("p4", "macaddr=aa:bb:cc:dd:ee:ff"), "ok 10.0.0.4/24 foreign-mac");
	EXPECT_EQ(add("p5", "macaddr=aa:bb:cc:dd:ee:ff"), err(KEL_E_MACADDR_INUSE));
	EXPECT_EQ(add("p1"), err(KEL_E_EXISTS));
	EXPECT_EQ(add("p-1"), err(KEL_E_INVALID_NAME));
	EXPECT_EQ(add("p-1", nullptr, "web", KEL_NAME_DASH_OK), "ok 10.0.0.5/24");
	EXPECT_EQ(add("q", nullptr, "bare"), err(KEL_E_IPNET_NOTFOUND));
	EXPECT_EQ(add("q", nullptr, "nosuch"), err(KEL_E_KEL_NOTFOUND));
	EXPECT_EQ(add("q", "l2-type=vlan"), err(KEL_E_INVALID_PROP));
	EXPECT_EQ(pools(), "10.0.0.6-10.0.0.254|10.0.0.6-10.0.0.254");
	EXPECT_TRUE(kel_db_vport_exists(h_, "sys-global", "web", "p1"));
	EXPECT_FALSE(kel_db_vport_exists(h_, "sys-global", "bare", "p1"));
}

// A port's MAC is a 6-octet unicast address, stored in one spelling; an address equal in
// value to a port's is taken, however either is spelled.
TEST_F(Vports, MacsAreUnicastAddressesTakenByValue)
{
	// A store written by hand or an older version holds a zero-padded, upper-case MAC.
	const std::string web = value("SELECT kel_uuid FROM kel_tbl WHERE kel_name = 'web'");
	sql("INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props) VALUES "
	    "('" +
	    uuid(900) + "', '" + web + "', 'old', 'macaddr=02:0B:20:AA:0B:0C')");
	struct {
		const char *given;
		int rc;
		const char *stored;
	} cases[] = {
	    {"2:8:20:99:35:4f", KEL_SUCCESS, "2:8:20:99:35:4f"},
	    {"02:08:20:99:35:4F", KEL_E_MACADDR_INUSE, nullptr},
	    {"02:08:20:99:35:4f", KEL_E_MACADDR_INUSE, nullptr},
	    {"2:b:20:aa:b:c", KEL_E_MACADDR_INUSE, nullptr},  // the old port's, respelled
	    {"02:0A:00:00:00:01", KEL_SUCCESS, "2:a:0:0:0:1"},
	    {"2:a:0:0:0:01", KEL_E_MACADDR_INUSE, nullptr},
	    {"1:2:3:4:5", KEL_E_INVALID_MACADDR, nullptr},
	    {"1:2:3:4:5:6:7", KEL_E_INVALID_MACADDR, nullptr},
	    {"3:0:0:0:0:1", KEL_E_INVALID_MACADDR, nullptr},  // a multicast address
	    {"ff:ff:ff:ff:ff:ff", KEL_E_INVALID_MACADDR, nullptr},
	    {"0:0:0:0:0:0", KEL_E_INVALID_MACADDR, nullptr},
	    {"2:8:20:99:35", KEL_E_INVALID_MACADDR, nullptr},
	};
	int n = 0;
	for (const auto &c : cases) {
		SCOPED_TRACE(c.given);
		const std::string name = "m" + std::to_string(n++);
		const std::string props = std::string("macaddr=") + c.given;
		kel_vport_t *vp = nullptr;
		EXPECT_EQ(kel_db_add_vport(h_, "sys-global", "web", name.c_str(), props.c_str(), &vp, 0), c.rc);
		if (c.stored != nullptr && vp != nullptr) {
			char *mac = nullptr;
			EXPECT_EQ(attrset_lookup_string(vp->evp_props, "macaddr", &mac), 0);
			EXPECT_STREQ(mac, c.stored);
		}
		kel_free_vport(vp);
	}
	// Refused adds gave their addresses back.
	EXPECT_EQ(pools(), "10.0.0.4-10.0.0.254|10.0.0.4-10.0.0.254");
}

TEST_F(Vports, AFailedAddGivesTheAddressBack)
{
	// Fail each statement in turn until the add runs through.
	kel::test::for_each_failing_statement(
	    [&] { return kel_db_add_vport(h_, "sys-global", "web", "p1", nullptr, nullptr, 0); },
	    [&](int, int rc) {
		    if (rc == KEL_SUCCESS) {  // a failed existence check reads as "absent"
			    ASSERT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_SUCCESS);
			    return;
		    }
		    EXPECT_EQ(rows("vport_tbl"), 0);
		    EXPECT_EQ(pools(), "10.0.0.2-10.0.0.254|10.0.0.2-10.0.0.254");
	    },
	    SQLITE_IOERR * 256 + KEL_E_SQL);
	EXPECT_EQ(pools(), "10.0.0.3-10.0.0.254|10.0.0.3-10.0.0.254");
}

TEST_F(Vports, RemovalAndForce)
{
	ASSERT_EQ(add("p1"), "ok 10.0.0.2/24");
	ASSERT_EQ(add("gw", "ipaddr=10.0.0.1"), "ok 10.0.0.1/24");
	sql("UPDATE vport_tbl SET vport_status = 1, vport_vnicname = 'v0', vport_hostname = 'h' WHERE vport_name = 'p1'");
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_E_VPORT_INUSE);
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", "force=no", 0), KEL_E_VPORT_INUSE);
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", "force=yes,x=1", 0), KEL_E_INVALID_PROP);
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", "force=yes", 0), KEL_SUCCESS);
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "gw", nullptr, 0), KEL_SUCCESS);
	// The address went back; the router never enters a pool.
	EXPECT_EQ(pools(), "10.0.0.2-10.0.0.254|10.0.0.2-10.0.0.254");
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "sys-vport0", nullptr, 0), KEL_E_PERM);
	EXPECT_EQ(kel_db_remove_ipnet(h_, "sys-global", "web", "n", 0), KEL_SUCCESS);
}

TEST_F(Vports, SystemVportsAndReset)
{
	char name[KEL_NAME_LEN];
	ASSERT_EQ(kel_db_add_system_vport(h_, "sys-global", "web", name), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport0");
	ASSERT_EQ(kel_db_add_system_vport(h_, "sys-global", "web", name), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport1");
	// A failing add gives its number back.
	char none[KEL_NAME_LEN];
	EXPECT_EQ(kel_db_add_system_vport(h_, "sys-global", "bare", none), KEL_E_IPNET_NOTFOUND);
	EXPECT_EQ(value("SELECT kel_vportnum_range FROM kel_tbl WHERE kel_name = 'bare'"), "0-2147483647");

	// Resetting a free port does nothing; a bound one whose host cannot be reached is
	// freed, and a system port goes away with its number.
	EXPECT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "sys-vport0", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(rows("vport_tbl"), 2);
	sql("UPDATE vport_tbl SET vport_status = 1, vport_vnicname = 'v0', vport_hostname = "
	    "'no-such-host.invalid', vport_props = vport_props || ',vmid=vm1' WHERE vport_name = 'sys-vport0'");
	ASSERT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "sys-vport0", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(rows("vport_tbl"), 1);
	EXPECT_EQ(value("SELECT kel_vportnum_range FROM kel_tbl WHERE kel_name = 'web'"), "0,2-2147483647");
	ASSERT_EQ(kel_db_remove_system_vport(h_, "sys-global", "web", "sys-vport1"), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT kel_vportnum_range FROM kel_tbl WHERE kel_name = 'web'"), "0-2147483647");

	ASSERT_EQ(add("p1"), "ok 10.0.0.2/24");
	sql("UPDATE vport_tbl SET vport_status = 1, vport_vnicname = 'v0', vport_hostname = "
	    "'no-such-host.invalid', vport_props = vport_props || ',vmid=vm1' WHERE vport_name = 'p1'");
	ASSERT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "p1", "force=yes", 0), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT vport_status || '|' || vport_vnicname || '|' || vport_hostname FROM vport_tbl"), "0||");
	EXPECT_EQ(value("SELECT instr(vport_props, 'vmid') FROM vport_tbl"), "0");
}

TEST_F(Vports, ResetAsksTheHostWhetherTheVnicIsGone)
{
	// Host "h" is a network namespace with its own keld, reached at the daemon socket.
	kel::test::NetNs host("reset");
	ASSERT_TRUE(host.ok());
	ASSERT_TRUE(host.exec("ip link add vn0 type veth peer name vn0p"));
	auto keld = std::make_unique<kel::test::Keld>(host.name());
	ASSERT_GT(keld->pid(), 0);
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", "h"), KEL_SUCCESS);
	ASSERT_EQ(add("p1"), "ok 10.0.0.2/24");
	auto bind_to = [&](const char *vnic) {
		sql(std::string("UPDATE vport_tbl SET vport_status = 1, vport_hostname = 'h', "
		                "vport_vnicname = '") +
		    vnic + "'");
	};

	// The host still has the VNIC: the port stays bound.
	bind_to("vn0");
	EXPECT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_E_VPORT_INUSE);
	EXPECT_EQ(value("SELECT vport_status FROM vport_tbl"), "1");
	// The VNIC is gone from the host.
	ASSERT_TRUE(host.exec("ip link del vn0"));
	EXPECT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT vport_status FROM vport_tbl"), "0");
	// The host does not answer at all.
	bind_to("vn0");
	EXPECT_EQ(keld->stop(), 0);
	EXPECT_EQ(kel_db_reset_vport(h_, "sys-global", "web", "p1", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT vport_status FROM vport_tbl"), "0");
}

}  // namespace

// Each operation answers a property text it cannot take with the code its callers know,
// through the one reader: none, an empty one and a malformed one.
TEST_F(Vports, BadPropertyTextsAnswerEachOperationsOwnCode)
{
	using Op = std::function<int(const char *)>;
	const Op add_vport = [&](const char *p) {
		kel_vport_t *vp = nullptr;
		const int rc = kel_db_add_vport(h_, "sys-global", "web", "q", p, &vp, 0);
		kel_free_vport(vp);
		if (rc == KEL_SUCCESS) {
			EXPECT_EQ(kel_db_remove_vport(h_, "sys-global", "web", "q", nullptr, 0), KEL_SUCCESS);
		}
		return rc;
	};
	const Op add_ipnet = [&](const char *p) {
		kel_ipnet_t *ip = nullptr;
		const int rc = kel_db_add_ipnet(h_, "sys-global", "bare", "m", p, &ip, 0);
		kel_free_ipnet(ip);
		return rc;
	};
	const Op assign = [&](const char *p) {
		kel_t *k = nullptr;
		const int rc = kel_db_assign_vport(h_, "sys-global", "web", "p", "vn0", "hosta", p, &k);
		kel_free_kel(k);
		if (rc == KEL_SUCCESS) {
			EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "hosta", nullptr), KEL_SUCCESS);
		}
		return rc;
	};
	const struct {
		const char *what;
		Op op;
		int if_malformed, if_empty, if_null;
	} ops[] = {
	    {"add-vport", add_vport, KEL_E_INVALID_PROP, KEL_SUCCESS, KEL_SUCCESS},
	    {"add-ipnet", add_ipnet, KEL_E_INVALID_PROP, KEL_E_ARGS_REQUIRED, KEL_E_INVALID_PROP},
	    {"set-ctrlprop", [&](const char *p) { return kel_db_set_ctrlprop(h_, p, nullptr); }, KEL_E_INVALID_ARGS,
	        KEL_E_INVALID_ARGS, KEL_E_INVALID_ARGS},
	    {"assign-vport", assign, KEL_E_INVALID_ARGS, KEL_SUCCESS, KEL_SUCCESS},
	    // Last: without a text it removes the port.
	    {"remove-vport", [&](const char *p) { return kel_db_remove_vport(h_, "sys-global", "web", "p", p, 0); },
	        KEL_E_INVALID_PROP, KEL_E_INVALID_PROP, KEL_SUCCESS},
	};
	ASSERT_EQ(add("p"), "ok 10.0.0.2/24");
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=net0", "hosta"), KEL_SUCCESS);
	for (const auto &o : ops) {
		SCOPED_TRACE(o.what);
		EXPECT_EQ(o.op("x,y=1"), o.if_malformed);
		EXPECT_EQ(o.op(""), o.if_empty);
		EXPECT_EQ(o.op(nullptr), o.if_null);
	}
}

#include <uuid/uuid.h>

#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "allocator.h"
#include "kel_lifecycle.h"
#include "kelnet.h"
#include "store_fixture.h"

namespace {

class Ipnets : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		for (const char *name : {"k1", "k2"})
			make_kel(name, "sys-global");
		make_kel("k1", "tb");
	}

	void make_kel(const char *name, const char *tenant)
	{
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, tenant, name, "l2-type=flat", 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
	}

	// Adds an ipnet; "ok <avail>|<pool avail>|<props>" or "error N".
	std::string add(const char *kel, const char *name, const char *props, const char *tenant = "sys-global")
	{
		kel_ipnet_t *ip = reinterpret_cast<kel_ipnet_t *>(1);
		const int rc = kel_db_add_ipnet(h_, tenant, kel, name, props, &ip, 0);
		EXPECT_EQ(h_->edh_cnt, 0);
		if (rc != KEL_SUCCESS) {
			EXPECT_EQ(ip, nullptr);
			return "error " + std::to_string(rc);
		}
		char uu[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(ip->ei_uuid, uu);
		kel_free_ipnet(ip);
		return "ok " +
		    value("SELECT ipnet_avail_range || '|' || ipnet_avail_pool_range || '|' "
		          "|| ipnet_props FROM ipnet_tbl WHERE ipnet_uuid = ?",
		        {uu});
	}

	kel_ipnet_t *read(const char *name)
	{
		list_t nets;
		EXPECT_EQ(kel_db_get_ipnetlist(h_, nullptr, nullptr, name, &nets, 0), KEL_SUCCESS);
		auto *ip = static_cast<kel_ipnet_t *>(list_remove_head(&nets));
		kel_free_ipnetlist(&nets);
		return ip;
	}

	std::string pools(const char *name)
	{
		return value("SELECT ipnet_avail_range || '|' || ipnet_avail_pool_range FROM ipnet_tbl "
		             "WHERE ipnet_name = ?",
		    {name});
	}
};

std::string err(int rc)
{
	return "error " + std::to_string(rc);
}

TEST_F(Ipnets, RouterPoolAndAvailableAddresses)
{
	struct {
		const char *props;
		std::string want;
	} cases[] = {
	    {"subnet=10.0.0.0/24",
	        "ok 10.0.0.2-10.0.0.254|10.0.0.2-10.0.0.254|"
	        "subnet=10.0.0.0/24,defrouter=10.0.0.1,pool=10.0.0.2-10.0.0.254"},
	    {"subnet=10.0.0.0/24,defrouter=0.0.0.0",
	        "ok 10.0.0.1-10.0.0.254|10.0.0.1-10.0.0.254|"
	        "defrouter=0.0.0.0,subnet=10.0.0.0/24,pool=10.0.0.1-10.0.0.254"},
	    {"subnet=10.0.0.0/24,defrouter=10.0.0.254,pool=10.0.0.10-10.0.0.20",
	        "ok 10.0.0.1-10.0.0.253|10.0.0.10-10.0.0.20|"
	        "defrouter=10.0.0.254,subnet=10.0.0.0/24,pool=10.0.0.10-10.0.0.20"},
	    {"subnet=10.0.0.0/24,pool=10.0.0.5,10.0.0.6,10.0.0.9",
	        "ok 10.0.0.2-10.0.0.254|10.0.0.5-10.0.0.6,10.0.0.9|"
	        "subnet=10.0.0.0/24,defrouter=10.0.0.1,pool=10.0.0.5-10.0.0.6,10.0.0.9"},
	    {"subnet=10.0.0.0/30",
	        "ok 10.0.0.2|10.0.0.2|"
	        "subnet=10.0.0.0/30,defrouter=10.0.0.1,pool=10.0.0.2"},
	    {"subnet=2001:db8::/64",
	        "ok 2001:db8::2-2001:db8::ffff:ffff:ffff:ffff|"
	        "2001:db8::2-2001:db8::ffff:ffff:ffff:ffff|"
	        "subnet=2001:db8::/64,defrouter=2001:db8::1,"
	        "pool=2001:db8::2-2001:db8::ffff:ffff:ffff:ffff"},
	    {"subnet=10.0.0.0/24,pool=10.0.0.1-10.0.0.9", err(KEL_E_POOL_DEFROUTER)},
	    {"subnet=10.0.0.0/24,pool=10.0.0.250-10.0.0.255", err(KEL_E_INVALID_POOL)},
	    {"subnet=10.0.0.0/24,pool=", err(KEL_E_INVALID_ARGS)},
	    {"subnet=10.0.0.0/24,defrouter=10.0.1.1", err(KEL_E_IP_NOT_IN_IPNET)},
	    {"subnet=10.0.0.0/24,defrouter=10.0.0.255", err(KEL_E_IP_NOT_IN_IPNET)},
	    {"subnet=10.0.0.0/24,defrouter=10.0.0.0", err(KEL_E_IP_NOT_IN_IPNET)},
	    // The catalogue's check of "subnet" runs first and answers for it.
	    {"subnet=10.0.0.0/31", err(KEL_E_INVALID_SUBNET)},
	    {"subnet=10.0.0.0/32", err(KEL_E_INVALID_SUBNET)},
	    {"subnet=10.0.0.1/24", err(KEL_E_INVALID_SUBNET)},
	    {"defrouter=10.0.0.1", err(KEL_E_ARGS_REQUIRED)},
	    {"", err(KEL_E_ARGS_REQUIRED)},  // an empty text is an empty set, not a bad one
	    {"cos=1,subnet=10.0.0.0/24", err(KEL_E_INVALID_PROP)},
	    {"x,subnet=10.0.0.0/24", err(KEL_E_INVALID_PROP)},
	    {nullptr, err(KEL_E_INVALID_PROP)},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.props ? c.props : "(null)");
		EXPECT_EQ(add("k1", "n", c.props), c.want);
		if (c.want.rfind("ok", 0) == 0) {
			ASSERT_EQ(kel_db_remove_ipnet(h_, "sys-global", "k1", "n", 0), KEL_SUCCESS);
		}
	}
	EXPECT_EQ(rows("ipnet_tbl"), 0);
}

TEST_F(Ipnets, OneNetworkPerSwitchUniqueNamesNoOverlap)
{
	ASSERT_EQ(add("k1", "n1", "subnet=10.1.2.0/24").substr(0, 2), "ok");
	EXPECT_EQ(add("k1", "n2", "subnet=10.9.0.0/24"), err(KEL_E_ONE_IPNET));
	EXPECT_EQ(add("k2", "n1", "subnet=10.9.0.0/24"), err(KEL_E_EXISTS));
	EXPECT_EQ(add("k9", "n9", "subnet=10.9.0.0/24"), err(KEL_E_KEL_NOTFOUND));
	// Overlaps count across tenants; other families never overlap.
	EXPECT_EQ(add("k1", "nb", "subnet=10.1.0.0/16", "tb"), err(KEL_E_IPNET_OVERLAP));
	EXPECT_EQ(add("k2", "n2", "subnet=10.1.2.128/25"), err(KEL_E_IPNET_OVERLAP));
	EXPECT_EQ(add("k2", "n2", "subnet=2001:db8::/64").substr(0, 2), "ok");
	EXPECT_EQ(add("k1", "n1", "subnet=10.1.3.0/24", "tb").substr(0, 2), "ok");
	EXPECT_EQ(add("k1", "a-b", "subnet=10.7.0.0/24", "tb"), err(KEL_E_INVALID_NAME));
	EXPECT_TRUE(kel_db_ipnet_exists(h_, "tb", "n1"));
	EXPECT_FALSE(kel_db_ipnet_exists(h_, "tc", "n1"));
}

TEST_F(Ipnets, RemovalIsRefusedWhileTheSwitchHasPorts)
{
	ASSERT_EQ(add("k1", "n1", "subnet=10.1.2.0/24").substr(0, 2), "ok");
	const std::string keluuid = value(
	    "SELECT kel_uuid FROM kel_tbl WHERE kel_name = 'k1' AND kel_tenant_name = 'sys-global'");
	sql("INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
	    "vport_hostname) VALUES ('" +
	    uuid(7) + "', '" + keluuid + "', 'p', '', '')");
	EXPECT_EQ(kel_db_remove_ipnet(h_, "sys-global", "k1", "n1", 0), KEL_E_IPNET_INUSE);
	sql("DELETE FROM vport_tbl");
	EXPECT_EQ(kel_db_remove_ipnet(h_, "sys-global", "k1", "n1", 0), KEL_SUCCESS);
	EXPECT_EQ(kel_db_remove_ipnet(h_, "sys-global", "k1", "n1", 0), KEL_E_IPNET_NOTFOUND);
	EXPECT_EQ(kel_db_remove_ipnet(h_, "sys-global", "k1", "", 0), KEL_E_INVALID_NAME);
}

TEST_F(Ipnets, AddressesComeFromThePoolAndGoBack)
{
	ASSERT_EQ(add("k1", "n1", "subnet=10.0.0.0/24,pool=10.0.0.10-10.0.0.11").substr(0, 2), "ok");
	kel_ipnet_t *ip = read("n1");
	ASSERT_NE(ip, nullptr);
	kel::StoreLock lock(h_);
	char addr[46];
	ASSERT_EQ(kel_db_get_next_ipaddr(h_, ip, addr), KEL_SUCCESS);
	EXPECT_STREQ(addr, "10.0.0.10");
	EXPECT_EQ(pools("n1"), "10.0.0.2-10.0.0.9,10.0.0.11-10.0.0.254|10.0.0.11");
	// A given address outside the pool comes from the whole set only.
	ASSERT_EQ(kel_db_get_this_ipaddr(h_, ip, "10.0.0.50"), KEL_SUCCESS);
	EXPECT_EQ(pools("n1"), "10.0.0.2-10.0.0.9,10.0.0.11-10.0.0.49,10.0.0.51-10.0.0.254|10.0.0.11");
	EXPECT_EQ(kel_db_get_this_ipaddr(h_, ip, "10.0.0.50"), KEL_E_NORESOURCE);
	ASSERT_EQ(kel_db_get_next_ipaddr(h_, ip, addr), KEL_SUCCESS);
	EXPECT_EQ(kel_db_get_next_ipaddr(h_, ip, addr), KEL_E_NORESOURCE);
	EXPECT_EQ(kel_db_free_ipaddr(h_, ip->ei_uuid, ip->ei_af, "10.0.0.50"), KEL_SUCCESS);
	EXPECT_EQ(pools("n1"), "10.0.0.2-10.0.0.9,10.0.0.12-10.0.0.254|");
	EXPECT_EQ(kel_db_free_ipaddr(h_, ip->ei_uuid, ip->ei_af, "10.0.0.10"), KEL_SUCCESS);
	EXPECT_EQ(kel_db_free_ipaddr(h_, ip->ei_uuid, ip->ei_af, "10.0.0.11"), KEL_SUCCESS);
	EXPECT_EQ(pools("n1"), "10.0.0.2-10.0.0.254|10.0.0.10-10.0.0.11");
	EXPECT_TRUE(kel_is_defrouter("10.0.0.1", ip));
	EXPECT_FALSE(kel_is_defrouter("10.0.0.2", ip));
	kel_free_ipnet(ip);
}

TEST_F(Ipnets, SystemVportNumbersPerSwitch)
{
	kel::StoreLock lock(h_);
	char name[32];
	ASSERT_EQ(kel_db_get_next_sysvportname(h_, "sys-global", "k1", name, sizeof(name)), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport0");
	ASSERT_EQ(kel_db_get_next_sysvportname(h_, "sys-global", "k1", name, sizeof(name)), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport1");
	ASSERT_EQ(kel_db_get_next_sysvportname(h_, "sys-global", "k2", name, sizeof(name)), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport0");
	ASSERT_EQ(kel_db_free_sysvportname(h_, "sys-global", "k1", "sys-vport0"), KEL_SUCCESS);
	ASSERT_EQ(kel_db_get_next_sysvportname(h_, "sys-global", "k1", name, sizeof(name)), KEL_SUCCESS);
	EXPECT_STREQ(name, "sys-vport0");
	// A name that does not fit is given back, not lost.
	char tiny[8];
	EXPECT_EQ(kel_db_get_next_sysvportname(h_, "sys-global", "k1", tiny, sizeof(tiny)), KEL_E_NOSPACE);
	EXPECT_EQ(value("SELECT kel_vportnum_range FROM kel_tbl WHERE kel_name = 'k1' AND "
	                "kel_tenant_name = 'sys-global'"),
	    "2-2147483647");
}

TEST_F(Ipnets, MacAddresses)
{
	for (int i = 0; i < 20; i++) {
		uint8_t mac[6];
		ASSERT_EQ(kel_macaddr_random(mac, sizeof(mac)), 0);
		char text[18];
		EXPECT_EQ(std::string(_link_ntoa(mac, text, 6, 1)).rfind("2:8:20:", 0), 0u);
	}
}

}  // namespace

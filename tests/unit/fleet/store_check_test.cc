// The store check: each kind of damage (written into a sound store by hand, as a bug or
// an older version would) is found and named, repair puts back exactly what it can, and
// a second check then finds only what needs an operator.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "store_fixture.h"

namespace {

class StoreCheck : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vlan-range=100-149,160-199", nullptr), KEL_SUCCESS);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-range=5000-5099", nullptr), KEL_SUCCESS);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=eth1,vlan-range=100-120", "h1"), KEL_E_RANGE_PARTIAL);
		make("web", "l2-type=vlan", "subnet=10.0.0.0/24,pool=10.0.0.10-10.0.0.99");
		make("six", "l2-type=vxlan", "subnet=fd00::/64,pool=fd00::100-fd00::1ff");
		for (const char *p : {"p1", "p2"})
			ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", p, nullptr, nullptr, 0), KEL_SUCCESS);
		ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", "far", "ipaddr=10.0.0.200", nullptr, 0),
		    KEL_SUCCESS);
		ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "six", "v", nullptr, nullptr, 0), KEL_SUCCESS);
		char sys[KEL_NAME_LEN];
		ASSERT_EQ(kel_db_add_system_vport(h_, "sys-global", "web", sys), KEL_SUCCESS);
	}

	void make(const char *name, const char *props, const char *net)
	{
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, nullptr, name, props, 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
		kel_ipnet_t *ip = nullptr;
		ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", name, (std::string(name) + "net").c_str(), net, &ip, 0),
		    KEL_SUCCESS);
		kel_free_ipnet(ip);
	}

	// The problems found, one line each, led by "repaired " when repair put it right.
	std::vector<std::string> check(uint32_t flags = 0)
	{
		list_t list;
		EXPECT_EQ(kel_db_check_store(h_, flags, &list), KEL_SUCCESS);
		std::vector<std::string> out;
		for (auto *p = static_cast<kel_store_problem_t *>(list_head(&list)); p != nullptr;
		     p = static_cast<kel_store_problem_t *>(list_next(&list, p)))
			out.push_back(
			    std::string(p->esp_repaired ? "repaired " : "") + p->esp_object + ": " + p->esp_text);
		kel_free_problemlist(&list);
		return out;
	}
};

using Lines = std::vector<std::string>;

TEST_F(StoreCheck, ASoundStoreHasNoProblems)
{
	EXPECT_EQ(check(), Lines{});
	EXPECT_EQ(check(KEL_CHECK_REPAIR), Lines{});
}

TEST_F(StoreCheck, DamageIsFoundAndWhatLeakedIsPutBack)
{
	struct {
		const char *what;
		std::vector<std::string> damage;  // SQL statements
		Lines found;
		Lines left;  // what repair cannot put right
	} cases[] = {
	    {"IDs leaked from a range with a hole",
	        {"UPDATE ctrl_tbl SET ctrl_pval = '102-120,130-149,160-199' WHERE ctrl_pname = 'vlan-range-avail'"},
	        {"vlan-range: VLAN IDs neither free nor held by a kel: 101,121-129"}, {}},
	    {"an ID free and held, another free outside the range",
	        {"UPDATE ctrl_tbl SET ctrl_pval = '5000-5099,6000' WHERE ctrl_pname = 'vxlan-range-avail'"},
	        {"vxlan-range: VNIs held by kels but free as well: 5000",
	            "vxlan-range: VNIs free outside the range: 6000"},
	        {}},
	    {"an ID held twice",
	        {"INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) "
	         "VALUES ('u-x', 'x', 'acme', 'l2-type=vlan,vlanid=100')"},
	        {"vlan-range: VLAN IDs 100 held by more than one kel: sys-global/web, acme/x"},
	        {"vlan-range: VLAN IDs 100 held by more than one kel: sys-global/web, acme/x"}},
	    {"a host's share beyond the range and over another's",
	        {"INSERT INTO ctrl_tbl (ctrl_pname, ctrl_pval, ctrl_host, ctrl_vlan_range) "
	         "VALUES ('uplink-port', 'eth2', 'h1', '115-155')"},
	        {"host h1 uplink-port eth2: VLAN IDs of its share outside the range: 150-155",
	            "host h1 uplink-port eth2: VLAN IDs shared with another uplink-port of the same host: 115-120"},
	        {"host h1 uplink-port eth2: VLAN IDs of its share outside the range: 150-155",
	            "host h1 uplink-port eth2: VLAN IDs shared with another uplink-port of the same host: 115-120"}},
	    {"IPv6 pool addresses leaked",
	        {"UPDATE ipnet_tbl SET ipnet_avail_pool_range = 'fd00::101-fd00::1ef' WHERE ipnet_name = 'sixnet'"},
	        {"ipnet sys-global/six/sixnet: pool addresses neither free nor held by a port: fd00::1f0-fd00::1ff"},
	        {}},
	    {"a held address and the router free",
	        {"UPDATE ipnet_tbl SET ipnet_avail_range = '10.0.0.1-10.0.0.199,10.0.0.201-10.0.0.254' "
	         "WHERE ipnet_name = 'webnet'"},
	        {"ipnet sys-global/web/webnet: addresses free that are held, the router or outside the span: "
	         "10.0.0.1,10.0.0.10-10.0.0.12"},
	        {}},
	    {"rows of a missing kel",
	        {"INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_keluuid, ipnet_name, ipnet_props, ipnet_af, "
	         "ipnet_start_addr, ipnet_end_addr) VALUES ('u-n', 'gone', 'lost', 'subnet=10.9.0.0/24', 2, "
	         "'10.9.0.1', '10.9.0.254')",
	            "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props) "
	            "VALUES ('u-v', 'gone', 'lost', 'ipaddr=10.9.0.2/24')"},
	        {"vport u-v: port lost belongs to no kel (gone)", "ipnet u-n: network lost belongs to no kel (gone)"},
	        {}},
	    {"a MAC held twice, spelled two ways",
	        {"UPDATE vport_tbl SET vport_props = 'ipaddr=10.0.0.11/24,macaddr=02:0A:0B:0C:0D:0E' "
	         "WHERE vport_name = 'p2'",
	            "UPDATE vport_tbl SET vport_props = 'ipaddr=10.0.0.10/24,macaddr=2:a:b:c:d:e' "
	            "WHERE vport_name = 'p1'"},
	        {"MAC 2:a:b:c:d:e: held by more than one port: sys-global/web/p1, sys-global/web/p2"},
	        {"MAC 2:a:b:c:d:e: held by more than one port: sys-global/web/p1, sys-global/web/p2"}},
	    {"an address held twice",
	        {"UPDATE vport_tbl SET vport_props = 'ipaddr=10.0.0.10/24,macaddr=2:8:20:0:0:9' WHERE vport_name = 'p2'"},
	        {"ipnet sys-global/web/webnet: address 10.0.0.10 held by more than one port: p1, p2",
	            "ipnet sys-global/web/webnet: addresses neither free nor held by a port: 10.0.0.11",
	            "ipnet sys-global/web/webnet: pool addresses neither free nor held by a port: 10.0.0.11"},
	        {"ipnet sys-global/web/webnet: address 10.0.0.10 held by more than one port: p1, p2"}},
	    {"system port numbers leaked",
	        {"UPDATE kel_tbl SET kel_vportnum_range = '3-2147483647' WHERE kel_name = 'web'"},
	        {"kel sys-global/web: system port numbers neither free nor used: 1-2"}, {}},
	    {"an older schema",
	        {"UPDATE misc_tbl SET misc_value = '2' WHERE misc_name = 'db-version'",
	            "UPDATE ctrl_tbl SET ctrl_pval = '' WHERE ctrl_pname = 'vlan-range-avail'"},
	        {"store: schema version 2, not 3: run keladm upgrade-store"},
	        {"store: schema version 2, not 3: run keladm upgrade-store"}},
	};
	const Tables sound = snapshot();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		// Each case damages the sound store afresh.
		restore(sound);
		for (const std::string &statement : c.damage)
			sql(statement);
		const std::string damaged = dump();
		EXPECT_EQ(check(), c.found);
		EXPECT_EQ(dump(), damaged) << "a check without repair changed the store";
		Lines repaired;
		for (const std::string &line : c.found) {
			const bool stays = std::find(c.left.begin(), c.left.end(), line) != c.left.end();
			repaired.push_back(stays ? line : "repaired " + line);
		}
		EXPECT_EQ(check(KEL_CHECK_REPAIR), repaired);
		EXPECT_EQ(check(), c.left);
	}
}

}  // namespace

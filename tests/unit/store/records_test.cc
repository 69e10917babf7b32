#include <uuid/uuid.h>

#include <string>
#include <vector>

#include <kel/libkel.h>
#include "owners.h"
#include "records.h"
#include "store_fixture.h"

namespace {

class Records : public kel::test::StoreFixture {
protected:
	// "name[port,port|net]" per switch, in list order; ports marked * when USED.
	std::string summary(list_t *list)
	{
		std::string out;
		for (auto *k = static_cast<kel_t *>(list_head(list)); k; k = static_cast<kel_t *>(list_next(list, k))) {
			out += std::string(out.empty() ? "" : " ") + k->kel_name + "[";
			const char *sep = "";
			for (auto *v = static_cast<kel_vport_t *>(list_head(&k->kel_ports)); v;
			     v = static_cast<kel_vport_t *>(list_next(&k->kel_ports, v)), sep = ",")
				out += std::string(sep) + v->evp_name + (v->evp_status ? "*" : "");
			out += "|";
			sep = "";
			for (auto *n = static_cast<kel_ipnet_t *>(list_head(&k->kel_ipnets)); n;
			     n = static_cast<kel_ipnet_t *>(list_next(&k->kel_ipnets, n)), sep = ",")
				out += std::string(sep) + n->ei_name;
			out += k->kel_status == KEL_STATUS_BUSY ? "]busy" : "]";
		}
		return out;
	}

	// The switch list for `filter`: its summary, or "error N".
	std::string kels(const char *filter, uint32_t flags = 0)
	{
		list_t list;
		int rc = kel_db_get_filtered_kellist(h_, filter, &list, flags);
		EXPECT_EQ(h_->edh_cnt, 0) << "store lock left held";
		if (rc != KEL_SUCCESS)
			return "error " + std::to_string(rc);
		std::string s = summary(&list);
		kel_free_kellist(&list);
		return s;
	}

	void fabric()
	{
		add_kel(1, "k1");
		add_kel(2, "k2");
		add_kel(3, "lonely", "t2");
		add_vport(11, 1, "p1");
		add_vport(12, 1, "p2", "", VPORT_STATUS_USED, "vnic0", "host-a");
		add_vport(21, 2, "p1");
		add_ipnet(31, 1, "n1", "10.0.0.0/24");
		add_ipnet(32, 2, "n2", "10.0.1.0/24", "10.0.1.2-10.0.1.254");
	}
};

TEST_F(Records, SwitchListGroupsPortsAndNetworks)
{
	fabric();
	// `bound`: with KEL_LIST_BOUND_PORTS, where it differs from `want`.
	struct {
		const char *filter;
		const char *want;
		const char *bound = nullptr;
	} cases[] = {
	    {"", "k1[p1,p2*|n1]busy k2[p1|n2] lonely[|]", "k1[p2*|n1]busy k2[|n2] lonely[|]"},
	    {"kel=k1", "k1[p1,p2*|n1]busy", "k1[p2*|n1]busy"},
	    {"kel=k2", "k2[p1|n2]", "k2[|n2]"},
	    {"vport=p1", "k1[p1|n1] k2[p1|n2]", "error 43"},  // only matching ports, all networks
	    {"vport=p2", "k1[p2*|n1]busy"},
	    {"ipnet=n1", "k1[p1,p2*|n1]busy", "k1[p2*|n1]busy"},  // all ports of the switch owning n1
	    {"tenant=t2", "lonely[|]"},
	    {"host=host-a", "k1[p2*|n1]busy"},
	    {"vnic=vnic0", "k1[p2*|n1]busy"},
	    {"kel=k1,vport=p9", "error 43"},
	    {"kel=k9,vport=p1", "error 41"},
	    {"vport=p9", "error 43"},
	    {"kel=k9", "error 41"},
	    {"tenant=t2,kel=k1,vport=p9", "error 41"},  // k1 is not t2's
	    {"bogus=1", "error 79"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.filter);
		EXPECT_EQ(kels(c.filter), c.want);
		EXPECT_EQ(kels(c.filter, KEL_LIST_BOUND_PORTS), c.bound != nullptr ? c.bound : c.want);
		// Without members: the same switches, order, status and errors, nothing inside.
		std::string bare = c.want;
		for (size_t open = bare.find('['); open != std::string::npos; open = bare.find('[', open + 1))
			bare.replace(open + 1, bare.find(']', open) - open - 1, "|");
		EXPECT_EQ(kels(c.filter, KEL_LIST_NO_MEMBERS), bare);
	}
}

// The walk hands over the ports the list would hold, in its order, and stops when told.
TEST_F(Records, PortWalkMatchesThePortList)
{
	fabric();
	add_vport(13, 1, "p3", "macaddr=2:8:20:0:0:1");
	struct Seen {
		std::string names;
		int stop_after = 0;
		bool props = false;
	};
	auto each = [](const kel_vport_t *vp, void *arg) {
		auto *seen = static_cast<Seen *>(arg);
		seen->names += std::string(seen->names.empty() ? "" : ",") + vp->evp_kelname + "/" + vp->evp_name;
		seen->props = seen->props || vp->evp_props != nullptr;
		return --seen->stop_after == 0 ? 99 : 0;
	};
	for (const char *filter : {"", "vport=p1", "kel=k1", "host=host-a", "tenant=t2"}) {
		SCOPED_TRACE(filter);
		std::string listed;
		list_t ports;
		const int rc = kel_db_get_filtered_vportlist(h_, filter, &ports, 0);
		if (rc == KEL_SUCCESS) {
			for (auto *vp : kel::each<kel_vport_t>(&ports))
				listed += std::string(listed.empty() ? "" : ",") + vp->evp_kelname + "/" + vp->evp_name;
			kel_free_vportlist(&ports);
		}
		Seen seen;
		EXPECT_EQ(kel_db_walk_vports(h_, filter, 0, each, &seen), rc);
		EXPECT_EQ(seen.names, listed);
		EXPECT_EQ(h_->edh_cnt, 0) << "store lock left held";
		// Bound only: the one bound port (k1/p2) where the filter takes it in.
		const bool has_p2 = listed.find("k1/p2") != std::string::npos;
		Seen bound;
		EXPECT_EQ(kel_db_walk_vports(h_, filter, KEL_LIST_BOUND_PORTS, each, &bound),
		    has_p2 ? KEL_SUCCESS : KEL_E_VPORT_NOTFOUND);
		EXPECT_EQ(bound.names, has_p2 ? "k1/p2" : "");
		list_t only;
		ASSERT_EQ(kel_db_get_filtered_vportlist(h_, filter, &only, KEL_LIST_BOUND_PORTS),
		    has_p2 ? KEL_SUCCESS : KEL_E_VPORT_NOTFOUND);
		if (has_p2) {
			EXPECT_EQ(kel_list_count(&only), 1);
			kel_free_vportlist(&only);
		}
	}
	Seen two{"", 2};
	EXPECT_EQ(kel_db_walk_vports(h_, "", 0, each, &two), 99);
	EXPECT_EQ(two.names, "k1/p1,k1/p2");
	EXPECT_EQ(h_->edh_cnt, 0);
	Seen bare;
	ASSERT_EQ(kel_db_walk_vports(h_, "vport=p3", KEL_WALK_NO_PROPS, each, &bare), KEL_SUCCESS);
	EXPECT_FALSE(bare.props);
	Seen full;
	ASSERT_EQ(kel_db_walk_vports(h_, "vport=p3", 0, each, &full), KEL_SUCCESS);
	EXPECT_TRUE(full.props);
	EXPECT_EQ(kel_db_walk_vports(h_, "bogus=1", 0, each, &full), KEL_E_INVALID_FILTER);
	EXPECT_EQ(kel_db_walk_vports(h_, "", 0, nullptr, nullptr), KEL_E_INVALID_ARGS);
}

TEST_F(Records, EmptyStoreIsKelNotFound)
{
	EXPECT_EQ(kels(nullptr), "error 41");
	EXPECT_EQ(kels(""), "error 41");
}

TEST_F(Records, SwitchFieldsAndProperties)
{
	add_kel(1, "k1", "t1", "maxbw=10M,priority=high");
	add_kel(2, "k2", "t1", "");
	list_t list;
	ASSERT_EQ(kel_db_get_kellist(h_, "t1", "k1", &list, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_list_count(&list), 1);
	auto *k = static_cast<kel_t *>(list_head(&list));
	EXPECT_STREQ(k->kel_tenantname, "t1");
	char text[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(k->kel_uuid, text);
	EXPECT_EQ(text, uuid(1));
	char *value = nullptr;
	ASSERT_EQ(attrset_lookup_string(k->kel_props, "maxbw", &value), 0);
	EXPECT_STREQ(value, "10M");
	kel_free_kellist(&list);

	ASSERT_EQ(kel_db_get_kellist(h_, nullptr, uuid(2).c_str(), &list, 0), KEL_SUCCESS);
	k = static_cast<kel_t *>(list_head(&list));
	EXPECT_STREQ(k->kel_name, "k2");
	EXPECT_EQ(k->kel_props, nullptr);
	kel_free_kellist(&list);

	// Bad names are refused before the store is looked at.
	EXPECT_EQ(kel_db_get_kellist(nullptr, "t1", "", &list, 0), KEL_E_INVALID_NAME);
	EXPECT_EQ(kel_db_get_kellist(nullptr, "t1", "bad name", &list, 0), KEL_E_INVALID_NAME);
}

TEST_F(Records, OneSwitchWithOnePort)
{
	fabric();
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_get_kelvport(h_, "sys-global", "k1", "p2", &k), KEL_SUCCESS);
	ASSERT_NE(k, nullptr);
	EXPECT_STREQ(k->kel_name, "k1");
	ASSERT_EQ(kel_list_count(&k->kel_ports), 1);
	auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
	EXPECT_STREQ(vp->evp_name, "p2");
	EXPECT_STREQ(vp->evp_vnicname, "vnic0");
	EXPECT_STREQ(vp->evp_hostname, "host-a");
	EXPECT_STREQ(vp->evp_kelname, "k1");
	kel_free_kel(k);
	k = reinterpret_cast<kel_t *>(1);
	EXPECT_EQ(kel_db_get_kelvport(h_, "sys-global", "k1", "p9", &k), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(k, nullptr);
	EXPECT_EQ(kel_db_get_kelvport(h_, "sys-global", "k1", "", &k), KEL_E_INVALID_NAME);
}

TEST_F(Records, PortAndNetworkLists)
{
	fabric();
	list_t ports;
	ASSERT_EQ(kel_db_get_filtered_vportlist(h_, "vport=p1", &ports, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_list_count(&ports), 2);
	auto *vp = static_cast<kel_vport_t *>(list_head(&ports));
	EXPECT_STREQ(vp->evp_kelname, "k1");
	EXPECT_STREQ(vp->evp_tenantname, "sys-global");
	kel_free_vportlist(&ports);
	EXPECT_EQ(kel_db_get_filtered_vportlist(h_, "vport=p9", &ports, 0), KEL_E_VPORT_NOTFOUND);

	list_t nets;
	ASSERT_EQ(kel_db_get_ipnetlist(h_, "sys-global", "k2", nullptr, &nets, 0), KEL_SUCCESS);
	ASSERT_EQ(kel_list_count(&nets), 1);
	auto *n = static_cast<kel_ipnet_t *>(list_head(&nets));
	EXPECT_STREQ(n->ei_name, "n2");
	EXPECT_STREQ(n->ei_kelname, "k2");
	EXPECT_STREQ(n->ei_subnet, "10.0.1.0/24");
	EXPECT_STREQ(n->ei_sastr, "10.0.1.1");
	EXPECT_STREQ(n->ei_availrange, "10.0.1.2-10.0.1.254");
	char text[KEL_UUID_TEXT_LEN];
	uuid_unparse_lower(n->ei_keluuid, text);
	EXPECT_EQ(text, uuid(2));
	kel_free_ipnetlist(&nets);
	EXPECT_EQ(kel_db_get_ipnetlist(h_, nullptr, nullptr, "n9", &nets, 0), KEL_E_IPNET_NOTFOUND);
	EXPECT_EQ(kel_db_get_ipnetlist(h_, nullptr, nullptr, "n1", nullptr, 0), KEL_E_INVALID_ARGS);
}

TEST_F(Records, RowsThatBreakTheWritersRulesFailSafely)
{
	fabric();
	// NULL text columns read as empty.
	sql("UPDATE vport_tbl SET vport_hostname = NULL, vport_props = NULL WHERE vport_name = 'p1'");
	sql("UPDATE ipnet_tbl SET ipnet_avail_range = NULL WHERE ipnet_name = 'n1'");
	EXPECT_EQ(kels("kel=k1"), "k1[p1,p2*|n1]busy");
	list_t nets;
	ASSERT_EQ(kel_db_get_ipnetlist(h_, nullptr, nullptr, "n1", &nets, 0), KEL_SUCCESS);
	EXPECT_STREQ(static_cast<kel_ipnet_t *>(list_head(&nets))->ei_availrange, "");
	kel_free_ipnetlist(&nets);

	// A network without a subnet, a bad UUID, an unreadable property string.
	// In a switch list it reads as no network; the network list reports it.
	sql("UPDATE ipnet_tbl SET ipnet_props = 'pool=1' WHERE ipnet_name = 'n2'");
	EXPECT_EQ(kels("kel=k2"), "k2[p1|]");
	EXPECT_EQ(kel_db_get_ipnetlist(h_, nullptr, nullptr, "n2", &nets, 0), KEL_E_NOTFOUND);
	sql("UPDATE vport_tbl SET vport_uuid = 'not-a-uuid' WHERE vport_uuid = '" + uuid(11) + "'");
	EXPECT_EQ(kels("kel=k1"), "error " + std::to_string(KEL_E_UUID));
	sql("UPDATE kel_tbl SET kel_props = 'a=1,' WHERE kel_name = 'lonely'");
	EXPECT_EQ(kels("tenant=t2"), "error " + std::to_string(KEL_E_INVALID_ARGS));
}

TEST_F(Records, FreeFunctionsAcceptNull)
{
	kel_free_kel(nullptr);
	kel_free_vport(nullptr);
	kel_free_ipnet(nullptr);
	kel_free_prop(nullptr);
	kel_free_kellist(nullptr);
	kel_free_vportlist(nullptr);
	kel_free_ipnetlist(nullptr);
	kel_free_proplist(nullptr);
}

}  // namespace

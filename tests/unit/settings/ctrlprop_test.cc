#include <string>
#include <vector>

#include <kel/libkel.h>
#include "ctrlprop.h"
#include "service_config.h"
#include "store_fixture.h"

namespace {

class CtrlProps : public kel::test::StoreFixture {
protected:
	int set(const char *text, const char *host = nullptr)
	{
		const int rc = kel_db_set_ctrlprop(h_, text, host);
		EXPECT_EQ(h_->edh_cnt, 0);
		return rc;
	}

	// "name@host=value[vlan|vxlan|flat]" per listed row, joined by blanks; or "error N".
	std::string list(const char *names, const char *host = nullptr)
	{
		list_t l;
		const int rc = kel_db_get_ctrlprop(h_, names, host, &l);
		if (rc != KEL_SUCCESS)
			return "error " + std::to_string(rc);
		std::string out;
		for (auto *p = static_cast<kel_ctrlprop_t *>(list_head(&l)); p;
		     p = static_cast<kel_ctrlprop_t *>(list_next(&l, p))) {
			out += std::string(out.empty() ? "" : " ") + p->ecp_propname + "@" + p->ecp_host + "=" +
			    p->ecp_propval;
			if (p->ecp_vlanrange != nullptr &&
			    (*p->ecp_vlanrange || *p->ecp_vxlanrange || *p->ecp_flatrange))
				out += std::string("[") + p->ecp_vlanrange + "|" + p->ecp_vxlanrange + "|" +
				    p->ecp_flatrange + "]";
		}
		kel_free_ctrlproplist(&l);
		return out;
	}

	std::string err(int rc) { return "error " + std::to_string(rc); }
};

TEST_F(CtrlProps, ListingRules)
{
	ASSERT_EQ(kel_set_controller_togprop("uuid", "6b8b4567-327b-23c6-643c-986966334873"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr),
	    "l2-type@=vlan uplink-port@= uri-template@=ssh:// vlan-range@= vlan-range-avail@= "
	    "vxlan-addr@=0.0.0.0 vxlan-ipvers@=v4 vxlan-mgroup@=0.0.0.0 vxlan-range@= "
	    "vxlan-range-avail@= uuid@=6b8b4567-327b-23c6-643c-986966334873");
	EXPECT_EQ(list("uuid,l2-type"), "l2-type@=vlan uuid@=6b8b4567-327b-23c6-643c-986966334873");
	EXPECT_EQ(list("uuid"), "uuid@=6b8b4567-327b-23c6-643c-986966334873");
	EXPECT_EQ(list("colour"), err(KEL_E_INVALID_CTRLPROP));
	ASSERT_EQ(set("uri-template=ssh://ops@", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"), "uri-template@host-a=ssh://ops@");
	EXPECT_EQ(list("l2-type", "host-a"), "");

	// Defaults and permissions come from the table for fabric rows.
	list_t l;
	ASSERT_EQ(kel_db_get_ctrlprop(h_, "vlan-range-avail,uri-template", nullptr, &l), KEL_SUCCESS);
	for (auto *p = static_cast<kel_ctrlprop_t *>(list_head(&l)); p;
	     p = static_cast<kel_ctrlprop_t *>(list_next(&l, p))) {
		SCOPED_TRACE(std::string(p->ecp_propname) + "@" + p->ecp_host);
		const bool avail = std::string(p->ecp_propname) == "vlan-range-avail";
		const bool hostrow = p->ecp_host[0] != '\0';
		EXPECT_STREQ(p->ecp_perm, avail ? "r-" : "rw");
		EXPECT_STREQ(p->ecp_defvalue, hostrow || avail ? "" : "ssh://");
	}
	kel_free_ctrlproplist(&l);
}

TEST_F(CtrlProps, AListingWithoutAControllerUuidFails)
{
	EXPECT_EQ(list(nullptr), err(KEL_E_NOTFOUND));
	EXPECT_EQ(list("l2-type"), "l2-type@=vlan");
}

TEST_F(CtrlProps, SetTextRefusals)
{
	struct {
		const char *text;
		const char *host;
		int rc;
	} cases[] = {
	    {"uuid=x", nullptr, KEL_E_READONLY},
	    {"vlan-range-avail=1-5", nullptr, KEL_E_READONLY},
	    {"l2-type=vxlan", "host-a", KEL_E_INVALID_CTRLPROP},
	    {"l2-type=vxlan", "", KEL_E_INVALID_HOSTNAME},
	    {"l2-type=vxlan", "bad host", KEL_E_INVALID_HOSTNAME},
	    {"colour=blue", nullptr, KEL_E_INVALID_CTRLPROP},
	    {"uplink-port=net0,vlan-range=1-5,vxlan-range=1-5,flat=yes,l2-type=vlan", nullptr, KEL_E_INVALID_ARGS},
	    {"uplink-port=net0,l2-type=vlan", nullptr, KEL_E_UPLINK_ATTRS},
	    {"vxlan-addr=10.0.0.0/24,vlan-range=1-5", nullptr, KEL_E_VXLANADDR_ATTRS},
	    {"vxlan-addr=10.0.0.0/24,vxlan-range=1-5,flat=yes", nullptr, KEL_E_INVALID_ARGS},
	    {"l2-type=vxlan,vlan-range=1-5", nullptr, KEL_E_INVALID_ARGS},
	    {"", nullptr, KEL_E_INVALID_ARGS},
	    {"l2-type=VLAN", nullptr, KEL_E_INVALID_L2TYPE},
	    {"vlan-range=0-10", nullptr, KEL_E_INVALID_RANGE},
	    {"vlan-range=1-4095", nullptr, KEL_E_INVALID_RANGE},
	    {"uri-template=ssh://host", nullptr, KEL_E_INVALID_URI_TEMPLATE},
	    {"uri-template=ssh:///path", nullptr, KEL_E_INVALID_URI_TEMPLATE},
	    {"uri-template=http://", nullptr, KEL_E_INVALID_URI_TEMPLATE},
	    {"vxlan-mgroup=240.0.0.1", nullptr, KEL_E_INVALID_MGROUP},
	    {"vxlan-mgroup=ff80::", nullptr, KEL_E_INVALID_MGROUP},
	    {"vxlan-ipvers=v5", nullptr, KEL_E_INVALID_IPVERS},
	    {"uplink-port=eth", nullptr, KEL_E_INVALID_UPLINK},
	    {"vxlan-addr=10.0.0.5", nullptr, KEL_E_INVALID_SUBNET},
	    {"vxlan-addr=nonsense", "host-a", KEL_E_INVALID_IPADDR},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		EXPECT_EQ(set(c.text, c.host), c.rc);
	}
	EXPECT_EQ(list("l2-type,vlan-range,uri-template,vxlan-mgroup,vxlan-ipvers,uplink-port,vxlan-addr"),
	    "l2-type@=vlan uplink-port@= uri-template@=ssh:// vlan-range@= vxlan-addr@=0.0.0.0 "
	    "vxlan-ipvers@=v4 vxlan-mgroup@=0.0.0.0");
}

TEST_F(CtrlProps, L2TypeAndUriTemplate)
{
	EXPECT_EQ(set("l2-type=flat"), KEL_SUCCESS);
	EXPECT_EQ(list("l2-type"), "l2-type@=flat");
	EXPECT_EQ(set("l2-type="), KEL_SUCCESS);
	EXPECT_EQ(list("l2-type"), "l2-type@=vlan");
	for (const char *t : {"uri-template=unix://", "uri-template=ssh://admin@"})
		EXPECT_EQ(set(t), KEL_SUCCESS) << t;
	ASSERT_EQ(set("uri-template=unix://", "host-a"), KEL_SUCCESS);
	ASSERT_EQ(set("uri-template=ssh://", "host-b"), KEL_SUCCESS);
	// Resetting a host's template deletes only its row; resetting the fabric's writes ssh://.
	EXPECT_EQ(set("uri-template=", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(set("uri-template="), KEL_SUCCESS);
	EXPECT_EQ(list("uri-template"), "uri-template@=ssh:// uri-template@host-b=ssh://");
	char buf[64];
	EXPECT_EQ(kel_db_get_one_hostprop(h_, "host-b", "uri-template", DATA_TYPE_STRING, buf, sizeof(buf)),
	    KEL_SUCCESS);
	EXPECT_STREQ(buf, "ssh://");
	EXPECT_EQ(kel_db_get_one_hostprop(h_, "host-a", "uri-template", DATA_TYPE_STRING, buf, sizeof(buf)),
	    KEL_E_NOTFOUND);
}

TEST_F(CtrlProps, RangesProtectAllocatedIds)
{
	ASSERT_EQ(set("vlan-range=1-100"), KEL_SUCCESS);
	EXPECT_EQ(list("vlan-range,vlan-range-avail"), "vlan-range@=1-100 vlan-range-avail@=1-100");
	set_ctrl("vlan-range-avail", "1-9,11-19,21-100");  // 10 and 20 are held
	EXPECT_EQ(set("vlan-range=1-15"), KEL_E_RANGE_INUSE);
	EXPECT_EQ(list("vlan-range"), "vlan-range@=1-100");
	EXPECT_EQ(set("vlan-range=5-50"), KEL_SUCCESS);
	EXPECT_EQ(list("vlan-range,vlan-range-avail"), "vlan-range@=5-50 vlan-range-avail@=5-9,11-19,21-50");
	EXPECT_EQ(set("vlan-range="), KEL_E_RANGE_INUSE);
	set_ctrl("vlan-range-avail", "5-50");
	EXPECT_EQ(set("vlan-range="), KEL_SUCCESS);
	EXPECT_EQ(list("vlan-range,vlan-range-avail"), "vlan-range@= vlan-range-avail@=");
	EXPECT_EQ(set("vxlan-range=0-16777215"), KEL_SUCCESS);
	EXPECT_EQ(set("vlan-range=1,2,3,7-9"), KEL_SUCCESS);
	EXPECT_EQ(list("vlan-range"), "vlan-range@=1-3,7-9");
}

TEST_F(CtrlProps, UplinksCarrySubranges)
{
	ASSERT_EQ(set("vlan-range=1-100"), KEL_SUCCESS);
	ASSERT_EQ(set("vxlan-range=1000-1999"), KEL_SUCCESS);
	// A port without attributes takes the whole fabric and the flat kels.
	ASSERT_EQ(set("uplink-port=net0", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"), "uplink-port@host-a=net0[1-100|1000-1999|0]");
	EXPECT_EQ(set("uplink-port=net1,vlan-range=1-50", "host-a"), KEL_E_RANGE_OVERLAP);
	EXPECT_EQ(set("uplink-port=net1,vlan-range=1-200", "host-a"), KEL_E_RANGE_NOT_SUBSET);
	EXPECT_EQ(set("uplink-port=net1,flat=maybe", "host-a"), KEL_E_INVALID_ARGS);
	// Splitting the range across two ports; one alone covers part: a warning.
	ASSERT_EQ(set("uplink-port=net0,vlan-range=51-100", "host-a"), KEL_E_RANGE_PARTIAL);
	ASSERT_EQ(set("uplink-port=net1,vlan-range=1-50,flat=yes", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"),
	    "uplink-port@host-a=net0[51-100|1000-1999|] uplink-port@host-a=net1[1-50||0]");

	// The lookup picks the port serving a kel's ID.
	auto pick = [&](const char *props) {
		attrset_t *set = nullptr;
		EXPECT_EQ(kel_str2attrset(props, &set, B_TRUE, ATTRSET_UNIQUE_NAME), KEL_SUCCESS);
		char buf[32] = "";
		const int rc = kel_db_get_uport_or_vaddr_hostprop(h_, set, "host-a", "uplink-port", buf, sizeof(buf));
		attrset_free(set);
		return rc == KEL_SUCCESS ? std::string(buf) : err(rc);
	};
	EXPECT_EQ(pick("l2-type=vlan,vlanid=60"), "net0");
	EXPECT_EQ(pick("l2-type=vlan,vlanid=20"), "net1");
	EXPECT_EQ(pick("l2-type=vxlan,vni=1500"), "net0");
	EXPECT_EQ(pick("l2-type=flat"), "net1");
	EXPECT_EQ(pick("l2-type=vxlan,vni=5"), err(KEL_E_NOTFOUND));

	// Resetting the only range of a port deletes its row; resetting the port, all rows.
	ASSERT_EQ(set("uplink-port=net1,vlan-range=,flat=", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"), "uplink-port@host-a=net0[51-100|1000-1999|]");
	ASSERT_EQ(set("uplink-port=", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"), "");
	EXPECT_EQ(list("uplink-port"), "uplink-port@=");
}

TEST_F(CtrlProps, FabricUplinkFollowsRangeChanges)
{
	ASSERT_EQ(set("vlan-range=1-100"), KEL_SUCCESS);
	// The global placeholder takes the port.
	ASSERT_EQ(set("uplink-port=net0"), KEL_SUCCESS);
	EXPECT_EQ(list("uplink-port"), "uplink-port@=net0[1-100||0]");
	ASSERT_EQ(set("vlan-range=1-200"), KEL_SUCCESS);
	EXPECT_EQ(list("uplink-port"), "uplink-port@=net0[1-200||0]");
	// With a host's own port as well, the host's share is left for the operator.
	ASSERT_EQ(set("uplink-port=net3", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(set("vlan-range=1-300"), KEL_E_RANGE_MANUAL);
	EXPECT_EQ(list("vlan-range"), "vlan-range@=1-300");
}

TEST_F(CtrlProps, MulticastGroupAndIpVersionAgree)
{
	ASSERT_EQ(set("vxlan-range=1000-1999"), KEL_SUCCESS);
	EXPECT_EQ(set("vxlan-mgroup=239.255.255.255"), KEL_SUCCESS);
	EXPECT_EQ(set("vxlan-mgroup=239.1.1.1"), KEL_SUCCESS);
	EXPECT_EQ(set("vxlan-addr=fd00::/64"), KEL_E_ADDR_MGROUP_MISMATCH);
	EXPECT_EQ(set("vxlan-ipvers=v6"), KEL_E_IPVERS_MGROUP_MISMATCH);
	EXPECT_EQ(set("vxlan-mgroup=ff40::"), KEL_E_MGROUP_IPVERS_MISMATCH);  // ipvers is v4
	ASSERT_EQ(set("vxlan-addr=192.168.10.5", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(list(nullptr, "host-a"), "vxlan-addr@host-a=192.168.10.5[|1000-1999|]");
	EXPECT_EQ(set("vxlan-mgroup="), KEL_SUCCESS);
	EXPECT_EQ(list("vxlan-mgroup"), "vxlan-mgroup@=0.0.0.0");
	// With no group, the IP version may change; a v6 group then needs v6 endpoints.
	ASSERT_EQ(set("vxlan-ipvers=v6"), KEL_SUCCESS);
	EXPECT_EQ(set("vxlan-mgroup=ff40::"), KEL_E_MGROUP_IPVERS_MISMATCH);
	ASSERT_EQ(set("vxlan-addr=", "host-a"), KEL_SUCCESS);
	EXPECT_EQ(set("vxlan-mgroup=ff40::"), KEL_SUCCESS);
}

// The hosts an operator adds: refused names and twins, listed in name order, forgotten
// one at a time, on either engine.
TEST_F(CtrlProps, AddedHostsAreKeptInNameOrder)
{
	const auto hosts = [&] {
		std::string out;
		const auto each = [](const char *host, void *arg) {
			*static_cast<std::string *>(arg) += std::string(host) + " ";
			return 0;
		};
		return kel_db_walk_hosts(h_, each, &out) == KEL_SUCCESS ? out : std::string("error");
	};
	EXPECT_EQ(hosts(), "");
	EXPECT_EQ(kel_db_add_host(h_, "host-b"), KEL_SUCCESS);
	EXPECT_EQ(kel_db_add_host(h_, "host-a.example"), KEL_SUCCESS);
	EXPECT_EQ(kel_db_add_host(h_, "host-b"), KEL_E_EXISTS);
	for (const char *bad : {"", "-x", "a b", "x;y", "host/c"})
		EXPECT_EQ(kel_db_add_host(h_, bad), KEL_E_INVALID_HOSTNAME) << bad;
	EXPECT_EQ(hosts(), "host-a.example host-b ");
	EXPECT_EQ(kel_db_remove_host(h_, "host-a.example"), KEL_SUCCESS);
	EXPECT_EQ(kel_db_remove_host(h_, "host-a.example"), KEL_E_NOTFOUND);
	EXPECT_EQ(hosts(), "host-b ");
	EXPECT_EQ(h_->edh_cnt, 0);
}

}  // namespace

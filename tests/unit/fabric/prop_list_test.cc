// Property listings as administrators see them, and the link properties a VNIC inherits.
#include <cstring>
#include <string>
#include <vector>

#include "kelcntl.h"
#include "prop_list.h"
#include "store_fixture.h"

namespace {

class PropList : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		add_kel(1, "web", "acme", "l2-type=vlan,vlanid=5,maxbw=100M,acme:x=blue");
		add_vport(2, 1, "p1", "ipaddr=10.0.0.2/24,macaddr=2:8:20:0:0:1,COS=3,vmid=vm7");
		add_vport(3, 1, "p2", "ipaddr=10.0.0.3/24,macaddr=2:8:20:0:0:2,cos=1");
		add_ipnet(4, 1, "n", "10.0.0.0/24");
	}

	// "name=value" (value "-" when none) per record, or "error N".
	std::string list(const char *filter, const char *names, kel_proptype_t type)
	{
		list_t l;
		const int rc = kel_db_get_filtered_proplist(h_, filter, names, &l, type);
		if (rc != KEL_SUCCESS)
			return "error " + std::to_string(rc);
		std::string out;
		for (auto *p = static_cast<kel_prop_t *>(list_head(&l)); p != nullptr;
		     p = static_cast<kel_prop_t *>(list_next(&l, p)))
			out += std::string(out.empty() ? "" : " ") + p->ep_propname + "=" +
			    (p->ep_current != nullptr ? p->ep_current : "-");
		kel_free_proplist(&l);
		return out;
	}

	// The first record of a one-object listing.
	kel_prop_t first(const char *filter, const char *names, kel_proptype_t type)
	{
		list_t l;
		kel_prop_t out{};
		EXPECT_EQ(kel_db_get_filtered_proplist(h_, filter, names, &l, type), KEL_SUCCESS);
		if (auto *p = static_cast<kel_prop_t *>(list_head(&l)); p != nullptr) {
			out = *p;
			out.ep_current = nullptr;
		}
		kel_free_proplist(&l);
		return out;
	}
};

TEST_F(PropList, EveryVisiblePropertyInCatalogueOrder)
{
	const std::string u = uuid(1);
	struct {
		const char *filter;
		kel_proptype_t type;
		std::string expected;
	} cases[] = {
	    {"kel=web", KEL_PROPTYPE_KEL,
	        "protection=- maxbw=100M priority=- l2-type=vlan vlanid=5 vni=- tenant=acme uuid=" + u},
	    {"vport=p1", KEL_PROPTYPE_VPORT,
	        "protection=- cos=- maxbw=- priority=- ipaddr=10.0.0.2/24 macaddr=2:8:20:0:0:1 kel=web "
	        "tenant=acme uuid=" +
	            uuid(2)},
	    {"ipnet=n", KEL_PROPTYPE_IPNET,
	        "kel=web subnet=10.0.0.0/24 defrouter=- pool=- tenant=acme uuid=" + uuid(4)},
	};
	for (const auto &c : cases)
		EXPECT_EQ(list(c.filter, nullptr, c.type), c.expected) << c.filter;
	// Two ports, nine records each.
	EXPECT_EQ(list(nullptr, "", KEL_PROPTYPE_VPORT).size(),
	    list("vport=p1", "", KEL_PROPTYPE_VPORT).size() + list("vport=p2", "", KEL_PROPTYPE_VPORT).size() + 1);

	const kel_prop_t protection = first("vport=p1", nullptr, KEL_PROPTYPE_VPORT);
	EXPECT_STREQ(protection.ep_perm, "rw");
	EXPECT_STREQ(protection.ep_default, "mac-nospoof,ip-nospoof");
	EXPECT_STREQ(protection.ep_possible, "mac-nospoof,restricted,ip-nospoof,dhcp-nospoof,none");
	EXPECT_STREQ(first("vport=p1", "macaddr", KEL_PROPTYPE_VPORT).ep_perm, "r-");
}

TEST_F(PropList, NamedPropertiesHiddenAndExtended)
{
	struct {
		const char *filter;
		const char *names;
		kel_proptype_t type;
		const char *expected;
	} cases[] = {
	    // Set order, per object.
	    {nullptr, "cos,maxbw", KEL_PROPTYPE_VPORT, "maxbw=- cos=- maxbw=- cos=1"},
	    // Hidden when listing all, there when asked for.
	    {"vport=p1", "vmid", KEL_PROPTYPE_VPORT, "vmid=vm7"},
	    {"kel=web", "acme:x", KEL_PROPTYPE_KEL, "acme:x=blue"},
	    {"vport=p2", "acme:x", KEL_PROPTYPE_VPORT, "acme:x=-"},
	    // Names are matched in the catalogue's spelling: "COS" stored is not "cos".
	    {"vport=p1", "COS", KEL_PROPTYPE_VPORT, "cos=-"},
	    {nullptr, "cos", KEL_PROPTYPE_KEL, "error 29"},
	    {"vport=nope", nullptr, KEL_PROPTYPE_VPORT, "error 43"},
	    {"kel=nope", nullptr, KEL_PROPTYPE_KEL, "error 41"},
	    {"ipnet=nope", nullptr, KEL_PROPTYPE_IPNET, "error 42"},
	    {"colour=red", nullptr, KEL_PROPTYPE_KEL, "error 79"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(list(c.filter, c.names, c.type), c.expected) << c.names << " " << c.filter;
	EXPECT_EQ(std::string(list(nullptr, "", KEL_PROPTYPE_VPORT)).find("vmid"), std::string::npos);
	const kel_prop_t ext = first("kel=web", "acme:x", KEL_PROPTYPE_KEL);
	EXPECT_STREQ(ext.ep_perm, "rw");
	EXPECT_STREQ(ext.ep_default, "");
	EXPECT_STREQ(ext.ep_possible, "");
}

// Remote property arrays as the controller sends them.
struct Props {
	std::vector<kelcntl_PropertyNV> nv;
	std::vector<kelcntl_PropertyNV *> ptrs;
	Props(std::initializer_list<std::pair<const char *, const char *>> pairs)
	{
		for (const auto &p : pairs)
			nv.push_back({const_cast<char *>(p.first), const_cast<char *>(p.second)});
		for (auto &n : nv)
			ptrs.push_back(&n);
	}
};

TEST(InheritedLinkProps, ThePortsValueWinsOverItsSwitchs)
{
	struct {
		Props kel, vport;
		size_t size;
		const char *expected;
		int rc;
	} cases[] = {
	    {{{"priority", "low"}, {"maxbw", "100M"}, {"protection", "none"}}, {{"cos", "2"}, {"priority", "high"}},
	        1024, "cos=2,maxbw=100M,priority=high", KEL_SUCCESS},
	    {{{"protection", "mac-nospoof"}}, {{"protection", "none"}}, 1024, "", KEL_SUCCESS},
	    {{{"protection", "restricted"}}, {{"PRIORITY", "high"}}, 1024, "protection=restricted", KEL_SUCCESS},
	    {{}, {}, 1024, "", KEL_SUCCESS},
	    // Never past the buffer: a text that would not fit is refused whole.
	    {{{"maxbw", "100M"}}, {{"cos", "2"}}, 17, "cos=2,maxbw=100M", KEL_SUCCESS},
	    {{{"maxbw", "100M"}}, {{"cos", "2"}}, 16, "", KEL_E_NOSPACE},
	};
	for (auto &c : cases) {
		kelcntl_KELInfo kel{};
		kel.ekeli_props = c.kel.ptrs.data();
		kel.ekeli_props_count = static_cast<int>(c.kel.ptrs.size());
		kelcntl_VPortInfo vport{};
		vport.evpi_props = c.vport.ptrs.data();
		vport.evpi_props_count = static_cast<int>(c.vport.ptrs.size());
		char buf[1025];
		std::memset(buf, 'x', sizeof(buf));
		EXPECT_EQ(kel_inherit_dlprops(&kel, &vport, buf, c.size), c.rc) << c.expected;
		EXPECT_STREQ(buf, c.expected);
		EXPECT_EQ(buf[c.size], 'x') << "nothing written past the buffer";
	}
}

TEST(InheritedLinkProps, LookupIsExactAndBounded)
{
	Props p{{"cos", "1"}, {"maxbw", "5M"}, {"cos", "2"}};
	EXPECT_STREQ(kel_propattrset_lookup(p.ptrs.data(), 3, "cos"), "1");
	EXPECT_STREQ(kel_propattrset_lookup(p.ptrs.data(), 3, "maxbw"), "5M");
	EXPECT_EQ(kel_propattrset_lookup(p.ptrs.data(), 3, "COS"), nullptr);
	EXPECT_EQ(kel_propattrset_lookup(p.ptrs.data(), 1, "maxbw"), nullptr);
	EXPECT_EQ(kel_propattrset_lookup(p.ptrs.data(), 0, "cos"), nullptr);
}

}  // namespace

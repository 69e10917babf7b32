#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <kel/libkel.h>
#include "prop_catalogue.h"

namespace {

const kel_proptype_t KEL = KEL_PROPTYPE_KEL, VPORT = KEL_PROPTYPE_VPORT, IPNET = KEL_PROPTYPE_IPNET;

int check(const char *text, kel_proptype_t type)
{
	attrset_t *props = nullptr;
	EXPECT_EQ(kel_str2attrset(text, &props, B_TRUE, ATTRSET_UNIQUE_NAME), KEL_SUCCESS) << text;
	const int rc = kel_check_prop(props, type);
	attrset_free(props);
	return rc;
}

TEST(PropCatalogue, TheTableInOrder)
{
	const char *names[] = {"protection", "cos", "maxbw", "priority", "ipaddr", "macaddr", "vmid", "l2-type",
	    "vlanid", "vni", "kel", "subnet", "defrouter", "pool", "tenant", "uuid"};
	size_t i = 0;
	for (; kel_prop_table[i].ep_pname != nullptr; i++) {
		ASSERT_LT(i, std::size(names));
		EXPECT_STREQ(kel_prop_table[i].ep_pname, names[i]);
	}
	EXPECT_EQ(i, 16u);
	// Only the four link properties travel to VNICs, and only vmid is hidden.
	for (i = 0; kel_prop_table[i].ep_pname != nullptr; i++) {
		EXPECT_EQ((kel_prop_table[i].ep_flags & EPD_DLPROP) != 0, i < 4) << names[i];
		EXPECT_EQ((kel_prop_table[i].ep_flags & EPD_INVISIBLE) != 0, i == 6) << names[i];
	}
}

TEST(PropCatalogue, ValueChecks)
{
	struct {
		const char *text;
		kel_proptype_t type;
		int rc;
	} cases[] = {
	    {"cos=3,priority=HIGH", VPORT, KEL_SUCCESS},
	    {"cos=3,priority=HIGH", KEL, KEL_E_INVALID_PROP},
	    {"protection=mac-nospoof,ip-nospoof", KEL, KEL_SUCCESS},
	    {"protection=none", VPORT, KEL_SUCCESS},
	    {"protection=NONE", VPORT, KEL_SUCCESS},
	    {"protection=restricted,dhcp-nospoof,mac-nospoof,ip-nospoof", VPORT, KEL_SUCCESS},
	    {"protection=,,mac-nospoof", VPORT, KEL_SUCCESS},
	    {"protection=none,mac-nospoof", VPORT, KEL_E_INVALID_PROTECTION},
	    {"protection=ip-nospoof,IP-NOSPOOF", VPORT, KEL_E_INVALID_PROTECTION},
	    {"protection=none,none", VPORT, KEL_E_INVALID_PROTECTION},
	    {"protection=mac-spoof", VPORT, KEL_E_INVALID_PROTECTION},
	    {"protection=", VPORT, KEL_SUCCESS},
	    {"protection=mac-nospoof", IPNET, KEL_E_INVALID_PROP},
	    {"cos=7", VPORT, KEL_SUCCESS},
	    {"cos=0", VPORT, KEL_SUCCESS},
	    {"cos=8", VPORT, KEL_E_INVALID_COS},
	    {"cos=-1", VPORT, KEL_E_INVALID_COS},
	    {"cos=256", VPORT, KEL_E_INVALID_COS},
	    {"cos=3x", VPORT, KEL_E_INVALID_COS},
	    {"cos=4294967299", VPORT, KEL_E_INVALID_COS},
	    {"cos=", VPORT, KEL_SUCCESS},
	    {"maxbw=100M", KEL, KEL_SUCCESS},
	    {"maxbw=1.5G", VPORT, KEL_SUCCESS},
	    {"maxbw=fast", VPORT, KEL_E_INVALID_MAXBW},
	    {"maxbw=", VPORT, KEL_SUCCESS},
	    {"priority=Medium", KEL, KEL_SUCCESS},
	    {"priority=urgent", KEL, KEL_E_INVALID_PRIORITY},
	    {"priority=", KEL, KEL_SUCCESS},
	    {"ipaddr=10.0.0.5", VPORT, KEL_SUCCESS},
	    {"ipaddr=fe80::5", VPORT, KEL_SUCCESS},
	    {"ipaddr=10.0.0.5/24", VPORT, KEL_E_INVALID_IPADDR},
	    {"ipaddr=", VPORT, KEL_E_INVALID_IPADDR},
	    {"macaddr=2:8:20:a:b:c", VPORT, KEL_SUCCESS},
	    {"macaddr=2:8:20:a:b:zz", VPORT, KEL_E_INVALID_MACADDR},
	    {"vmid=anything at all", VPORT, KEL_SUCCESS},
	    {"l2-type=vxlan", KEL, KEL_SUCCESS},
	    {"l2-type=flat", KEL, KEL_SUCCESS},
	    {"l2-type=VLAN", KEL, KEL_E_INVALID_L2TYPE},
	    {"vlanid=0", KEL, KEL_E_INVALID_VLANID},
	    {"vlanid=4095", KEL, KEL_E_INVALID_VLANID},
	    {"vlanid=1", KEL, KEL_SUCCESS},
	    {"vlanid=4094", KEL, KEL_SUCCESS},
	    {"vlanid=4294967297", KEL, KEL_E_INVALID_VLANID},  // not 1 after narrowing
	    {"vlanid=", KEL, KEL_E_INVALID_VLANID},
	    {"vni=0", KEL, KEL_SUCCESS},
	    {"vni=16777215", KEL, KEL_SUCCESS},
	    {"vni=16777216", KEL, KEL_E_INVALID_VNI},
	    {"vni=-1", KEL, KEL_E_INVALID_VNI},
	    {"kel=web", VPORT, KEL_SUCCESS},
	    {"kel=web 1", IPNET, KEL_E_INVALID_NAME},
	    {"subnet=10.0.0.0/24", IPNET, KEL_SUCCESS},
	    {"subnet=10.0.0.1/24", IPNET, KEL_E_INVALID_SUBNET},
	    {"defrouter=10.0.0.1", IPNET, KEL_SUCCESS},
	    {"pool=10.0.0.10-10.0.0.20,10.0.0.30", IPNET, KEL_SUCCESS},
	    {"tenant=anything", KEL, KEL_SUCCESS},
	    {"uuid=6b8b4567-327b-23c6-643c-986966334873", IPNET, KEL_SUCCESS},
	    {"uuid=6b8b4567", IPNET, KEL_E_UUID},
	    {"acme:color=blue", KEL, KEL_SUCCESS},
	    {"acme:color=blue", VPORT, KEL_SUCCESS},
	    {"acme:color=blue", IPNET, KEL_SUCCESS},
	    {"color=blue", KEL, KEL_E_INVALID_PROP},
	    {"COS=2", VPORT, KEL_SUCCESS},
	    // Set order is the reverse of the text: the last entry is checked first.
	    {"cos=9,priority=urgent", VPORT, KEL_E_INVALID_PRIORITY},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.text) + " type " + std::to_string(c.type));
		EXPECT_EQ(check(c.text, c.type), c.rc);
	}
	EXPECT_EQ(kel_check_prop(nullptr, KEL), KEL_SUCCESS);
	// A value of commas only names no word at all.
	EXPECT_EQ(kel_check_protection(",,", 0), KEL_SUCCESS);
}

TEST(PropCatalogue, LookupIgnoresCaseAndCarriesExtendedNames)
{
	const kel_prop_desc_t cos = kel_get_prop_entry("COS", VPORT);
	ASSERT_NE(cos.ep_pname, nullptr);
	EXPECT_STREQ(cos.ep_pname, "cos");
	EXPECT_EQ(kel_get_prop_entry("cos", KEL).ep_pname, nullptr);
	EXPECT_EQ(kel_get_prop_entry("nosuch", KEL_PROPTYPE_ALL).ep_pname, nullptr);
	EXPECT_EQ(kel_get_prop_entry(nullptr, KEL_PROPTYPE_ALL).ep_pname, nullptr);

	const kel_prop_desc_t a = kel_get_prop_entry("acme:a", KEL);
	const kel_prop_desc_t b = kel_get_prop_entry("acme:b", IPNET);
	EXPECT_STREQ(a.ep_pname, "acme:a");
	EXPECT_STREQ(b.ep_pname, "acme:b");
	EXPECT_EQ(a.ep_flags, EPD_INVISIBLE);
}

TEST(PropCatalogue, ExtendedLookupsFromManyThreads)
{
	std::vector<std::thread> threads;
	std::vector<int> mismatches(4, 0);
	for (int t = 0; t < 4; t++)
		threads.emplace_back([t, &mismatches] {
			const std::string name = "vendor:p" + std::to_string(t);
			for (int i = 0; i < 20000; i++)
				if (std::strcmp(kel_get_prop_entry(name.c_str(), KEL).ep_pname, name.c_str()) != 0)
					mismatches[t]++;
		});
	for (std::thread &th : threads)
		th.join();
	EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(PropCatalogue, CheckingNames)
{
	struct {
		const char *names;
		kel_proptype_t types;
		bool ok;
	} cases[] = {
	    {"cos,maxbw", VPORT, true},
	    {"cos,maxbw", KEL, false},
	    {"vmid,acme:x", VPORT, true},
	    {"uuid,tenant,pool", IPNET, true},
	    {"pool", static_cast<kel_proptype_t>(KEL | VPORT), false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.names);
		attrset_t *names = nullptr;
		ASSERT_EQ(kel_str2attrset(c.names, &names, B_FALSE, ATTRSET_UNIQUE_NAME), 0);
		EXPECT_EQ(kel_check_propname(names, c.types), c.ok);
		attrset_free(names);
	}
	EXPECT_TRUE(kel_check_propname(nullptr, KEL));
}

TEST(PropCatalogue, Information)
{
	struct {
		const char *name;
		kel_pinfo_type_t kind;
		size_t size;
		int rc;
		const char *text;
	} cases[] = {
	    {"pool", KEL_PROPINFO_PERM, 3, KEL_SUCCESS, "rw"},
	    {"pool", KEL_PROPINFO_PERM, 2, KEL_E_NOSPACE, nullptr},
	    {"vlanid", KEL_PROPINFO_PERM, 3, KEL_SUCCESS, "r-"},
	    {"nosuch", KEL_PROPINFO_PERM, 3, KEL_E_INVALID_PROP, nullptr},
	    {"priority", KEL_PROPINFO_DEFAULT, 1024, KEL_SUCCESS, "medium"},
	    {"Priority", KEL_PROPINFO_POSSIBLE, 1024, KEL_SUCCESS, "low,medium,high"},
	    {"protection", KEL_PROPINFO_DEFAULT, 1024, KEL_SUCCESS, "mac-nospoof,ip-nospoof"},
	    {"protection", KEL_PROPINFO_POSSIBLE, 1024, KEL_SUCCESS,
	        "mac-nospoof,restricted,ip-nospoof,dhcp-nospoof,none"},
	    {"cos", KEL_PROPINFO_DEFAULT, 2, KEL_SUCCESS, "0"},
	    {"cos", KEL_PROPINFO_POSSIBLE, 1024, KEL_SUCCESS, "0-7"},
	    {"maxbw", KEL_PROPINFO_PERM, 3, KEL_SUCCESS, "rw"},
	    {"acme:x", KEL_PROPINFO_DEFAULT, 1, KEL_SUCCESS, ""},
	    {"acme:x", KEL_PROPINFO_PERM, 3, KEL_SUCCESS, "rw"},
	    {"uuid", KEL_PROPINFO_POSSIBLE, 1, KEL_SUCCESS, ""},
	    {"cos", static_cast<kel_pinfo_type_t>(3), 1024, KEL_E_INVALID_ARGS, nullptr},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(
		    std::string(c.name) + " kind " + std::to_string(c.kind) + " size " + std::to_string(c.size));
		char buf[1024];
		std::memset(buf, '#', sizeof(buf));
		EXPECT_EQ(kel_get_prop_info(c.name, buf, c.size, c.kind), c.rc);
		if (c.text != nullptr)
			EXPECT_STREQ(buf, c.text);
		else
			EXPECT_EQ(buf[0], '#') << "buffer written on failure";
	}
	char perm[3];
	EXPECT_EQ(kel_get_prop_perm("pool", perm, sizeof(perm)), KEL_SUCCESS);
	EXPECT_STREQ(perm, "rw");
	char def[1024];
	EXPECT_EQ(kel_get_prop_default("acme:x", def, sizeof(def)), KEL_SUCCESS);
	EXPECT_STREQ(def, "");
}

}  // namespace

// Link property texts as the datalink layer reads them, and the names of VXLAN links.
#include <gtest/gtest.h>

#include <string>

#include "mac_ipaddr.h"
#include "vnic.h"
#include "wexo.h"

namespace {

// "name=value;..." or "status N".
std::string parsed(const char *text, boolean_t novalues = B_FALSE)
{
	wexo_arg_list_t *args = reinterpret_cast<wexo_arg_list_t *>(1);
	const wexo_status_t st = wexo_parse_link_props(text, &args, novalues);
	if (st != WEXO_STATUS_OK) {
		EXPECT_EQ(args, nullptr);
		return "status " + std::to_string(st);
	}
	std::string out;
	for (uint_t i = 0; i < wexo_arg_count(args); i++)
		out += std::string(wexo_arg_name(args, i)) + "=" + wexo_arg_value(args, i) + ";";
	EXPECT_EQ(wexo_arg_name(args, wexo_arg_count(args)), nullptr);
	wexo_free_args(args);
	return out;
}

TEST(LinkArgs, PiecesWithoutANameBelongToThePairBefore)
{
	const std::string bad = "status " + std::to_string(WEXO_STATUS_BADVAL);
	struct {
		const char *text;
		std::string want;
	} cases[] = {
	    {"", ""},
	    {"iov=off", "iov=off;"},
	    {"allowed-ips=10.0.0.5,iov=off,protection=mac-nospoof,ip-nospoof,maxbw=100M",
	        "allowed-ips=10.0.0.5;iov=off;protection=mac-nospoof,ip-nospoof;maxbw=100M;"},
	    {"maxbw=", "maxbw=;"},
	    {"a=1=2", "a=1=2;"},
	    {"mac-nospoof,iov=off", bad},  // a value before any name
	    {"=x", bad},
	    {"iov=off,=x", bad},
	    {"iov=off,iov=on", bad},
	};
	for (const auto &c : cases)
		EXPECT_EQ(parsed(c.text), c.want) << c.text;
	EXPECT_EQ(parsed("vni,addr", B_TRUE), "vni=;addr=;");
	EXPECT_EQ(parsed(nullptr), "status " + std::to_string(WEXO_STATUS_BADARG));
}

TEST(LinkArgs, VxlanProperties)
{
	struct {
		const char *text;
		wexo_status_t st;
		uint32_t mask;
		const char *addr;
		uint32_t plen;
	} cases[] = {
	    {"vni=5000,addr=10.80.0.1", WEXO_STATUS_OK, MVP_VXLAN_VNI | MVP_VXLAN_ADDR, "10.80.0.1", 0},
	    {"vni=16777215,addr=10.80.0.0/24,mgroup=239.1.1.1", WEXO_STATUS_OK,
	        MVP_VXLAN_VNI | MVP_VXLAN_ADDR | MVP_VXLAN_PLEN | MVP_VXLAN_MGROUP, "10.80.0.0", 24},
	    {"vni=1,interface=net0,ipvers=v6,maxbw=10M", WEXO_STATUS_OK,
	        MVP_VXLAN_VNI | MVP_VXLAN_IF | MVP_VXLAN_IPVERS, "", 0},
	    {"addr=fd00::1/64", WEXO_STATUS_OK, MVP_VXLAN_ADDR | MVP_VXLAN_PLEN, "fd00::1", 64},
	    {"vni=16777216", WEXO_STATUS_BADVAL, 0, "", 0},
	    {"vni=-1", WEXO_STATUS_BADVAL, 0, "", 0},
	    {"addr=10.0.0.1/33", WEXO_STATUS_BADVAL, 0, "", 0},
	    {"addr=10.0.0", WEXO_STATUS_BADVAL, 0, "", 0},
	    {"ipvers=v5", WEXO_STATUS_BADVAL, 0, "", 0},
	    {"interface=a-name-far-too-long", WEXO_STATUS_BADVAL, 0, "", 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		wexo_arg_list_t *args = nullptr;
		ASSERT_EQ(wexo_parse_link_props(c.text, &args, B_FALSE), WEXO_STATUS_OK);
		mac_vxlan_props_t mvp;
		EXPECT_EQ(wexo_link_proplist_extract(nullptr, 0, DATALINK_CLASS_VXLAN, args, &mvp, 0), c.st);
		if (c.st == WEXO_STATUS_OK) {
			EXPECT_EQ(mvp.mvp_mask, c.mask);
			if (*c.addr != '\0') {
				EXPECT_EQ(kel::ipaddr::text(mvp.mvp_addr), c.addr);
			}
			EXPECT_EQ(mvp.mvp_plen, c.plen);
		}
		EXPECT_EQ(wexo_link_proplist_extract(nullptr, 0, DATALINK_CLASS_PHYS, args, &mvp, 0),
		    WEXO_STATUS_NOTSUP);
		wexo_free_args(args);
	}
}

TEST(LinkArgs, VxlanLinkNamesFitLinux)
{
	struct {
		int vni;
		const char *name;
	} cases[] = {{5000, "kel-vxlan5000"}, {999999, "kel-vxlan999999"}, {1000000, "kel-vx1000000"},
	    {16777215, "kel-vx16777215"}};
	for (const auto &c : cases) {
		char name[MAXLINKNAMELEN];
		kel_vxlan_linkname(c.vni, name, sizeof(name));
		EXPECT_STREQ(name, c.name);
	}
}

}  // namespace

#include <arpa/inet.h>
#include <sys/socket.h>
#include <gtest/gtest.h>

#include <string>

#include <kel/libkel.h>
#include "subnet.h"

namespace {

std::string address_text(const struct sockaddr_storage &ss)
{
	char buf[INET6_ADDRSTRLEN] = "";
	const void *addr = ss.ss_family == AF_INET
	    ? static_cast<const void *>(&reinterpret_cast<const struct sockaddr_in *>(&ss)->sin_addr)
	    : static_cast<const void *>(&reinterpret_cast<const struct sockaddr_in6 *>(&ss)->sin6_addr);
	inet_ntop(ss.ss_family, addr, buf, sizeof(buf));
	return buf;
}

TEST(Subnet, Spans)
{
	struct {
		const char *text;
		int af;
		const char *subnet;
		uint32_t prefix;
		const char *first;
		const char *last;
	} cases[] = {
	    {"10.0.0.0/24", AF_INET, "10.0.0.0/24", 24, "10.0.0.1", "10.0.0.254"},
	    {"10.0.0.0/30", AF_INET, "10.0.0.0/30", 30, "10.0.0.1", "10.0.0.2"},
	    {"192.168.0.0/16", AF_INET, "192.168.0.0/16", 16, "192.168.0.1", "192.168.255.254"},
	    {"0.0.0.0/0", AF_INET, "0.0.0.0/0", 0, "0.0.0.1", "255.255.255.254"},
	    {"2001:db8::/64", AF_INET6, "2001:db8::/64", 64, "2001:db8::1", "2001:db8::ffff:ffff:ffff:ffff"},
	    {"2001:0db8:0000::/48", AF_INET6, "2001:db8::/48", 48, "2001:db8::1",
	        "2001:db8:0:ffff:ffff:ffff:ffff:ffff"},
	    {"2001:db8::/126", AF_INET6, "2001:db8::/126", 126, "2001:db8::1", "2001:db8::3"},
	    {"2001:db8::80/121", AF_INET6, "2001:db8::80/121", 121, "2001:db8::81", "2001:db8::ff"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		kel_ipnet_t ipnet{};
		ASSERT_EQ(kel_parse_ipnet(c.text, &ipnet), KEL_SUCCESS);
		EXPECT_EQ(ipnet.ei_af, c.af);
		EXPECT_STREQ(ipnet.ei_subnet, c.subnet);
		EXPECT_EQ(ipnet.ei_prefixlen, c.prefix);
		EXPECT_STREQ(ipnet.ei_sastr, c.first);
		EXPECT_STREQ(ipnet.ei_eastr, c.last);
		EXPECT_EQ(address_text(ipnet.ei_sa), c.first);
		EXPECT_EQ(address_text(ipnet.ei_ea), c.last);
		EXPECT_EQ(std::string(c.subnet).rfind(address_text(ipnet.ei_ca) + "/", 0), 0u);
	}
}

TEST(Subnet, Refusals)
{
	for (const char *text : {"10.0.0.0/31", "10.0.0.0/32", "10.0.0.1/24", "10.0.0.0", "10.0.0.0/", "10.0.0.0/x",
	         "0.0.0.0/x", "10.0.0.0/24x", "10.0.0.0/-1", "10.0.0.0/0024", "2001:db8::/127", "2001:db8::/128",
	         "2001:db8::1/64", "2001:db8::8/124", "nonsense/24", "", "/24"}) {
		SCOPED_TRACE(text);
		kel_ipnet_t ipnet{};
		EXPECT_EQ(kel_parse_ipnet(text, &ipnet), KEL_E_INVALID_IPNET);
	}
	EXPECT_EQ(kel_parse_ipnet(nullptr, nullptr), KEL_E_INVALID_IPNET);
}

TEST(Subnet, Containment)
{
	kel_ipnet_t v4{}, v6{};
	ASSERT_EQ(kel_parse_ipnet("10.1.2.0/24", &v4), KEL_SUCCESS);
	ASSERT_EQ(kel_parse_ipnet("2001:db8:1::/64", &v6), KEL_SUCCESS);
	struct {
		const kel_ipnet_t *net;
		const char *addr;
		bool in;
	} cases[] = {
	    {&v4, "10.1.2.0", true},    // network address included
	    {&v4, "10.1.2.255", true},  // and broadcast
	    {&v4, "10.1.2.77", true},
	    {&v4, "10.1.3.1", false},
	    {&v4, "10.1.1.255", false},
	    {&v4, "2001:db8:1::5", false},  // other family
	    {&v4, "garbage", false},
	    {&v6, "2001:db8:1::5", true},
	    {&v6, "2001:db8:1:0:ffff:ffff:ffff:ffff", true},
	    {&v6, "2001:db8:1:1::", false},
	    {&v6, "10.1.2.77", false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.addr);
		EXPECT_EQ(kel_ipnet_contains_ip(c.net, c.addr), c.in);
	}
	EXPECT_FALSE(kel_ipnet_contains_ip(nullptr, "10.1.2.1"));
	EXPECT_FALSE(kel_ipnet_contains_ip(&v4, nullptr));
}

}  // namespace

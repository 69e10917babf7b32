#include <arpa/inet.h>
#include <netinet/in.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bandwidth.h"
#include "kelnet.h"

namespace {

TEST(LinkAddress, ParsesColonSeparatedOctets)
{
	struct {
		const char *text;
		std::vector<unsigned char> bytes;  // empty: refused
	} cases[] = {
	    {"2:8:20:a:1b:ff", {0x02, 0x08, 0x20, 0x0a, 0x1b, 0xff}},
	    {"02:08:20:0A:1B:FF", {0x02, 0x08, 0x20, 0x0a, 0x1b, 0xff}},
	    {"0", {0x00}},
	    {"1:2:3:4:5:6:7:8:9:a:b:c:d:e:f:10:11:12:13:14",
	        {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}},
	    {"1:2:3:4:5:6:7:8:9:a:b:c:d:e:f:10:11:12:13:14:15", {}},
	    {"", {}},
	    {"2:8:20:a:1b:", {}},
	    {":2:8", {}},
	    {"2::8", {}},
	    {"123:4", {}},
	    {"2:8:20:a:1b:fg", {}},
	    {"2-8-20-a-1b-ff", {}},
	    {" 2:8", {}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		int len = 99;
		unsigned char *bytes = _link_aton(c.text, &len);
		if (c.bytes.empty()) {
			EXPECT_EQ(bytes, nullptr);
			EXPECT_EQ(len, -1);
			continue;
		}
		ASSERT_NE(bytes, nullptr);
		EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + len), c.bytes);
		std::free(bytes);
	}
}

TEST(LinkAddress, PrintsWithoutLeadingZeros)
{
	const unsigned char mac[6] = {0x02, 0x08, 0x20, 0x0a, 0x1b, 0xff};
	char buf[18];
	EXPECT_STREQ(_link_ntoa(mac, buf, 6, 1), "2:8:20:a:1b:ff");
	const unsigned char widest[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
	EXPECT_STREQ(_link_ntoa(widest, buf, 6, 1), "aa:bb:cc:dd:ee:ff");
	char *owned = _link_ntoa(mac, nullptr, 6, 1);
	ASSERT_NE(owned, nullptr);
	int len = 0;
	unsigned char *back = _link_aton(owned, &len);
	ASSERT_EQ(len, 6);
	EXPECT_EQ(std::vector<unsigned char>(back, back + 6), std::vector<unsigned char>(mac, mac + 6));
	std::free(back);
	std::free(owned);
}

TEST(HostNames, Rfc1123)
{
	for (const char *name : {"localhost", "host-1.example.com", "1host", "a.b.", "10.0.0.1", "x"})
		EXPECT_TRUE(valid_hostname(name)) << name;
	const std::string label64(64, 'a'),
	    long_name = std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') + "." +
	    std::string(63, 'd');
	for (const std::string &name :
	    {std::string(""), std::string("-host"), std::string("host-"), std::string("a..b"), std::string("ho st"),
	        std::string("host_1"), std::string("."), label64, long_name})
		EXPECT_FALSE(valid_hostname(name.c_str())) << name;
}

TEST(DatalinkNames, DriverAndInstance)
{
	struct {
		const char *name;
		bool valid;
		const char *driver;
		uint32_t ppa;
	} cases[] = {
	    {"net0", true, "net", 0},
	    {"eth1", true, "eth", 1},
	    {"ens3", true, "ens", 3},
	    {"enp0s25", true, "enp0s", 25},
	    {"e4294967295", true, "e", 4294967295u},
	    {"e4294967296", false, "", 0},
	    {"net01", false, "", 0},
	    {"net", false, "", 0},
	    {"0net1", false, "", 0},
	    {"7", false, "", 0},
	    {"br-lan0", false, "", 0},
	    {"averyverylongname0", false, "", 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		char driver[16] = "x";
		uint32_t ppa = 77;
		EXPECT_EQ(dlparse_drvppa(c.name, driver, sizeof(driver), &ppa), c.valid);
		if (c.valid) {
			EXPECT_STREQ(driver, c.driver);
			EXPECT_EQ(ppa, c.ppa);
		}
	}
}

TEST(DatalinkNames, NamespaceAndLink)
{
	char link[16], ns[256];
	ASSERT_TRUE(dlparse_zonelinkname("tenant1/vnic0", link, sizeof(link), ns, sizeof(ns)));
	EXPECT_STREQ(link, "vnic0");
	EXPECT_STREQ(ns, "tenant1");
	ASSERT_TRUE(dlparse_zonelinkname("vnic0", link, sizeof(link), ns, sizeof(ns)));
	EXPECT_STREQ(link, "vnic0");
	EXPECT_STREQ(ns, "");
}

TEST(UnspecifiedAddress, BothFamilies)
{
	struct sockaddr_in sin {};
	sin.sin_family = AF_INET;
	EXPECT_TRUE(sockaddrunspec(reinterpret_cast<struct sockaddr *>(&sin)));
	inet_pton(AF_INET, "10.0.0.1", &sin.sin_addr);
	EXPECT_FALSE(sockaddrunspec(reinterpret_cast<struct sockaddr *>(&sin)));
	struct sockaddr_in6 sin6 {};
	sin6.sin6_family = AF_INET6;
	EXPECT_TRUE(sockaddrunspec(reinterpret_cast<struct sockaddr *>(&sin6)));
	inet_pton(AF_INET6, "::1", &sin6.sin6_addr);
	EXPECT_FALSE(sockaddrunspec(reinterpret_cast<struct sockaddr *>(&sin6)));
	struct sockaddr other {};
	other.sa_family = AF_UNIX;
	EXPECT_FALSE(sockaddrunspec(&other));
}

TEST(Bandwidth, LinkPropertySyntax)
{
	struct {
		const char *text;
		uint64_t bps;  // 0: refused
	} cases[] = {
	    {"100", 100000000},
	    {"100M", 100000000},
	    {"100m", 100000000},
	    {"10K", 10000},
	    {"1G", 1000000000},
	    {"1.5G", 1500000000},
	    {"0.001K", 1},
	    {"2.5", 2500000},
	    {"18446744073709551615K", 0},  // past 64 bits once scaled
	    {"18446744073G", 18446744073000000000u},
	    {"0", 0},
	    {"0.0001K", 0},  // a fraction of a bit per second
	    {"", 0},
	    {"M", 0},
	    {"-5M", 0},
	    {" 5M", 0},
	    {"5MB", 0},
	    {"5T", 0},
	    {"1.", 0},
	    {".5G", 0},
	    {"1.2.3", 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		uint64_t bps = 7;
		EXPECT_EQ(wexo_str2bw(c.text, &bps), c.bps != 0);
		EXPECT_EQ(bps, c.bps != 0 ? c.bps : 7);
	}
}

}  // namespace

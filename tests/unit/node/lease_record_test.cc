// What a host keeps of a binding for its address responder: the record's text is read
// back as written, and a record that says anything else is no lease.
#include <string>

#include <gtest/gtest.h>

#include "fabric_links.h"

namespace {

using wexo::fabric::parse_lease;

const std::string kKel = "kel=0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0\n";

TEST(LeaseRecord, EachFamilyReadsBackAsWritten)
{
	for (const std::string &text : {kKel + "addr=10.1.0.11/24\nrouter=10.1.0.1\ndns=10.1.0.53 2001:db8::53\n",
	         kKel + "addr=2001:db8::11/64\ndns=2001:db8::53\nrole=endpoint\n"}) {
		const auto l = parse_lease(text);
		ASSERT_TRUE(l) << text;
		EXPECT_EQ(wexo::fabric::lease_text(*l), text);
	}
	EXPECT_EQ(parse_lease(kKel + "addr=2001:db8::11/64\n")->family, AF_INET6);
}

TEST(LeaseRecord, WhatIsNotALeaseIsRefused)
{
	for (const char *addr : {"addr=10.1.0.11/33\n", "addr=2001:db8::11/129\n", "addr=10.1.0.11\n",
	         "addr=2001:db8::11/64\nrouter=2001:db8::1\n", "addr=10.1.0.11/24\nrouter=fe80::1\n",
	         "addr=10.1.0.11/24\ndns=10.1.0.53 nameserver\n", "addr=10.1.0.11/24\nrole=router\n",
	         "addr=10.1.0.11/24\ndns=1.1.1.1 1.1.1.2 1.1.1.3 1.1.1.4 1.1.1.5 1.1.1.6 1.1.1.7 1.1.1.8 ::9\n"})
		EXPECT_FALSE(parse_lease(kKel + addr)) << addr;
	EXPECT_FALSE(parse_lease("kel=web\naddr=10.1.0.11/24\n"));
}

}  // namespace

namespace {

// The port's names kept beside the lease, for the host's metrics: read back as written,
// and a value that is no name of the controller's read as none.
TEST(LeaseRecord, PortNamesReadBackAndNothingElse)
{
	const wexo::fabric::PortNames n{"vm1", "web", "blue"};
	const std::string text = wexo::fabric::names_text(n);
	EXPECT_EQ(text, "port=vm1\nkelname=web\ntenant=blue\n");
	const auto back = wexo::fabric::parse_names(kKel + "addr=10.1.0.11/24\n" + text);
	EXPECT_EQ(back.port, "vm1");
	EXPECT_EQ(back.kel, "web");
	EXPECT_EQ(back.tenant, "blue");
	EXPECT_EQ(wexo::fabric::names_text({}), "");
	for (const char *bad : {"port=a\"b\n", "port=a b\n", "port=a\\b\n", "port=\n"})
		EXPECT_EQ(wexo::fabric::parse_names(bad).port, "") << bad;
	EXPECT_EQ(wexo::fabric::parse_names("port=" + std::string(65, 'a') + "\n").port, "");
}

}  // namespace

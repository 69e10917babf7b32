// The responder's IPv6 side: a guest's DHCPv6 messages and router solicitations, however
// forged, and what it answers.
#include <arpa/inet.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dhcp6.h"

namespace {

using namespace kel::dhcp6;
using Bytes = std::vector<uint8_t>;

const Mac kGuest = {0x02, 0x08, 0x20, 0x0a, 0x0b, 0x0c};
const Mac kServer = {0x02, 0x08, 0x20, 0x01, 0x02, 0x03};
const Bytes kServerDuid = {0, 3, 0, 1, 0x02, 0x08, 0x20, 0x01, 0x02, 0x03};
const Bytes kClientDuid = {0, 1, 0, 1, 9, 9, 9, 9};

struct in6_addr addr(const char *text)
{
	struct in6_addr a;
	inet_pton(AF_INET6, text, &a);
	return a;
}

Bytes opt(uint16_t code, const Bytes &value)
{
	Bytes o = {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code), static_cast<uint8_t>(value.size() >> 8),
	    static_cast<uint8_t>(value.size())};
	o.insert(o.end(), value.begin(), value.end());
	return o;
}

Bytes ia_na(uint32_t iaid, const std::vector<const char *> &asked = {})
{
	Bytes v = {static_cast<uint8_t>(iaid >> 24), static_cast<uint8_t>(iaid >> 16), static_cast<uint8_t>(iaid >> 8),
	    static_cast<uint8_t>(iaid), 0, 0, 0, 0, 0, 0, 0, 0};
	for (const char *a : asked) {
		const struct in6_addr x = addr(a);
		Bytes sub(x.s6_addr, x.s6_addr + 16);
		sub.resize(24, 0);
		const Bytes o = opt(5, sub);
		v.insert(v.end(), o.begin(), o.end());
	}
	return opt(3, v);
}

// An IPv6 frame from the guest's link-local address; `proto` over it, as given.
Bytes ipv6_frame(uint8_t proto, uint8_t hops, const char *dst, const Bytes &payload,
    const char *src = "fe80::8:20ff:fe0a:b0c")
{
	Bytes f = {0x33, 0x33, 0, 1, 0, 2};
	f.insert(f.end(), kGuest.begin(), kGuest.end());
	f.insert(f.end(),
	    {0x86, 0xdd, 0x60, 0, 0, 0, static_cast<uint8_t>(payload.size() >> 8), static_cast<uint8_t>(payload.size()),
	        proto, hops});
	const struct in6_addr s = addr(src), d = addr(dst);
	f.insert(f.end(), s.s6_addr, s.s6_addr + 16);
	f.insert(f.end(), d.s6_addr, d.s6_addr + 16);
	f.insert(f.end(), payload.begin(), payload.end());
	return f;
}

// A client message as sent to all DHCP servers.
Bytes message(uint8_t type, const std::vector<Bytes> &options, const char *dst = "ff02::1:2", uint16_t dport = 547)
{
	Bytes m = {type, 0x12, 0x34, 0x56};
	for (const Bytes &o : options)
		m.insert(m.end(), o.begin(), o.end());
	const size_t udplen = 8 + m.size();
	Bytes udp = {2, 34, static_cast<uint8_t>(dport >> 8), static_cast<uint8_t>(dport),
	    static_cast<uint8_t>(udplen >> 8), static_cast<uint8_t>(udplen), 0, 0};
	udp.insert(udp.end(), m.begin(), m.end());
	return ipv6_frame(17, 1, dst, udp);
}

// Whether the upper-layer checksum of an IPv6 frame (no extension headers) holds.
bool checksum_holds(const Bytes &f)
{
	uint32_t sum = kel::frame::sum16(f.data() + 22, 32);  // source and destination
	sum += static_cast<uint32_t>(f.size() - 54) + f[20];
	return kel::frame::fold(kel::frame::sum16(f.data() + 54, f.size() - 54, sum)) == 0;
}

// The top-level options of an answer's DHCPv6 message, by code (the last of each).
struct Reply {
	uint8_t type = 0;
	std::map<uint16_t, Bytes> options;
};

Reply reply_of(const Bytes &f)
{
	Reply r;
	const uint8_t *m = f.data() + 14 + 40 + 8;
	const size_t len = f.size() - 14 - 40 - 8;
	r.type = m[0];
	for (size_t i = 4; i + 4 <= len;) {
		const size_t olen = static_cast<size_t>(m[i + 2] << 8 | m[i + 3]);
		r.options[static_cast<uint16_t>(m[i] << 8 | m[i + 1])] = Bytes(m + i + 4, m + i + 4 + olen);
		i += 4 + olen;
	}
	return r;
}

std::optional<Bytes> answer(const Bytes &frame)
{
	const auto req = parse_request(frame.data(), frame.size());
	if (!req)
		return std::nullopt;
	Lease l{addr("2001:db8::11"), 3600, {addr("2001:db8::53")}};
	return answer_frame(*req, l, kServer);
}

TEST(Dhcp6, ASolicitIsAdvertisedThePortsAddress)
{
	const auto f = answer(message(kSolicit, {opt(1, kClientDuid), ia_na(7), opt(8, {0, 0})}));
	ASSERT_TRUE(f);
	EXPECT_TRUE(std::equal(kGuest.begin(), kGuest.end(), f->begin())) << "to the guest's own MAC address";
	const struct in6_addr from = addr("fe80::8:20ff:fe0a:b0c"), ll = link_local(kServer);
	EXPECT_EQ(0, memcmp(f->data() + 22, &ll, 16));
	EXPECT_EQ(0, memcmp(f->data() + 38, &from, 16));
	EXPECT_TRUE(checksum_holds(*f));
	const Reply r = reply_of(*f);
	EXPECT_EQ(r.type, kAdvertise);
	EXPECT_EQ(r.options.at(1), kClientDuid);
	EXPECT_EQ(r.options.at(2), kServerDuid);
	EXPECT_EQ(r.options.at(7), Bytes{255});
	const Bytes ia = r.options.at(3);
	ASSERT_EQ(ia.size(), 12u + 4 + 24);
	EXPECT_EQ(Bytes(ia.begin(), ia.begin() + 12), (Bytes{0, 0, 0, 7, 0, 0, 0x07, 0x08, 0, 0, 0x0b, 0x40}));
	const struct in6_addr port = addr("2001:db8::11");
	EXPECT_EQ(0, memcmp(ia.data() + 16, &port, 16));
	EXPECT_EQ(r.options.at(23).size(), 16u);
}

TEST(Dhcp6, WhoIsAnswered)
{
	const Bytes client = opt(1, kClientDuid), ours = opt(2, kServerDuid),
	            other = opt(2, {0, 3, 0, 1, 1, 2, 3, 4, 5, 6});
	struct Case {
		const char *what;
		Bytes frame;
		int reply;  // the answer's type, or -1 for none
	} cases[] = {
	    {"solicit with rapid commit", message(kSolicit, {client, ia_na(1), opt(14, {})}), kReply},
	    {"request to us", message(kRequest, {client, ours, ia_na(1)}), kReply},
	    {"request to another server", message(kRequest, {client, other, ia_na(1)}), -1},
	    {"request naming no server", message(kRequest, {client, ia_na(1)}), -1},
	    {"renew to us", message(kRenew, {client, ours, ia_na(1, {"2001:db8::11"})}), kReply},
	    {"rebind", message(kRebind, {client, ia_na(1)}), kReply},
	    {"solicit naming a server", message(kSolicit, {client, ours, ia_na(1)}), -1},
	    {"solicit without client id", message(kSolicit, {ia_na(1)}), -1},
	    {"release to us", message(kRelease, {client, ours, ia_na(1)}), kReply},
	    {"information request", message(kInformationRequest, {}), kReply},
	    {"information request for another", message(kInformationRequest, {other}), -1},
	    {"confirm without addresses", message(kConfirm, {client, ia_na(1)}), -1},
	};
	for (const Case &c : cases) {
		const auto f = answer(c.frame);
		EXPECT_EQ(f ? reply_of(*f).type : -1, c.reply) << c.what;
	}
}

TEST(Dhcp6, AnAddressNotThePortsIsTakenBack)
{
	const Bytes client = opt(1, kClientDuid);
	const auto confirm = [&](const char *a) {
		const auto f = answer(message(kConfirm, {client, ia_na(1, {a})}));
		return f ? reply_of(*f).options.at(13) : Bytes{};
	};
	EXPECT_EQ(confirm("2001:db8::11"), (Bytes{0, 0})) << "success";
	EXPECT_EQ(confirm("2001:db8::99"), (Bytes{0, 4})) << "not on link: the guest asks again";

	// A renewal of another address gets the port's, and the other at lifetime 0.
	const auto f = answer(message(kRenew, {client, opt(2, kServerDuid), ia_na(1, {"2001:db8::99"}), ia_na(2)}));
	ASSERT_TRUE(f);
	const Bytes ia = reply_of(*f).options.at(3);  // the last IA_NA: none available
	EXPECT_EQ(Bytes(ia.begin() + 12, ia.end()), (Bytes{0, 13, 0, 2, 0, 2}));
	const Bytes frame = *f;
	const struct in6_addr old = addr("2001:db8::99");
	const auto at = std::search(frame.begin(), frame.end(), old.s6_addr, old.s6_addr + 16);
	ASSERT_NE(at, frame.end());
	EXPECT_EQ(Bytes(at + 16, at + 24), Bytes(8, 0));
}

TEST(Dhcp6, MalformedFramesAreNotRequests)
{
	const Bytes good = message(kSolicit, {opt(1, kClientDuid), ia_na(1)});
	ASSERT_TRUE(parse_request(good.data(), good.size()));
	Bytes past_end = good;
	past_end[good.size() - 13] = 0xff;  // the IA_NA's length runs past the message
	Bytes short_payload = good;
	short_payload[19] = static_cast<uint8_t>(short_payload[19] + 1);
	Bytes tagged = good;
	tagged[12] = 0x81, tagged[13] = 0x00;
	const std::map<std::string, Bytes> bad = {
	    {"to another port", message(kSolicit, {opt(1, kClientDuid)}, "ff02::1:2", 546)},
	    {"to a unicast address", message(kSolicit, {opt(1, kClientDuid)}, "2001:db8::1")},
	    {"a server's message", message(kAdvertise, {opt(1, kClientDuid)})},
	    {"an option past the end", past_end},
	    {"a payload longer than the frame", short_payload},
	    {"a tagged frame", tagged},
	    {"a client id too long", message(kSolicit, {opt(1, Bytes(131, 1))})},
	    {"an IA_NA too short", message(kSolicit, {opt(1, kClientDuid), opt(3, Bytes(11, 0))})},
	    {"a truncated frame", Bytes(good.begin(), good.begin() + 60)},
	};
	for (const auto &[what, f] : bad)
		EXPECT_FALSE(parse_request(f.data(), f.size())) << what;
	const Bytes global = ipv6_frame(17, 1, "ff02::1:2", Bytes(good.begin() + 54, good.end()), "2001:db8::5");
	EXPECT_FALSE(parse_request(global.data(), global.size())) << "not from a link-local address";
}

TEST(Dhcp6, SolicitedRoutersAdvertiseManagedAddressesOnly)
{
	const Bytes rs = ipv6_frame(58, 255, "ff02::2", {133, 0, 0, 0, 0, 0, 0, 0});
	EXPECT_EQ(parse_router_solicit(rs.data(), rs.size()), kGuest);
	const Bytes forwarded = ipv6_frame(58, 64, "ff02::2", {133, 0, 0, 0, 0, 0, 0, 0});
	EXPECT_FALSE(parse_router_solicit(forwarded.data(), forwarded.size())) << "hop limit not 255";
	const Bytes advert = ipv6_frame(58, 255, "ff02::1", {134, 0, 0, 0, 0, 0, 0, 0});
	EXPECT_FALSE(parse_router_solicit(advert.data(), advert.size()));

	Advert a;
	a.prefix = addr("2001:db8:0:1:ffff::11");
	a.plen = 64;
	a.mtu = 1450;
	a.lifetime = 3600;
	const Bytes f = router_advert(kGuest, kServer, a);
	EXPECT_TRUE(std::equal(kGuest.begin(), kGuest.end(), f.begin()));
	EXPECT_EQ(f[21], 255);
	EXPECT_TRUE(checksum_holds(f));
	const uint8_t *icmp = f.data() + 54;
	EXPECT_EQ(icmp[0], 134);
	EXPECT_EQ(icmp[5], 0x80) << "managed, nothing else to ask for";
	EXPECT_EQ(icmp[6] << 8 | icmp[7], 0) << "no default router";
	// Source link-layer address, MTU, prefix: on the link, not for autoconfiguration.
	const Bytes options(icmp + 16, f.data() + f.size());
	ASSERT_EQ(options.size(), 8u + 8 + 32);
	EXPECT_EQ(Bytes(options.begin() + 8, options.begin() + 16), (Bytes{5, 1, 0, 0, 0, 0, 0x05, 0xaa}));
	EXPECT_EQ(Bytes(options.begin() + 16, options.begin() + 20), (Bytes{3, 4, 64, 0x80}));
	const struct in6_addr prefix = addr("2001:db8:0:1::");
	EXPECT_EQ(0, memcmp(options.data() + 32, &prefix, 16));
}

}  // namespace

// The address responder's frames: what a guest may send, however forged, and the answers.
#include <arpa/inet.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dhcp4.h"

namespace {

using namespace kel::dhcp4;
using Bytes = std::vector<uint8_t>;

const Mac kGuest = {0x02, 0x08, 0x20, 0x0a, 0x0b, 0x0c};
const Mac kServer = {0x02, 0x08, 0x20, 0x01, 0x02, 0x03};

struct in_addr addr(const char *text)
{
	struct in_addr a;
	inet_pton(AF_INET, text, &a);
	return a;
}

std::string text(struct in_addr a)
{
	char buf[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, &a, buf, sizeof(buf));
}

// A guest's request as its client sends it, with knobs to spoil each part.
struct Knobs {
	uint16_t ethertype = 0x0800;
	uint8_t version_ihl = 0x45, proto = 17, op = 1, hlen = 6;
	uint16_t frag = 0, dport = 67;
	bool cookie = true;
	Bytes options = {53, 1, kDiscover, 50, 4, 10, 0, 0, 5, 54, 4, 10, 0, 0, 2, 255};
	int total_extra = 0;  // added to the IPv4 total length
};

Bytes request(const Knobs &k = {})
{
	Bytes bootp(240, 0);
	bootp[0] = k.op;
	bootp[1] = 1;
	bootp[2] = k.hlen;
	bootp[4] = 0xde, bootp[5] = 0xad, bootp[6] = 0xbe, bootp[7] = 0xef;
	bootp[10] = 0x80;
	std::copy(kGuest.begin(), kGuest.end(), bootp.begin() + 28);
	if (k.cookie)
		bootp[236] = 99, bootp[237] = 130, bootp[238] = 83, bootp[239] = 99;
	bootp.insert(bootp.end(), k.options.begin(), k.options.end());
	const size_t udplen = 8 + bootp.size(), total = 20 + udplen + k.total_extra;
	Bytes f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
	f.insert(f.end(), kGuest.begin(), kGuest.end());
	f.insert(f.end(), {static_cast<uint8_t>(k.ethertype >> 8), static_cast<uint8_t>(k.ethertype)});
	f.insert(f.end(),
	    {k.version_ihl, 0, static_cast<uint8_t>(total >> 8), static_cast<uint8_t>(total), 0, 0,
	        static_cast<uint8_t>(k.frag >> 8), static_cast<uint8_t>(k.frag), 64, k.proto, 0, 0, 0, 0, 0, 0, 255,
	        255, 255, 255});
	f.insert(f.end(),
	    {0, 68, static_cast<uint8_t>(k.dport >> 8), static_cast<uint8_t>(k.dport),
	        static_cast<uint8_t>(udplen >> 8), static_cast<uint8_t>(udplen), 0, 0});
	f.insert(f.end(), bootp.begin(), bootp.end());
	return f;
}

std::optional<Request> parse(const Bytes &f)
{
	return parse_request(f.data(), f.size());
}

TEST(Dhcp4, AClientsRequestIsRead)
{
	const auto r = parse(request());
	ASSERT_TRUE(r);
	EXPECT_EQ(r->type, kDiscover);
	EXPECT_EQ(r->source, kGuest);
	EXPECT_EQ(r->chaddr, kGuest);
	ASSERT_TRUE(r->requested && r->server);
	EXPECT_EQ(text(*r->requested), "10.0.0.5");
	EXPECT_EQ(text(*r->server), "10.0.0.2");
	EXPECT_EQ(ntohs(r->flags), 0x8000);
	// Pads before the options, and none of the optional ones.
	Knobs bare;
	bare.options = {0, 0, 53, 1, kRequest, 255};
	const auto b = parse(request(bare));
	ASSERT_TRUE(b);
	EXPECT_EQ(b->type, kRequest);
	EXPECT_FALSE(b->requested || b->server);
}

TEST(Dhcp4, AnythingElseIsNot)
{
	const struct {
		const char *what;
		void (*spoil)(Knobs *);
	} cases[] = {
	    {"not IPv4", [](Knobs *k) { k->ethertype = 0x86dd; }},
	    {"an 802.1Q tag", [](Knobs *k) { k->ethertype = 0x8100; }},
	    {"IP version 6 inside", [](Knobs *k) { k->version_ihl = 0x65; }},
	    {"a header length below 20", [](Knobs *k) { k->version_ihl = 0x44; }},
	    {"TCP", [](Knobs *k) { k->proto = 6; }},
	    {"a first fragment", [](Knobs *k) { k->frag = 0x2000; }},
	    {"a later fragment", [](Knobs *k) { k->frag = 0x0010; }},
	    {"to another port", [](Knobs *k) { k->dport = 68; }},
	    {"a reply", [](Knobs *k) { k->op = 2; }},
	    {"another hardware length", [](Knobs *k) { k->hlen = 16; }},
	    {"no DHCP cookie", [](Knobs *k) { k->cookie = false; }},
	    {"no message type", [](Knobs *k) { k->options = {255}; }},
	    {"an unknown message type",
	        [](Knobs *k) {
		        k->options = {53, 1, 9, 255};
	        }},
	    {"type 0",
	        [](Knobs *k) {
		        k->options = {53, 1, 0, 255};
	        }},
	    {"an option running past the end",
	        [](Knobs *k) {
		        k->options = {53, 1, 1, 12, 200, 'x'};
	        }},
	    {"an option length cut off",
	        [](Knobs *k) {
		        k->options = {53, 1, 1, 12};
	        }},
	    {"an IP length beyond the frame", [](Knobs *k) { k->total_extra = 1; }},
	};
	for (const auto &c : cases) {
		Knobs k;
		c.spoil(&k);
		EXPECT_FALSE(parse(request(k))) << c.what;
	}
	// Cut short anywhere, a request is no request.
	const Bytes whole = request();
	for (size_t len = 0; len < whole.size(); len++)
		EXPECT_FALSE(parse_request(whole.data(), len)) << len;
	EXPECT_FALSE(parse_request(nullptr, 0));
}

// The options of a BOOTP reply, by code.
std::map<int, Bytes> options_of(const Bytes &f, size_t bootp)
{
	std::map<int, Bytes> out;
	for (size_t i = bootp + 240; i < f.size() && f[i] != 255;) {
		if (f[i] == 0) {
			i++;
			continue;
		}
		out[f[i]] = Bytes(f.begin() + static_cast<long>(i) + 2,
		    f.begin() + static_cast<long>(i) + 2 + f[i + 1]);
		i += 2 + f[i + 1];
	}
	return out;
}

uint16_t ip_sum(const Bytes &f)
{
	uint32_t sum = 0;
	for (size_t i = 14; i < 34; i += 2)
		sum += f[i] << 8 | f[i + 1];
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<uint16_t>(sum);
}

TEST(Dhcp4, AnswersCarryWhatTheGuestNeeds)
{
	Answer a;
	a.type = kOffer;
	a.yiaddr = addr("10.0.0.5");
	a.plen = 24;
	a.router = addr("10.0.0.1");
	a.dns = {addr("10.0.0.53"), addr("10.0.0.54")};
	a.mtu = 1450;
	a.lease = 3600;
	auto req = parse(request());
	ASSERT_TRUE(req);
	const Bytes f = answer_frame(*req, a, kServer, addr("10.0.0.2"));
	// To the guest's own address from the responder's, UDP 67 to 68, a sound header.
	EXPECT_EQ(Bytes(f.begin(), f.begin() + 6), Bytes(kGuest.begin(), kGuest.end()));
	EXPECT_EQ(Bytes(f.begin() + 6, f.begin() + 12), Bytes(kServer.begin(), kServer.end()));
	EXPECT_EQ(ip_sum(f), 0xffff);
	EXPECT_EQ((f[16] << 8 | f[17]) + 14u, f.size());
	EXPECT_EQ(Bytes(f.begin() + 26, f.begin() + 34),
	    (Bytes{10, 0, 0, 2, 255, 255, 255, 255}));  // broadcast flag set
	EXPECT_EQ(Bytes(f.begin() + 34, f.begin() + 38), (Bytes{0, 67, 0, 68}));
	const size_t b = 42;
	EXPECT_EQ(f[b], 2);
	EXPECT_EQ(Bytes(f.begin() + b + 4, f.begin() + b + 8), (Bytes{0xde, 0xad, 0xbe, 0xef}));
	EXPECT_EQ(Bytes(f.begin() + b + 16, f.begin() + b + 20), (Bytes{10, 0, 0, 5}));
	auto o = options_of(f, b);
	EXPECT_EQ(o[53], Bytes{kOffer});
	EXPECT_EQ(o[54], (Bytes{10, 0, 0, 2}));
	EXPECT_EQ(o[51], (Bytes{0, 0, 0x0e, 0x10}));
	EXPECT_EQ(o[1], (Bytes{255, 255, 255, 0}));
	EXPECT_EQ(o[3], (Bytes{10, 0, 0, 1}));
	EXPECT_EQ(o[6], (Bytes{10, 0, 0, 53, 10, 0, 0, 54}));
	EXPECT_EQ(o[26], (Bytes{0x05, 0xaa}));

	// Without the broadcast flag the datagram goes to the address handed out; without a
	// router or name servers there are no such options; a /32 has a full mask.
	req->flags = 0;
	a.router.reset();
	a.dns.clear();
	a.plen = 32;
	const Bytes g = answer_frame(*req, a, kServer, addr("10.0.0.2"));
	EXPECT_EQ(Bytes(g.begin() + 30, g.begin() + 34), (Bytes{10, 0, 0, 5}));
	o = options_of(g, b);
	EXPECT_EQ(o.count(3) + o.count(6), 0u);
	EXPECT_EQ(o[1], (Bytes{255, 255, 255, 255}));

	// A refusal says only who refuses.
	a.type = kNak;
	const Bytes n = answer_frame(*req, a, kServer, addr("10.0.0.2"));
	EXPECT_EQ(Bytes(n.begin() + b + 16, n.begin() + b + 20), (Bytes{0, 0, 0, 0}));
	o = options_of(n, b);
	EXPECT_EQ(o[53], Bytes{kNak});
	EXPECT_EQ(o.count(51) + o.count(1) + o.count(26), 0u);
}

TEST(Dhcp4, ArpRequestsForTheResponder)
{
	Bytes f = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
	f.insert(f.end(), kGuest.begin(), kGuest.end());
	f.insert(f.end(), {0x08, 0x06, 0, 1, 8, 0, 6, 4, 0, 1});
	f.insert(f.end(), kGuest.begin(), kGuest.end());
	f.insert(f.end(), {10, 0, 0, 5, 0, 0, 0, 0, 0, 0, 10, 0, 0, 2});
	const auto r = parse_arp_request(f.data(), f.size());
	ASSERT_TRUE(r);
	EXPECT_EQ(text(r->tpa), "10.0.0.2");
	const Bytes reply = arp_reply(*r, kServer, addr("10.0.0.2"));
	EXPECT_EQ(reply.size(), 60u);
	EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 6), Bytes(kGuest.begin(), kGuest.end()));
	EXPECT_EQ(reply[21], 2);  // a reply
	EXPECT_EQ(Bytes(reply.begin() + 22, reply.begin() + 32),
	    (Bytes{0x02, 0x08, 0x20, 0x01, 0x02, 0x03, 10, 0, 0, 2}));

	Bytes forged = f;
	forged[22] ^= 1;  // a sender address that is not the frame's
	EXPECT_FALSE(parse_arp_request(forged.data(), forged.size()));
	Bytes answer = f;
	answer[21] = 2;
	EXPECT_FALSE(parse_arp_request(answer.data(), answer.size()));
	for (size_t len = 0; len < f.size(); len++)
		EXPECT_FALSE(parse_arp_request(f.data(), len)) << len;
}

}  // namespace

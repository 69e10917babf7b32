// Whole Ethernet frames, as a guest may forge them, into the address responder's parsers:
// each is one of a DHCPv4 request, an ARP request, a DHCPv6 message, a router
// solicitation, or nothing, never read beyond its end; and an answer built from what
// parsed goes back to the frame's sender, sound in its lengths, and is no request itself.
#include <arpa/inet.h>

#include <cstdint>
#include <vector>

#include "dhcp4.h"
#include "dhcp6.h"
#include "fuzz_check.h"

namespace {

using namespace kel::dhcp4;

const Mac kServer = {0x02, 0x08, 0x20, 0x01, 0x02, 0x03};

void check_answer6(const kel::dhcp6::Request &req, const std::vector<uint8_t> &f)
{
	FUZZ_CHECK(f.size() >= 14 + 40 + 8 + 4);
	FUZZ_CHECK(std::equal(req.source.begin(), req.source.end(), f.begin()));
	FUZZ_CHECK(static_cast<size_t>(f[18] << 8 | f[19]) + 54 == f.size());
	FUZZ_CHECK(static_cast<size_t>(f[58] << 8 | f[59]) + 54 == f.size());
	FUZZ_CHECK(!kel::dhcp6::parse_request(f.data(), f.size()));
	FUZZ_CHECK(!parse_request(f.data(), f.size()));
}

void check_answer(const Request &req, const std::vector<uint8_t> &f)
{
	FUZZ_CHECK(f.size() >= 14 + 20 + 8 + 300);
	FUZZ_CHECK(std::equal(req.source.begin(), req.source.end(), f.begin()));
	FUZZ_CHECK(static_cast<size_t>(f[16] << 8 | f[17]) + 14 == f.size());
	FUZZ_CHECK(static_cast<size_t>(f[38] << 8 | f[39]) + 34 == f.size());
	FUZZ_CHECK(!parse_request(f.data(), f.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	// A copy of exactly the input's length, so that a read past its end is caught.
	const std::vector<uint8_t> frame(data, data + size);
	const auto req = parse_request(frame.data(), frame.size());
	const auto arp = parse_arp_request(frame.data(), frame.size());
	const auto req6 = kel::dhcp6::parse_request(frame.data(), frame.size());
	const auto solicit = kel::dhcp6::parse_router_solicit(frame.data(), frame.size());
	FUZZ_CHECK(int{req.has_value()} + int{arp.has_value()} + int{req6.has_value()} + int{solicit.has_value()} <= 1);
	struct in_addr server;
	inet_pton(AF_INET, "10.0.0.2", &server);
	if (req) {
		FUZZ_CHECK(req->type >= kDiscover && req->type <= kInform);
		for (const uint8_t type : {kOffer, kAck, kNak}) {
			Answer a;
			a.type = type;
			a.yiaddr = req->requested ? *req->requested : req->ciaddr;
			a.plen = static_cast<int>(req->xid % 33);
			a.router = req->server;
			a.mtu = static_cast<uint16_t>(req->xid);
			a.lease = req->xid;
			check_answer(*req, answer_frame(*req, a, kServer, server));
		}
	}
	if (arp) {
		const std::vector<uint8_t> reply = arp_reply(*arp, kServer, server);
		FUZZ_CHECK(reply.size() == 60 && std::equal(arp->sha.begin(), arp->sha.end(), reply.begin()));
		FUZZ_CHECK(!parse_arp_request(reply.data(), reply.size()));
	}
	if (req6) {
		FUZZ_CHECK(req6->ias.size() <= kel::dhcp6::kMaxIas && req6->client_id.size() <= 130);
		kel::dhcp6::Lease lease;
		lease.addr = req6->from;
		lease.lifetime = static_cast<uint32_t>(req6->xid[0]) << 16;
		if (const auto f = kel::dhcp6::answer_frame(*req6, lease, kServer))
			check_answer6(*req6, *f);
	}
	if (solicit) {
		kel::dhcp6::Advert a;
		a.plen = frame.size() > 20 ? frame[20] : 64;  // any length, even past 128
		const auto f = kel::dhcp6::router_advert(*solicit, kServer, a);
		FUZZ_CHECK(!kel::dhcp6::parse_router_solicit(f.data(), f.size()));
	}
	return 0;
}

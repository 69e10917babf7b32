// Whole Ethernet frames, as a guest may forge them, into the address responder's parsers:
// each is a request, an ARP request or nothing, never read beyond its end; and an answer
// built from what parsed goes back to the frame's sender, sound in its lengths, and is no
// request itself.
#include <arpa/inet.h>

#include <cstdint>
#include <vector>

#include "dhcp4.h"
#include "fuzz_check.h"

namespace {

using namespace kel::dhcp4;

const Mac kServer = {0x02, 0x08, 0x20, 0x01, 0x02, 0x03};

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
	FUZZ_CHECK(!(req && arp));
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
	return 0;
}

// The frames a host's address responder reads and writes on a kel: a guest's DHCPv4
// request and ARP request, parsed from whole Ethernet frames a guest may have forged in
// any way, and the answers, built from parsed values only.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "frame_bytes.h"

namespace kel::dhcp4 {

using Mac = kel::frame::Mac;

// DHCP message types.
enum : uint8_t { kDiscover = 1, kOffer = 2, kRequest = 3, kDecline = 4, kAck = 5, kNak = 6, kRelease = 7, kInform = 8 };

struct Request {
	Mac source{};  // the frame's source address
	uint8_t type = 0;
	uint32_t xid = 0;    // as sent (network order kept)
	uint16_t flags = 0;  // as sent
	Mac chaddr{};
	struct in_addr ciaddr {};
	std::optional<struct in_addr> requested;  // option 50
	std::optional<struct in_addr> server;     // option 54
};

// A BOOTREQUEST to UDP port 67 in an untagged IPv4 frame, or nullopt: anything
// malformed, truncated, fragmented or of another kind.
std::optional<Request> parse_request(const uint8_t *frame, size_t len);

// What the responder answers with.
struct Answer {
	uint8_t type = kAck;       // kOffer, kAck or kNak
	struct in_addr yiaddr {};  // the port's address (none for kNak and INFORM's ACK)
	int plen = 0;
	std::optional<struct in_addr> router;
	std::vector<struct in_addr> dns;
	uint16_t mtu = 0;    // 0: not sent
	uint32_t lease = 0;  // seconds; 0: not sent (INFORM, NAK)
};

// The whole Ethernet frame answering `req` from `mac`/`server`, sent to the guest's own
// address (never broadcast: the answer stays on this host).
std::vector<uint8_t> answer_frame(const Request &req, const Answer &a, const Mac &mac, struct in_addr server);

struct ArpRequest {
	Mac sha{};
	struct in_addr spa {
	}, tpa{};
};

// An untagged ARP request (Ethernet, IPv4) whose sender address matches the frame's
// source, or nullopt.
std::optional<ArpRequest> parse_arp_request(const uint8_t *frame, size_t len);
// The reply saying `ip` is at `mac`, to the asker alone.
std::vector<uint8_t> arp_reply(const ArpRequest &req, const Mac &mac, struct in_addr ip);

}  // namespace kel::dhcp4

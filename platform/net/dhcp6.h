// The IPv6 side of the host's address responder: a guest's DHCPv6 message and router
// solicitation, parsed from whole Ethernet frames a guest may have forged in any way;
// the server's answer to each, and the router advertisement that sends guests to DHCPv6
// for their addresses. Built from parsed values only.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "frame_bytes.h"

namespace kel::dhcp6 {

using Mac = kel::frame::Mac;

// DHCPv6 message types.
enum : uint8_t {
	kSolicit = 1,
	kAdvertise = 2,
	kRequest = 3,
	kConfirm = 4,
	kRenew = 5,
	kRebind = 6,
	kReply = 7,
	kRelease = 8,
	kDecline = 9,
	kInformationRequest = 11,
};

// Bounds on what a request may carry: one port has one address, so more than a few
// identity associations or addresses in one are of no use, only of cost.
constexpr size_t kMaxIas = 4;
constexpr size_t kMaxAddrsPerIa = 4;

struct Request {
	Mac source{};             // the frame's source address
	struct in6_addr from {};  // the link-local address it came from: the answer's destination
	uint8_t type = 0;
	std::array<uint8_t, 3> xid{};
	std::vector<uint8_t> client_id;  // the client's DUID, as sent
	std::optional<std::vector<uint8_t>> server_id;
	bool rapid_commit = false;
	bool has_ia = false;  // any IA_NA at all (some beyond kMaxIas are not kept)
	struct Ia {
		uint32_t iaid = 0;
		std::vector<struct in6_addr> asked;
	};
	std::vector<Ia> ias;  // the IA_NAs, at most kMaxIas
};

// A client message to ff02::1:2, UDP port 547, from a link-local address, in an untagged
// IPv6 frame without extension headers; or nullopt.
std::optional<Request> parse_request(const uint8_t *frame, size_t len);

// What the port gets.
struct Lease {
	struct in6_addr addr {};
	uint32_t lifetime = 0;  // seconds
	std::vector<struct in6_addr> dns;
};

// The whole Ethernet frame answering `req` from the server with link address `mac`, or
// nullopt when the request is not this server's to answer (another server's, or one
// that gets no answer). To the guest's own MAC address: the frame never leaves the host.
std::optional<std::vector<uint8_t>> answer_frame(const Request &req, const Lease &lease, const Mac &mac);

// The frame's source address when it is a router solicitation (ICMPv6 type 133, hop
// limit 255, untagged, no extension headers); or nullopt.
std::optional<Mac> parse_router_solicit(const uint8_t *frame, size_t len);

// What the advertisement says: addresses come from DHCPv6 (the managed flag, no
// address of the guest's own making), the prefix is on the link, and the link's MTU. It
// names no router: the responder forwards nothing, and a kel's router advertises itself.
struct Advert {
	struct in6_addr prefix {};
	int plen = 64;
	uint16_t mtu = 0;       // 0: not sent
	bool other = false;     // more to ask DHCPv6 for (name servers)
	uint32_t lifetime = 0;  // the prefix's, in seconds
};

// A router advertisement to all nodes, in a frame to `to` alone, from `mac`'s link-local
// address.
std::vector<uint8_t> router_advert(const Mac &to, const Mac &mac, const Advert &a);

// The link-local address made from `mac` (modified EUI-64).
struct in6_addr link_local(const Mac &mac);

}  // namespace kel::dhcp6

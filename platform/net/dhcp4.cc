#include "dhcp4.h"

#include <cstring>

#include "frame_bytes.h"

namespace kel::dhcp4 {
namespace {

constexpr size_t kEth = 14;
constexpr size_t kIp = 20;
constexpr size_t kUdp = 8;
// The fixed part of a BOOTP message, up to and including the magic cookie.
constexpr size_t kBootp = 240;
constexpr uint8_t kCookie[4] = {99, 130, 83, 99};
constexpr uint16_t kServerPort = 67, kClientPort = 68;

using frame::ethernet;
using frame::get16;
using frame::put16;
using frame::put_mac;

void put_addr(std::vector<uint8_t> *out, struct in_addr a)
{
	frame::put_bytes(out, &a.s_addr, 4);
}

}  // namespace

std::optional<Request> parse_request(const uint8_t *f, size_t len)
{
	if (f == nullptr || len < kEth + kIp + kUdp + kBootp || get16(f + 12) != 0x0800)
		return std::nullopt;
	const uint8_t *ip = f + kEth;
	const size_t ihl = static_cast<size_t>(ip[0] & 0x0f) * 4;
	const size_t total = get16(ip + 2);
	// IPv4, UDP, not a fragment, and the lengths inside the frame.
	if ((ip[0] >> 4) != 4 || ihl < kIp || ip[9] != 17 || (get16(ip + 6) & 0x3fff) != 0 || total < ihl + kUdp ||
	    total > len - kEth)
		return std::nullopt;
	const uint8_t *udp = ip + ihl;
	const size_t udplen = get16(udp + 4);
	if (get16(udp + 2) != kServerPort || udplen < kUdp + kBootp || udplen > total - ihl)
		return std::nullopt;
	const uint8_t *b = udp + kUdp;
	const size_t blen = udplen - kUdp;
	// BOOTREQUEST over Ethernet, with the DHCP cookie.
	if (b[0] != 1 || b[1] != 1 || b[2] != 6 || std::memcmp(b + 236, kCookie, 4) != 0)
		return std::nullopt;
	Request r;
	std::memcpy(r.source.data(), f + 6, 6);
	std::memcpy(&r.xid, b + 4, 4);
	std::memcpy(&r.flags, b + 10, 2);
	std::memcpy(&r.ciaddr.s_addr, b + 12, 4);
	std::memcpy(r.chaddr.data(), b + 28, 6);
	for (size_t i = kBootp; i < blen;) {
		const uint8_t code = b[i];
		if (code == 255)
			break;
		if (code == 0) {
			i++;
			continue;
		}
		if (i + 2 > blen || i + 2 + b[i + 1] > blen)
			return std::nullopt;  // an option running past the end
		const uint8_t olen = b[i + 1];
		const uint8_t *v = b + i + 2;
		if (code == 53 && olen == 1)
			r.type = v[0];
		else if ((code == 50 || code == 54) && olen == 4) {
			struct in_addr a;
			std::memcpy(&a.s_addr, v, 4);
			(code == 50 ? r.requested : r.server) = a;
		}
		i += 2 + olen;
	}
	if (r.type < kDiscover || r.type > kInform)
		return std::nullopt;
	return r;
}

std::vector<uint8_t> answer_frame(const Request &req, const Answer &a, const Mac &mac, struct in_addr server)
{
	// The BOOTP reply first: the IPv4 and UDP headers need its length.
	std::vector<uint8_t> b(kBootp, 0);
	b[0] = 2;  // BOOTREPLY
	b[1] = 1;
	b[2] = 6;
	std::memcpy(&b[4], &req.xid, 4);
	std::memcpy(&b[10], &req.flags, 2);
	if (req.type == kInform)
		std::memcpy(&b[12], &req.ciaddr.s_addr, 4);
	if (a.type != kNak)
		std::memcpy(&b[16], &a.yiaddr.s_addr, 4);
	std::memcpy(&b[28], req.chaddr.data(), 6);
	std::memcpy(&b[236], kCookie, 4);
	const auto option = [&](uint8_t code, std::vector<uint8_t> value) {
		b.push_back(code);
		b.push_back(static_cast<uint8_t>(value.size()));
		b.insert(b.end(), value.begin(), value.end());
	};
	const auto addr = [](struct in_addr x) {
		std::vector<uint8_t> v;
		put_addr(&v, x);
		return v;
	};
	const auto u32 = [](uint32_t x) {
		return std::vector<uint8_t>{static_cast<uint8_t>(x >> 24), static_cast<uint8_t>(x >> 16),
		    static_cast<uint8_t>(x >> 8), static_cast<uint8_t>(x)};
	};
	option(53, {a.type});
	option(54, addr(server));
	if (a.type != kNak) {
		if (a.lease != 0) {
			option(51, u32(a.lease));
			option(58, u32(a.lease / 2));
			option(59, u32(a.lease / 8 * 7));
		}
		struct in_addr mask;
		mask.s_addr = a.plen == 0 ? 0 : htonl(~uint32_t{0} << (32 - a.plen));
		option(1, addr(mask));
		if (a.router)
			option(3, addr(*a.router));
		if (!a.dns.empty()) {
			std::vector<uint8_t> v;
			for (const struct in_addr &d : a.dns)
				put_addr(&v, d);
			option(6, v);
		}
		if (a.mtu >= 68)
			option(26, {static_cast<uint8_t>(a.mtu >> 8), static_cast<uint8_t>(a.mtu)});
	}
	b.push_back(255);
	while (b.size() < 300)  // the smallest BOOTP message some clients take
		b.push_back(0);

	// To the guest's own MAC address always: the frame never leaves this host. Its IP
	// destination is the address handed out, or broadcast when the guest asked for it
	// or has no address yet to take a unicast with (a NAK).
	struct in_addr dst = a.yiaddr;
	if (a.type == kNak || (ntohs(req.flags) & 0x8000) != 0 || a.yiaddr.s_addr == INADDR_ANY)
		dst.s_addr = req.type == kInform ? req.ciaddr.s_addr : INADDR_BROADCAST;
	std::vector<uint8_t> out;
	out.reserve(kEth + kIp + kUdp + b.size());
	ethernet(&out, req.source, mac, 0x0800);
	const size_t ip = out.size();
	out.push_back(0x45);
	out.push_back(0x10);  // low delay
	put16(&out, static_cast<uint16_t>(kIp + kUdp + b.size()));
	put16(&out, 0);
	put16(&out, 0x4000);  // don't fragment
	out.push_back(64);
	out.push_back(17);
	put16(&out, 0);
	put_addr(&out, server);
	put_addr(&out, dst);
	const uint16_t sum = frame::fold(frame::sum16(out.data() + ip, kIp));
	out[ip + 10] = static_cast<uint8_t>(sum >> 8);
	out[ip + 11] = static_cast<uint8_t>(sum);
	put16(&out, kServerPort);
	put16(&out, kClientPort);
	put16(&out, static_cast<uint16_t>(kUdp + b.size()));
	put16(&out, 0);  // no UDP checksum: allowed over IPv4
	out.insert(out.end(), b.begin(), b.end());
	return out;
}

std::optional<ArpRequest> parse_arp_request(const uint8_t *f, size_t len)
{
	// Ethernet/IPv4, request.
	static constexpr uint8_t kHead[8] = {0, 1, 8, 0, 6, 4, 0, 1};
	if (f == nullptr || len < kEth + 28 || get16(f + 12) != 0x0806 || std::memcmp(f + kEth, kHead, 8) != 0)
		return std::nullopt;
	ArpRequest r;
	std::memcpy(r.sha.data(), f + kEth + 8, 6);
	std::memcpy(&r.spa.s_addr, f + kEth + 14, 4);
	std::memcpy(&r.tpa.s_addr, f + kEth + 24, 4);
	if (std::memcmp(r.sha.data(), f + 6, 6) != 0)
		return std::nullopt;
	return r;
}

std::vector<uint8_t> arp_reply(const ArpRequest &req, const Mac &mac, struct in_addr ip)
{
	std::vector<uint8_t> out;
	ethernet(&out, req.sha, mac, 0x0806);
	for (uint8_t byte : {0, 1, 8, 0, 6, 4, 0, 2})
		out.push_back(byte);
	put_mac(&out, mac);
	put_addr(&out, ip);
	put_mac(&out, req.sha);
	put_addr(&out, req.spa);
	out.resize(60, 0);  // the shortest Ethernet frame
	return out;
}

}  // namespace kel::dhcp4

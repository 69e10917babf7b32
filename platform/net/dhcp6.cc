#include "dhcp6.h"

#include <cstring>

namespace kel::dhcp6 {
namespace {

using frame::get16;
using frame::get32;
using frame::put16;
using frame::put32;

constexpr size_t kEth = 14;
constexpr size_t kIp6 = 40;
constexpr size_t kUdp = 8;
constexpr uint8_t kUdpProto = 17, kIcmp6Proto = 58;
constexpr uint16_t kServerPort = 547, kClientPort = 546;
constexpr uint8_t kAllServers[16] = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2};
constexpr uint8_t kAllNodes[16] = {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
// Longest DUID (RFC 8415: 128 bytes of identifier behind its 2-byte type).
constexpr size_t kMaxDuid = 130;

enum : uint16_t {
	kOptClientId = 1,
	kOptServerId = 2,
	kOptIaNa = 3,
	kOptIaAddr = 5,
	kOptPreference = 7,
	kOptStatus = 13,
	kOptRapidCommit = 14,
	kOptDns = 23,
};
enum : uint16_t { kSuccess = 0, kNoAddrsAvail = 2, kNotOnLink = 4 };

// The IPv6 header of an untagged frame carrying `proto` directly (no extension header),
// with its payload inside the frame; nullptr otherwise. `payload` gets the payload length.
const uint8_t *ipv6(const uint8_t *f, size_t len, uint8_t proto, size_t *payload)
{
	if (f == nullptr || len < kEth + kIp6 || get16(f + 12) != 0x86dd)
		return nullptr;
	const uint8_t *ip = f + kEth;
	*payload = get16(ip + 4);
	if ((ip[0] >> 4) != 6 || ip[6] != proto || *payload > len - kEth - kIp6)
		return nullptr;
	return ip;
}

bool link_local_or_unspecified(const uint8_t *a, bool unspecified_ok)
{
	static constexpr uint8_t kZero[16] = {};
	return (a[0] == 0xfe && (a[1] & 0xc0) == 0x80) || (unspecified_ok && std::memcmp(a, kZero, 16) == 0);
}

// The frame from `mac`'s link-local address to `dst` (IPv6) at `to` (Ethernet), with the
// upper-layer checksum, at `sum_at` in `payload`, filled in.
std::vector<uint8_t> ipv6_frame(const Mac &to, const Mac &mac, const uint8_t *dst, uint8_t proto, uint8_t hops,
    std::vector<uint8_t> payload, size_t sum_at)
{
	const struct in6_addr src = link_local(mac);
	std::vector<uint8_t> pseudo;
	frame::put_bytes(&pseudo, &src, 16);
	frame::put_bytes(&pseudo, dst, 16);
	put32(&pseudo, static_cast<uint32_t>(payload.size()));
	put32(&pseudo, proto);
	const uint16_t sum = frame::fold(
	    frame::sum16(payload.data(), payload.size(), frame::sum16(pseudo.data(), pseudo.size())));
	payload[sum_at] = static_cast<uint8_t>(sum >> 8);
	payload[sum_at + 1] = static_cast<uint8_t>(sum);

	std::vector<uint8_t> out;
	out.reserve(kEth + kIp6 + payload.size());
	frame::ethernet(&out, to, mac, 0x86dd);
	put32(&out, 0x60000000);
	put16(&out, static_cast<uint16_t>(payload.size()));
	out.push_back(proto);
	out.push_back(hops);
	frame::put_bytes(&out, &src, 16);
	frame::put_bytes(&out, dst, 16);
	out.insert(out.end(), payload.begin(), payload.end());
	return out;
}

void option(std::vector<uint8_t> *out, uint16_t code, const std::vector<uint8_t> &value)
{
	put16(out, code);
	put16(out, static_cast<uint16_t>(value.size()));
	out->insert(out->end(), value.begin(), value.end());
}

std::vector<uint8_t> status(uint16_t code)
{
	std::vector<uint8_t> v;
	put16(&v, code);
	return v;
}

std::vector<uint8_t> ia_addr(const struct in6_addr &a, uint32_t lifetime)
{
	std::vector<uint8_t> v;
	frame::put_bytes(&v, &a, 16);
	put32(&v, lifetime);  // preferred
	put32(&v, lifetime);  // valid
	return v;
}

bool same(const struct in6_addr &a, const struct in6_addr &b)
{
	return std::memcmp(&a, &b, 16) == 0;
}

// The IA_NA options of an answer: the port's one address in the first association (with
// any other address the guest asked for there, at lifetime 0 so that it lets go of it), and
// none available in the others.
void bindings(std::vector<uint8_t> *out, const Request &req, const Lease &lease)
{
	for (size_t i = 0; i < req.ias.size(); i++) {
		const Request::Ia &ia = req.ias[i];
		std::vector<uint8_t> v;
		put32(&v, ia.iaid);
		if (i == 0) {
			put32(&v, lease.lifetime / 2);      // T1: renew
			put32(&v, lease.lifetime / 5 * 4);  // T2: rebind
			option(&v, kOptIaAddr, ia_addr(lease.addr, lease.lifetime));
			for (const struct in6_addr &asked : ia.asked)
				if (!same(asked, lease.addr))
					option(&v, kOptIaAddr, ia_addr(asked, 0));
		} else {
			put32(&v, 0);
			put32(&v, 0);
			option(&v, kOptStatus, status(kNoAddrsAvail));
		}
		option(out, kOptIaNa, v);
	}
}

}  // namespace

struct in6_addr link_local(const Mac &mac)
{
	struct in6_addr a {};
	a.s6_addr[0] = 0xfe;
	a.s6_addr[1] = 0x80;
	a.s6_addr[8] = static_cast<uint8_t>(mac[0] ^ 0x02);
	a.s6_addr[9] = mac[1];
	a.s6_addr[10] = mac[2];
	a.s6_addr[11] = 0xff;
	a.s6_addr[12] = 0xfe;
	a.s6_addr[13] = mac[3];
	a.s6_addr[14] = mac[4];
	a.s6_addr[15] = mac[5];
	return a;
}

std::optional<Request> parse_request(const uint8_t *f, size_t len)
{
	size_t payload = 0;
	const uint8_t *ip = ipv6(f, len, kUdpProto, &payload);
	if (ip == nullptr || payload < kUdp + 4 || std::memcmp(ip + 24, kAllServers, 16) != 0 ||
	    !link_local_or_unspecified(ip + 8, false))
		return std::nullopt;
	const uint8_t *udp = ip + kIp6;
	const size_t udplen = get16(udp + 4);
	if (get16(udp + 2) != kServerPort || udplen < kUdp + 4 || udplen > payload)
		return std::nullopt;
	const uint8_t *m = udp + kUdp;
	const size_t mlen = udplen - kUdp;
	Request r;
	std::memcpy(r.source.data(), f + 6, 6);
	std::memcpy(&r.from, ip + 8, 16);
	r.type = m[0];
	std::memcpy(r.xid.data(), m + 1, 3);
	switch (r.type) {
	case kSolicit:
	case kRequest:
	case kConfirm:
	case kRenew:
	case kRebind:
	case kRelease:
	case kDecline:
	case kInformationRequest: break;
	default: return std::nullopt;
	}
	for (size_t i = 4; i < mlen;) {
		if (i + 4 > mlen || i + 4 + get16(m + i + 2) > mlen)
			return std::nullopt;  // an option running past the end
		const uint16_t code = get16(m + i);
		const size_t olen = get16(m + i + 2);
		const uint8_t *v = m + i + 4;
		i += 4 + olen;
		if ((code == kOptClientId || code == kOptServerId) && (olen < 1 || olen > kMaxDuid))
			return std::nullopt;
		if (code == kOptClientId && r.client_id.empty())
			r.client_id.assign(v, v + olen);
		else if (code == kOptServerId && !r.server_id)
			r.server_id = std::vector<uint8_t>(v, v + olen);
		else if (code == kOptRapidCommit)
			r.rapid_commit = true;
		else if (code == kOptIaNa) {
			if (olen < 12)
				return std::nullopt;
			r.has_ia = true;
			if (r.ias.size() >= kMaxIas)
				continue;
			Request::Ia ia;
			ia.iaid = get32(v);
			for (size_t j = 12; j < olen;) {
				if (j + 4 > olen || j + 4 + get16(v + j + 2) > olen)
					return std::nullopt;
				const size_t sublen = get16(v + j + 2);
				if (get16(v + j) == kOptIaAddr && sublen >= 24 && ia.asked.size() < kMaxAddrsPerIa) {
					struct in6_addr a;
					std::memcpy(&a, v + j + 4, 16);
					ia.asked.push_back(a);
				}
				j += 4 + sublen;
			}
			r.ias.push_back(ia);
		}
	}
	return r;
}

std::optional<std::vector<uint8_t>> answer_frame(const Request &req, const Lease &lease, const Mac &mac)
{
	const std::vector<uint8_t> duid = {0, 3, 0, 1, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]};
	// Who a message is for: these name their server, the others must not.
	const bool names_server = req.type == kRequest || req.type == kRenew || req.type == kRelease ||
	    req.type == kDecline;
	if (names_server ? req.server_id != duid
	                 : (req.server_id && (req.type != kInformationRequest || *req.server_id != duid)))
		return std::nullopt;
	if (req.client_id.empty() && req.type != kInformationRequest)
		return std::nullopt;

	std::vector<uint8_t> m;
	const bool advertise = req.type == kSolicit && !req.rapid_commit;
	m.push_back(advertise ? kAdvertise : kReply);
	m.insert(m.end(), req.xid.begin(), req.xid.end());
	if (!req.client_id.empty())
		option(&m, kOptClientId, req.client_id);
	option(&m, kOptServerId, duid);
	switch (req.type) {
	case kSolicit:
		if (req.rapid_commit)
			option(&m, kOptRapidCommit, {});
		else
			option(&m, kOptPreference, {255});  // the only server for this port: take it at once
		if (!req.has_ia)
			option(&m, kOptStatus, status(kNoAddrsAvail));
		bindings(&m, req, lease);
		break;
	case kRequest:
	case kRenew:
	case kRebind: bindings(&m, req, lease); break;
	case kConfirm: {
		// Whether the guest's addresses still fit where it is: only the port's does.
		bool any = false, fits = true;
		for (const Request::Ia &ia : req.ias)
			for (const struct in6_addr &a : ia.asked) {
				any = true;
				fits = fits && same(a, lease.addr);
			}
		if (!any)
			return std::nullopt;
		option(&m, kOptStatus, status(fits ? kSuccess : kNotOnLink));
		break;
	}
	case kRelease:
	case kDecline:
		// The address stays the port's whatever the guest says of it.
		option(&m, kOptStatus, status(kSuccess));
		break;
	default: break;
	}
	if (!lease.dns.empty() && req.type != kRelease && req.type != kDecline) {
		std::vector<uint8_t> v;
		for (const struct in6_addr &d : lease.dns)
			frame::put_bytes(&v, &d, 16);
		option(&m, kOptDns, v);
	}

	std::vector<uint8_t> udp;
	put16(&udp, kServerPort);
	put16(&udp, kClientPort);
	put16(&udp, static_cast<uint16_t>(kUdp + m.size()));
	put16(&udp, 0);
	udp.insert(udp.end(), m.begin(), m.end());
	return ipv6_frame(req.source, mac, req.from.s6_addr, kUdpProto, 64, std::move(udp), 6);
}

std::optional<Mac> parse_router_solicit(const uint8_t *f, size_t len)
{
	size_t payload = 0;
	const uint8_t *ip = ipv6(f, len, kIcmp6Proto, &payload);
	if (ip == nullptr || payload < 8 || ip[7] != 255 || !link_local_or_unspecified(ip + 8, true) ||
	    ip[kIp6] != 133 || ip[kIp6 + 1] != 0)
		return std::nullopt;
	Mac source;
	std::memcpy(source.data(), f + 6, 6);
	return source;
}

std::vector<uint8_t> router_advert(const Mac &to, const Mac &mac, const Advert &a)
{
	std::vector<uint8_t> icmp = {134, 0, 0, 0, 64, static_cast<uint8_t>(0x80 | (a.other ? 0x40 : 0))};
	put16(&icmp, 0);    // router lifetime: no default router
	put32(&icmp, 0);    // reachable time: unspecified
	put32(&icmp, 0);    // retransmission timer: unspecified
	icmp.push_back(1);  // source link-layer address
	icmp.push_back(1);
	frame::put_mac(&icmp, mac);
	if (a.mtu != 0) {
		icmp.insert(icmp.end(), {5, 1, 0, 0});
		put32(&icmp, a.mtu);
	}
	const int plen = a.plen < 0 ? 0 : a.plen > 128 ? 128 : a.plen;
	struct in6_addr prefix {};
	for (int bit = 0; bit < plen; bit++)
		prefix.s6_addr[bit / 8] |= a.prefix.s6_addr[bit / 8] & (0x80 >> (bit % 8));
	icmp.insert(icmp.end(), {3, 4, static_cast<uint8_t>(plen), 0x80});  // on the link; not for autoconfiguration
	put32(&icmp, a.lifetime);                                           // valid
	put32(&icmp, a.lifetime);                                           // preferred
	put32(&icmp, 0);
	frame::put_bytes(&icmp, &prefix, 16);
	return ipv6_frame(to, mac, kAllNodes, kIcmp6Proto, 255, std::move(icmp), 2);
}

}  // namespace kel::dhcp6

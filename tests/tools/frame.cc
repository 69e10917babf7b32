// Sends hand-made frames out of a link, as a hostile guest would: for the scenarios that
// check what a port's filters let through.
// Usage: frame IFNAME KIND [NAME=VALUE...]
//   KIND  udp4, udp6 (a datagram), arp, ns, na (neighbour solicitation, advertisement),
//         ra (router advertisement), redirect4, redirect6 (a redirect to the first hop
//         gw (redirect4) or target (redirect6), both the sender by default, for `for`)
//   src, dst         the Ethernet addresses (src: the link's own; dst: broadcast)
//   vlan=ID          an 802.1Q tag (0: a priority tag); qinq=ID an 802.1ad tag before it
//   sip, dip, sport, dport   the datagram's addresses and ports (ports 9999)
//   op=request|reply, sha, spa, tha, tpa   ARP's fields (sha: src; tha: 0; op: request)
//   target, lladdr   the ND target, and a source (ns) or target (na) link-layer option
//   nonce=yes        a DAD nonce option on ns; count=N  N copies (1)
//   KIND dhcp: a DHCP DISCOVER (type=request: a REQUEST, with requested=IP) from
//   0.0.0.0:68 to 255.255.255.255:67 for chaddr (the link's own address)
//   listen=SECONDS   then wait that long for a DHCP answer to this link: print
//                    "answered TYPE ADDRESS" (exit 0) or "unanswered" (exit 1)
// Exit 0 when every frame was sent.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

[[noreturn]] void die(const std::string &why)
{
	std::fprintf(stderr, "frame: %s\n", why.c_str());
	std::exit(2);
}

Bytes mac(const std::string &text)
{
	unsigned b[6];
	if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6)
		die("not a MAC address: " + text);
	return Bytes(b, b + 6);
}

Bytes ip(int family, const std::string &text)
{
	Bytes out(family == AF_INET ? 4 : 16);
	if (inet_pton(family, text.c_str(), out.data()) != 1)
		die("not an address: " + text);
	return out;
}

void put16(Bytes &b, unsigned v)
{
	b.push_back(static_cast<uint8_t>(v >> 8));
	b.push_back(static_cast<uint8_t>(v));
}

void append(Bytes &b, const Bytes &more)
{
	b.insert(b.end(), more.begin(), more.end());
}

uint16_t checksum(const Bytes &data, uint32_t sum = 0)
{
	for (size_t i = 0; i + 1 < data.size(); i += 2)
		sum += data[i] << 8 | data[i + 1];
	if (data.size() % 2)
		sum += data.back() << 8;
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<uint16_t>(~sum);
}

Bytes ipv4(const Bytes &src, const Bytes &dst, uint8_t proto, const Bytes &payload)
{
	Bytes h = {0x45, 0};
	put16(h, 20 + payload.size());
	h.insert(h.end(), {0, 1, 0, 0, 64, proto, 0, 0});
	append(h, src);
	append(h, dst);
	const uint16_t sum = checksum(h);
	h[10] = static_cast<uint8_t>(sum >> 8);
	h[11] = static_cast<uint8_t>(sum);
	append(h, payload);
	return h;
}

// An IPv6 packet whose payload's checksum sits at `sum_at` (over the pseudo-header).
Bytes ipv6(const Bytes &src, const Bytes &dst, uint8_t next, Bytes payload, size_t sum_at, uint8_t hops)
{
	Bytes pseudo = src;
	append(pseudo, dst);
	pseudo.insert(pseudo.end(), {0, 0});
	put16(pseudo, payload.size());
	pseudo.insert(pseudo.end(), {0, 0, 0, next});
	append(pseudo, payload);
	const uint16_t sum = checksum(pseudo);
	payload[sum_at] = static_cast<uint8_t>(sum >> 8);
	payload[sum_at + 1] = static_cast<uint8_t>(sum);
	Bytes h = {0x60, 0, 0, 0};
	put16(h, payload.size());
	h.push_back(next);
	h.push_back(hops);
	append(h, src);
	append(h, dst);
	append(h, payload);
	return h;
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc < 3)
		die("usage: frame IFNAME KIND [NAME=VALUE...]");
	const std::string ifname = argv[1], kind = argv[2];
	std::map<std::string, std::string> a;
	for (int i = 3; i < argc; i++) {
		const char *eq = std::strchr(argv[i], '=');
		if (eq == nullptr)
			die(std::string("not NAME=VALUE: ") + argv[i]);
		a[std::string(argv[i], static_cast<size_t>(eq - argv[i]))] = eq + 1;
	}
	const auto get = [&](const char *name, const std::string &fallback) {
		return a.count(name) ? a[name] : fallback;
	};

	const int fd = socket(AF_PACKET, SOCK_RAW, 0);
	struct ifreq req {};
	std::snprintf(req.ifr_name, sizeof(req.ifr_name), "%s", ifname.c_str());
	if (fd == -1 || ioctl(fd, SIOCGIFHWADDR, &req) != 0)
		die("no link " + ifname);
	const Bytes own(req.ifr_hwaddr.sa_data, req.ifr_hwaddr.sa_data + 6);
	char own_text[18];
	std::snprintf(own_text, sizeof(own_text), "%02x:%02x:%02x:%02x:%02x:%02x", own[0], own[1], own[2], own[3],
	    own[4], own[5]);

	unsigned type = 0;
	Bytes payload;
	const unsigned sport = std::atoi(get("sport", "9999").c_str()), dport = std::atoi(get("dport", "9999").c_str());
	if (kind == "udp4") {
		Bytes udp;
		put16(udp, sport);
		put16(udp, dport);
		put16(udp, 8 + 4);
		put16(udp, 0);  // no checksum, which IPv4 allows
		udp.insert(udp.end(), {'k', 'e', 'l', '!'});
		payload = ipv4(ip(AF_INET, get("sip", "0.0.0.0")), ip(AF_INET, get("dip", "255.255.255.255")), 17, udp);
		type = 0x0800;
	} else if (kind == "dhcp") {
		Bytes bootp(240, 0);
		bootp[0] = 1;
		bootp[1] = 1;
		bootp[2] = 6;
		bootp[4] = 0x6b;   // xid
		bootp[10] = 0x80;  // broadcast flag
		const Bytes ch = mac(get("chaddr", own_text));
		std::copy(ch.begin(), ch.end(), bootp.begin() + 28);
		bootp.insert(bootp.begin() + 236, {99, 130, 83, 99});
		bootp.resize(240);
		bootp.insert(bootp.end(), {53, 1, static_cast<uint8_t>(get("type", "discover") == "request" ? 3 : 1)});
		if (a.count("requested")) {
			bootp.insert(bootp.end(), {50, 4});
			append(bootp, ip(AF_INET, a["requested"]));
		}
		bootp.push_back(255);
		Bytes udp;
		put16(udp, 68);
		put16(udp, 67);
		put16(udp, 8 + bootp.size());
		put16(udp, 0);
		append(udp, bootp);
		payload = ipv4(ip(AF_INET, "0.0.0.0"), ip(AF_INET, "255.255.255.255"), 17, udp);
		type = 0x0800;
	} else if (kind == "redirect4") {
		// ICMP redirect (host) to gateway `gw`, quoting a datagram of the receiver's to `for`.
		const Bytes quoted = ipv4(ip(AF_INET, get("dip", "0.0.0.0")), ip(AF_INET, get("for", "192.0.2.1")), 17,
		    Bytes(8, 0));
		Bytes icmp = {5, 1, 0, 0};
		append(icmp, ip(AF_INET, get("gw", get("sip", "0.0.0.0"))));
		icmp.insert(icmp.end(), quoted.begin(), quoted.begin() + 28);
		const uint16_t sum = checksum(icmp);
		icmp[2] = static_cast<uint8_t>(sum >> 8);
		icmp[3] = static_cast<uint8_t>(sum);
		payload = ipv4(ip(AF_INET, get("sip", "0.0.0.0")), ip(AF_INET, get("dip", "255.255.255.255")), 1, icmp);
		type = 0x0800;
	} else if (kind == "arp") {
		payload = {0, 1, 8, 0, 6, 4, 0, static_cast<uint8_t>(get("op", "request") == "reply" ? 2 : 1)};
		append(payload, mac(get("sha", get("src", own_text))));
		append(payload, ip(AF_INET, get("spa", "0.0.0.0")));
		append(payload, mac(get("tha", "00:00:00:00:00:00")));
		append(payload, ip(AF_INET, get("tpa", "0.0.0.0")));
		type = 0x0806;
	} else {
		const Bytes src = ip(AF_INET6, get("sip", "::")), dst = ip(AF_INET6, get("dip", "ff02::1"));
		Bytes l4;
		uint8_t next = 58, hops = 255;
		size_t sum_at = 2;
		if (kind == "udp6") {
			put16(l4, sport);
			put16(l4, dport);
			put16(l4, 8 + 4);
			put16(l4, 0);
			l4.insert(l4.end(), {'k', 'e', 'l', '!'});
			next = 17;
			hops = 64;
			sum_at = 6;
		} else if (kind == "ns" || kind == "na") {
			l4 = {static_cast<uint8_t>(kind == "ns" ? 135 : 136), 0, 0, 0,
			    static_cast<uint8_t>(kind == "na" ? 0x20 : 0), 0, 0, 0};  // na: override
			append(l4, ip(AF_INET6, get("target", "::")));
			if (a.count("lladdr")) {
				l4.insert(l4.end(), {static_cast<uint8_t>(kind == "ns" ? 1 : 2), 1});
				append(l4, mac(a["lladdr"]));
			}
			if (get("nonce", "no") == "yes")
				l4.insert(l4.end(), {14, 1, 1, 2, 3, 4, 5, 6});
		} else if (kind == "ra") {
			l4 = {134, 0, 0, 0, 64, 0, 0x07, 0x08, 0, 0, 0, 0, 0, 0, 0, 0};  // lifetime 1800 s
		} else if (kind == "redirect6") {
			// A better first hop `target` for `for`.
			l4 = {137, 0, 0, 0, 0, 0, 0, 0};
			append(l4, ip(AF_INET6, get("target", get("sip", "::"))));
			append(l4, ip(AF_INET6, get("for", "2001:db8::1")));
		} else {
			die("unknown kind " + kind);
		}
		payload = ipv6(src, dst, next, l4, sum_at, hops);
		type = 0x86dd;
	}

	Bytes frame = mac(get("dst", "ff:ff:ff:ff:ff:ff"));
	append(frame, mac(get("src", own_text)));
	if (a.count("qinq")) {
		put16(frame, 0x88a8);
		put16(frame, std::atoi(a["qinq"].c_str()) & 0xfff);
		put16(frame, 0x8100);
		put16(frame, std::atoi(get("vlan", "0").c_str()) & 0xfff);
	} else if (a.count("vlan")) {
		put16(frame, 0x8100);
		put16(frame, std::atoi(a["vlan"].c_str()) & 0xfff);
	}
	put16(frame, type);
	append(frame, payload);
	while (frame.size() < 60)
		frame.push_back(0);

	struct sockaddr_ll to {};
	to.sll_family = AF_PACKET;
	to.sll_ifindex = static_cast<int>(if_nametoindex(ifname.c_str()));
	// Listening from before the frame goes, so that no answer is missed.
	const int listen_s = std::atoi(get("listen", "0").c_str());
	int in = -1;
	if (listen_s > 0) {
		in = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));  // from the IPv4 header on
		struct sockaddr_ll at = to;
		at.sll_protocol = htons(ETH_P_IP);
		struct timeval tv = {listen_s, 0};
		if (in == -1 || bind(in, reinterpret_cast<struct sockaddr *>(&at), sizeof(at)) != 0 ||
		    setsockopt(in, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0)
			die("cannot listen on " + ifname);
	}
	to.sll_halen = ETH_ALEN;
	std::memcpy(to.sll_addr, frame.data(), ETH_ALEN);
	const int count = std::atoi(get("count", "1").c_str());
	for (int i = 0; i < count; i++) {
		if (sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) !=
		    static_cast<ssize_t>(frame.size()))
			return 1;  // a filter on the way may refuse it
		usleep(20000);
	}
	close(fd);
	if (in == -1)
		return 0;
	// The first IPv4 UDP datagram from port 67 to port 68 that comes in.
	uint8_t got[2048];
	for (;;) {
		struct sockaddr_ll from {};
		socklen_t len = sizeof(from);
		const ssize_t n = recvfrom(in, got, sizeof(got), 0, reinterpret_cast<struct sockaddr *>(&from), &len);
		if (n < 0) {
			std::printf("unanswered\n");
			return 1;
		}
		if (from.sll_pkttype == PACKET_OUTGOING || n < 20 + 8 + 240 || got[9] != 17)
			continue;
		const size_t ihl = (got[0] & 0x0f) * 4;
		if (static_cast<size_t>(n) < ihl + 8 + 240 || (got[ihl] << 8 | got[ihl + 1]) != 67 ||
		    (got[ihl + 2] << 8 | got[ihl + 3]) != 68)
			continue;
		const uint8_t *b = got + ihl + 8;
		unsigned msg = 0;
		for (size_t i = 240; i + 2 < static_cast<size_t>(n) - ihl - 8 && b[i] != 255;
		     i += b[i] == 0 ? 1 : 2 + b[i + 1])
			if (b[i] == 53)
				msg = b[i + 2];
		char yiaddr[INET_ADDRSTRLEN];
		inet_ntop(AF_INET, b + 16, yiaddr, sizeof(yiaddr));
		std::printf("answered %s %s\n",
		    msg == 2       ? "offer"
		        : msg == 5 ? "ack"
		        : msg == 6 ? "nak"
		                   : "other",
		    yiaddr);
		return 0;
	}
}

#include "dhcp_responder.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dhcp4.h"
#include "dhcp6.h"
#include "fabric_links.h"
#include "log.h"
#include "metrics.h"
#include "unique_fd.h"

namespace keld {
namespace {

using kel::dhcp4::Mac;
using Clock = std::chrono::steady_clock;

// How long a lease runs: renewed at half of it, so a guest that moved to another host
// asks that host's responder again within this.
constexpr uint32_t kLeaseSeconds = 3600;
// Answers per guest and second, and per responder link and second, beyond which requests
// are ignored: a guest flooding requests neither starves its neighbours' nor keld's other
// work (the responder shares keld with everything else).
constexpr int kAnswersPerGuest = 10;
constexpr int kAnswersPerSecond = 100;

// How many answers went out in the current second.
struct Budget {
	Clock::time_point second{};
	int used = 0;

	bool spend(Clock::time_point now, int limit)
	{
		if (now - second >= std::chrono::seconds(1)) {
			second = now;
			used = 0;
		}
		return used < limit && ++used > 0;
	}
};

// Only ARP, IPv4 UDP to port 67 that is not a fragment, IPv6 UDP to port 547 and ICMPv6
// router solicitations (both without extension headers) reach the socket.
const struct sock_filter kFilter[] = {
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_ARP, 16, 0),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 7),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 14),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 20),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, 12, 0),
    BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 14),
    BPF_STMT(BPF_LD | BPF_H | BPF_IND, 16),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 67, 8, 9),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 0, 8),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 20),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 2),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 56),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 547, 3, 4),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 58, 0, 3),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 54),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 133, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
};

// The multicast groups IPv6 guests send to: all DHCP servers, all routers. The responder
// link takes part in no IPv6 of the host's, so it joins them itself.
const Mac kIpv6Groups[] = {{0x33, 0x33, 0, 1, 0, 2}, {0x33, 0x33, 0, 0, 0, 2}};

// How often each IPv6 guest hears the responder's advertisement unasked (and at once when
// first bound here), well within the prefix lifetime it gives.
constexpr auto kAdvertInterval = std::chrono::seconds(600);

// One responder link: its socket, and what it answers from.
struct Endpoint {
	std::string kel;
	keld::metrics::Labels labels;  // its kel's, on the metrics of its answers
	int ifindex = 0;
	kel::UniqueFd fd;
	Mac mac{};
	int family = AF_INET;  // of the kel's ipnet
	struct in_addr addr {};
	struct in6_addr prefix {};
	int plen = 0;
	uint16_t mtu = 0;
	Budget all;
	struct Guest {
		Budget budget;
		std::optional<Clock::time_point> advertised;
	};
	std::map<Mac, Guest> guests;  // of the guests bound here: bounded by the records
};

// A packet socket on `ifindex` that reads only what kFilter lets through and writes
// around the link's own queueing and filters (the link's protection is a guest's, and the
// responder's answers are no guest's).
int open_socket(int ifindex, bool ipv6)
{
	kel::UniqueFd fd(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
	if (!fd.valid())
		return -1;
	struct sock_fprog prog = {static_cast<unsigned short>(sizeof(kFilter) / sizeof(kFilter[0])),
	    const_cast<struct sock_filter *>(kFilter)};
	const int one = 1;
	struct sockaddr_ll at {};
	at.sll_family = AF_PACKET;
	at.sll_protocol = htons(ETH_P_ALL);
	at.sll_ifindex = ifindex;
	// Filtered before bound, so that nothing of another link is ever queued.
	if (setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof(prog)) != 0 ||
	    setsockopt(fd.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof(one)) != 0 ||
	    bind(fd.get(), reinterpret_cast<struct sockaddr *>(&at), sizeof(at)) != 0)
		return -1;
	for (const Mac &group : kIpv6Groups) {
		struct packet_mreq mr {};
		mr.mr_ifindex = ifindex;
		mr.mr_type = PACKET_MR_MULTICAST;
		mr.mr_alen = 6;
		std::memcpy(mr.mr_address, group.data(), 6);
		if (ipv6 && setsockopt(fd.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mr, sizeof(mr)) != 0)
			return -1;
	}
	return fd.release();
}

uint16_t link_mtu(int fd, const std::string &name)
{
	struct ifreq ifr {};
	std::snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", name.c_str());
	return ioctl(fd, SIOCGIFMTU, &ifr) == 0 && ifr.ifr_mtu > 0 && ifr.ifr_mtu <= 65535
	    ? static_cast<uint16_t>(ifr.ifr_mtu)
	    : 0;
}

class Responder {
public:
	// The responder links and guests recorded now: links opened and closed to match.
	void rescan()
	{
		std::map<std::string, std::map<Mac, wexo::fabric::Lease>> guests;
		std::map<std::string, wexo::fabric::Vnic> links;
		for (wexo::fabric::Vnic &v : wexo::fabric::vnics()) {
			if (!v.lease)
				continue;
			if (!v.lease->endpoint)
				guests[v.lease->kel][v.mac] = *v.lease;
			else if (v.name.find('/') == std::string::npos)
				links.emplace(v.name, v);
		}
		guests_ = std::move(guests);
		for (auto &entry : endpoints_) {
			Endpoint &e = *entry.second;
			std::erase_if(e.guests, [&](const auto &budget) { return guest(e, budget.first) == nullptr; });
		}
		for (auto it = endpoints_.begin(); it != endpoints_.end();) {
			const auto link = links.find(it->first);
			const int ifindex = static_cast<int>(if_nametoindex(it->first.c_str()));
			if (link == links.end() || ifindex != it->second->ifindex)
				it = endpoints_.erase(it);  // gone, or made again since
			else
				++it;
		}
		for (const auto &[name, v] : links) {
			if (endpoints_.count(name) != 0)
				continue;
			auto e = std::make_unique<Endpoint>();
			e->kel = v.lease->kel;
			// A responder bound by an older release has no names recorded: its kel's UUID.
			e->labels = {{"family", v.lease->family == AF_INET6 ? "ipv6" : "ipv4"},
			    {"kel", v.names.kel.empty() ? v.lease->kel : v.names.kel}, {"tenant", v.names.tenant}};
			e->mac = v.mac;
			e->family = v.lease->family;
			e->addr = v.lease->addr;
			e->prefix = v.lease->addr6;
			e->plen = v.lease->plen;
			e->ifindex = static_cast<int>(if_nametoindex(name.c_str()));
			if (e->ifindex == 0)
				continue;  // not made yet: next time
			e->fd.reset(open_socket(e->ifindex, e->family == AF_INET6));
			if (!e->fd.valid())
				continue;  // made by a process still at work: next time
			e->mtu = link_mtu(e->fd.get(), name);
			endpoints_.emplace(name, std::move(e));
		}
		advertise();
	}

	std::vector<struct pollfd> fds() const
	{
		std::vector<struct pollfd> out;
		for (const auto &[name, e] : endpoints_)
			out.push_back({e->fd.get(), POLLIN, 0});
		return out;
	}

	// Reads what is waiting on the socket `fd` (a bounded number of frames) and answers.
	void serve(int fd)
	{
		Endpoint *e = nullptr;
		for (auto &[name, ep] : endpoints_)
			if (ep->fd.get() == fd)
				e = ep.get();
		if (e == nullptr)
			return;
		uint8_t frame[2048];
		for (int i = 0; i < 64; i++) {
			struct sockaddr_ll from {};
			socklen_t fromlen = sizeof(from);
			const ssize_t n = recvfrom(fd, frame, sizeof(frame), 0,
			    reinterpret_cast<struct sockaddr *>(&from), &fromlen);
			if (n <= 0)
				return;
			if (from.sll_pkttype == PACKET_OUTGOING)
				continue;  // its own answers
			answer(e, frame, static_cast<size_t>(n));
		}
	}

private:
	const wexo::fabric::Lease *guest(const Endpoint &e, const Mac &mac) const
	{
		const auto kel = guests_.find(e.kel);
		if (kel == guests_.end())
			return nullptr;
		const auto it = kel->second.find(mac);
		return it == kel->second.end() ? nullptr : &it->second;
	}

	bool within_rate(Endpoint *e, const Mac &guest)
	{
		const Clock::time_point now = Clock::now();
		if (!e->guests[guest].budget.spend(now, kAnswersPerGuest) || !e->all.spend(now, kAnswersPerSecond)) {
			nuq::log::write_limited(limiter_, nuq::log::kWarning,
			    "address responder: more requests than it answers, some ignored");
			return false;
		}
		return true;
	}

	void send(const Endpoint &e, const std::vector<uint8_t> &frame)
	{
		(void)::send(e.fd.get(), frame.data(), frame.size(), MSG_DONTWAIT);
	}

	// A DHCP answer sent, under the rate limits, and counted: as a refusal for `refusal`
	// when it is one (a negative acknowledgement).
	void reply(Endpoint *e, const Mac &guest, const std::vector<uint8_t> &frame, const char *refusal = nullptr)
	{
		if (!within_rate(e, guest)) {
			refused(*e, "over_rate");
			return;
		}
		send(*e, frame);
		if (refusal != nullptr)
			refused(*e, refusal);
		else
			keld::metrics::registry().count("kel_dhcp_replies_total", e->labels);
	}

	// A DHCP request of a guest on the kel's link left unanswered or refused, and why:
	// "unknown_client" (no port bound here has its address), "forged_source" (the frame
	// comes from another address than the one it asks for), "wrong_address" (it asks for
	// an address that is not its port's), "over_rate".
	static void refused(const Endpoint &e, const char *reason)
	{
		keld::metrics::Labels labels = e.labels;
		labels.emplace_back("reason", reason);
		keld::metrics::registry().count("kel_dhcp_refused_total", labels);
	}

	// Each IPv6 guest bound here hears the advertisement when it comes and now and then
	// after, unasked: a guest whose solicitations went before its binding (or before it
	// moved here) learns the link all the same. Not counted against its budget: the
	// guest does not make these.
	void advertise()
	{
		const Clock::time_point now = Clock::now();
		for (auto &[name, e] : endpoints_) {
			if (e->family != AF_INET6)
				continue;
			const auto kel = guests_.find(e->kel);
			if (kel == guests_.end())
				continue;
			for (const auto &[mac, lease] : kel->second) {
				Endpoint::Guest &g = e->guests[mac];
				if (!g.advertised || now - *g.advertised >= kAdvertInterval) {
					send(*e, kel::dhcp6::router_advert(mac, e->mac, advert(*e, lease)));
					g.advertised = now;
				}
			}
		}
	}

	static kel::dhcp6::Advert advert(const Endpoint &e, const wexo::fabric::Lease &lease)
	{
		kel::dhcp6::Advert a;
		a.prefix = e.prefix;
		a.plen = e.plen;
		a.mtu = e.mtu;
		a.other = !lease.dns6.empty();
		a.lifetime = kLeaseSeconds;
		return a;
	}

	void answer(Endpoint *e, const uint8_t *frame, size_t len)
	{
		if (e->family == AF_INET6)
			answer6(e, frame, len);
		else
			answer4(e, frame, len);
	}

	void answer6(Endpoint *e, const uint8_t *frame, size_t len)
	{
		if (const auto asker = kel::dhcp6::parse_router_solicit(frame, len)) {
			const wexo::fabric::Lease *lease = guest(*e, *asker);
			if (lease != nullptr && within_rate(e, *asker))
				send(*e, kel::dhcp6::router_advert(*asker, e->mac, advert(*e, *lease)));
			return;
		}
		const auto req = kel::dhcp6::parse_request(frame, len);
		if (!req)
			return;
		const wexo::fabric::Lease *lease = guest(*e, req->source);
		if (lease == nullptr || lease->family != AF_INET6) {
			refused(*e, "unknown_client");
			return;
		}
		const kel::dhcp6::Lease l{lease->addr6, kLeaseSeconds, lease->dns6};
		if (const auto out = kel::dhcp6::answer_frame(*req, l, e->mac))
			reply(e, req->source, *out);
	}

	void answer4(Endpoint *e, const uint8_t *frame, size_t len)
	{
		using namespace kel::dhcp4;
		if (const auto arp = parse_arp_request(frame, len)) {
			// Only the kel's guests on this host learn where the responder is: a guest of
			// another host asks its own.
			if (arp->tpa.s_addr == e->addr.s_addr && guest(*e, arp->sha) != nullptr &&
			    within_rate(e, arp->sha))
				send(*e, arp_reply(*arp, e->mac, e->addr));
			return;
		}
		const auto req = parse_request(frame, len);
		if (!req)
			return;
		if (req->source != req->chaddr) {
			refused(*e, "forged_source");
			return;
		}
		const wexo::fabric::Lease *lease = guest(*e, req->chaddr);
		if (lease == nullptr || lease->family != AF_INET) {
			refused(*e, "unknown_client");
			return;
		}
		// A request that names another server's offer is that server's to answer.
		if (req->server && req->server->s_addr != e->addr.s_addr)
			return;
		Answer a;
		a.yiaddr = lease->addr;
		a.plen = lease->plen;
		a.router = lease->router;
		a.dns = lease->dns;
		a.mtu = e->mtu;
		switch (req->type) {
		case kDiscover:
			a.type = kOffer;
			a.lease = kLeaseSeconds;
			break;
		case kRequest: {
			const struct in_addr asked = req->requested ? *req->requested : req->ciaddr;
			a.type = asked.s_addr == lease->addr.s_addr ? kAck : kNak;
			a.lease = a.type == kAck ? kLeaseSeconds : 0;
			break;
		}
		case kInform:
			a.type = kAck;
			a.yiaddr.s_addr = INADDR_ANY;
			break;
		default: return;  // a release or decline changes nothing: the address is the port's
		}
		reply(e, req->chaddr, answer_frame(*req, a, e->mac, e->addr),
		    a.type == kNak ? "wrong_address" : nullptr);
	}

	std::map<std::string, std::unique_ptr<Endpoint>> endpoints_;
	std::map<std::string, std::map<Mac, wexo::fabric::Lease>> guests_;
	nuq::log::Limiter limiter_{1, std::chrono::seconds(60)};
};

}  // namespace

void DhcpResponder::start()
{
	thread_ = std::thread([this] { run(); });
}

void DhcpResponder::stop()
{
	stopping_ = true;
	if (thread_.joinable())
		thread_.join();
}

void DhcpResponder::run()
{
	Responder r;
	Clock::time_point scanned{};
	while (!stopping_) {
		// Bindings come and go with VNICs made by other processes: looked at again each
		// second, which is also how soon a new guest is answered at the latest.
		if (Clock::now() - scanned >= std::chrono::milliseconds(500)) {
			r.rescan();
			scanned = Clock::now();
		}
		std::vector<struct pollfd> fds = r.fds();
		if (fds.empty()) {
			usleep(200000);
			continue;
		}
		if (poll(fds.data(), fds.size(), 200) <= 0)
			continue;
		for (const struct pollfd &p : fds)
			if ((p.revents & POLLIN) != 0)
				r.serve(p.fd);
	}
}

}  // namespace keld

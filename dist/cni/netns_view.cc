#include "netns_view.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace kelcni {
namespace {

int prefix_length(const struct sockaddr *mask)
{
	const uint8_t *bytes = nullptr;
	size_t len = 0;
	if (mask == nullptr)
		return 0;
	if (mask->sa_family == AF_INET) {
		bytes = reinterpret_cast<const uint8_t *>(
		    &reinterpret_cast<const struct sockaddr_in *>(mask)->sin_addr);
		len = 4;
	} else if (mask->sa_family == AF_INET6) {
		bytes = reinterpret_cast<const struct sockaddr_in6 *>(mask)->sin6_addr.s6_addr;
		len = 16;
	}
	int bits = 0;
	for (size_t i = 0; i < len; i++)
		bits += __builtin_popcount(bytes[i]);
	return bits;
}

std::string address_text(const struct sockaddr *a)
{
	char buf[INET6_ADDRSTRLEN] = "";
	if (a->sa_family == AF_INET)
		inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in *>(a)->sin_addr, buf, sizeof(buf));
	else
		inet_ntop(AF_INET6, &reinterpret_cast<const struct sockaddr_in6 *>(a)->sin6_addr, buf, sizeof(buf));
	return buf;
}

void read_links(NetnsView *out)
{
	struct ifaddrs *list = nullptr;
	if (getifaddrs(&list) != 0)
		return;
	for (const struct ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
		if (i->ifa_addr == nullptr)
			continue;
		LinkView &link = out->links[i->ifa_name];
		if (i->ifa_addr->sa_family == AF_PACKET) {
			const auto *ll = reinterpret_cast<const struct sockaddr_ll *>(i->ifa_addr);
			char mac[18] = "";
			if (ll->sll_halen == 6)
				std::snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", ll->sll_addr[0],
				    ll->sll_addr[1], ll->sll_addr[2], ll->sll_addr[3], ll->sll_addr[4],
				    ll->sll_addr[5]);
			link.mac = mac;
		} else if (i->ifa_addr->sa_family == AF_INET || i->ifa_addr->sa_family == AF_INET6) {
			link.addresses.push_back(
			    address_text(i->ifa_addr) + "/" + std::to_string(prefix_length(i->ifa_netmask)));
		}
	}
	freeifaddrs(list);
}

// The default routes of the thread's namespace, from the kernel's route tables.
void read_defaults(NetnsView *out)
{
	std::ifstream v4("/proc/thread-self/net/route");
	std::string line;
	std::getline(v4, line);  // the header
	while (std::getline(v4, line)) {
		std::istringstream in(line);
		std::string ifname, dst, gw, flags, refcnt, use, metric, mask;
		if (!(in >> ifname >> dst >> gw >> flags >> refcnt >> use >> metric >> mask) || dst != "00000000" ||
		    mask != "00000000")
			continue;
		struct in_addr a;
		a.s_addr = static_cast<uint32_t>(std::stoul(gw, nullptr, 16));
		char buf[INET_ADDRSTRLEN];
		out->defaults.push_back({ifname, a.s_addr == 0 ? "" : inet_ntop(AF_INET, &a, buf, sizeof(buf))});
	}
	std::ifstream v6("/proc/thread-self/net/ipv6_route");
	while (std::getline(v6, line)) {
		std::istringstream in(line);
		std::string dst, plen, src, splen, gw, metric, refcnt, use, flags, ifname;
		if (!(in >> dst >> plen >> src >> splen >> gw >> metric >> refcnt >> use >> flags >> ifname) ||
		    dst != std::string(32, '0') || plen != "00" || ifname == "lo" || gw.size() != 32)
			continue;
		struct in6_addr a;
		for (int i = 0; i < 16; i++)
			a.s6_addr[i] = static_cast<uint8_t>(std::stoul(gw.substr(i * 2, 2), nullptr, 16));
		char buf[INET6_ADDRSTRLEN];
		out->defaults.push_back(
		    {ifname, IN6_IS_ADDR_UNSPECIFIED(&a) ? "" : inet_ntop(AF_INET6, &a, buf, sizeof(buf))});
	}
}

}  // namespace

NetnsView view_netns(const std::string &path)
{
	NetnsView view;
	// A thread of its own enters the namespace, so that the rest of the plugin stays in
	// the runtime's.
	std::thread reader([&] {
		const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
		if (fd == -1)
			return;
		const bool entered = setns(fd, CLONE_NEWNET) == 0;
		close(fd);
		if (!entered)
			return;
		view.opened = true;
		read_links(&view);
		read_defaults(&view);
	});
	reader.join();
	return view;
}

std::string canonical_mac(const std::string &text)
{
	unsigned b[6];
	char end;
	if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &end) != 6)
		return "";
	char out[18];
	std::snprintf(out, sizeof(out), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
	return out;
}

}  // namespace kelcni

// The host's address responder: on each kel with guests here, it answers those guests'
// DHCPv4 requests with their ports' addresses, from the kel's own responder link that the
// node side made (see kel_dhcp_endpoint), and the guests' ARP requests for its address.
// It answers from what the host recorded with each binding, so it keeps answering while
// the controller is away, and only for the ports bound on this host: a request for any
// other MAC address, or whose frame comes from another address than the one it asks for,
// gets nothing.
#pragma once

#include <atomic>
#include <thread>

namespace keld {

class DhcpResponder {
public:
	DhcpResponder() = default;
	~DhcpResponder() { stop(); }
	DhcpResponder(const DhcpResponder &) = delete;
	DhcpResponder &operator=(const DhcpResponder &) = delete;

	void start();
	void stop();

private:
	void run();

	std::atomic<bool> stopping_{false};
	std::thread thread_;
};

}  // namespace keld

// How port operations scale with the store: in a scratch store with one switch and one
// network, adds N ports, binds each to a VNIC, unbinds them all, and lists them. For
// each operation prints the mean cost of the first and of the last 100 calls, so a cost
// that grows with the store shows as end_us well above start_us.
// Usage: vport_bench [--ipv6] [N...] (default 1000 10000 100000); --ipv6 gives the switch an
// IPv6 network, whose addresses hold colons as MAC addresses do.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "libkel.h"
#include "scratch_store.h"

namespace {

constexpr int kBatch = 100;

using Clock = std::chrono::steady_clock;

struct Cost {
	double start_us = 0, end_us = 0;
};

// Runs op(0..n-1), timing the first and the last kBatch calls; aborts on a failed call.
Cost run(int n, const std::function<int(int)> &op)
{
	Cost cost;
	const int batch = n < kBatch ? n : kBatch;
	Clock::time_point t0 = Clock::now();
	for (int i = 0; i < n; i++) {
		if (i == n - batch)
			t0 = Clock::now();
		if (op(i) != KEL_SUCCESS) {
			std::fprintf(stderr, "vport_bench: call %d failed\n", i);
			std::exit(1);
		}
		if (i == batch - 1)
			cost.start_us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / batch;
	}
	cost.end_us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / batch;
	return cost;
}

std::string port(int i) { return "p" + std::to_string(i); }
std::string vnic(int i) { return "vn" + std::to_string(i); }

void print(int n, const char *op, Cost c)
{
	std::printf("{\"ports\": %d, \"op\": \"%s\", \"start_us\": %.1f, \"end_us\": %.1f}\n", n, op,
	    c.start_us, c.end_us);
	std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
	const bool ipv6 = argc > 1 && std::string(argv[1]) == "--ipv6";
	if (ipv6) {
		argv[1] = argv[0];
		argv++;
		argc--;
	}
	const char *subnet = ipv6 ? "subnet=fd00::/104" : "subnet=10.0.0.0/8";
	for (int n : kel::bench::sizes(argc, argv)) {
		kel::bench::ScratchStore store;
		kel_dbhandle_t h = store.get();
		kel_t *k = nullptr;
		kel_ipnet_t *ip = nullptr;
		if (kel_db_set_ctrlprop(h, "uplink-port=net0", nullptr) != KEL_SUCCESS ||
		    kel_db_create_kel(h, nullptr, "web", "l2-type=flat", 0, &k) != KEL_SUCCESS ||
		    kel_db_add_ipnet(h, "sys-global", "web", "n", subnet, &ip, 0) != KEL_SUCCESS)
			return 1;
		kel_free_kel(k);
		kel_free_ipnet(ip);

		print(n, "add", run(n, [&](int i) {
			return kel_db_add_vport(h, "sys-global", "web", port(i).c_str(), nullptr, nullptr, 0);
		}));
		print(n, "bind", run(n, [&](int i) {
			kel_t *bound = nullptr;
			const int rc = kel_db_assign_vport(h, "sys-global", "web", port(i).c_str(),
			    vnic(i).c_str(), "h1", nullptr, &bound);
			kel_free_kel(bound);
			return rc;
		}));
		print(n, "unbind", run(n, [&](int i) {
			return kel_db_unassign_vport(h, vnic(i).c_str(), "h1", nullptr);
		}));
		list_t list;
		const Cost listing = run(1, [&](int) {
			const int rc = kel_db_get_filtered_vportlist(h, "", &list, 0);
			if (rc == KEL_SUCCESS && kel_list_count(&list) != n)
				std::abort();
			kel_free_vportlist(&list);
			return rc;
		});
		std::printf("{\"ports\": %d, \"op\": \"list\", \"total_ms\": %.1f, \"per_port_us\": %.2f}\n", n,
		    listing.end_us / 1e3, listing.end_us / n);
	}
	return 0;
}

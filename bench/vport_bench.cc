// How port operations scale with the store: in a scratch store with one switch and one
// network, adds N ports, binds each to a VNIC, unbinds them all, and lists them. For
// each operation prints the mean cost of the first and of the last 100 calls, so a cost
// that grows with the store shows as end_us well above start_us.
// Usage: vport_bench [--ipv6] [N...] (default 1000 10000 100000); --ipv6 gives the switch an
// IPv6 network, whose addresses hold colons as MAC addresses do.
//        vport_bench --raw-commit: only the raw durable commit, the yardstick the keladm
// script sets its per-process figures against.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "scratch_store.h"

namespace {

constexpr int kBatch = 100;

using Clock = std::chrono::steady_clock;

struct Cost {
	double start_us = 0, end_us = 0, median_us = 0;
};

double median(std::vector<double> v)
{
	std::sort(v.begin(), v.end());
	return v.empty() ? 0 : v[v.size() / 2];
}

double since_us(Clock::time_point t0)
{
	return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

// The floor under every store write: one durable one-row commit, with the store's own
// settings (rollback journal, synchronous FULL), in a file beside the store.
double raw_commit_us(const std::string &dir)
{
	const std::string path = dir + "/raw.db";
	sqlite3 *db = nullptr;
	if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
	    sqlite3_exec(db, "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL; CREATE TABLE t (x TEXT)", nullptr,
	        nullptr, nullptr) != SQLITE_OK)
		std::abort();
	sqlite3_stmt *st = nullptr;
	if (sqlite3_prepare_v2(db, "INSERT INTO t VALUES ('a row of about the size of a port')", -1, &st, nullptr) !=
	    SQLITE_OK)
		std::abort();
	std::vector<double> times;
	for (int i = 0; i < 300; i++) {
		const Clock::time_point t0 = Clock::now();
		if (sqlite3_step(st) != SQLITE_DONE)
			std::abort();
		sqlite3_reset(st);
		times.push_back(since_us(t0));
	}
	sqlite3_finalize(st);
	sqlite3_close(db);
	std::remove(path.c_str());
	return median(times);
}

// Runs op(0..n-1), timing the first and the last kBatch calls; aborts on a failed call.
Cost run(int n, const std::function<int(int)> &op)
{
	Cost cost;
	const int batch = n < kBatch ? n : kBatch;
	std::vector<double> times;
	times.reserve(static_cast<size_t>(n));
	for (int i = 0; i < n; i++) {
		const Clock::time_point t0 = Clock::now();
		if (op(i) != KEL_SUCCESS) {
			std::fprintf(stderr, "vport_bench: call %d failed\n", i);
			std::exit(1);
		}
		times.push_back(since_us(t0));
	}
	auto mean = [&](size_t from) {
		double sum = 0;
		for (size_t i = from; i < from + static_cast<size_t>(batch); i++)
			sum += times[i];
		return sum / batch;
	};
	cost.start_us = mean(0);
	cost.end_us = mean(times.size() - static_cast<size_t>(batch));
	cost.median_us = median(times);
	return cost;
}

std::string port(int i)
{
	return "p" + std::to_string(i);
}
std::string vnic(int i)
{
	return "vn" + std::to_string(i);
}

void print(int n, const char *op, Cost c)
{
	std::printf("{\"ports\": %d, \"op\": \"%s\", \"start_us\": %.1f, \"end_us\": %.1f, \"median_us\": %.1f}\n", n,
	    op, c.start_us, c.end_us, c.median_us);
	std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc == 2 && std::string(argv[1]) == "--raw-commit") {
		char dir[] = "/tmp/kel-raw-XXXXXX";
		if (mkdtemp(dir) == nullptr)
			return 1;
		std::printf("{\"op\": \"raw_commit\", \"median_us\": %.1f}\n", raw_commit_us(dir));
		return rmdir(dir) == 0 ? 0 : 1;
	}
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

		const double raw = raw_commit_us(store.root());
		const Cost add = run(n, [&](int i) {
			return kel_db_add_vport(h, "sys-global", "web", port(i).c_str(), nullptr, nullptr, 0);
		});
		print(n, "add", add);
		std::printf("{\"ports\": %d, \"op\": \"raw_commit\", \"median_us\": %.1f, \"add_ratio\": %.2f}\n", n,
		    raw, add.median_us / raw);
		print(n, "bind", run(n, [&](int i) {
			kel_t *bound = nullptr;
			const int rc = kel_db_assign_vport(h, "sys-global", "web", port(i).c_str(), vnic(i).c_str(),
			    "h1", nullptr, &bound);
			kel_free_kel(bound);
			return rc;
		}));
		print(n, "unbind",
		    run(n, [&](int i) { return kel_db_unassign_vport(h, vnic(i).c_str(), "h1", nullptr); }));
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

// How listing scales with the store: fills a scratch store with N switches (one port
// and one network each) and times the switch list, the port list and a lookup of one
// switch by name. Prints one JSON object per N. Usage: list_bench [N...]
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "scratch_store.h"
#include "sql.h"
#include "store_handle.h"

namespace {

std::string uuid(int kind, int n)
{
	char buf[37];
	std::snprintf(buf, sizeof(buf), "00000000-0000-4000-800%d-%012d", kind, n);
	return buf;
}

void fill(kel_dbhandle_t h, int n)
{
	kel::Transaction tx(h->edh_db);
	if (tx.begin() != KEL_SUCCESS)
		std::abort();
	for (int i = 0; i < n; i++) {
		const std::string name = "k" + std::to_string(i);
		char subnet[64];
		std::snprintf(subnet, sizeof(subnet), "subnet=10.%d.%d.0/24", (i >> 8) & 255, i & 255);
		if (kel::exec(h->edh_db,
		        "INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) "
		        "VALUES (?, ?, 'sys-global', 'maxbw=10M')",
		        {uuid(1, i), name}) != KEL_SUCCESS ||
		    kel::exec(h->edh_db,
		        "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
		        "vport_hostname) VALUES (?, ?, 'p0', 'cos=1', '')",
		        {uuid(2, i), uuid(1, i)}) != KEL_SUCCESS ||
		    kel::exec(h->edh_db,
		        "INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_keluuid, ipnet_name, ipnet_props, "
		        "ipnet_af, ipnet_start_addr, ipnet_end_addr, ipnet_avail_range) "
		        "VALUES (?, ?, 'n0', ?, 2, '', '', '')",
		        {uuid(3, i), uuid(1, i), subnet}) != KEL_SUCCESS)
			std::abort();
	}
	if (tx.commit() != KEL_SUCCESS)
		std::abort();
}

template <class F>
double seconds(F &&f)
{
	const auto t0 = std::chrono::steady_clock::now();
	f();
	return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char **argv)
{
	for (int n : kel::bench::sizes(argc, argv)) {
		kel::bench::ScratchStore store;
		kel_dbhandle_t h = store.get();
		fill(h, n);

		list_t list;
		int rc = KEL_SUCCESS;
		const double kels = seconds([&] {
			rc |= kel_db_get_filtered_kellist(h, "", &list, 0);
			if (kel_list_count(&list) != n)
				std::abort();
			kel_free_kellist(&list);
		});
		const double ports = seconds([&] {
			rc |= kel_db_get_filtered_vportlist(h, "", &list, 0);
			if (kel_list_count(&list) != n)
				std::abort();
			kel_free_vportlist(&list);
		});
		// One untimed lookup first: the figure is the warm cost, not the first page reads.
		const std::string middle = "k" + std::to_string(n / 2);
		rc |= kel_db_get_kellist(h, "sys-global", middle.c_str(), &list, 0);
		kel_free_kellist(&list);
		const int lookups = 200;
		const double one = seconds([&] {
			for (int i = 0; i < lookups; i++) {
				rc |= kel_db_get_kellist(h, "sys-global", middle.c_str(), &list, 0);
				kel_free_kellist(&list);
			}
		}) / lookups;
		std::printf("{\"switches\": %d, \"list_switches_s\": %.4f, \"per_switch_us\": %.2f, "
		            "\"list_ports_s\": %.4f, \"per_port_us\": %.2f, \"lookup_one_ms\": %.3f, "
		            "\"ok\": %s}\n",
		    n, kels, kels / n * 1e6, ports, ports / n * 1e6, one * 1e3, rc == 0 ? "true" : "false");
		std::fflush(stdout);
	}
	return 0;
}

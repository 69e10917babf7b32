// What opening the store for writing costs: a store of N ports, opened for writing just
// after another program changed it (the whole file is checked, median of three), and
// again and again after that (the store is known sound), beside opening it to read.
// Prints one JSON object per N. Usage: store_open_bench [N...]
#include <sqlite3.h>
#include <uuid/uuid.h>

#include <algorithm>
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

template <class F>
double seconds(F &&f)
{
	const auto t0 = std::chrono::steady_clock::now();
	f();
	return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void fill(kel_dbhandle_t h, int n)
{
	kel_t *k = nullptr;
	if (kel_db_create_kel(h, nullptr, "web", "l2-type=flat", 0, &k) != KEL_SUCCESS)
		std::abort();
	const std::string keluuid = [&] {
		char text[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(k->kel_uuid, text);
		return std::string(text);
	}();
	kel_free_kel(k);
	kel::Transaction tx(h->edh_db);
	int rc = tx.begin();
	for (int i = 0; i < n && rc == KEL_SUCCESS; i++) {
		char uuid[KEL_UUID_TEXT_LEN], props[160];
		std::snprintf(uuid, sizeof(uuid), "00000000-0000-4000-8000-%012d", i);
		std::snprintf(props, sizeof(props), "ipaddr=10.%d.%d.%d/8,macaddr=2:8:20:%x:%x:%x", (i >> 16) & 255,
		    (i >> 8) & 255, i & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255);
		rc = kel::exec(h->edh_db,
		    "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, vport_hostname) "
		    "VALUES (?, ?, ?, ?, '')",
		    {std::string(uuid), keluuid, "p" + std::to_string(i), std::string(props)});
	}
	if (rc != KEL_SUCCESS || tx.commit() != KEL_SUCCESS)
		std::abort();
}

// A change as another program makes one: its own connection, not the library's lock.
void change_from_outside(const std::string &root)
{
	sqlite3 *db = nullptr;
	if (sqlite3_open((root + "/etc/kel/kel.db").c_str(), &db) != SQLITE_OK ||
	    sqlite3_exec(db, "UPDATE kel_tbl SET kel_status = kel_status + 1", nullptr, nullptr, nullptr) != SQLITE_OK)
		std::abort();
	sqlite3_close(db);
}

void open_close(int flags)
{
	kel_dbhandle_t h = nullptr;
	if (kel_db_open(&h, flags) != KEL_SUCCESS)
		std::abort();
	kel_db_close(h);
}

}  // namespace

int main(int argc, char **argv)
{
	for (int n : kel::bench::sizes(argc, argv)) {
		kel::bench::ScratchStore store;
		fill(store.get(), n);
		std::vector<double> checked;
		for (int i = 0; i < 3; i++) {
			change_from_outside(store.root());
			checked.push_back(seconds([] { open_close(KEL_DB_READWRITE); }));
		}
		std::sort(checked.begin(), checked.end());
		const int times = 1000;
		const double known = seconds([&] {
			for (int i = 0; i < times; i++)
				open_close(KEL_DB_READWRITE);
		}) / times;
		const double reading = seconds([&] {
			for (int i = 0; i < times; i++)
				open_close(KEL_DB_READONLY);
		}) / times;
		std::printf("{\"ports\": %d, \"write_open_checked_ms\": %.2f, \"write_open_known_us\": %.1f, "
		            "\"read_open_us\": %.1f}\n",
		    n, checked[1] * 1e3, known * 1e6, reading * 1e6);
		std::fflush(stdout);
	}
	return 0;
}

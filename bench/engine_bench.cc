// The store on PostgreSQL against the store file: adding a port, binding one to a VNIC and
// unbinding it, on a switch that already holds N ports, for each engine and each N, in one
// run; beside them, removing the added port (which keeps the store at N) and each engine's
// raw durable one-row commit, the floor under every write. Every configuration (engine, N) keeps its own store open, and each round takes one
// call of every operation in every configuration, in an order that turns with the round,
// so that whatever the machine does meanwhile falls on all of them alike.
//
// The file store of N ports is filled in one transaction, as add-vport writes ports (an
// address from the network's pool, which is moved past them, and a MAC address); the
// database's is copied from it with kel_db_copy_store and then vacuumed and analysed,
// as the server's own autovacuum would do shortly after such a load.
//
// Usage: engine_bench --pg CONNINFO [--rounds R] [N...] (default 300 rounds, N = 1000 100000)
// CONNINFO reaches a server as a role that may create databases: one database per N, and
// one for the raw commit, are made there and dropped again at the end.
//
// Prints one JSON object a line: the settings of both engines; each store's set-up time;
// per engine, N and operation the median and 90th percentile of the timed calls; per N and
// operation the database's median over the file's (pg_over_sqlite); per engine and
// operation the median at the largest N over that at the smallest (growth).
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "pg_conn.h"
#include "sql.h"
#include "store_handle.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWarmRounds = 10;  // untimed: statements prepared, plans settled, first checks done
const char *const kOps[] = {"add", "bind", "unbind", "remove", "raw_commit"};

// Every scratch tree made so far, removed on the way out of a failed run as well.
std::vector<std::string> scratch_roots;

[[noreturn]] void die(const std::string &why)
{
	std::fprintf(stderr, "engine_bench: %s\n", why.c_str());
	for (const std::string &root : scratch_roots) {
		std::error_code ec;
		std::filesystem::remove_all(root, ec);
	}
	std::exit(1);
}

void check(int rc, const std::string &what)
{
	if (rc != KEL_SUCCESS)
		die(what + " failed: " + std::to_string(rc));
}

double since_us(Clock::time_point t0)
{
	return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

double quantile(std::vector<double> v, double q)
{
	if (v.empty())
		return 0;
	std::sort(v.begin(), v.end());
	return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1) + 0.5)];
}

std::string ipv4(uint32_t a)
{
	return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) +
	    "." + std::to_string(a & 255);
}

std::unique_ptr<kel::pg::Conn> connect(const std::string &conninfo)
{
	std::unique_ptr<kel::pg::Conn> conn;
	check(kel::pg::Conn::open(conninfo, &conn), "connecting to " + conninfo);
	return conn;
}

void run_sql(kel::pg::Conn *conn, const std::string &sql)
{
	if (conn->simple(sql.c_str()) != KEL_SUCCESS)
		die(sql + ": " + conn->last_error());
}

std::string scratch_root()
{
	char tmpl[] = "/tmp/kel-engines-XXXXXX";
	if (mkdtemp(tmpl) == nullptr)
		die("mkdtemp");
	scratch_roots.push_back(tmpl);
	std::filesystem::create_directories(std::string(tmpl) + "/etc/kel");
	return tmpl;
}

// One store under test: its engine, its size, its own KEL_ROOT (the library reads the
// store's place from there on every open and lock) and its open handle.
struct Config {
	std::string engine;
	int n = 0;
	std::string root;
	kel_dbhandle_t h = nullptr;
	std::function<void()> raw;  // one durable one-row commit beside the store, this engine's way
	sqlite3 *raw_file = nullptr;
	std::map<std::string, std::vector<double>> times;

	void enter() const { setenv("KEL_ROOT", root.c_str(), 1); }
};

// A file store of one flat switch "web" with network "n" (10.0.0.0/8) and N ports p0...
void make_file_store(Config *c)
{
	c->root = scratch_root();
	c->enter();
	check(kel_db_create(), "kel_db_create");
	check(kel_db_open(&c->h, SQLITE_OPEN_READWRITE), "kel_db_open");
	kel_t *k = nullptr;
	kel_ipnet_t *ip = nullptr;
	check(kel_db_set_ctrlprop(c->h, "uplink-port=net0", nullptr), "set-ctrlprop");
	check(kel_db_create_kel(c->h, nullptr, "web", "l2-type=flat", 0, &k), "create-kel");
	check(kel_db_add_ipnet(c->h, "sys-global", "web", "n", "subnet=10.0.0.0/8", &ip, 0), "add-ipnet");
	kel_free_kel(k);
	kel_free_ipnet(ip);

	std::string keluuid;
	check(kel::for_each_row(c->h, "SELECT kel_uuid FROM kel_tbl WHERE kel_name = 'web'", {},
	          [&](kel::Statement &st) {
		          keluuid = st.text(0);
		          return KEL_SUCCESS;
	          }),
	    "reading the switch");
	// The pool starts after the default router, 10.0.0.1; the ports take its first N.
	const uint32_t first = (10u << 24) + 2;
	kel::Transaction tx(c->h->edh_db);
	check(tx.begin(), "begin");
	for (int i = 0; i < c->n; i++) {
		char uuid[KEL_UUID_TEXT_LEN], mac[32];
		std::snprintf(uuid, sizeof(uuid), "00000000-0000-4000-8000-%012d", i);
		std::snprintf(mac, sizeof(mac), "2:8:20:%x:%x:%x", (i >> 16) & 255, (i >> 8) & 255, i & 255);
		std::string props = "ipaddr=";
		props.append(ipv4(first + static_cast<uint32_t>(i))).append("/8,macaddr=").append(mac);
		const std::string name = std::string("p").append(std::to_string(i));
		check(kel::exec(c->h->edh_db,
		          "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, vport_hostname) "
		          "VALUES (?, ?, ?, ?, '')",
		          {std::string(uuid), keluuid, name, props}),
		    "filling");
	}
	const std::string avail = ipv4(first + static_cast<uint32_t>(c->n)) + "-10.255.255.254";
	check(kel::exec(c->h->edh_db,
	          "UPDATE ipnet_tbl SET ipnet_avail_range = ?1, ipnet_avail_pool_range = ?1 WHERE ipnet_name = 'n'",
	          {avail}),
	    "moving the pool");
	check(tx.commit(), "commit");

	// The floor under every write of the file: a durable one-row commit with the store's
	// own settings (rollback journal, synchronous FULL), in a file beside it.
	const std::string path = c->root + "/raw.db";
	if (sqlite3_open(path.c_str(), &c->raw_file) != SQLITE_OK ||
	    sqlite3_exec(c->raw_file, "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL; CREATE TABLE t (x TEXT)",
	        nullptr, nullptr, nullptr) != SQLITE_OK)
		die("raw commit file");
	c->raw = [raw = c->raw_file] {
		if (sqlite3_exec(raw, "INSERT INTO t VALUES ('a row of about the size of a port')", nullptr, nullptr,
		        nullptr) != SQLITE_OK)
			die("raw commit");
	};
}

// The same store in database `db` of the server: copied from the file store, then the
// controller setting "store" names it under a KEL_ROOT of its own.
void make_database_store(const Config &file, const std::string &conninfo, const std::string &db, Config *c)
{
	file.enter();
	check(kel_db_copy_store("", (conninfo + " dbname=" + db).c_str()), "kel_db_copy_store");
	{
		auto conn = connect(conninfo + " dbname=" + db);
		run_sql(conn.get(), "VACUUM ANALYZE");
		// The load's pages written out now, not by the checkpointer during the timing,
		// where its writes would queue ahead of every commit's WAL flush.
		run_sql(conn.get(), "CHECKPOINT");
	}
	c->root = scratch_root();
	c->enter();
	check(kel_set_controller_togprop("store", (conninfo + " dbname=" + db).c_str()), "setting the store");
	check(kel_db_open(&c->h, SQLITE_OPEN_READWRITE), "kel_db_open on the database");
}

void print_settings(kel::pg::Conn *admin, const Config &file)
{
	std::string out = "{\"engine\": \"pg\", \"settings\": {";
	const char *names[] = {"server_version", "fsync", "synchronous_commit", "full_page_writes", "wal_sync_method",
	    "shared_buffers", "unix_socket_directories", "listen_addresses"};
	for (size_t i = 0; i < sizeof(names) / sizeof(names[0]); i++) {
		std::string value;
		if (admin->simple(("SELECT current_setting('" + std::string(names[i]) + "')").c_str(), &value) !=
		    KEL_SUCCESS)
			die("reading the server's settings: " + admin->last_error());
		out += std::string(i ? ", " : "") + "\"" + names[i] + "\": \"" + value + "\"";
	}
	std::printf("%s}}\n", out.c_str());
	std::string journal, sync;
	check(kel::for_each_row(file.h, "PRAGMA journal_mode", {},
	          [&](kel::Statement &st) {
		          journal = st.text(0);
		          return KEL_SUCCESS;
	          }),
	    "journal_mode");
	check(kel::for_each_row(file.h, "PRAGMA synchronous", {},
	          [&](kel::Statement &st) {
		          sync = st.text(0);
		          return KEL_SUCCESS;
	          }),
	    "synchronous");
	std::printf("{\"engine\": \"sqlite\", \"settings\": {\"sqlite_version\": \"%s\", \"journal_mode\": \"%s\", "
	            "\"synchronous\": \"%s\"}}\n",
	    sqlite3_libversion(), journal.c_str(), sync == "2" ? "full" : sync.c_str());
	std::fflush(stdout);
}

// One call of `op` in configuration `c`, round `r`: its time in microseconds.
double call(Config *c, const std::string &op, int r)
{
	const std::string added = "x" + std::to_string(r), vnic = "vx" + std::to_string(r);
	// Bound ports are spread over the whole store (7919 is prime, so distinct for r < N).
	const std::string filled = "p" + std::to_string((static_cast<long>(r) * 7919 + 13) % c->n);
	c->enter();
	int rc = KEL_SUCCESS;
	const Clock::time_point t0 = Clock::now();
	if (op == "add") {
		rc = kel_db_add_vport(c->h, "sys-global", "web", added.c_str(), nullptr, nullptr, 0);
	} else if (op == "bind") {
		kel_t *bound = nullptr;
		rc = kel_db_assign_vport(c->h, "sys-global", "web", filled.c_str(), vnic.c_str(), "h1", nullptr,
		    &bound);
		kel_free_kel(bound);
	} else if (op == "unbind") {
		rc = kel_db_unassign_vport(c->h, vnic.c_str(), "h1", nullptr);
	} else if (op == "remove") {
		// Keeps the store at N ports from round to round.
		rc = kel_db_remove_vport(c->h, "sys-global", "web", added.c_str(), nullptr, 0);
	} else {
		c->raw();
	}
	const double us = since_us(t0);
	check(rc, c->engine + " " + op + " at " + std::to_string(c->n) + " ports, round " + std::to_string(r));
	return us;
}

std::string json_number(double v)
{
	char buf[32];
	std::snprintf(buf, sizeof(buf), "%.2f", v);
	return buf;
}

}  // namespace

int main(int argc, char **argv)
{
	std::string conninfo;
	int rounds = 300;
	std::vector<int> sizes;
	for (int i = 1; i < argc; i++) {
		const std::string a = argv[i];
		if (a == "--pg" && i + 1 < argc)
			conninfo = argv[++i];
		else if (a == "--rounds" && i + 1 < argc)
			rounds = std::atoi(argv[++i]);
		else if (!a.empty() && a[0] != '-')
			sizes.push_back(std::atoi(a.c_str()));
		else
			die("usage: engine_bench --pg CONNINFO [--rounds R] [N...]");
	}
	if (conninfo.empty() || rounds < 1)
		die("usage: engine_bench --pg CONNINFO [--rounds R] [N...]");
	if (sizes.empty())
		sizes = {1000, 100000};
	std::sort(sizes.begin(), sizes.end());
	sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
	for (int n : sizes)
		if (n < 1)
			die("N must be at least 1");

	auto admin = connect(conninfo);
	std::vector<std::string> databases = {"kel_bench_raw"};
	for (int n : sizes)
		databases.push_back("kel_bench_" + std::to_string(n));
	for (const std::string &db : databases) {
		run_sql(admin.get(), "DROP DATABASE IF EXISTS " + db);
		run_sql(admin.get(), "CREATE DATABASE " + db);
	}
	// The database's floor: one durable one-row commit (a statement on its own commits).
	auto raw_conn = connect(conninfo + " dbname=kel_bench_raw");
	run_sql(raw_conn.get(), "CREATE TABLE t (x TEXT)");

	std::vector<std::unique_ptr<Config>> configs;
	for (int n : sizes) {
		auto file = std::make_unique<Config>();
		file->engine = "sqlite";
		file->n = n;
		Clock::time_point t0 = Clock::now();
		make_file_store(file.get());
		std::printf("{\"setup\": \"fill_sqlite\", \"ports\": %d, \"ms\": %.0f}\n", n, since_us(t0) / 1e3);
		auto db = std::make_unique<Config>();
		db->engine = "pg";
		db->n = n;
		t0 = Clock::now();
		make_database_store(*file, conninfo, "kel_bench_" + std::to_string(n), db.get());
		std::printf("{\"setup\": \"copy_to_pg\", \"ports\": %d, \"ms\": %.0f}\n", n, since_us(t0) / 1e3);
		kel::pg::Conn *raw = raw_conn.get();
		db->raw = [raw] { run_sql(raw, "INSERT INTO t VALUES ('a row of about the size of a port')"); };
		std::fflush(stdout);
		configs.push_back(std::move(file));
		configs.push_back(std::move(db));
	}
	print_settings(admin.get(), *configs.front());

	// Round r starts its turn at configuration r mod C, and goes the other way on odd rounds.
	const int count = static_cast<int>(configs.size());
	for (int r = 0; r < kWarmRounds + rounds; r++) {
		if (r % 50 == 0)
			std::fprintf(stderr, "engine_bench: round %d of %d\n", r, kWarmRounds + rounds);
		for (const char *op : kOps)
			for (int j = 0; j < count; j++) {
				const int at = r % 2 == 0 ? (r + j) % count : (r + count - j) % count;
				Config *c = configs[static_cast<size_t>(at)].get();
				const double us = call(c, op, r);
				if (r >= kWarmRounds)
					c->times[op].push_back(us);
			}
	}

	std::map<std::string, double> med;  // "engine/n/op"
	for (const auto &c : configs)
		for (const char *op : kOps) {
			const std::vector<double> &t = c->times[op];
			const double m = quantile(t, 0.5);
			med[c->engine + "/" + std::to_string(c->n) + "/" + op] = m;
			std::printf(
			    "{\"engine\": \"%s\", \"ports\": %d, \"op\": \"%s\", \"median_us\": %s, \"p90_us\": %s, "
			    "\"calls\": %zu}\n",
			    c->engine.c_str(), c->n, op, json_number(m).c_str(), json_number(quantile(t, 0.9)).c_str(),
			    t.size());
		}
	for (int n : sizes)
		for (const char *op : kOps) {
			const std::string key = "/" + std::to_string(n) + "/" + op;
			std::printf("{\"ports\": %d, \"op\": \"%s\", \"pg_over_sqlite\": %s}\n", n, op,
			    json_number(med["pg" + key] / med["sqlite" + key]).c_str());
		}
	if (sizes.size() > 1)
		for (const char *engine : {"sqlite", "pg"})
			for (const char *op : kOps) {
				const std::string lo = std::string(engine) + "/" + std::to_string(sizes.front()) + "/" +
				    op;
				const std::string hi = std::string(engine) + "/" + std::to_string(sizes.back()) + "/" +
				    op;
				std::printf(
				    "{\"engine\": \"%s\", \"op\": \"%s\", \"from_ports\": %d, \"to_ports\": %d, "
				    "\"growth\": %s}\n",
				    engine, op, sizes.front(), sizes.back(), json_number(med[hi] / med[lo]).c_str());
			}
	std::fflush(stdout);

	for (auto &c : configs) {
		kel_db_close(c->h);
		sqlite3_close(c->raw_file);
		std::filesystem::remove_all(c->root);
	}
	configs.clear();
	raw_conn.reset();
	for (const std::string &db : databases)
		run_sql(admin.get(), "DROP DATABASE IF EXISTS " + db);
	return 0;
}

// The indexed MAC test must answer exactly as a LIKE over every port's properties would,
// for stored strings built to sit on each edge of what the key can answer for.
#include <random>
#include <string>
#include <vector>

#include "allocator.h"
#include "mac_index.h"
#include "store_fixture.h"

namespace {

class MacInUse : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		add_kel(1, "k");
	}

	// Replaces every port by ports with these property strings: inserted with them, or
	// (`by_update`) inserted with others and then given them, as a property write does.
	void store(const std::vector<const char *> &props, bool by_update = false)
	{
		sql("DELETE FROM vport_tbl");
		int id = 100;
		for (const char *p : props) {
			if (p == nullptr) {
				sql("INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props) "
				    "VALUES ('" +
				    uuid(id++) + "', '" + uuid(1) + "', 'n', NULL)");
			} else if (by_update) {
				add_vport(id, 1, "p", "ipaddr=fd00::1:2:3:4:5:6");
				ASSERT_EQ(kel::exec(h_, "UPDATE vport_tbl SET vport_props = ? WHERE vport_uuid = ?",
				              {std::string(p), uuid(id++)}),
				    KEL_SUCCESS);
			} else {
				add_vport(id++, 1, "p", p);
			}
		}
	}

	// The meaning the indexed path must keep.
	bool reference(const std::string &mac)
	{
		return value("SELECT count(*) FROM vport_tbl WHERE vport_props LIKE ?", {"%" + mac + "%"}) != "0";
	}
};

TEST_F(MacInUse, AgreesWithTheFullScanOnEdgeCases)
{
	store({
	    "macaddr=2:8:20:a:b:cd,ipaddr=10.0.0.9/24",        // the common shape
	    "ipaddr=10.0.0.8/24,macaddr=12:8:20:a:b:ce1",      // longer outer groups, hex only
	    "MACADDR=02:08:20:0A:0B:CF",                       // stored upper-case
	    "ipaddr=::2:8:20:a:b:d0/64",                       // inside an IPv6 address
	    "ipaddr=1:2:8:20:a:b:c:d/64",                      // from the address's first colon
	    "ipaddr=1:2:3:4:5:6:7::",                          // eight colons, the last window
	    "ipaddr=1:2:3:4:5:6:7:8:9:a",                      // more than an address holds
	    "IPADDR=FE80::2:8:20:A:B:DA",                      // upper-case
	    "ipaddr=fe80::9/64,macaddr=2:8:20:a:b:d1",         // a MAC and an IPv6 address
	    "vmid=x2:8:20:a:b:d2y",                            // five colons in a free-form value
	    "macaddr=2:8:20:a:b:d3:ef",                        // a longer MAC
	    "macaddr=zz2:8:20:a:b:d4zz",                       // not hex
	    "kel:migrating_to=h2,macaddr=2:8:20:a:b:d5",       // a colon in a name
	    "allowed-macaddr=2:8:20:a:b:d6",                   // a name that ends in macaddr
	    "macaddr=,note=2:8:20:a:b:d7",                     // an empty macaddr value
	    "ipaddr=1:2:3:4:5:6abcdefabcdefabcdefabcdef0123",  // a tail longer than is kept
	    nullptr,
	});
	const std::vector<std::string> probes = {
	    "2:8:20:a:b:cd",
	    "2:8:20:a:b:c",
	    "02:08:20:0a:0b:cd",
	    "2:8:20:A:B:CD",
	    "8:20:a:b:ce:1",
	    "2:8:20:a:b:ce",
	    "12:8:20:a:b:ce",
	    "2:8:20:a:b:ce1",
	    "1:8:20:a:b:ce",
	    "2:08:20:0a:0b:cf",
	    "2:8:20:a:b:cf",
	    "2:8:20:a:b:d0",
	    "2:8:20:a:b:d",
	    "2:8:20:a:b:d1",
	    "2:8:20:a:b:d2",
	    "x2:8:20:a:b:d2",
	    "2:8:20:a:b:d3",
	    "8:20:a:b:d3:ef",
	    "2:8:20:a:b:d4",
	    "2:8:20:a:b:d5",
	    "2:8:20:a:b:d6",
	    "2:8:20:a:b:d7",
	    "2:8:20:a:b:d8",
	    "20:a:b:d3:ef",
	    ":8:20:a:b:",
	    "b:cd",
	    "2:8:20:a:b:c_",
	    "2:8:20:%",
	    "",
	    "ab:cd:ef:01:23:45",
	    "2:8:20:a:b:c",
	    "8:20:a:b:c:d",
	    "4:5:6:7::",
	    "3:4:5:6:7:",
	    "5:6:7:8:9:a",
	    "4:5:6:7:8:9",
	    "2:8:20:a:b:da",
	    "e80::2:8:20",
	    "0::2:8:20",
	    "1:2:3:4:5:6",
	    "1:2:3:4:5:6abcdefabcdefabcdefabcdef0123",
	    "2:3:4:5:6abcdefabcdefabcdefabcdef012",
	    "1:2:3:4:5:6abcdefabcdefabcdefabcdef0124",
	};
	for (const std::string &mac : probes)
		EXPECT_EQ(kel_db_macaddr_exists(h_, mac.c_str()) == B_TRUE, reference(mac)) << mac;
	EXPECT_FALSE(kel_db_macaddr_exists(h_, nullptr));
}

// Random property strings made of MAC-like pieces, probed with texts cut from them and
// with near misses: any disagreement with the full scan is a hole in the key's reasoning.
TEST_F(MacInUse, AgreesWithTheFullScanOnRandomStores)
{
	std::mt19937 rng(7);
	auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
	const char *hex = "0123456789abcdefAB";
	auto group = [&] {
		if (pick(8) == 0)
			return std::string();  // "::" in an address
		std::string g(1, hex[pick(4)]);
		if (pick(2))
			g += hex[pick(18)];
		return g;
	};
	auto mac = [&](int groups) {
		std::string m = group();
		for (int i = 1; i < groups; i++)
			m += ":" + group();
		return m;
	};
	const char *names[] = {"macaddr", "ipaddr", "vmid", "MacAddr", "x-macaddr"};
	for (int round = 0; round < 20; round++) {
		std::vector<std::string> props;
		for (int i = 0; i < 30; i++) {
			std::string p;
			for (int n = pick(3) + 1; n > 0; n--)
				p += (p.empty() ? "" : ",") + std::string(names[pick(5)]) + "=" +
				    (pick(4) ? mac(4 + pick(7)) + (pick(3) ? "" : "/64") : "q" + mac(6) + "z");
			props.push_back(p);
		}
		std::vector<const char *> raw;
		for (const std::string &p : props)
			raw.push_back(p.c_str());
		store(raw, round % 2 == 1);
		for (int probe = 0; probe < 40; probe++) {
			std::string m;
			const std::string &from = props[pick(static_cast<int>(props.size()))];
			const size_t at = from.find('=') + 1 + pick(3);
			m = pick(3) ? from.substr(std::min(at, from.size()), 8 + pick(10)) : mac(6);
			EXPECT_EQ(kel_db_macaddr_exists(h_, m.c_str()) == B_TRUE, reference(m))
			    << m << " in round " << round;
		}
	}
}

// Every part of the query must be answered from its index, or an add would again visit
// every port.
TEST_F(MacInUse, QueryUsesItsIndexes)
{
	KEL_FILE_STORE_ONLY();  // SQLite's query plans, and the tails its triggers keep
	std::string plan;
	for (const char *query : {KEL_SQL_MAC_BY_KEY, KEL_SQL_MAC_BY_TAIL})
		ASSERT_EQ(kel::for_each_row(h_, (std::string("EXPLAIN QUERY PLAN ") + query).c_str(), {"a", "b", "c"},
		              [&](kel::Statement &st) {
			              plan += std::string(st.text(3)) + "\n";
			              return KEL_SUCCESS;
		              }),
		    KEL_SUCCESS);
	for (const char *index : {"vport_mackey_idx", "vport_colon_tail_idx"})
		EXPECT_NE(plan.find(index), std::string::npos) << index << "\n" << plan;
	EXPECT_EQ(plan.find("SCAN vport_tbl\n"), std::string::npos) << plan;
}

// A store made before the tails were kept answers by scanning every port, and its upgrade
// gives it the tails, filled as the triggers would have filled them.
TEST_F(MacInUse, AStoreWithoutTheTailsScansUntilUpgraded)
{
	KEL_FILE_STORE_ONLY();  // SQLite's query plans, and the tails its triggers keep
	store({"ipaddr=fe80::2:8:20:a:b:c/64", "macaddr=2:8:20:a:b:d", "vmid=q1:2:3:4:5:6z"});
	const std::string kept = value("SELECT group_concat(colon_vport || colon_pos || colon_tail, '|') "
	                               "FROM vport_colon_tbl");
	ASSERT_NE(kept, "");
	for (const char *drop : {"DROP TRIGGER vport_colon_ins", "DROP TRIGGER vport_colon_upd",
	         "DROP TRIGGER vport_colon_del", "DROP TABLE vport_colon_tbl"})
		sql(drop);
	for (const char *mac : {"2:8:20:a:b:c", "1:2:3:4:5:6", "2:8:20:a:b:d", "2:8:20:a:b:e"})
		EXPECT_EQ(kel_db_macaddr_exists(h_, mac) == B_TRUE, reference(mac)) << mac;
	kel_db_close(h_);
	h_ = nullptr;
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);
	ASSERT_EQ(kel_db_open(&h_, SQLITE_OPEN_READWRITE), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT group_concat(colon_vport || colon_pos || colon_tail, '|') FROM vport_colon_tbl"), kept);
	add_vport(200, 1, "late", "ipaddr=fe80::7:7:7:7:7:7/64");
	EXPECT_TRUE(kel_db_macaddr_exists(h_, "7:7:7:7:7:7"));
}

// Triggers an older build spelled otherwise are made anew by the upgrade, and the tails
// they missed are filled: a trigger left as it was would keep failing every later port.
TEST_F(MacInUse, TheUpgradeRenewsTriggersSpelledOtherwise)
{
	KEL_FILE_STORE_ONLY();  // SQLite's query plans, and the tails its triggers keep
	store({"ipaddr=fe80::2:8:20:a:b:c/64", "vmid=q1:2:3:4:5:6z"});
	const std::string tails = "SELECT group_concat(colon_vport || colon_pos || colon_tail, '|') "
	                          "FROM (SELECT * FROM vport_colon_tbl ORDER BY 1, 2)";
	const std::string ours = value("SELECT group_concat(sql, '|') FROM (SELECT sql FROM sqlite_master "
	                               "WHERE type = 'trigger' ORDER BY name)");
	sql("DROP TRIGGER vport_colon_ins");
	sql("CREATE TRIGGER vport_colon_ins AFTER INSERT ON vport_tbl BEGIN SELECT 1; END");
	add_vport(200, 1, "missed", "ipaddr=fe80::7:7:7:7:7:7/64");
	EXPECT_FALSE(kel_db_macaddr_exists(h_, "7:7:7:7:7:7")) << "the stand-in trigger kept tails";
	kel_db_close(h_);
	h_ = nullptr;
	ASSERT_EQ(kel_db_upgrade(), KEL_SUCCESS);
	ASSERT_EQ(kel_db_open(&h_, SQLITE_OPEN_READWRITE), KEL_SUCCESS);
	EXPECT_EQ(value("SELECT group_concat(sql, '|') FROM (SELECT sql FROM sqlite_master "
	                "WHERE type = 'trigger' ORDER BY name)"),
	    ours);
	EXPECT_TRUE(kel_db_macaddr_exists(h_, "7:7:7:7:7:7"));
	const std::string after = value(tails);
	sql("DELETE FROM vport_colon_tbl");
	sql(kel::schema::kColonTailsFill);
	EXPECT_EQ(value(tails), after);
}

}  // namespace

// A scratch store with rows written straight into its tables, for the readers' tests
// (the library's own writers build on these readers).
#pragma once

#include <sqlite3.h>

#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kel/libkel.h>
#include "sql.h"
#include "store_handle.h"
#include "test_support.h"

namespace kel::test {

class StoreFixture : public ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
		ASSERT_EQ(kel_db_open(&h_, SQLITE_OPEN_READWRITE), KEL_SUCCESS);
	}
	void TearDown() override
	{
		kel_db_close(h_);
		ScratchRoot::TearDown();
	}

	// A UUID text made from a small number, so tests can name objects by number.
	static std::string uuid(int n)
	{
		char buf[37];
		std::snprintf(buf, sizeof(buf), "00000000-0000-4000-8000-%012d", n);
		return buf;
	}

	void add_kel(int id, const char *name, const char *tenant = "sys-global", const char *props = "")
	{
		ASSERT_EQ(kel::exec(h_,
		              "INSERT INTO kel_tbl (kel_uuid, kel_name, kel_tenant_name, kel_props) "
		              "VALUES (?, ?, ?, ?)",
		              {uuid(id), name, tenant, props}),
		    KEL_SUCCESS);
	}

	void add_vport(int id, int kel, const char *name, const char *props = "", int status = 0,
	    const char *vnic = nullptr, const char *host = "")
	{
		ASSERT_EQ(kel::exec(h_,
		              "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
		              "vport_status, vport_vnicname, vport_hostname) VALUES (?, ?, ?, ?, ?, ?, ?)",
		              {uuid(id), uuid(kel), name, props, status, vnic ? vnic : "", host}),
		    KEL_SUCCESS);
	}

	void add_ipnet(int id, int kel, const char *name, const char *subnet, const char *avail = "10.0.0.2-10.0.0.254")
	{
		const std::string props = std::string("subnet=") + subnet;
		ASSERT_EQ(kel::exec(h_,
		              "INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_keluuid, ipnet_name, ipnet_props, "
		              "ipnet_af, ipnet_start_addr, ipnet_end_addr, ipnet_avail_range) "
		              "VALUES (?, ?, ?, ?, 2, '', '', ?)",
		              {uuid(id), uuid(kel), name, props, avail}),
		    KEL_SUCCESS);
	}

	// Through the library: a flat switch "web" of the fabric with the network "n"
	// (`netprops`) and free ports named `ports`.
	void make_web(const char *netprops, std::initializer_list<const char *> ports)
	{
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_create_kel(h_, nullptr, "web", "l2-type=flat", 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
		kel_ipnet_t *ip = nullptr;
		ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", "web", "n", netprops, &ip, 0), KEL_SUCCESS);
		kel_free_ipnet(ip);
		for (const char *p : ports)
			ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", p, nullptr, nullptr, 0), KEL_SUCCESS);
	}

	void sql(const std::string &statement) { ASSERT_EQ(kel::exec(h_, statement.c_str()), KEL_SUCCESS); }

	void set_ctrl(const char *pname, const char *value)
	{
		ASSERT_EQ(kel::exec(h_, "UPDATE ctrl_tbl SET ctrl_pval = ? WHERE ctrl_pname = ?", {value, pname}),
		    KEL_SUCCESS);
	}

	// One text column of the first row `sql` selects ("<none>" without a row).
	std::string value(const std::string &sql, SqlValues values = {})
	{
		std::string out = "<none>";
		EXPECT_EQ(kel::for_each_row(h_, sql.c_str(), values,
		              [&](kel::Statement &st) {
			              out = st.text(0) ? st.text(0) : "<null>";
			              return KEL_E_EXISTS;  // the first row is enough
		              }),
		    KEL_E_EXISTS);
		return out;
	}

	// The first column of every row `sql` selects, joined by blanks.
	std::string joined(const char *sql)
	{
		std::string out;
		EXPECT_EQ(kel::for_each_row(h_, sql, {},
		              [&](kel::Statement &st) {
			              out += (out.empty() ? "" : " ") + std::string(st.text(0) ? st.text(0) : "<null>");
			              return KEL_SUCCESS;
		              }),
		    KEL_SUCCESS);
		return out;
	}

	std::string ctrl(const char *pname)
	{
		return value("SELECT ctrl_pval FROM ctrl_tbl WHERE ctrl_pname = ?", {pname});
	}

	static constexpr const char *kTables[] = {"kel_tbl", "vport_tbl", "ipnet_tbl", "ctrl_tbl", "misc_tbl"};

	// Every row of every table, in a stable order: to compare a store before and after.
	std::string dump()
	{
		std::string out;
		for (const auto &[table, rows] : snapshot()) {
			out += table + ":\n";
			for (const auto &row : rows) {
				for (const auto &v : row)
					out += (v ? *v : "NULL") + "|";
				out += "\n";
			}
		}
		return out;
	}

	// Every row of every table, to put back with restore(): a store file could be copied
	// instead, a database cannot.
	using Row = std::vector<std::optional<std::string>>;
	using Tables = std::vector<std::pair<std::string, std::vector<Row>>>;
	Tables snapshot(kel_dbhandle_t of = nullptr)
	{
		Tables out;
		for (const char *table : kTables) {
			auto &rows = out.emplace_back(table, std::vector<Row>()).second;
			EXPECT_EQ(kel::for_each_row(of != nullptr ? of : h_,
			              kel::SqlText("SELECT * FROM %s ORDER BY 1", table), {},
			              [&](kel::Statement &st) {
				              Row &row = rows.emplace_back();
				              for (int i = 0; i < st.columns(); i++)
					              row.push_back(st.text(i) ? std::optional<std::string>(st.text(i))
					                                       : std::nullopt);
				              return KEL_SUCCESS;
			              }),
			    KEL_SUCCESS);
		}
		return out;
	}
	void restore(const Tables &tables)
	{
		for (const auto &[table, rows] : tables) {
			ASSERT_EQ(kel::exec(h_, kel::SqlText("DELETE FROM %s", table.c_str())), KEL_SUCCESS);
			for (const Row &row : rows) {
				std::string marks;
				for (size_t i = 0; i < row.size(); i++)
					marks += i ? ", ?" : "?";
				kel::Statement st;
				ASSERT_EQ(st.prepare(h_,
				              kel::SqlText("INSERT INTO %s VALUES (%s)", table.c_str(), marks.c_str())),
				    KEL_SUCCESS);
				for (size_t i = 0; i < row.size(); i++) {
					if (row[i]) {
						ASSERT_EQ(st.bind_text(static_cast<int>(i + 1), row[i]->c_str()),
						    KEL_SUCCESS);
					}
				}
				ASSERT_EQ(st.step(), KEL_SUCCESS);
			}
		}
	}

	int rows(const char *table) { return std::stoi(value(std::string("SELECT count(*) FROM ") + table)); }

	kel_dbhandle_t h_ = nullptr;
};

}  // namespace kel::test

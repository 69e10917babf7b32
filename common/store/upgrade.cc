// Bringing a store of an older schema version to the current one, in one transaction.
#include <uuid/uuid.h>

#include <cstring>
#include <string>

#include "audit.h"
#include "c_boundary.h"
#include "filter.h"
#include "mac_index.h"
#include "names.h"
#include "owners.h"
#include "pg_conn.h"
#include "range.h"
#include "row_order.h"
#include "schema.h"
#include "sql.h"
#include "store_handle.h"

namespace {

int kel_db_upgrade_v2(kel_dbhandle_t h);

const char *const kel_sqlstmts_v2[] = {
    "ALTER TABLE ipnet_tbl ADD ipnet_avail_pool_range VARCHAR DEFAULT ''",
    "UPDATE ipnet_tbl SET ipnet_avail_pool_range = ipnet_avail_range",
    "ALTER TABLE ctrl_tbl ADD ctrl_vlan_range VARCHAR DEFAULT ''",
    "ALTER TABLE ctrl_tbl ADD ctrl_vxlan_range VARCHAR DEFAULT ''",
    "UPDATE ctrl_tbl SET ctrl_host = '' WHERE ctrl_host is NULL",
    "UPDATE ctrl_tbl SET ctrl_vlan_range = (SELECT ctrl_pval FROM ctrl_tbl WHERE ctrl_pname = "
    "'vlan-range') WHERE ctrl_pname = 'uplink-port' AND ctrl_pval != ''",
    "UPDATE ctrl_tbl SET ctrl_vxlan_range = (SELECT ctrl_pval FROM ctrl_tbl WHERE ctrl_pname = "
    "'vxlan-range') WHERE (ctrl_pname = 'vxlan-addr' AND ctrl_pval != '0.0.0.0') OR "
    "(ctrl_pname = 'uplink-port' AND ctrl_pval != '')",
    "UPDATE vport_tbl SET vport_hostname = '' WHERE vport_hostname is NULL",
    "UPDATE misc_tbl SET misc_value = '2' WHERE misc_name = 'db-version'",
    nullptr,
};

const char *const kel_sqlstmts_v3[] = {
    "INSERT into ctrl_tbl (ctrl_pname, ctrl_pval, ctrl_host) VALUES('uri-template', 'ssh://', '')",
    "ALTER TABLE ctrl_tbl ADD ctrl_flat_range VARCHAR DEFAULT ''",
    "UPDATE misc_tbl SET misc_value = '3' WHERE misc_name = 'db-version'",
    nullptr,
};

struct UpgradeStep {
	int version;
	const char *const *stmts;
	int (*fn)(kel_dbhandle_t);
};

// Row i brings a store of version i to version i + 1.
const UpgradeStep kel_db_upgrade_stmts[] = {
    {1, nullptr, nullptr},
    {2, kel_sqlstmts_v2, kel_db_upgrade_v2},
    {3, kel_sqlstmts_v3, nullptr},
    {-1, nullptr, nullptr},
};

int run_all(kel_dbhandle_t h, const char *const *stmts)
{
	int rc = KEL_SUCCESS;
	for (int i = 0; rc == KEL_SUCCESS && stmts != nullptr && stmts[i] != nullptr; i++)
		rc = h->edh_pg != nullptr ? kel::exec(h, stmts[i]) : kel_sqlite3_exec(h->edh_db, "%s", 1, stmts[i], 0);
	return rc;
}

// Version 2 gave networks a pool: their whole span less the default router. A network
// without a router gets its whole span.
int kel_db_upgrade_v2(kel_dbhandle_t h)
{
	kel::RecordList<kel_ipnet_t> nets;
	int rc = nets.read([&](list_t *l) { return kel_db_get_filtered_ipnetlist(h, "", l, 0); });
	if (rc == KEL_E_IPNET_NOTFOUND)
		return KEL_SUCCESS;
	if (rc != KEL_SUCCESS)
		return rc;
	for (kel_ipnet_t *ip : nets) {
		if (rc != KEL_SUCCESS)
			break;
		const std::string span = std::string(ip->ei_sastr) + "-" + ip->ei_eastr;
		char pool[1024];
		char *router = nullptr;
		if (attrset_lookup_string(ip->ei_props, "defrouter", &router) == 0)
			rc = kel_rsrc_range_diff(span.c_str(), router, pool, sizeof(pool),
			    ip->ei_af == AF_INET ? KEL_RANGE_IPV4 : KEL_RANGE_IPV6);
		else
			rc = kel_rsrc_range_merge(span.c_str(), pool, sizeof(pool),
			    ip->ei_af == AF_INET ? KEL_RANGE_IPV4 : KEL_RANGE_IPV6);
		if (rc == KEL_SUCCESS && attrset_add_string(ip->ei_props, "pool", pool) != 0)
			rc = KEL_E_NOMEM;
		char *raw = nullptr;
		if (rc == KEL_SUCCESS)
			rc = kel_attrset2str(ip->ei_props, &raw);
		const kel::Text props(raw);
		if (rc == KEL_SUCCESS) {
			const std::string filter = "ipnet=" + kel::uuid_text(ip->ei_uuid);
			rc = kel_db_set_filtered_value(h, "ipnet_tbl", "ipnet_props", filter.c_str(), props.get(),
			    DATA_TYPE_STRING);
		}
	}
	return rc;
}

// The name a "CREATE TRIGGER name ..." statement gives.
std::string trigger_name(const char *create)
{
	const std::string text(create);
	const size_t from = std::strlen("CREATE TRIGGER ");
	return text.substr(from, text.find(' ', from) - from);
}

// The tails' triggers as this build spells them: one an older build spelled otherwise
// is made anew, and the tails are then filled again, so that they are what these
// triggers would have kept.
int renew_triggers(kel_dbhandle_t h)
{
	int rc = KEL_SUCCESS;
	bool renewed = false;
	for (const char *const *stmt = kel::schema::kColonTails; rc == KEL_SUCCESS && *stmt != nullptr; stmt++) {
		if (std::strncmp(*stmt, "CREATE TRIGGER ", 15) != 0)
			continue;
		const std::string name = trigger_name(*stmt);
		bool same = false;
		rc = kel::for_each_row(h, "SELECT sql FROM sqlite_master WHERE type = 'trigger' AND name = ?", {name},
		    [&](kel::Statement &st) {
			    same = st.text(0) != nullptr && std::strcmp(st.text(0), *stmt) == 0;
			    return KEL_SUCCESS;
		    });
		if (rc != KEL_SUCCESS || same)
			continue;
		rc = kel_sqlite3_exec(h->edh_db, "DROP TRIGGER IF EXISTS %s", 1, name.c_str(), 0);
		if (rc == KEL_SUCCESS)
			rc = kel_sqlite3_exec(h->edh_db, "%s", 1, *stmt, 0);
		renewed = true;
	}
	if (rc == KEL_SUCCESS && renewed && (rc = kel::exec(h, "DELETE FROM vport_colon_tbl")) == KEL_SUCCESS)
		rc = kel::exec(h, kel::schema::kColonTailsFill);
	return rc;
}

// What a database made by an older build may lack: the MAC tails and the order of its
// rows, each made with what keeps it and filled from the rows there are (their order then
// the server's: the one they were written in is not known).
int ensure_database_lookups(kel_dbhandle_t h)
{
	static const char *const kRowOrderFill[] = {
	    "INSERT INTO row_order_tbl (row_key) SELECT kel_uuid FROM kel_tbl",
	    "INSERT INTO row_order_tbl (row_key) SELECT vport_uuid FROM vport_tbl",
	    "INSERT INTO row_order_tbl (row_key) SELECT ipnet_uuid FROM ipnet_tbl",
	    nullptr,
	};
	static const char *const kTailsFill[] = {kel::schema::kColonTailsFill, nullptr};
	const struct {
		const char *table;
		const char *const *make, *const *fill;
	} kept[] = {
	    {"vport_colon_tbl", kel::schema::kColonTailsDatabase, kTailsFill},
	    {"row_order_tbl", kel::schema::kRowOrderDatabase, kRowOrderFill},
	};
	int rc = KEL_SUCCESS;
	for (const auto &k : kept) {
		bool there = false;
		if (rc == KEL_SUCCESS)
			rc = kel::schema::has_table(h, k.table, &there);
		if (rc == KEL_SUCCESS && !there && (rc = run_all(h, k.make)) == KEL_SUCCESS)
			rc = run_all(h, k.fill);
	}
	return rc;
}

// The lookups this build keeps beside the store's tables: the indexes, and the MAC
// tails with their triggers (made and filled together, or left alone when present).
// An index that an older build made and this one no longer reads goes.
int ensure_lookups(kel_dbhandle_t h)
{
	if (h->edh_pg != nullptr)
		return ensure_database_lookups(h);
	int rc = KEL_SUCCESS;
	for (int i = 0; rc == KEL_SUCCESS && kel::schema::kel_indexstmts[i] != nullptr; i++) {
		const std::string stmt =
		    std::string(kel::schema::kel_indexstmts[i]).replace(0, 12, "CREATE INDEX IF NOT EXISTS");
		rc = kel_sqlite3_exec(h->edh_db, "%s", 1, stmt.c_str(), 0);
	}
	if (rc == KEL_SUCCESS)
		rc = kel::exec(h, "DROP INDEX IF EXISTS vport_macunkeyed_idx");
	bool kept = false;
	if (rc == KEL_SUCCESS)
		rc = kel::schema::has_table(h, "vport_colon_tbl", &kept);
	if (rc == KEL_SUCCESS && !kept) {
		rc = run_all(h, kel::schema::kColonTails);
		if (rc == KEL_SUCCESS)
			rc = kel::exec(h, kel::schema::kColonTailsFill);
	} else if (rc == KEL_SUCCESS) {
		rc = renew_triggers(h);
	}
	return rc;
}

int upgrade()
{
	kel::StoreHandle store;
	int rc = kel::db_open(&store, SQLITE_OPEN_READWRITE);
	if (rc != KEL_SUCCESS)
		return rc;
	kel_dbhandle_t h = store.get();
	kel::WriteScope write(h);
	int version = 0;
	if ((rc = write.locked()) == KEL_SUCCESS && (rc = kel::schema::read_version(h, &version)) == KEL_SUCCESS &&
	    version <= kel::schema::kVersion) {
		rc = write.begin();
		for (int i = version; rc == KEL_SUCCESS && kel_db_upgrade_stmts[i].version != -1; i++) {
			const UpgradeStep &step = kel_db_upgrade_stmts[i];
			rc = run_all(h, step.stmts);
			if (rc == KEL_SUCCESS && step.fn != nullptr)
				rc = step.fn(h);
		}
		// A current store made by an older build gets them too: its tables are already
		// what they should be.
		if (rc == KEL_SUCCESS)
			rc = ensure_lookups(h);
		if (rc == KEL_SUCCESS)
			rc = write.commit();
	} else if (rc == KEL_SUCCESS && version > kel::schema::kVersion) {
		rc = KEL_E_DB_VERSION;
	}
	return rc;
}

}  // namespace

extern "C" int kel_db_upgrade(void) noexcept
{
	return kel::audit::logged([] { return kel::audit::Change{"upgrade-store", "", "store", ""}; }, upgrade);
}

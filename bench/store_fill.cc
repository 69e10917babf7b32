// Fills the store under $KEL_ROOT with N ports on an existing switch, in one transaction,
// as add-vport would have written them (an address, a MAC address, no binding), so that a
// listing or a size can be measured at 100,000 ports without 100,000 durable adds.
// The network's pool is not drawn from: the store is for reading, not for more adds.
// Usage: store_fill KEL N [--ipv6]
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "sql.h"
#include "store_handle.h"

int main(int argc, char **argv)
{
	if (argc < 3) {
		std::fprintf(stderr, "usage: store_fill KEL N [--ipv6]\n");
		return 2;
	}
	const std::string kel = argv[1];
	const int n = std::atoi(argv[2]);
	const bool v6 = argc > 3 && std::strcmp(argv[3], "--ipv6") == 0;
	kel_dbhandle_t h = nullptr;
	if (kel_db_open(&h, SQLITE_OPEN_READWRITE) != KEL_SUCCESS)
		return 1;
	std::string keluuid;
	int rc = kel::for_each_row(h->edh_db, "SELECT kel_uuid FROM kel_tbl WHERE kel_name = ?", {kel},
	    [&](kel::Statement &st) {
		    keluuid = st.text(0);
		    return KEL_SUCCESS;
	    });
	if (keluuid.empty()) {
		std::fprintf(stderr, "store_fill: no kel '%s'\n", kel.c_str());
		return 1;
	}
	kel::Transaction tx(h->edh_db);
	if ((rc = tx.begin()) != KEL_SUCCESS)
		return 1;
	for (int i = 0; i < n && rc == KEL_SUCCESS; i++) {
		char uuid[KEL_UUID_TEXT_LEN], props[160];
		std::snprintf(uuid, sizeof(uuid), "00000000-0000-4000-8000-%012d", i);
		if (v6)
			std::snprintf(props, sizeof(props), "ipaddr=fd00::%x:%x/64,macaddr=2:8:20:%x:%x:%x", i >> 16,
			    i & 0xffff, (i >> 16) & 255, (i >> 8) & 255, i & 255);
		else
			std::snprintf(props, sizeof(props), "ipaddr=10.%d.%d.%d/8,macaddr=2:8:20:%x:%x:%x",
			    (i >> 16) & 255, (i >> 8) & 255, i & 255, (i >> 16) & 255, (i >> 8) & 255, i & 255);
		rc = kel::exec(h->edh_db,
		    "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
		    "vport_hostname) VALUES (?, ?, ?, ?, '')",
		    {std::string(uuid), keluuid, "p" + std::to_string(i), std::string(props)});
	}
	if (rc == KEL_SUCCESS)
		rc = tx.commit();
	kel_db_close(h);
	return rc == KEL_SUCCESS ? 0 : 1;
}

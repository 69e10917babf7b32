// Whether a MAC text is taken: it occurs, ignoring ASCII case, inside some port's property
// string. The plain answer is a LIKE over every port; for the six-group texts the library
// hands out and checks, two index lookups give the same answer without visiting every port.
#include <algorithm>
#include <cctype>
#include <string>

#include "allocator.h"
#include "mac_index.h"
#include "sql.h"
#include "store_handle.h"

namespace {

// A six-group text of hex digits: lower-cased, with exactly five colons and nothing that
// LIKE would read as a wildcard. Only such a text may take the indexed path.
bool keyable(const std::string &mac)
{
	auto hex_or_colon = [](char c) { return c == ':' || std::isxdigit(static_cast<unsigned char>(c)); };
	return std::count(mac.begin(), mac.end(), ':') == 5 && std::all_of(mac.begin(), mac.end(), hex_or_colon);
}

bool found(sqlite3 *db, const kel::SqlText &sql, kel::SqlValues values)
{
	bool any = false;
	const int rc = kel::for_each_row(db, sql, values, [&](kel::Statement &) {
		any = true;
		return KEL_E_CONTINUE;
	});
	return any && rc == KEL_E_CONTINUE;
}

}  // namespace

boolean_t kel_db_macaddr_exists(kel_dbhandle_t h, const char *mac)
{
	if (mac == nullptr)
		return B_FALSE;
	std::string text(mac);
	std::transform(text.begin(), text.end(), text.begin(),
	    [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
	const std::string pattern = "%" + text + "%";
	if (!keyable(text))
		return found(h->edh_db, "SELECT 1 FROM vport_tbl WHERE vport_props LIKE ?1 LIMIT 1",
		           {pattern})
		    ? B_TRUE
		    : B_FALSE;
	const std::string tail = text.substr(text.find(':'));
	return found(h->edh_db, KEL_SQL_MAC_TAKEN, {tail, tail + "g", pattern}) ? B_TRUE : B_FALSE;
}

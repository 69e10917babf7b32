// Whether a MAC address is taken. As text: it occurs, ignoring ASCII case, inside some
// port's property string. The plain answer is a LIKE over every port; for the six-group
// texts the library hands out and checks, two index lookups give the same answer without
// visiting every port. As a value: some port's macaddr is the same address, however
// either is spelled.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "allocator.h"
#include "kelnet.h"
#include "mac_index.h"
#include "schema.h"
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

bool found(kel::Db db, const kel::SqlText &sql, kel::SqlValues values)
{
	bool any = false;
	const int rc = kel::for_each_row(db, sql, values, [&](kel::Statement &) {
		any = true;
		return KEL_E_CONTINUE;
	});
	return any && rc == KEL_E_CONTINUE;
}

// The plain meaning: a LIKE over every port.
boolean_t scan(kel_dbhandle_t h, const std::string &pattern)
{
	return found(h, "SELECT 1 FROM vport_tbl WHERE vport_props LIKE ?1 LIMIT 1", {pattern}) ? B_TRUE : B_FALSE;
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
		return scan(h, pattern);
	// A store made before the tails were kept has neither them nor their triggers: the
	// plain scan answers there until the store is upgraded.
	bool have_tails = false;
	if (kel::schema::has_table(h, "vport_colon_tbl", &have_tails) != KEL_SUCCESS || !have_tails)
		return scan(h, pattern);
	const std::string tail = text.substr(text.find(':'));
	bool like = false;
	const int rc = kel::for_each_row(h, KEL_SQL_MAC_BY_KEY, {tail, tail + "g", pattern}, [&](kel::Statement &st) {
		like = st.integer(1) != 0;
		return like ? KEL_E_CONTINUE : KEL_SUCCESS;
	});
	if (like || (rc != KEL_SUCCESS && rc != KEL_E_CONTINUE))
		return like ? B_TRUE : B_FALSE;
	std::string kept = tail.substr(0, kel::schema::kKeptTail), past = kept;
	past.back()++;  // a colon or a hex digit: never the last character there is
	return found(h, KEL_SQL_MAC_BY_TAIL, {kept, past, pattern}) ? B_TRUE : B_FALSE;
}

namespace {

// The spellings of the octets after the first, each led by its colon, as the key index
// holds them (lower case): an octet below 0x10 may be written with or without its
// leading zero.
std::vector<std::string> key_spellings(const uint8_t *mac)
{
	std::vector<std::string> keys = {""};
	for (int i = 1; i < 6; i++) {
		char one[4], two[4];
		std::snprintf(one, sizeof(one), "%x", mac[i]);
		std::snprintf(two, sizeof(two), "%02x", mac[i]);
		std::vector<std::string> next;
		for (const std::string &k : keys) {
			next.push_back(k + ":" + one);
			if (std::strcmp(one, two) != 0)
				next.push_back(k + ":" + two);
		}
		keys = std::move(next);
	}
	return keys;
}

}  // namespace

boolean_t kel_db_macaddr_value_taken(kel_dbhandle_t h, const uint8_t *mac)
{
	bool taken = false;
	for (const std::string &key : key_spellings(mac)) {
		// The key's range, not the key alone: the statement is the text test's, and the
		// longer keys it also finds parse to other addresses.
		const int rc = kel::for_each_row(h, KEL_SQL_MAC_BY_KEY, {key, key + "g", ""}, [&](kel::Statement &st) {
			int len = 0;
			unsigned char *theirs = st.text(0) != nullptr ? _link_aton(st.text(0), &len) : nullptr;
			taken = theirs != nullptr && len == 6 && std::memcmp(theirs, mac, 6) == 0;
			std::free(theirs);
			return taken ? KEL_E_CONTINUE : KEL_SUCCESS;
		});
		if (taken || (rc != KEL_SUCCESS && rc != KEL_E_CONTINUE))
			return taken ? B_TRUE : B_FALSE;
	}
	return B_FALSE;
}

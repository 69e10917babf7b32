// The SQL behind the exact, index-backed answer to "does this MAC text occur inside any
// port's property string". Kept as literal pieces so the index definitions and the query
// that must match them are spelled from the same text: SQLite only uses an expression
// index for an expression written identically.
#pragma once

// The port's property string, lower-cased (LIKE ignores ASCII case) and framed by commas
// so that every property, the first included, starts after a ','.
#define KEL_SQL_PROPS "(',' || lower(vport_props) || ',')"
#define KEL_SQL_MACPOS "instr(" KEL_SQL_PROPS ", ',macaddr=')"
#define KEL_SQL_AFTER_MAC "substr(" KEL_SQL_PROPS ", " KEL_SQL_MACPOS " + 9)"
// The first macaddr value, or NULL.
#define KEL_SQL_MACVAL                                                                   \
	"(CASE WHEN " KEL_SQL_MACPOS " > 0 THEN substr(" KEL_SQL_AFTER_MAC ", 1, instr(" \
	KEL_SQL_AFTER_MAC ", ',') - 1) END)"
#define KEL_SQL_COLONS(x) "(length(" x ") - length(replace(" x ", ':', '')))"

// The macaddr value from its first colon on: the lookup key of the equality path.
#define KEL_SQL_MACKEY "substr(" KEL_SQL_MACVAL ", instr(" KEL_SQL_MACVAL ", ':'))"

// Ports that the key cannot answer for a six-group MAC text, which has five colons: those
// with more than five colons in all, or five that are not all in a hex macaddr value
// (IPv6 addresses, free-form values). Every other port has fewer than five colons, so
// cannot hold such a text, or holds it only inside its macaddr value, aligned colon for
// colon, which puts the text's tail at the start of the key.
#define KEL_SQL_MAC_UNKEYED                                                                  \
	"(" KEL_SQL_COLONS("vport_props") " > 5 OR (" KEL_SQL_COLONS("vport_props") " = 5 AND (" \
	KEL_SQL_COLONS(KEL_SQL_MACVAL) " IS NOT 5 OR trim(" KEL_SQL_MACVAL                       \
	", '0123456789abcdef:') <> '')))"

// Taken by a port of either kind: ?1 and ?2 bound the key (the text's tail from its first
// colon, and that tail followed by 'g': the key's next characters, if any, are hex digits),
// ?3 is the LIKE pattern that decides.
#define KEL_SQL_MAC_TAKEN                                                               \
	"SELECT 1 FROM vport_tbl WHERE " KEL_SQL_MACKEY " >= ?1 AND " KEL_SQL_MACKEY      \
	" < ?2 AND vport_props LIKE ?3 "                                                 \
	"UNION ALL SELECT 1 FROM vport_tbl WHERE " KEL_SQL_MAC_UNKEYED                    \
	" AND vport_props LIKE ?3 LIMIT 1"

namespace kel::schema {
inline constexpr const char kMacKeyIndex[] =
    "CREATE INDEX vport_mackey_idx ON vport_tbl (" KEL_SQL_MACKEY ")";
inline constexpr const char kMacUnkeyedIndex[] =
    "CREATE INDEX vport_macunkeyed_idx ON vport_tbl (vport_props) WHERE " KEL_SQL_MAC_UNKEYED;
}  // namespace kel::schema

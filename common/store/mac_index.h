// The SQL behind the exact, index-backed answer to "does this MAC text occur inside any
// port's property string". Kept as literal pieces so the index definitions and the query
// that must match them are spelled from the same text: SQLite only uses an expression
// index for an expression written identically.
#pragma once

// The port's property string, lower-cased (LIKE ignores ASCII case) and framed by commas
// so that every property, the first included, starts after a ','.
#define KEL_SQL_PROPS "(',' || lower(vport_props) || ',')"
// The first macaddr value in `s`, a property string framed by commas, or NULL.
#define KEL_SQL_MACPOS_IN(s)    "instr(" s ", ',macaddr=')"
#define KEL_SQL_AFTER_MAC_IN(s) "substr(" s ", " KEL_SQL_MACPOS_IN(s) " + 9)"
#define KEL_SQL_MACVAL_IN(s)                                                         \
	"(CASE WHEN " KEL_SQL_MACPOS_IN(s) " > 0 THEN substr(" KEL_SQL_AFTER_MAC_IN( \
	    s) ", 1, instr(" KEL_SQL_AFTER_MAC_IN(s) ", ',') - 1) END)"
// The port's first macaddr value, or NULL.
#define KEL_SQL_MACVAL    KEL_SQL_MACVAL_IN(KEL_SQL_PROPS)
#define KEL_SQL_COLONS(x) "(length(" x ") - length(replace(" x ", ':', '')))"

// The macaddr value from its first colon on: the lookup key of the equality path.
#define KEL_SQL_MACKEY "substr(" KEL_SQL_MACVAL ", instr(" KEL_SQL_MACVAL ", ':'))"

// Ports that the key cannot answer for a six-group MAC text, which has five colons: those
// with more than five colons in all, or five that are not all in a hex macaddr value
// (IPv6 addresses, free-form values). Every other port has fewer than five colons, so
// cannot hold such a text, or holds it only inside its macaddr value, aligned colon for
// colon, which puts the text's tail at the start of the key.
// `t` is the lower-cased property string and `m` its macaddr value.
#define KEL_SQL_MAC_UNKEYED(t, m)                                                        \
	"(" KEL_SQL_COLONS(t) " > 5 OR (" KEL_SQL_COLONS(t) " = 5 AND (" KEL_SQL_COLONS( \
	    m) " IS NOT 5 OR trim(" m ", '0123456789abcdef:') <> '')))"

// For those ports, vport_colon_tbl holds what follows each colon of the lower-cased
// property string (kKeptTail characters from the colon on): a text occurs in the string
// only where its tail from its first colon starts one of these, so a range lookup on the
// tails finds every candidate, and LIKE decides. Triggers keep the rows in step with
// every write of vport_props, so no writer has to remember them; a port that the key
// answers for has none. `source` is a row source with vport_uuid and vport_props.
#define KEL_SQL_KEPT_TAIL "24"
//
// The text of the triggers is what every process that writes a port parses and compiles,
// so each value is spelled once and named: the property string framed (s) and lower-cased
// (t), and its macaddr value (m).
#define KEL_SQL_COLON_ROWS(source)                                                                          \
	"INSERT INTO vport_colon_tbl (colon_vport, colon_pos, colon_tail) "                                 \
	"WITH RECURSIVE p(u, t, m) AS (SELECT u, t, " KEL_SQL_MACVAL_IN(                                    \
	    "s") " FROM "                                                                                   \
	         "(SELECT vport_uuid AS u, lower(vport_props) AS t, ',' || lower(vport_props) || ',' AS s " \
	         "FROM " source " AS src) AS framed), "                                                     \
	         "at(u, t, i) AS (SELECT u, t, instr(t, ':') FROM p WHERE " KEL_SQL_MAC_UNKEYED("t",        \
	             "m") " UNION ALL SELECT u, t, i + instr(substr(t, i + 1), ':') FROM at "               \
	                  "WHERE instr(substr(t, i + 1), ':') > 0) "                                        \
	                  "SELECT u, i, substr(t, i, " KEL_SQL_KEPT_TAIL ") FROM at WHERE i > 0"
#define KEL_SQL_NEW_ROW "(SELECT new.vport_uuid AS vport_uuid, new.vport_props AS vport_props)"

// The two lookups behind both questions, text and value. A short-lived process prepares
// each statement once, and the key's expression is most of what it parses, so one
// statement serves both: the ports whose key lies in [?1, ?2), with their macaddr value
// and whether their property string is LIKE ?3. For a text, ?1 is its tail from its
// first colon and ?2 that tail followed by 'g' (the key's next characters, if any, are
// hex digits); for a value, the same for each spelling of its key.
#define KEL_SQL_MAC_BY_KEY                                                                    \
	"SELECT " KEL_SQL_MACVAL ", vport_props LIKE ?3 FROM vport_tbl WHERE " KEL_SQL_MACKEY \
	" >= ?1 AND " KEL_SQL_MACKEY " < ?2"
// The ports the key cannot answer for, through their kept tails: ?1 is the text's tail
// cut to the kept length, ?2 the same with its last character raised by one, ?3 the LIKE
// pattern that decides.
#define KEL_SQL_MAC_BY_TAIL                                                         \
	"SELECT 1 FROM vport_colon_tbl JOIN vport_tbl ON vport_uuid = colon_vport " \
	"WHERE colon_tail >= ?1 AND colon_tail < ?2 AND vport_props LIKE ?3 LIMIT 1"

namespace kel::schema {
inline constexpr int kKeptTail = 24;  // KEL_SQL_KEPT_TAIL
inline constexpr const char kMacKeyIndex[] = "CREATE INDEX vport_mackey_idx ON vport_tbl (" KEL_SQL_MACKEY ")";
// The tails' table and what keeps it: created together, or not at all.
inline constexpr const char *const kColonTails[] = {
    "CREATE TABLE vport_colon_tbl (colon_vport CHAR(36) NOT NULL, colon_pos INTEGER NOT NULL, "
    "colon_tail TEXT NOT NULL, PRIMARY KEY (colon_vport, colon_pos)) WITHOUT ROWID",
    "CREATE INDEX vport_colon_tail_idx ON vport_colon_tbl (colon_tail)",
    "CREATE TRIGGER vport_colon_ins AFTER INSERT ON vport_tbl BEGIN " KEL_SQL_COLON_ROWS(KEL_SQL_NEW_ROW) "; END",
    "CREATE TRIGGER vport_colon_upd AFTER UPDATE OF vport_uuid, vport_props ON vport_tbl "
    "WHEN old.vport_props IS NOT new.vport_props OR old.vport_uuid IS NOT new.vport_uuid BEGIN "
    "DELETE FROM vport_colon_tbl WHERE colon_vport = old.vport_uuid; " KEL_SQL_COLON_ROWS(KEL_SQL_NEW_ROW) "; END",
    "CREATE TRIGGER vport_colon_del AFTER DELETE ON vport_tbl BEGIN "
    "DELETE FROM vport_colon_tbl WHERE colon_vport = old.vport_uuid; END",
    nullptr,
};
// The same on PostgreSQL: one trigger function keeps the rows, from the same statement;
// texts compare byte by byte, as the range lookups on the tails need. The function's
// body and the WHEN clause are written as SQLite reads them, as every statement of the
// library is, and rewritten with the rest.
inline constexpr const char *const kColonTailsDatabase[] = {
    "CREATE TABLE vport_colon_tbl (colon_vport TEXT COLLATE \"C\" NOT NULL, colon_pos INTEGER NOT NULL, "
    "colon_tail TEXT COLLATE \"C\" NOT NULL, PRIMARY KEY (colon_vport, colon_pos))",
    "CREATE INDEX vport_colon_tail_idx ON vport_colon_tbl (colon_tail)",
    "CREATE FUNCTION vport_colon_keep() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
    "IF TG_OP <> 'INSERT' THEN DELETE FROM vport_colon_tbl WHERE colon_vport = old.vport_uuid; END IF; "
    "IF TG_OP <> 'DELETE' THEN " KEL_SQL_COLON_ROWS(KEL_SQL_NEW_ROW) "; END IF; RETURN NULL; END $$",
    "CREATE TRIGGER vport_colon_ins AFTER INSERT OR DELETE ON vport_tbl FOR EACH ROW "
    "EXECUTE FUNCTION vport_colon_keep()",
    "CREATE TRIGGER vport_colon_upd AFTER UPDATE OF vport_uuid, vport_props ON vport_tbl FOR EACH ROW "
    "WHEN (old.vport_props IS NOT new.vport_props OR old.vport_uuid IS NOT new.vport_uuid) "
    "EXECUTE FUNCTION vport_colon_keep()",
    nullptr,
};
// Fills the table for the ports a store already has.
inline constexpr const char kColonTailsFill[] = KEL_SQL_COLON_ROWS("vport_tbl");
}  // namespace kel::schema

// The order rows are listed in. The file lists a table's rows in the order they were
// written (their rowid; an update keeps a row's place), and every listing shows them so.
// A PostgreSQL table has no such order (an updated row moves), so the database keeps each
// row's place beside the tables: row_order_tbl holds, for every switch, port and network
// by its UUID, a sequence number taken when the row was written, kept by a trigger
// function; the listings join it and sort by it. Settings and names keep theirs in their
// own IDs, which count up on both engines.
#pragma once

#include <string>

namespace kel::schema {

inline constexpr const char *const kRowOrderDatabase[] = {
    "CREATE TABLE row_order_tbl (row_key TEXT COLLATE \"C\" PRIMARY KEY, "
    "row_seq BIGINT GENERATED ALWAYS AS IDENTITY)",
    // The key column's name is the trigger's argument.
    "CREATE FUNCTION row_order_keep() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
    "IF TG_OP = 'INSERT' THEN "
    "INSERT INTO row_order_tbl (row_key) VALUES (to_jsonb(new) ->> TG_ARGV[0]); "
    "ELSIF TG_OP = 'DELETE' THEN "
    "DELETE FROM row_order_tbl WHERE row_key = to_jsonb(old) ->> TG_ARGV[0]; "
    "ELSE "
    "UPDATE row_order_tbl SET row_key = to_jsonb(new) ->> TG_ARGV[0] WHERE row_key = to_jsonb(old) ->> TG_ARGV[0]; "
    "END IF; RETURN NULL; END $$",
    "CREATE TRIGGER kel_row_order AFTER INSERT OR DELETE OR UPDATE OF kel_uuid ON kel_tbl FOR EACH ROW "
    "EXECUTE FUNCTION row_order_keep('kel_uuid')",
    "CREATE TRIGGER vport_row_order AFTER INSERT OR DELETE OR UPDATE OF vport_uuid ON vport_tbl FOR EACH ROW "
    "EXECUTE FUNCTION row_order_keep('vport_uuid')",
    "CREATE TRIGGER ipnet_row_order AFTER INSERT OR DELETE OR UPDATE OF ipnet_uuid ON ipnet_tbl FOR EACH ROW "
    "EXECUTE FUNCTION row_order_keep('ipnet_uuid')",
    nullptr,
};

// What a listing of `table` joins (when anything) and sorts by on the database, as the
// file lists it; `alias` names the join. "" for a table with no order of its own.
struct RowOrder {
	std::string join;  // " LEFT JOIN row_order_tbl ALIAS ON ALIAS.row_key = KEY", or ""
	std::string key;   // what to sort by
};
RowOrder row_order(const char *table, const char *alias);

// "SELECT `columns` FROM `table`" in the order the file lists the rows, on either engine
// (`database`): the columns named as the table's ("kel_tbl.*", "kel_tbl.kel_name").
std::string in_written_order(bool database, const char *table, const std::string &columns);

}  // namespace kel::schema

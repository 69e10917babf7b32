// The library writes its SQL once, in SQLite's dialect; this turns a statement into what
// PostgreSQL runs with the same meaning. Only the library's own statement text passes
// through here (values are always bound), so the rewrite knows every construct it meets.
#pragma once

#include <map>
#include <string>

namespace kel::pg {

struct Translated {
	std::string sql;
	int highest = 0;           // the highest parameter number of the SQLite text
	std::map<int, int> slots;  // each number the text uses, to its PostgreSQL number
};

// Rewrites `sqlite_sql`:
// - parameters ("?NNN", or a bare "?": the next number after the highest so far, as
//   SQLite numbers it) are numbered $1, $2, ... in the order first met: PostgreSQL
//   wants every number up to the highest used (the filters' numbers start at 100);
// - "x LIKE ?" becomes "x ILIKE $n ESCAPE ''": SQLite's LIKE ignores ASCII case and has no
//   escape character unless asked; with the store's "C" collation, ILIKE folds ASCII only;
// - "a IS NOT b" and "a IS b" (b not NULL) become IS [NOT] DISTINCT FROM;
// - instr(), ifnull() and trim(x, y) become strpos(), coalesce() and btrim(), and "=="
//   becomes "=".
// Quoted text and identifiers are copied as they are.
Translated translate(const std::string &sqlite_sql);

}  // namespace kel::pg

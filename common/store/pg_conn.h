// A store on PostgreSQL: one libpq connection, the statements prepared on it, and the
// store lock as an advisory lock of the database, so that every controller sharing the
// database is serialised exactly as processes sharing a store file are.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "pg_dialect.h"

namespace kel::pg {

// The advisory lock key that stands for the whole store ("kel" in ASCII).
inline constexpr long long kStoreLockKey = 0x6b656c;

// What the library reports a PostgreSQL failure as: an SQLite result code (under
// KEL_E_SQL), so that callers, texts and tests see one set of codes whichever engine
// holds the store. `sqlstate` may be NULL (no answer: the connection is gone).
int code_of_sqlstate(const char *sqlstate);

// A statement for the server: prepared there under `name`, or (name empty, once the
// connection keeps as many as it may) sent whole with its values each time.
struct Prepared {
	std::string name;
	std::shared_ptr<const Translated> text;
};

// A result, freed with its owner.
struct ResultFree {
	void operator()(PGresult *r) const;
};
using Result = std::unique_ptr<PGresult, ResultFree>;

class Conn {
public:
	// Connects with the libpq connection string `conninfo`. KEL_SUCCESS, or SQLITE_CANTOPEN
	// under KEL_E_SQL when no server answers as asked, KEL_E_NOMEM.
	static int open(const std::string &conninfo, std::unique_ptr<Conn> *out);
	~Conn();
	Conn(const Conn &) = delete;
	Conn &operator=(const Conn &) = delete;

	// The statement for the library's `sql` (SQLite's dialect), prepared on first use.
	int prepare(const char *sql, Prepared *out);
	// Runs a prepared statement with `values` (NULL entries are SQL NULLs), into *out.
	int run(const Prepared &p, const std::vector<const char *> &values, Result *out);
	// Runs `sql` (PostgreSQL's dialect, no parameters) and returns its first value, if any;
	// without `first`, allocates nothing of its own.
	int simple(const char *sql, std::string *first = nullptr);

	// Makes this session read-only, and every one made again after a loss.
	int make_read_only();

	// Inside a transaction (or a failed one, not yet rolled back).
	bool in_transaction() const;
	// Takes the store lock: exclusive or shared, waiting for it or not (*got says whether
	// it was had). A connection that was lost while the lock was not held is made again
	// first: the next server of the connection string may be the one that answers now.
	int lock(bool exclusive, bool wait, bool *got);
	void unlock(bool exclusive) noexcept;

	// The server's text for the last failure, for logs.
	const std::string &last_error() const { return last_error_; }

private:
	explicit Conn(PGconn *c) : conn_(c) {}
	int failed(const PGresult *res) noexcept;
	int reconnect_if_lost();
	// What every session of the connection is set to, made anew with it.
	int set_up_session();

	PGconn *conn_;
	std::mutex mu_;  // one request on the wire at a time
	// Statements built from filters differ in their text: a long-lived daemon would keep
	// one per filter it ever met. Past this many, statements are sent whole.
	static constexpr size_t kKept = 512;
	std::unordered_map<std::string, Prepared> prepared_;
	unsigned long named_ = 0;  // statements named on this session so far
	std::string last_error_;
	bool read_only_ = false;
};

// Holds the store lock, exclusive, on a database that may have no schema yet (so cannot
// pass kel_lock's check of the schema): for the one who makes it.
class SchemaLock {
public:
	explicit SchemaLock(Conn *conn) : conn_(conn), rc_(conn->lock(true, true, &held_)) {}
	~SchemaLock()
	{
		if (held_)
			conn_->unlock(true);
	}
	SchemaLock(const SchemaLock &) = delete;
	SchemaLock &operator=(const SchemaLock &) = delete;
	int status() const { return rc_; }

private:
	Conn *conn_;
	bool held_ = false;
	int rc_;
};

}  // namespace kel::pg

#include "pg_conn.h"

#include <sqlite3.h>

#include <cstring>
#include <new>

#include <kel/libkel.h>
#include "error_code.h"
#include "pg_dialect.h"
#include "pg_lib.h"

namespace kel::pg {

int code_of_sqlstate(const char *s)
{
	if (s == nullptr || std::strlen(s) != 5)
		return sql_error(SQLITE_IOERR);  // no answer: the server or the link went
	auto is = [&](const char *prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; };
	if (is("23"))
		return sql_error(SQLITE_CONSTRAINT);
	if (is("40001") || is("40P01") || is("55P03"))
		return sql_error(SQLITE_BUSY);
	if (is("53200"))
		return sql_error(SQLITE_NOMEM);
	if (is("53"))
		return sql_error(SQLITE_FULL);
	if (is("25006"))
		return sql_error(SQLITE_READONLY);  // a standby, or a read-only session
	if (is("42501"))
		return sql_error(SQLITE_PERM);
	if (is("28"))
		return sql_error(SQLITE_AUTH);
	if (is("3D000"))
		return sql_error(SQLITE_CANTOPEN);
	if (is("08") || is("57P"))
		return sql_error(SQLITE_IOERR);  // the connection failed, or the server is going
	if (is("22"))
		return sql_error(SQLITE_MISMATCH);
	return sql_error(SQLITE_ERROR);
}

void ResultFree::operator()(PGresult *r) const
{
	lib()->PQclear(r);
}

int Conn::open(const std::string &conninfo, std::unique_ptr<Conn> *out)
{
	// Without libpq no PostgreSQL store can be reached: as if no server answered.
	if (lib() == nullptr)
		return sql_error(SQLITE_CANTOPEN);
	PGconn *c = lib()->PQconnectdb(conninfo.c_str());
	if (c == nullptr)
		return KEL_E_NOMEM;
	if (lib()->PQstatus(c) != CONNECTION_OK) {
		lib()->PQfinish(c);
		return sql_error(SQLITE_CANTOPEN);
	}
	std::unique_ptr<Conn> conn(new Conn(c));
	if (int rc = conn->set_up_session(); rc != KEL_SUCCESS)
		return rc;
	*out = std::move(conn);
	return KEL_SUCCESS;
}

int Conn::set_up_session()
{
	// Notices (an index that exists already, ...) are the library's business, not stderr's.
	lib()->PQsetNoticeProcessor(
	    conn_, [](void *, const char *) {}, nullptr);
	int rc = simple("SET client_min_messages = warning");
	// Every statement of the library finds rows by key, which a plan made once serves
	// whatever the values. Left to choose, the server plans some afresh at each call (a
	// MAC address's range over its expression index, probing the index's ends to do so),
	// at a cost that grows with the table: 0.6 ms of an add at 100,000 ports.
	if (rc == KEL_SUCCESS)
		rc = simple("SET plan_cache_mode = force_generic_plan");
	if (rc == KEL_SUCCESS && read_only_)
		rc = simple("SET default_transaction_read_only = on");
	return rc;
}

Conn::~Conn()
{
	lib()->PQfinish(conn_);
}

int Conn::failed(const PGresult *res) noexcept
{
	// The server's words are for logs: when memory runs out they are what goes, not the code.
	try {
		last_error_ = lib()->PQerrorMessage(conn_);
	} catch (const std::bad_alloc &) {
		last_error_.clear();
	}
	const char *state = res != nullptr ? lib()->PQresultErrorField(res, PG_DIAG_SQLSTATE) : nullptr;
	return code_of_sqlstate(state);
}

int Conn::simple(const char *sql, std::string *first)
{
	const std::lock_guard hold(mu_);
	Result res(lib()->PQexec(conn_, sql));
	const ExecStatusType st = res ? lib()->PQresultStatus(res.get()) : PGRES_FATAL_ERROR;
	if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK)
		return failed(res.get());
	if (first != nullptr)
		*first = st == PGRES_TUPLES_OK && lib()->PQntuples(res.get()) > 0 &&
		        !lib()->PQgetisnull(res.get(), 0, 0)
		    ? lib()->PQgetvalue(res.get(), 0, 0)
		    : "";
	return KEL_SUCCESS;
}

int Conn::prepare(const char *sql, Prepared *out)
{
	const std::lock_guard hold(mu_);
	if (const auto it = prepared_.find(sql); it != prepared_.end()) {
		*out = it->second;
		return KEL_SUCCESS;
	}
	auto text = std::make_shared<const Translated>(translate(sql));
	if (prepared_.size() >= kKept) {
		*out = {"", std::move(text)};
		return KEL_SUCCESS;
	}
	// Kept before it is prepared, and under a name never used before on this session: when
	// memory runs out in between, the server holds no statement the map does not know of.
	const auto kept = prepared_.emplace(sql, Prepared{"kel" + std::to_string(++named_), std::move(text)}).first;
	Result res(lib()->PQprepare(conn_, kept->second.name.c_str(), kept->second.text->sql.c_str(), 0, nullptr));
	if (!res || lib()->PQresultStatus(res.get()) != PGRES_COMMAND_OK) {
		prepared_.erase(kept);
		return failed(res.get());
	}
	*out = kept->second;
	return KEL_SUCCESS;
}

int Conn::run(const Prepared &p, const std::vector<const char *> &values, Result *out)
{
	const std::lock_guard hold(mu_);
	const int n = static_cast<int>(values.size());
	Result res(p.name.empty()
	        ? lib()->PQexecParams(conn_, p.text->sql.c_str(), n, nullptr, values.data(), nullptr, nullptr, 0)
	        : lib()->PQexecPrepared(conn_, p.name.c_str(), n, values.data(), nullptr, nullptr, 0));
	const ExecStatusType st = res ? lib()->PQresultStatus(res.get()) : PGRES_FATAL_ERROR;
	if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK)
		return failed(res.get());
	*out = std::move(res);
	return KEL_SUCCESS;
}

bool Conn::in_transaction() const
{
	const PGTransactionStatusType st = lib()->PQtransactionStatus(conn_);
	return st == PQTRANS_INTRANS || st == PQTRANS_INERROR || st == PQTRANS_ACTIVE;
}

int Conn::reconnect_if_lost()
{
	if (lib()->PQstatus(conn_) == CONNECTION_OK)
		return KEL_SUCCESS;
	{
		const std::lock_guard hold(mu_);
		// The statements prepared on the old session went with it.
		prepared_.clear();
		lib()->PQreset(conn_);
		if (lib()->PQstatus(conn_) != CONNECTION_OK)
			return sql_error(SQLITE_CANTOPEN);
	}
	// So did what the session was set to: a read-only handle must not come back writable.
	return set_up_session();
}

int Conn::make_read_only()
{
	read_only_ = true;
	return simple("SET default_transaction_read_only = on");
}

namespace {

// The store lock's statements, spelled out: giving the lock back must not allocate.
#define KEL_PG_KEY "7038316"  // kStoreLockKey
static_assert(kStoreLockKey == 7038316);
constexpr const char *kLockSql[2][2] = {
    {"SELECT pg_try_advisory_lock_shared(" KEL_PG_KEY ")", "SELECT pg_advisory_lock_shared(" KEL_PG_KEY ")"},
    {"SELECT pg_try_advisory_lock(" KEL_PG_KEY ")", "SELECT pg_advisory_lock(" KEL_PG_KEY ")"},
};
constexpr const char *kUnlockSql[2] = {
    "SELECT pg_advisory_unlock_shared(" KEL_PG_KEY ")",
    "SELECT pg_advisory_unlock(" KEL_PG_KEY ")",
};
#undef KEL_PG_KEY

}  // namespace

int Conn::lock(bool exclusive, bool wait, bool *got)
{
	*got = false;
	if (int rc = reconnect_if_lost(); rc != KEL_SUCCESS)
		return rc;
	std::string answer;
	const int rc = simple(kLockSql[exclusive][wait], &answer);
	if (rc == KEL_SUCCESS)
		*got = wait || answer == "t";
	return rc;
}

void Conn::unlock(bool exclusive) noexcept
{
	// A session that is gone holds no lock any more: nothing to give back then.
	(void)simple(kUnlockSql[exclusive], nullptr);
}

}  // namespace kel::pg

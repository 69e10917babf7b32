// libpq, loaded when a store on PostgreSQL is first opened: a controller on the SQLite
// file, and every short keladm command, never pay for loading it and what it pulls in
// (TLS, Kerberos, LDAP).
#pragma once

#include <libpq-fe.h>

namespace kel::pg {

// clang-format off
#define KEL_PG_CALLS(X) \
	X(PQconnectdb) X(PQstatus) X(PQfinish) X(PQreset) X(PQsetNoticeProcessor) X(PQerrorMessage) \
	X(PQexec) X(PQexecParams) X(PQprepare) X(PQexecPrepared) X(PQresultStatus) X(PQresultErrorField) X(PQclear) \
	X(PQntuples) X(PQnfields) X(PQftype) X(PQgetisnull) X(PQgetvalue) X(PQtransactionStatus)
// clang-format on

struct Calls {
#define KEL_PG_FIELD(name) decltype(&::name) name = nullptr;
	KEL_PG_CALLS(KEL_PG_FIELD)
#undef KEL_PG_FIELD
};

// The calls, or NULL when libpq is not installed (or lacks one of them).
const Calls *lib();

}  // namespace kel::pg

// The store's schema, version 3.
#pragma once

#include <string>

namespace kel {
class Db;
}

namespace kel::schema {

inline constexpr int kVersion = 3;

// Owner and group of the store files.
inline constexpr unsigned kOwnerUid = 16;
inline constexpr unsigned kOwnerGid = 65;

// The creation statements, in the order they run; ended by a null entry.
extern const char *const kel_sqlstmts[];
// The same for a store on PostgreSQL.
extern const char *const kel_pg_sqlstmts[];

// Where each column of a row stands, in the order the CREATE statements give them. The
// views put the switch's columns first and the port's or network's after them.
// kel_tbl
inline constexpr int kKelUuid = 0;
inline constexpr int kKelName = 1;
inline constexpr int kKelTenant = 2;
inline constexpr int kKelStatus = 3;
inline constexpr int kKelProps = 4;
inline constexpr int kKelVportnumRange = 5;
inline constexpr int kKelColumns = 6;
// vport_tbl
inline constexpr int kVportUuid = 0;
inline constexpr int kVportKeluuid = 1;
inline constexpr int kVportName = 2;
inline constexpr int kVportProps = 3;
inline constexpr int kVportStatus = 4;
inline constexpr int kVportVnic = 5;
inline constexpr int kVportHost = 6;
inline constexpr int kVportColumns = 7;
// ipnet_tbl
inline constexpr int kIpnetUuid = 0;
inline constexpr int kIpnetKeluuid = 1;
inline constexpr int kIpnetName = 2;
inline constexpr int kIpnetProps = 3;
inline constexpr int kIpnetAf = 4;
inline constexpr int kIpnetStart = 5;
inline constexpr int kIpnetEnd = 6;
inline constexpr int kIpnetAvailRange = 7;
inline constexpr int kIpnetAvailPoolRange = 8;
inline constexpr int kIpnetColumns = 9;
// ctrl_tbl
inline constexpr int kCtrlId = 0;
inline constexpr int kCtrlPname = 1;
inline constexpr int kCtrlPval = 2;
inline constexpr int kCtrlHost = 3;
inline constexpr int kCtrlVlanRange = 4;
inline constexpr int kCtrlVxlanRange = 5;
inline constexpr int kCtrlFlatRange = 6;

// Indexes for the lookups by name and by owning switch, run after kel_sqlstmts in the
// same transaction; ended by a null entry. They add no table, column, view or row.
extern const char *const kel_indexstmts[];

// Whether the store has the table `name` (the library's own tables came later than the
// store's: a current store may have been made without one).
int has_table(Db db, const char *name, bool *found);

// The store's schema version, from its 'db-version' row. A file without the version's
// table is not a store (SQLITE_NOTADB under KEL_E_SQL); a store without a usable version
// (no row, or a text that is not a positive number) is a damaged one (SQLITE_CORRUPT
// under KEL_E_SQL): neither has a version to upgrade from or to write as.
int read_version(Db db, int *version);

// The current schema, for the engine of `db`, in the caller's transaction.
int create_tables(Db db);
// kel_db_create for the store at `conninfo` ("" for the file), whatever the setting says.
int create_at(const std::string &conninfo);

}  // namespace kel::schema

// The filter language: key=value texts that select rows. Values of one key are
// alternatives (OR), different keys must all hold (AND); property names match inside
// the stored property strings. Caller values are always bound as parameters.
#pragma once

#include <string>

#include "sql.h"

#include <cstdint>

#include <kel/libkel.h>

typedef enum {
	KEL_FILTER_KEL = 1,
	KEL_FILTER_VPORT = 2,
	KEL_FILTER_IPNET = 3,
	KEL_FILTER_HOST = 4,
	KEL_FILTER_VNIC = 5,
	KEL_FILTER_TENANT = 6,
	KEL_FILTER_CTRL_PNAME = 7,
	KEL_FILTER_CTRL_HOST = 8,
	KEL_FILTER_MISC_NAME = 9,
	KEL_FILTER_KELPROP = 10,
	KEL_FILTER_VPORTPROP = 11,
	KEL_FILTER_IPNETPROP = 12
} kel_filter_id_t;

typedef boolean_t kel_filter_checkfn_t(const char *value);

struct kel_filter_entry_t {
	const char *efe_name;
	kel_filter_id_t efe_id;
	uint32_t efe_coltype;  // a data_type_t
	const char *efe_tblname;
	kel_filter_checkfn_t *efe_checkfn;
	const char *efe_ops;  // "=" or "LIKE"
};

// The filter keys, ended by an entry whose name is NULL.
extern const kel_filter_entry_t kel_filter_table[];

// Sizes of the clause and of one key's joined property pattern.
inline constexpr size_t KEL_FILTER_CLAUSE_LEN = 2048;
// Parameters are numbered from here upwards.
inline constexpr int KEL_FILTER_FIRST_PARAM = 100;

// A row callback of the filtered query: KEL_SUCCESS to go on, anything else stops.
typedef int kel_row_cb_t(const kel::Statement &row, void *arg);

const kel_filter_entry_t *kel_get_filter_entry(const char *key);
const char *kel_fname2cname(const kel_filter_entry_t *entry, const char *value);
// Normalises a filter for the primary table `table` (uuid pairs, property names).
int kel_fstr2fattrset(const char *filter, attrset_t **out, const char *table);
// The WHERE clause (possibly empty) for `filter` over table1 (and table2, when given),
// and the values to bind (a set keyed by parameter number). KEL_E_NOSPACE when the
// clause does not fit `size` bytes.
int kel_filterstr2sqlfmt(const char *filter, char *clause, size_t size, attrset_t **params, const char *table1,
    const char *table2);
// Runs "SELECT *" over table1 (LEFT JOIN table2 ON col1 = col2 when table2 is given)
// with the filter, handing each row to `cb`. With `bound_only`, of vport_tbl's rows only
// the bound ports take part: as table1 the others are not read; as table2 they are left
// out of the join, so a switch without a bound port still comes, without ports. Either
// way the index of bound ports answers, and what is read grows with the bound ports only.
int kel_db_get_filtered_common(kel_dbhandle_t h, const char *table1, const char *table2, const char *col1,
    const char *col2, const char *filter, void *arg, kel_row_cb_t *cb, bool bound_only = false);
// Reads `column` of the first row of `table` that the filter selects into `dest`: an
// int for DATA_TYPE_INT32; for DATA_TYPE_STRING a new copy into *(char **)dest when
// destlen < 0, else the text cut to destlen bytes. No row leaves `dest` untouched.
int kel_db_get_filtered_value(kel_dbhandle_t h, const char *table, const char *column, const char *filter, void *dest,
    int destlen, data_type_t type);
// The text of `column` of the first row the filter selects into *out ("" for NULL).
int kel_db_get_filtered_text(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    std::string *out);
// Sets `column` of every row the filter selects (every row for an empty filter).
int kel_db_set_filtered_value(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    const void *value, data_type_t type);
// Whether a row of `table` has the given column values, joined by `conj` ("AND" or
// "OR") and compared with `op` (NULL: "="). `count` triples follow: column name,
// data_type_t, and an int or a const char *. Any failure is B_FALSE.
boolean_t kel_db_value_exists(kel_dbhandle_t h, const char *conj, const char *op, const char *table, int count, ...);
boolean_t kel_is_compatible_filter(const char *key, kel_type_t type);

namespace kel {

// The filter that selects the objects a caller named: "tenant=T,kel=K", and "KEY=V"
// when `key` is given. Each text given must be a valid name (or a UUID text), else
// KEL_E_INVALID_NAME before anything is composed: a comma in one would add an
// alternative to the filter, an empty one would drop its key. A NULL text leaves its
// key out, for operations whose callers ask for every such object that way.
int names_filter(char *out, size_t size, const char *tenant, const char *kel, const char *key = nullptr,
    const char *value = nullptr);

template <size_t N>
int names_filter(char (&out)[N], const char *tenant, const char *kel, const char *key = nullptr,
    const char *value = nullptr)
{
	return names_filter(out, N, tenant, kel, key, value);
}

}  // namespace kel

#include "filter.h"
#include "c_boundary.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "attrset_ptr.h"
#include "error_code.h"
#include "kel_assert.h"
#include "kelnet.h"
#include "names.h"
#include "number.h"
#include "owners.h"
#include "prop_catalogue.h"
#include "row_order.h"
#include "sql.h"
#include "store_handle.h"
#include "text.h"

namespace {

boolean_t check_hostname(const char *value)
{
	return valid_hostname(value) ? B_TRUE : B_FALSE;
}

constexpr uint32_t S = DATA_TYPE_STRING;

// The primary tables of objects: their object word, property type and property key.
struct ObjectTable {
	const char *table;
	const char *word;
	kel_proptype_t proptype;
	const char *propkey;
};

constexpr ObjectTable kObjectTables[] = {
    {"kel_tbl", "kel", KEL_PROPTYPE_KEL, "kel_prop"},
    {"vport_tbl", "vport", KEL_PROPTYPE_VPORT, "vport_prop"},
    {"ipnet_tbl", "ipnet", KEL_PROPTYPE_IPNET, "ipnet_prop"},
};

const ObjectTable *object_table(const char *table)
{
	for (const ObjectTable &t : kObjectTables)
		if (table != nullptr && std::strcmp(t.table, table) == 0)
			return &t;
	return nullptr;
}

// Which keys suit which object kind, by kel_type_t.
constexpr const char *kCompatibleKeys[][7] = {
    {"tenant", "kel", "vport", "ipnet", "host", "vnic", nullptr},
    {"tenant", "kel", "vport", "host", "vnic", nullptr},
    {"tenant", "kel", "ipnet", nullptr},
};

using kel::AttrSetPtr;

int new_set(int flags, AttrSetPtr *out)
{
	attrset_t *set = nullptr;
	if (attrset_create(&set, flags) != 0)
		return KEL_E_NOMEM;
	out->reset(set);
	return KEL_SUCCESS;
}

int add_string(attrset_t *set, const char *name, const char *value)
{
	return attrset_add_string(set, name, value) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
}

// Splits at every comma; empty pieces stay (they fail the value checks).
std::vector<std::string> pieces(const char *value)
{
	std::vector<std::string> out;
	const char *p = value;
	for (;;) {
		const char *comma = std::strchr(p, ',');
		if (comma == nullptr) {
			out.emplace_back(p);
			return out;
		}
		out.emplace_back(p, comma - p);
		p = comma + 1;
	}
}

// A property condition's joined text: "name=p1,name=p2", with protection pieces given
// a leading wildcard so that they match the end of a stored list of flags.
int property_pattern(const char *name, const char *value, std::string *out)
{
	const bool protection = std::strcmp(name, "protection") == 0;
	out->clear();
	for (const std::string &p : pieces(value)) {
		if (protection && p.size() + 1 >= 1024)
			return KEL_E_NOSPACE;
		if (!out->empty())
			*out += ",";
		*out += std::string(name) + "=" + (protection ? "%" : "") + p;
		if (out->size() >= KEL_FILTER_CLAUSE_LEN)
			return KEL_E_NOSPACE;
	}
	return KEL_SUCCESS;
}

int normalise(const char *filter, attrset_t **out, const char *table)
{
	attrset_t *parsed = nullptr;
	int rc = kel_str2attrset(filter, &parsed, B_TRUE, 0);
	if (rc != KEL_SUCCESS)
		return rc;
	AttrSetPtr in(parsed);
	const ObjectTable *obj = object_table(table);
	if (obj == nullptr) {
		*out = in.release();
		return KEL_SUCCESS;
	}
	AttrSetPtr norm;
	if ((rc = new_set(0, &norm)) != KEL_SUCCESS)
		return rc;
	for (attrset_entry_t *e = attrset_next_entry(in.get(), nullptr); e != nullptr && rc == KEL_SUCCESS;
	     e = attrset_next_entry(in.get(), e)) {
		const char *name = attrset_entry_name(e);
		char *value = nullptr;
		(void)attrset_entry_value_string(e, &value);
		if (std::strcmp(name, "uuid") == 0) {
			rc = add_string(norm.get(), obj->word, value);
		} else if (kel_get_filter_entry(name) != nullptr) {
			rc = add_string(norm.get(), name, value);
		} else if (kel_get_prop_entry(name, obj->proptype).ep_pname != nullptr) {
			std::string pattern;
			if ((rc = property_pattern(name, value, &pattern)) == KEL_SUCCESS)
				rc = add_string(norm.get(), obj->propkey, pattern.c_str());
		} else {
			rc = KEL_E_INVALID_FILTER;
		}
	}
	if (rc != KEL_SUCCESS)
		return rc;
	*out = norm.release();
	return KEL_SUCCESS;
}

// Adds parameter `n` with the piece as the column's type wants it.
int add_param(attrset_t *params, int n, const std::string &piece, uint32_t coltype)
{
	const std::string key = std::to_string(n);
	if (coltype == DATA_TYPE_INT32) {
		int number;
		if (int rc = kel_str2int(piece.c_str(), &number); rc != KEL_SUCCESS)
			return rc;
		return attrset_add_int32(params, key.c_str(), number) == 0 ? KEL_SUCCESS : KEL_E_NOMEM;
	}
	return add_string(params, key.c_str(), piece.c_str());
}

// The clause and its values for `filter`. A clause that reaches `size` bytes stops the
// build at once with KEL_E_NOSPACE, so that a filter of any length costs no more than the
// pieces that fit.
int build_clause(const char *filter, std::string *clause, AttrSetPtr *params, const char *t1, const char *t2,
    size_t size)
{
	attrset_t *norm_raw = nullptr;
	int rc = normalise(filter, &norm_raw, t1);
	if (rc != KEL_SUCCESS)
		return rc;
	AttrSetPtr norm(norm_raw);
	int n = KEL_FILTER_FIRST_PARAM;
	bool first_group = true;
	for (attrset_entry_t *e = attrset_next_entry(norm.get(), nullptr); e != nullptr;
	     e = attrset_next_entry(norm.get(), e)) {
		const kel_filter_entry_t *entry = kel_get_filter_entry(attrset_entry_name(e));
		if (entry == nullptr)
			return KEL_E_INVALID_ARGS;
		if (std::strcmp(entry->efe_tblname, t1) != 0 &&
		    (t2 == nullptr || std::strcmp(entry->efe_tblname, t2) != 0))
			continue;  // a key of a table this query does not read
		char *value = nullptr;
		(void)attrset_entry_value_string(e, &value);
		std::string prefix = first_group ? " WHERE (" : " AND (";
		first_group = false;
		const bool like = std::strcmp(entry->efe_ops, "LIKE") == 0;
		const char *column = nullptr;
		for (const std::string &piece : pieces(value)) {
			if (!like && entry->efe_checkfn != nullptr && !entry->efe_checkfn(piece.c_str()))
				return KEL_E_INVALID_ARGS;
			if (column == nullptr)
				column = kel_fname2cname(entry, piece.c_str());
			*clause += prefix + " " + column + " " + entry->efe_ops + " ?" + std::to_string(n) + " ";
			if (like) {
				*clause += std::string("OR ") + column + " LIKE ?" + std::to_string(n + 1) + " ";
				if ((rc = add_string(params->get(), std::to_string(n).c_str(),
				         ("%" + piece + ",%").c_str())) != KEL_SUCCESS ||
				    (rc = add_string(params->get(), std::to_string(n + 1).c_str(),
				         ("%" + piece).c_str())) != KEL_SUCCESS)
					return rc;
				n += 2;
			} else {
				if ((rc = add_param(params->get(), n, piece, entry->efe_coltype)) != KEL_SUCCESS)
					return rc;
				n += 1;
			}
			if (clause->size() >= size)
				return KEL_E_NOSPACE;
			prefix = "OR";
		}
		*clause += ")";
		if (clause->size() >= size)
			return KEL_E_NOSPACE;
	}
	return KEL_SUCCESS;
}

// Reads the first row's column into the destination (see kel_db_get_filtered_value).
int store_value(kel::Statement &st, void *dest, int destlen, data_type_t type)
{
	if (type == DATA_TYPE_INT32) {
		*static_cast<int *>(dest) = st.integer(0);
		return KEL_SUCCESS;
	}
	KEL_ASSERT(kel::kAreaCore, type == DATA_TYPE_STRING);
	const char *text = st.text(0);
	if (destlen < 0) {
		char *copy = nullptr;
		if (text != nullptr && (copy = strdup(text)) == nullptr)
			return KEL_E_NOMEM;
		*static_cast<char **>(dest) = copy;
		return KEL_SUCCESS;
	}
	if (destlen == 0)
		return KEL_SUCCESS;
	kel::copy_text(static_cast<char *>(dest), text != nullptr ? text : "", static_cast<size_t>(destlen));
	return KEL_SUCCESS;
}

}  // namespace

const kel_filter_entry_t kel_filter_table[] = {
    {"kel", KEL_FILTER_KEL, S, "kel_tbl", kel_valid_name, "="},
    {"vport", KEL_FILTER_VPORT, S, "vport_tbl", kel_valid_name, "="},
    {"ipnet", KEL_FILTER_IPNET, S, "ipnet_tbl", kel_valid_name, "="},
    {"host", KEL_FILTER_HOST, S, "vport_tbl", check_hostname, "="},
    {"vnic", KEL_FILTER_VNIC, S, "vport_tbl", kel_valid_zonevnicname, "="},
    {"tenant", KEL_FILTER_TENANT, S, "kel_tbl", kel_valid_name, "="},
    {"ctrl_pname", KEL_FILTER_CTRL_PNAME, S, "ctrl_tbl", nullptr, "="},
    {"ctrl_host", KEL_FILTER_CTRL_HOST, S, "ctrl_tbl", nullptr, "="},
    {"misc_name", KEL_FILTER_MISC_NAME, S, "misc_tbl", nullptr, "="},
    {"kel_prop", KEL_FILTER_KELPROP, S, "kel_tbl", nullptr, "LIKE"},
    {"vport_prop", KEL_FILTER_VPORTPROP, S, "vport_tbl", nullptr, "LIKE"},
    {"ipnet_prop", KEL_FILTER_IPNETPROP, S, "ipnet_tbl", nullptr, "LIKE"},
    {nullptr, static_cast<kel_filter_id_t>(0), 0, nullptr, nullptr, nullptr},
};

const kel_filter_entry_t *kel_get_filter_entry(const char *key)
{
	for (const kel_filter_entry_t *e = kel_filter_table; key && e->efe_name; e++)
		if (std::strcmp(e->efe_name, key) == 0)
			return e;
	return nullptr;
}

const char *kel_fname2cname(const kel_filter_entry_t *entry, const char *value)
{
	boolean_t is_uuid = B_FALSE;
	(void)kel_parse_name(value, &is_uuid);
	switch (entry->efe_id) {
	case KEL_FILTER_KEL: return is_uuid ? "kel_uuid" : "kel_name";
	case KEL_FILTER_VPORT: return is_uuid ? "vport_uuid" : "vport_name";
	case KEL_FILTER_IPNET: return is_uuid ? "ipnet_uuid" : "ipnet_name";
	case KEL_FILTER_HOST: return "vport_hostname";
	case KEL_FILTER_VNIC: return "vport_vnicname";
	case KEL_FILTER_TENANT: return "kel_tenant_name";
	case KEL_FILTER_CTRL_PNAME: return "ctrl_pname";
	case KEL_FILTER_CTRL_HOST: return "ctrl_host";
	case KEL_FILTER_MISC_NAME: return "misc_name";
	case KEL_FILTER_KELPROP: return "kel_props";
	case KEL_FILTER_VPORTPROP: return "vport_props";
	case KEL_FILTER_IPNETPROP: return "ipnet_props";
	}
	KEL_ASSERT(kel::kAreaCore, !"unknown filter key");
}

int kel_fstr2fattrset(const char *filter, attrset_t **out, const char *table)
{
	*out = nullptr;
	return kel::c_boundary([&] { return normalise(filter, out, table); });
}

int kel_filterstr2sqlfmt(const char *filter, char *clause, size_t size, attrset_t **params, const char *table1,
    const char *table2)
{
	*params = nullptr;
	if (size > 0)
		clause[0] = '\0';
	return kel::c_boundary([&] {
		AttrSetPtr values;
		int rc = new_set(ATTRSET_UNIQUE_NAME, &values);
		if (rc != KEL_SUCCESS)
			return rc;
		std::string text;
		if (filter != nullptr && *filter != '\0' &&
		    (rc = build_clause(filter, &text, &values, table1, table2, size)) != KEL_SUCCESS)
			return rc;
		if (text.size() >= size)
			return KEL_E_NOSPACE;
		std::memcpy(clause, text.c_str(), text.size() + 1);
		*params = values.release();
		return KEL_SUCCESS;
	});
}

namespace {

// The database's form of the listings below: the same columns, in the order the file
// lists the rows (row_order.h).
std::string in_written_order(const char *table1, const char *table2, const char *col1, const char *col2,
    const std::string &on_also, const std::string &where)
{
	const kel::schema::RowOrder first = kel::schema::row_order(table1, "order1");
	std::string sql = std::string("SELECT ") + table1 + ".*";
	std::string from = std::string(" FROM ") + table1;
	std::string order = first.key;
	if (table2 != nullptr) {
		const kel::schema::RowOrder second = kel::schema::row_order(table2, "order2");
		sql += std::string(", ") + table2 + ".*";
		from += std::string(" LEFT JOIN ") + table2 + " ON " + col1 + " = " + col2 + on_also + second.join;
		if (!second.key.empty())
			order += (order.empty() ? "" : ", ") + second.key;
	}
	sql += from + first.join + " " + where;
	return order.empty() ? sql : sql + " ORDER BY " + order;
}

}  // namespace

int kel_db_get_filtered_common(kel_dbhandle_t h, const char *table1, const char *table2, const char *col1,
    const char *col2, const char *filter, void *arg, kel_row_cb_t *cb, bool bound_only)
{
	char clause[KEL_FILTER_CLAUSE_LEN];
	attrset_t *params_raw = nullptr;
	int rc = kel_filterstr2sqlfmt(filter, clause, sizeof(clause), &params_raw, table1, table2);
	if (rc != KEL_SUCCESS)
		return rc;
	AttrSetPtr params(params_raw);
	constexpr const char *kBound = "vport_status = 1";
	const bool ports_first = std::strcmp(table1, "vport_tbl") == 0;
	const bool ports_joined = table2 != nullptr && std::strcmp(table2, "vport_tbl") == 0;
	return kel::c_boundary([&] {
		// Both conditions are the code's own constants; only the filter's values are bound.
		std::string where = clause;
		if (bound_only && ports_first)
			where = where.empty() ? std::string("WHERE ") + kBound : where + " AND " + kBound;
		const std::string on_also = bound_only && ports_joined ? std::string(" AND ") + kBound : "";
		auto on_row = [&](kel::Statement &st) { return cb(st, arg); };
		if (kel::Db(h).pg() != nullptr)
			return kel::for_each_row(h,
			    in_written_order(table1, table2, col1, col2, on_also, where).c_str(), {params.get()},
			    on_row);
		if (table2 != nullptr)
			return kel::for_each_row(h,
			    kel::SqlText("SELECT * FROM %s LEFT JOIN %s ON %s = %s%s %s", table1, table2, col1, col2,
			        on_also.c_str(), where.c_str()),
			    {params.get()}, on_row);
		return kel::for_each_row(h, kel::SqlText("SELECT * FROM %s %s", table1, where.c_str()), {params.get()},
		    on_row);
	});
}

int kel_db_get_filtered_text(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    std::string *out)
{
	char *raw = nullptr;
	const int rc = kel_db_get_filtered_value(h, table, column, filter, &raw, -1, DATA_TYPE_STRING);
	const kel::Text text(raw);
	if (rc == KEL_SUCCESS)
		*out = text != nullptr ? text.get() : "";
	return rc;
}

int kel_db_get_filtered_value(kel_dbhandle_t h, const char *table, const char *column, const char *filter, void *dest,
    int destlen, data_type_t type)
{
	char clause[KEL_FILTER_CLAUSE_LEN];
	attrset_t *params_raw = nullptr;
	int rc = kel_filterstr2sqlfmt(filter, clause, sizeof(clause), &params_raw, table, nullptr);
	if (rc != KEL_SUCCESS)
		return rc;
	AttrSetPtr params(params_raw);
	kel::Statement st;
	rc = st.prepare(h, kel::SqlText("SELECT %s FROM %s %s", column, table, clause), {params.get()});
	if (rc == KEL_SUCCESS && (rc = st.step()) == KEL_E_CONTINUE)
		rc = store_value(st, dest, destlen, type);
	return rc;
}

int kel_db_set_filtered_value(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    const void *value, data_type_t type)
{
	char clause[KEL_FILTER_CLAUSE_LEN];
	attrset_t *params_raw = nullptr;
	int rc = kel_filterstr2sqlfmt(filter, clause, sizeof(clause), &params_raw, table, nullptr);
	if (rc != KEL_SUCCESS)
		return rc;
	AttrSetPtr params(params_raw);
	KEL_ASSERT(kel::kAreaCore, type == DATA_TYPE_INT32 || type == DATA_TYPE_STRING);
	const kel::SqlText sql("UPDATE %s SET %s = ? %s", table, column, clause);
	if (type == DATA_TYPE_INT32)
		return kel::exec(h, sql, {*static_cast<const int *>(value), params.get()});
	return kel::exec(h, sql, {static_cast<const char *>(value), params.get()});
}

boolean_t kel_db_value_exists(kel_dbhandle_t h, const char *conj, const char *op, const char *table, int count, ...)
{
	if (table == nullptr || count < 1)
		return B_FALSE;
	if (count > 1 && (conj == nullptr || (std::strcmp(conj, "AND") != 0 && std::strcmp(conj, "OR") != 0)))
		return B_FALSE;
	if (op == nullptr)
		op = "=";
	try {
		AttrSetPtr params;
		if (new_set(ATTRSET_UNIQUE_NAME, &params) != KEL_SUCCESS)
			return B_FALSE;
		std::string clause;
		// Nothing leaves between va_start and va_end: a failure, or memory running out
		// while the clause grows, ends the loop and is looked at after.
		int rc = KEL_SUCCESS;
		va_list ap;
		va_start(ap, count);
		try {
			for (int i = 0; i < count && rc == KEL_SUCCESS; i++) {
				const char *column = va_arg(ap, const char *);
				const auto type = static_cast<data_type_t>(va_arg(ap, int));
				const std::string key = std::to_string(KEL_FILTER_FIRST_PARAM + i);
				if (type == DATA_TYPE_INT32) {
					if (attrset_add_int32(params.get(), key.c_str(), va_arg(ap, int)) != 0)
						rc = KEL_E_NOMEM;
				} else {
					KEL_ASSERT(kel::kAreaCore, type == DATA_TYPE_STRING);
					const char *value = va_arg(ap, const char *);
					rc = add_string(params.get(), key.c_str(), value != nullptr ? value : "");
				}
				clause += std::string(" ") + (i == 0 ? "WHERE" : conj) + " " + column + " " + op +
				    " ?" + key;
			}
		} catch (const std::bad_alloc &) {
			rc = KEL_E_NOMEM;
		}
		va_end(ap);
		if (rc != KEL_SUCCESS || clause.size() >= KEL_FILTER_CLAUSE_LEN)
			return B_FALSE;
		kel::Statement st;
		// One row or none, and no columns: a view's would all be built by the prepare.
		if (st.prepare(h, kel::SqlText("SELECT 1 FROM %s %s LIMIT 1", table, clause.c_str()), {params.get()}) !=
		    KEL_SUCCESS)
			return B_FALSE;
		return st.step() == KEL_E_CONTINUE ? B_TRUE : B_FALSE;
	} catch (const std::bad_alloc &) {
		return B_FALSE;
	}
}

boolean_t kel_is_compatible_filter(const char *key, kel_type_t type)
{
	if (key == nullptr || type < KEL_TYPE_KEL || type > KEL_TYPE_IPNET)
		return B_FALSE;
	for (const char *const *k = kCompatibleKeys[type]; *k != nullptr; k++)
		if (std::strcmp(*k, key) == 0)
			return B_TRUE;
	return B_FALSE;
}

extern "C" {

int kel_validate_filterstr(const char *filter, kel_type_t type, kel_proptype_t proptype) noexcept
{
	return kel::c_boundary([&] {
		if (filter == nullptr || *filter == '\0')
			return KEL_SUCCESS;
		attrset_t *parsed = nullptr;
		int rc = kel_str2attrset(filter, &parsed, B_TRUE, 0);
		if (rc != KEL_SUCCESS)
			return rc;
		AttrSetPtr set(parsed);
		for (attrset_entry_t *e = attrset_next_entry(set.get(), nullptr); e != nullptr;
		     e = attrset_next_entry(set.get(), e)) {
			const char *name = attrset_entry_name(e);
			if (kel_get_prop_entry(name, proptype).ep_pname == nullptr &&
			    !kel_is_compatible_filter(name, type))
				return KEL_E_INVALID_FILTER;
		}
		return KEL_SUCCESS;
	});
}

void kel_filterstr2regex(char *text) noexcept
{
	for (char *p = text; p != nullptr && *p != '\0'; p++)
		if (*p == ',')
			*p = '|';
}

}  // extern "C"

namespace kel {

int names_filter(char *out, size_t size, const char *tenant, const char *kel, const char *key, const char *value)
{
	if (!names_valid({tenant, kel, key != nullptr ? value : nullptr}))
		return KEL_E_INVALID_NAME;
	return kel_create_attrstr(out, size, nullptr, key != nullptr ? 3 : 2, "tenant", tenant, "kel", kel, key, value);
}

}  // namespace kel

#include "pool.h"
#include "c_boundary.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "filter.h"
#include "range.h"

namespace {

std::string join(const std::vector<std::string> &pieces)
{
	std::string out;
	for (const std::string &p : pieces)
		if (!p.empty())
			out += (out.empty() ? "" : ",") + p;
	return out;
}

std::string step(const std::string &value, int delta, int type)
{
	char buf[64];
	return kel_rsrc_value(value.c_str(), delta, buf, sizeof(buf), type);
}

std::vector<std::string> texts(const std::vector<KelRangeElement> &elems, int type)
{
	std::vector<std::string> out;
	for (const KelRangeElement &e : elems)
		out.push_back(kel_range_element_text(e.start, e.end, type));
	return out;
}

int read_pool(kel_dbhandle_t h, const char *table, const char *column, const char *filter, std::string *pool)
{
	return kel_db_get_filtered_text(h, table, column, filter, pool);
}

int write_pool(kel_dbhandle_t h, const char *table, const char *column, const char *filter, const std::string &pool)
{
	return kel_db_set_filtered_value(h, table, column, filter, pool.c_str(), DATA_TYPE_STRING);
}

}  // namespace

namespace kel::pool {

int take_lowest(const std::string &pool, int type, std::string *drawn, std::string *rest)
{
	std::vector<KelRangeElement> elems = kel_range_elements(pool.c_str());
	if (elems.empty())
		return KEL_E_NORESOURCE;
	std::vector<std::string> pieces = texts(elems, type);
	const KelRangeElement &first = elems.front();
	*drawn = first.start;
	const int d = kel_rsrc_cmp(first.start.c_str(), first.end.c_str(), type);
	if (d == 0)
		pieces.front().clear();
	else if (d == -1)
		pieces.front() = first.end;
	else
		pieces.front() = step(first.start, +1, type) + "-" + first.end;
	*rest = join(pieces);
	return KEL_SUCCESS;
}

int take(const std::string &pool, const std::string &value, int type, std::string *rest)
{
	std::vector<KelRangeElement> elems = kel_range_elements(pool.c_str());
	std::vector<std::string> pieces = texts(elems, type);
	for (size_t i = 0; i < elems.size(); i++) {
		const int s = kel_rsrc_cmp(value.c_str(), elems[i].start.c_str(), type);
		if (s < 0)
			return KEL_E_NORESOURCE;  // below this element: not free
		const int e = kel_rsrc_cmp(value.c_str(), elems[i].end.c_str(), type);
		if (e > 0)
			continue;
		std::string lower, upper;
		if (s == 1)
			lower = elems[i].start;
		else if (s > 1)
			lower = elems[i].start + "-" + step(value, -1, type);
		if (e == -1)
			upper = elems[i].end;
		else if (e < -1)
			upper = step(value, +1, type) + "-" + elems[i].end;
		pieces[i] = join({lower, upper});
		*rest = join(pieces);
		return KEL_SUCCESS;
	}
	return KEL_E_NORESOURCE;
}

std::string give(const std::string &pool, const std::string &value, int type)
{
	std::vector<KelRangeElement> elems = kel_range_elements(pool.c_str());
	if (elems.empty())
		return value;
	std::vector<std::string> pieces = texts(elems, type);
	for (size_t i = 0; i < elems.size(); i++) {
		const KelRangeElement &el = elems[i];
		const int ds = kel_rsrc_cmp(value.c_str(), el.start.c_str(), type);
		if (ds >= 0) {
			if (kel_rsrc_cmp(value.c_str(), el.end.c_str(), type) <= 0)
				return pool;  // already free: leave the pool as it was
			continue;
		}
		const bool next_to_prev = i > 0 && kel_rsrc_cmp(value.c_str(), elems[i - 1].end.c_str(), type) == 1;
		if (!next_to_prev) {
			pieces[i] = ds == -1 ? value + "-" + el.end : value + "," + pieces[i];
		} else if (ds == -1) {
			pieces[i - 1] = elems[i - 1].start + "-" + el.end;
			pieces[i].clear();
		} else {
			pieces[i - 1] = elems[i - 1].start + "-" + value;
		}
		return join(pieces);
	}
	const KelRangeElement &last = elems.back();
	if (kel_rsrc_cmp(value.c_str(), last.end.c_str(), type) == 1)
		pieces.back() = last.start + "-" + value;
	else
		pieces.push_back(value);
	return join(pieces);
}

}  // namespace kel::pool

int kel_get_next_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter, char *out,
    size_t outlen, int type)
{
	return kel::c_boundary([&] {
		std::string pool, drawn, rest;
		int rc = read_pool(h, table, column, filter, &pool);
		if (rc == KEL_SUCCESS)
			rc = kel::pool::take_lowest(pool, type, &drawn, &rest);
		if (rc != KEL_SUCCESS)
			return rc;
		if (drawn.size() >= outlen)
			return KEL_E_NOSPACE;
		std::memcpy(out, drawn.c_str(), drawn.size() + 1);
		return write_pool(h, table, column, filter, rest);
	});
}

int kel_get_this_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    const char *target, int type)
{
	return kel::c_boundary([&] {
		std::string pool, rest;
		int rc = read_pool(h, table, column, filter, &pool);
		if (rc == KEL_SUCCESS)
			rc = kel::pool::take(pool, target, type, &rest);
		return rc != KEL_SUCCESS ? rc : write_pool(h, table, column, filter, rest);
	});
}

int kel_free_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter, const char *tofree,
    int type)
{
	return kel::c_boundary([&] {
		std::string pool;
		int rc = read_pool(h, table, column, filter, &pool);
		return rc != KEL_SUCCESS ? rc
		                         : write_pool(h, table, column, filter, kel::pool::give(pool, tofree, type));
	});
}

// Pools: range-set strings in the store from which values are drawn and to which they
// are given back. The text edits are pure functions; the store operations read the
// column, edit it and write it back under the caller's store lock.
#pragma once

#include <string>

#include <kel/libkel.h>

namespace kel::pool {

// Draws the lowest value: *drawn gets it, *rest the pool without it.
// KEL_E_NORESOURCE for an empty pool.
int take_lowest(const std::string &pool, int type, std::string *drawn, std::string *rest);
// Draws `value`; KEL_E_NORESOURCE when it is not free.
int take(const std::string &pool, const std::string &value, int type, std::string *rest);
// Puts `value` back in order, merged with its neighbours. A value that is already free
// leaves the pool as it was: a double give-back must never widen a pool.
std::string give(const std::string &pool, const std::string &value, int type);

}  // namespace kel::pool

// The store forms: the pool is `column` of the row of `table` that `filter` selects.
// A NULL column reads as an empty pool.
int kel_get_next_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter, char *out,
    size_t outlen, int type);
int kel_get_this_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter,
    const char *target, int type);
int kel_free_resource(kel_dbhandle_t h, const char *table, const char *column, const char *filter, const char *tofree,
    int type);

#include "statement_cache.h"

#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <unordered_map>

namespace kel::statement_cache {
namespace {

// Enough for every fixed statement of an operation and its callees; the filtered reads
// build texts of their own, which come and go at the front.
constexpr size_t kPerConnection = 64;

std::mutex mutex;
// Per connection, the statements not lent out, most recently handed back last.
std::unordered_map<sqlite3 *, std::deque<sqlite3_stmt *>> kept;

}  // namespace

void attach(sqlite3 *db)
{
	const std::lock_guard<std::mutex> lock(mutex);
	try {
		kept.try_emplace(db);
	} catch (const std::bad_alloc &) {
		// Without an entry the connection simply keeps nothing.
	}
}

void detach(sqlite3 *db)
{
	std::deque<sqlite3_stmt *> gone;
	{
		const std::lock_guard<std::mutex> lock(mutex);
		auto it = kept.find(db);
		if (it == kept.end())
			return;
		gone.swap(it->second);
		kept.erase(it);
	}
	for (sqlite3_stmt *st : gone)
		sqlite3_finalize(st);
}

sqlite3_stmt *take(sqlite3 *db, const char *sql)
{
	const std::lock_guard<std::mutex> lock(mutex);
	auto it = kept.find(db);
	if (it == kept.end())
		return nullptr;
	auto &list = it->second;
	for (auto st = list.rbegin(); st != list.rend(); ++st) {
		if (std::strcmp(sqlite3_sql(*st), sql) == 0) {
			sqlite3_stmt *found = *st;
			list.erase(std::next(st).base());
			return found;
		}
	}
	return nullptr;
}

void give_back(sqlite3_stmt *stmt)
{
	if (stmt == nullptr)
		return;
	// Reset first: a statement left mid-read would hold the store's read lock.
	sqlite3_reset(stmt);
	sqlite3_clear_bindings(stmt);
	sqlite3_stmt *evicted = stmt;
	{
		const std::lock_guard<std::mutex> lock(mutex);
		auto it = kept.find(sqlite3_db_handle(stmt));
		if (it != kept.end()) {
			try {
				it->second.push_back(stmt);
				evicted = nullptr;
				if (it->second.size() > kPerConnection) {
					evicted = it->second.front();
					it->second.pop_front();
				}
			} catch (const std::bad_alloc &) {
				evicted = stmt;
			}
		}
	}
	sqlite3_finalize(evicted);
}

}  // namespace kel::statement_cache

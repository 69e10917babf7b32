// keld's open stores. Opening the store parses its schema, and a new handle has none of
// the statements the library keeps prepared (a database's handle also holds its server
// connection): together most of what a controller call over the socket would cost.
// Handles are kept from one call to the next instead, one per call running at once, and
// a handle whose store was replaced or moved since it was opened is closed rather than
// served.
#pragma once

#include <string>

#include <kel/libkel.h>
#include "owners.h"

namespace kelcntl {

// A handle lent for one call: back to the pool when it goes.
class PooledStore {
public:
	explicit PooledStore(int mode);
	~PooledStore();
	PooledStore(const PooledStore &) = delete;
	PooledStore &operator=(const PooledStore &) = delete;

	// KEL_SUCCESS, or kel_db_open's code when no handle could be had.
	int status() const { return rc_; }
	kel_dbhandle_t get() const { return h_.get(); }
	// Whether the store is a database, which may be out of reach for a while (failing
	// over) where a missing file is simply not there.
	bool in_database() const { return store_.rfind("database ", 0) == 0; }

private:
	int mode_;
	kel::StoreHandle h_;
	std::string store_;  // which store this handle opened
	int rc_;
};

}  // namespace kelcntl

// Connections kept from one use to the next. Each new connection over ssh
// costs a session (an ssh client, a remote shell, the bridge) of some 20 ms; a process
// that reaches the same hosts again and again (the controller's keld, joining each new
// host of a kel to the others) keeps the ones it is done with and takes them up again.
// A connection is lent to one user at a time. One kept too long may have died meanwhile
// (its host restarted): its first exchange tells, and the user then asks for a new one.
#pragma once

#include <string>

#include "nuq_errors.h"
#include "nuq_types.h"

namespace nuq {

class KeptConnection {
public:
	KeptConnection() = default;
	~KeptConnection();
	KeptConnection(const KeptConnection &) = delete;
	KeptConnection &operator=(const KeptConnection &) = delete;

	// A kept connection to `uri`, or a new one: NUQ_E_SUCCESS, or NUQ_E_CONNECT when the
	// URI does not parse or no connection could be made. Any connection held before is
	// given back first.
	int open(const std::string &uri);
	nuq_conn_t *get() const { return conn_; }
	// After the first exchange on the connection failed with `r`: true when it was a
	// kept one that died meanwhile, which is closed with every other kept to its host;
	// the caller opens a new one and tries again. False when `r` is the answer to keep.
	bool stale(int r);
	// Whether `r` is the transport's failure rather than the far end's answer.
	static bool transport_failed(int r)
	{
		return r == NUQ_E_CLOSED || r == NUQ_E_TIMEOUT || r == NUQ_E_PROTOCOL || r == NUQ_E_CONNECT;
	}

private:
	void give_back();

	std::string uri_;
	nuq_conn_t *conn_ = nullptr;
	bool kept_ = false;
};

// Closes every connection kept (tests; a process that ends just leaves them).
void drop_kept_connections();

}  // namespace nuq

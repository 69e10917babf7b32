#include "kept.h"

#include <unistd.h>

#include <chrono>
#include <mutex>
#include <new>
#include <vector>

#include "nuq_errors.h"
#include "nuq_uri.h"

namespace nuq {
namespace {

using Clock = std::chrono::steady_clock;

// Idle connections: enough for a fan-out to every host of a large kel at once, each
// host's for as long as a fabric is usually busy joining hosts. What goes past either is
// closed the next time the pool is used: a connection holds an ssh process and a session
// of its host's.
constexpr size_t kMaxKept = 256;
constexpr size_t kMaxKeptPerUri = 4;
constexpr auto kMaxIdle = std::chrono::minutes(5);

struct Idle {
	std::string uri;
	nuq_conn_t *conn;
	Clock::time_point since;
};

struct Pool {
	std::mutex mutex;
	std::vector<Idle> idle;  // oldest first
	pid_t owner = getpid();
};

Pool &pool()
{
	static Pool *p = new Pool;  // never destroyed: a connection may come back at exit
	return *p;
}

// The idle connections of this process; the pool's mutex is held. A child made by fork
// finds its parent's in the pool: they are the parent's to use (two processes on one
// connection read each other's answers) and to close (closing one may end the parent's
// ssh process), so the child forgets them and keeps their descriptors.
std::vector<Idle> &idle_here()
{
	Pool &p = pool();
	if (p.owner != getpid()) {
		p.idle.clear();
		p.owner = getpid();
	}
	return p.idle;
}

// Takes the idle connections too old to keep out of the pool, into `closing`; the pool's
// mutex is held.
void expire(std::vector<nuq_conn_t *> *closing)
{
	std::vector<Idle> &idle = idle_here();
	const Clock::time_point now = Clock::now();
	size_t keep_from = 0;
	while (
	    keep_from < idle.size() && (now - idle[keep_from].since > kMaxIdle || idle.size() - keep_from > kMaxKept))
		closing->push_back(idle[keep_from++].conn);
	idle.erase(idle.begin(), idle.begin() + static_cast<std::ptrdiff_t>(keep_from));
}

void close_all(const std::vector<nuq_conn_t *> &conns)
{
	for (nuq_conn_t *c : conns)
		nuq_disconnect(c);
}

}  // namespace

KeptConnection::~KeptConnection()
{
	give_back();
}

int KeptConnection::open(const std::string &uri)
{
	give_back();
	uri_ = uri;
	std::vector<nuq_conn_t *> closing;
	{
		std::lock_guard<std::mutex> hold(pool().mutex);
		expire(&closing);
		std::vector<Idle> &idle = idle_here();
		// The most recently used: the likeliest to be alive.
		for (size_t i = idle.size(); i-- > 0;)
			if (idle[i].uri == uri) {
				conn_ = idle[i].conn;
				idle.erase(idle.begin() + static_cast<std::ptrdiff_t>(i));
				kept_ = true;
				break;
			}
	}
	// One closed at its other end since it was kept is no use: a new one instead.
	if (conn_ != nullptr && !nuq_conn_usable(conn_)) {
		closing.push_back(conn_);
		conn_ = nullptr;
	}
	close_all(closing);
	if (conn_ != nullptr)
		return NUQ_E_SUCCESS;
	kept_ = false;
	nuq_uri_t *parsed = nuq_alloc_uri(uri.c_str(), NUQS_UNIX | NUQS_SSH);
	conn_ = parsed != nullptr ? nuq_connect_uri(parsed, nullptr) : nullptr;
	nuq_free_uri(parsed);
	return conn_ != nullptr ? NUQ_E_SUCCESS : NUQ_E_CONNECT;
}

bool KeptConnection::stale(int r)
{
	if (!kept_ || !transport_failed(r))
		return false;
	nuq_disconnect(conn_);
	conn_ = nullptr;
	kept_ = false;
	// Its host went away since: so did every other kept to it, and the next open makes
	// a new one rather than trying them.
	std::vector<nuq_conn_t *> closing;
	{
		std::lock_guard<std::mutex> hold(pool().mutex);
		std::vector<Idle> &idle = idle_here();
		for (auto it = idle.begin(); it != idle.end();)
			if (it->uri == uri_) {
				closing.push_back(it->conn);
				it = idle.erase(it);
			} else {
				++it;
			}
	}
	close_all(closing);
	return true;
}

void KeptConnection::give_back()
{
	nuq_conn_t *conn = conn_;
	conn_ = nullptr;
	kept_ = false;
	if (conn == nullptr)
		return;
	if (!nuq_conn_usable(conn)) {
		nuq_disconnect(conn);
		return;
	}
	// Giving back runs in destructors: running out of memory keeps nothing more, and the
	// connection not kept is closed.
	bool kept = false;
	std::vector<nuq_conn_t *> closing;
	try {
		std::lock_guard<std::mutex> hold(pool().mutex);
		std::vector<Idle> &idle = idle_here();
		size_t same = 0;
		for (const Idle &i : idle)
			same += i.uri == uri_;
		if (same < kMaxKeptPerUri) {
			idle.push_back({uri_, conn, Clock::now()});
			kept = true;
		}
		expire(&closing);
	} catch (const std::bad_alloc &) {
	}
	if (!kept)
		nuq_disconnect(conn);
	close_all(closing);
}

void drop_kept_connections()
{
	std::vector<nuq_conn_t *> closing;
	{
		std::lock_guard<std::mutex> hold(pool().mutex);
		for (const Idle &i : idle_here())
			closing.push_back(i.conn);
		pool().idle.clear();
	}
	close_all(closing);
}

}  // namespace nuq

// The server side of remote administration: interfaces that modules register, and a
// listener that serves them to authorised local callers, one thread per connection.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "request.h"

namespace nuq {

// What a method answers: NUQ_E_SUCCESS with a value, NUQ_E_OBJECT with the method's
// own error record, or another server error.
struct Reply {
	int status = 0;
	Json value;
};

// Thrown by a lookup that cannot tell whether the object is there (what it looks in is
// out of reach for now): the request is answered with `reply`, not with "not found",
// so that the caller knows to ask again rather than give up on the object.
struct LookupFailure {
	Reply reply;
};

// Methods and lookups get `keys` and `args` as objects, but their members are the
// caller's: each is type-checked before use (request.h's accessors).
using MethodFn = std::function<Reply(const Json &keys, const Json &args)>;
// Finds the object named by `keys` (all of them with `strict`, else any object that
// matches those given); fills the object's full keys. false when there is none.
using LookupFn = std::function<bool(const Json &keys, bool strict, Json *found)>;

struct Interface {
	std::string name;
	LookupFn lookup;
	std::map<std::string, MethodFn> methods;
};

// What one request was, for keld's metrics: the interface and method asked for ("" for
// a ping; "lookup" for a lookup; names no interface offers all read "unknown", so that a
// caller cannot make up new ones), whether it was answered with an error, and how long
// the answer took.
struct Handled {
	std::string interface, method;
	bool error = false;
	std::chrono::steady_clock::duration took{};
};
using Observer = std::function<void(const Handled &)>;

// The interfaces a server offers, looked up by name for each request.
class Dispatcher {
public:
	void add(Interface iface);
	// Tells `observer` of every request handled from now on; set before serving.
	void set_observer(Observer observer) { observer_ = std::move(observer); }
	// Answers one request line with one reply line, whatever the line holds: a
	// malformed request gets its JSON-RPC error reply, never an exception.
	std::string handle(const std::string &request) const noexcept;
	// The socket the server listens on, told in the answer to a ping: a client that came
	// in through a relay on the host may reach it by that path next time.
	void set_socket(std::string path) { socket_ = std::move(path); }

private:
	std::string answer(const Request &req, Handled *handled) const;

	std::map<std::string, Interface> interfaces_;
	Observer observer_;
	std::string socket_;
};

// Who called, as the kernel saw the caller when it connected.
struct Caller {
	uid_t uid = 0;
	gid_t gid = 0;
	pid_t pid = 0;
	std::vector<gid_t> groups;  // supplementary groups
};

// The caller at the far end of unix socket `fd`; false when the kernel cannot tell.
bool peer_of(int fd, Caller *caller);
// Whether `caller` may use the server: root, or a member of `group` as its primary or
// one of its supplementary groups. Without a group only root may.
bool authorised(const Caller &caller, std::optional<gid_t> group);
// The ID of the group `name`, if there is one.
std::optional<gid_t> group_id(const char *name);
// The uid of the caller whose connection the calling thread serves; none outside one.
std::optional<uid_t> serving_uid();

// What one caller may hold of the server, so that nobody can starve it.
struct Limits {
	// A connection that sends no whole request for this long is closed; so is one that
	// does not read its replies for as long.
	std::chrono::milliseconds idle{60000};
	size_t per_user = 32;  // open connections of any one uid but root
	size_t users = 256;    // open connections of all uids but root together
	size_t root = 64;      // root's own share, which nobody else can use up
};

class Server {
public:
	// Serves members of the group "kel", as it is when constructed (see set_group).
	explicit Server(const Dispatcher &dispatcher, Limits limits = {});
	~Server();
	// Changes the group whose members may call (nullopt: root only); takes effect for
	// the next connection.
	void set_group(std::optional<gid_t> group);
	// Listens on `path` (replacing a stale socket); false with errno on failure.
	bool listen(const std::string &path);
	// Accepts and serves connections until stop() is called; returns once every
	// connection has ended.
	void run();
	// Ends run() and every connection; safe from another thread.
	void stop();

private:
	void admit(int fd);
	void serve(int fd, uid_t uid);
	// Waits `ms` or until stop(); for backing off after a failed accept.
	void pause(int ms);

	const Dispatcher &dispatcher_;
	const Limits limits_;
	int listen_fd_ = -1;
	int wake_[2] = {-1, -1};
	std::atomic<bool> stopping_{false};
	std::mutex mutex_;
	std::condition_variable idle_;  // signalled as connections end
	std::optional<gid_t> group_;
	std::vector<int> clients_;  // open connections, one detached thread each
	std::map<uid_t, size_t> per_uid_;
	size_t users_ = 0;  // connections of uids other than root
};

// Builds the error reply for a request id, given as JSON text (Request::id, kNullId).
std::string error_reply(std::string_view id, int code, const Json &data = nullptr);

}  // namespace nuq

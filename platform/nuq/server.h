// The server side of remote administration: interfaces that modules register, and a
// listener that serves them to authorised local callers, one thread per connection.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace nuq {

using Json = nlohmann::json;

// What a method answers: NUQ_E_SUCCESS with a value, NUQ_E_OBJECT with the method's
// own error record, or another server error.
struct Reply {
	int status = 0;
	Json value;
};

using MethodFn = std::function<Reply(const Json &keys, const Json &args)>;
// Finds the object named by `keys` (all of them with `strict`, else any object that
// matches those given); fills the object's full keys. false when there is none.
using LookupFn = std::function<bool(const Json &keys, bool strict, Json *found)>;

struct Interface {
	std::string name;
	LookupFn lookup;
	std::map<std::string, MethodFn> methods;
};

// The interfaces a server offers, looked up by name for each request.
class Dispatcher {
public:
	void add(Interface iface);
	// Answers one request line with one reply line.
	std::string handle(const std::string &request) const;

private:
	std::map<std::string, Interface> interfaces_;
};

// Whether a caller may use the server: root, or a member of the group "kel".
bool authorised(uid_t uid, gid_t gid);

class Server {
public:
	explicit Server(const Dispatcher &dispatcher) : dispatcher_(dispatcher) {}
	~Server();
	// Listens on `path` (replacing a stale socket); false with errno on failure.
	bool listen(const std::string &path);
	// Accepts and serves connections until stop() is called; returns once every
	// connection has ended.
	void run();
	// Ends run() and every connection; safe from another thread.
	void stop();

private:
	void serve(int fd);

	const Dispatcher &dispatcher_;
	int listen_fd_ = -1;
	int wake_[2] = {-1, -1};
	std::atomic<bool> stopping_{false};
	std::mutex mutex_;
	std::condition_variable idle_;	// signalled as connections end
	std::vector<int> clients_;	// open connections, one detached thread each
};

// Builds the error reply for a request id.
std::string error_reply(const Json &id, int code, const Json &data = nullptr);

}  // namespace nuq

#include "server.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log.h"
#include "nuq_errors.h"
#include "wire.h"

namespace nuq {

namespace {

// The envelope's members around the request's id, as the caller wrote it (JSON text).
// Replies keep their members in the order the printer sorts them.
std::string id_and_version(std::string_view id)
{
	return std::string(R"("id":)").append(id).append(R"(,"jsonrpc":"2.0")");
}

}  // namespace

std::string error_reply(std::string_view id, int code, const Json &data)
{
	Json err = {{"code", wire_code(code)}, {"message", nuq_err_string(code)}};
	if (!data.is_null())
		err["data"] = data;
	return R"({"error":)" + dump_line(err) + "," + id_and_version(id) + "}";
}

namespace {

std::string result_reply(std::string_view id, const Json &result)
{
	return "{" + id_and_version(id) + R"(,"result":)" + dump_line(result) + "}";
}

// What the server answers when it cannot even build an answer (no memory).
constexpr const char kFailedReply[] =
    R"({"error":{"code":-32007,"message":"remote server failure"},"id":null,"jsonrpc":"2.0"})";

// Events any local user can cause at will are logged a few at a time.
log::Limiter refusals(10, std::chrono::seconds(10));
log::Limiter accept_failures(5, std::chrono::seconds(10));

// Answers a connection that will not be served, without reading anything it sent, and
// closes it. The send never waits: a caller that does not read loses the answer.
void turn_away(int fd, int err)
{
	const std::string line = error_reply(kNullId, err) + "\n";
	(void)!send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
	close(fd);
}

std::string who(const Caller &c)
{
	return "uid " + std::to_string(c.uid) + " pid " + std::to_string(c.pid);
}

}  // namespace

void Dispatcher::add(Interface iface)
{
	std::string name = iface.name;
	interfaces_[name] = std::move(iface);
}

std::string Dispatcher::handle(const std::string &request) const noexcept
{
	const auto started = std::chrono::steady_clock::now();
	Handled handled{"unknown", "unknown"};
	std::string reply;
	try {
		Request req;
		const int rc = parse_request(request, &req);
		reply = rc == NUQ_E_SUCCESS ? answer(req, &handled) : error_reply(req.id, rc);
	} catch (...) {
		reply = kFailedReply;
	}
	if (observer_) {
		// An error reply is the only one whose first member is "error" (error_reply).
		handled.error = reply.rfind(R"({"error":)", 0) == 0;
		handled.took = std::chrono::steady_clock::now() - started;
		try {
			observer_(handled);
		} catch (...) {
			// Counting is no reason to lose the answer.
		}
	}
	return reply;
}

std::string Dispatcher::answer(const Request &req, Handled *handled) const
{
	const std::string &id = req.id;
	const Json &params = req.params;
	if (req.method == "ping") {
		handled->interface = "";
		handled->method = "ping";
		// The far end is a server of ours, at this path of its host.
		return result_reply(id, socket_.empty() ? Json::object() : Json{{"socket", socket_}});
	}
	if (req.method != "lookup" && req.method != "call")
		return error_reply(id, NUQ_E_NOMETHOD);
	// Refused here, for every interface and method at once.
	if (holds_nul(params))
		return error_reply(id, NUQ_E_BADARGS);
	const std::string *name = text_member(params, "interface");
	const Json *keys = member(params, "keys");
	if (name == nullptr || keys == nullptr || !keys->is_object())
		return error_reply(id, NUQ_E_BADARGS);
	auto it = interfaces_.find(*name);
	if (it == interfaces_.end())
		return error_reply(id, NUQ_E_NOINTERFACE);
	const Interface &iface = it->second;
	handled->interface = iface.name;
	if (req.method == "lookup")
		handled->method = "lookup";
	else if (const std::string *method = text_member(params, "method");
	         method != nullptr && iface.methods.count(*method) != 0)
		handled->method = *method;
	try {
		if (req.method == "lookup") {
			const Json *strict = member(params, "strict");
			if (strict != nullptr && !strict->is_boolean())
				return error_reply(id, NUQ_E_BADARGS);
			Json found;
			if (!iface.lookup(*keys, strict == nullptr || strict->get<bool>(), &found))
				return error_reply(id, NUQ_E_NOTFOUND);
			return result_reply(id, {{"keys", found}});
		}
		const std::string *method = text_member(params, "method");
		const Json *args = member(params, "args");
		if (method == nullptr || (args != nullptr && !args->is_object()))
			return error_reply(id, NUQ_E_BADARGS);
		auto m = iface.methods.find(*method);
		if (m == iface.methods.end())
			return error_reply(id, NUQ_E_NOMETHOD);
		// The object may have gone since it was looked up.
		Json found;
		if (!iface.lookup(*keys, true, &found))
			return error_reply(id, NUQ_E_NOTFOUND);
		Reply reply = m->second(found, args != nullptr ? *args : Json::object());
		if (reply.status == NUQ_E_SUCCESS)
			return result_reply(id, reply.value);
		return error_reply(id, reply.status, reply.value);
	} catch (const LookupFailure &failure) {
		return error_reply(id, failure.reply.status, failure.reply.value);
	} catch (const Json::exception &) {
		// A module that missed a type check still answers cleanly.
		return error_reply(id, NUQ_E_BADARGS);
	} catch (const std::exception &) {
		return error_reply(id, NUQ_E_SYSTEM);
	}
}

bool peer_of(int fd, Caller *caller)
{
	struct ucred cred {};
	socklen_t len = sizeof(cred);
	if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
		return false;
	caller->uid = cred.uid;
	caller->gid = cred.gid;
	caller->pid = cred.pid;
	// The groups the caller had when it connected; the kernel says how many there are.
	std::vector<gid_t> groups(16);
	for (;;) {
		len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
		if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) == 0)
			break;
		if (errno != ERANGE || len <= groups.size() * sizeof(gid_t))
			return false;
		groups.resize(len / sizeof(gid_t));
	}
	groups.resize(len / sizeof(gid_t));
	caller->groups = std::move(groups);
	return true;
}

bool authorised(const Caller &caller, std::optional<gid_t> group)
{
	if (caller.uid == 0)
		return true;
	if (!group)
		return false;
	return caller.gid == *group ||
	    std::find(caller.groups.begin(), caller.groups.end(), *group) != caller.groups.end();
}

std::optional<gid_t> group_id(const char *name)
{
	struct group grbuf, *gr = nullptr;
	std::vector<char> buf(16384);
	if (getgrnam_r(name, &grbuf, buf.data(), buf.size(), &gr) != 0 || gr == nullptr)
		return std::nullopt;
	return gr->gr_gid;
}

Server::Server(const Dispatcher &dispatcher, Limits limits)
    : dispatcher_(dispatcher), limits_(limits), group_(group_id("kel"))
{
}

Server::~Server()
{
	stop();
	std::unique_lock<std::mutex> hold(mutex_);
	idle_.wait(hold, [this] { return clients_.empty(); });
	hold.unlock();
	for (int fd : {listen_fd_, wake_[0], wake_[1]})
		if (fd != -1)
			close(fd);
}

void Server::set_group(std::optional<gid_t> group)
{
	std::lock_guard<std::mutex> hold(mutex_);
	group_ = group;
}

bool Server::listen(const std::string &path)
{
	// The socket is bound under a side name and renamed into place once it listens, so
	// that a client which sees the path can connect: between bind and listen a connect
	// would be refused.
	const std::string side = path + "~";
	struct sockaddr_un addr {};
	if (side.size() >= sizeof(addr.sun_path)) {
		errno = ENAMETOOLONG;
		return false;
	}
	if (pipe2(wake_, O_CLOEXEC) != 0)
		return false;
	// Non-blocking, so that a connection gone between poll and accept cannot stall the
	// loop.
	listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (listen_fd_ == -1)
		return false;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, side.c_str(), side.size() + 1);
	(void)unlink(side.c_str());  // a socket left by a daemon that died
	if (bind(listen_fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0)
		return false;
	// Access is decided per caller (root or the kel group), not by the file mode.
	if (chmod(side.c_str(), 0666) != 0 || ::listen(listen_fd_, 128) != 0 ||
	    rename(side.c_str(), path.c_str()) != 0) {
		const int err = errno;
		(void)unlink(side.c_str());
		errno = err;
		return false;
	}
	return true;
}

void Server::pause(int ms)
{
	struct pollfd wake = {wake_[0], POLLIN, 0};
	(void)poll(&wake, 1, ms);
}

void Server::run()
{
	int backoff = 0;
	while (!stopping_) {
		struct pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
		if (poll(fds, 2, -1) < 0) {
			if (errno == EINTR)
				continue;
			break;
		}
		if (fds[1].revents != 0)
			break;
		const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
		if (fd != -1) {
			backoff = 0;
			admit(fd);
			continue;
		}
		// Out of descriptors or memory the pending connection stays pending and poll
		// reports it at once: retrying at once would spin. Wait, longer each time.
		if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
			backoff = std::min(backoff == 0 ? 10 : backoff * 2, 1000);
			log::write_limited(accept_failures, log::kErr,
			    std::string("cannot accept a connection: ") + std::strerror(errno) + "; retrying in " +
			        std::to_string(backoff) + " ms");
			pause(backoff);
		}
	}
	std::unique_lock<std::mutex> hold(mutex_);
	idle_.wait(hold, [this] { return clients_.empty(); });
}

// The caller is checked once, here, before anything it sent is read: a refused caller
// gets its answer and the connection is closed.
void Server::admit(int fd)
{
	Caller caller;
	if (!peer_of(fd, &caller)) {
		log::write_limited(refusals, log::kWarning, "refused a caller the kernel cannot name");
		turn_away(fd, NUQ_E_DENIED);
		return;
	}
	std::unique_lock<std::mutex> hold(mutex_);
	if (!authorised(caller, group_)) {
		hold.unlock();
		log::write_limited(refusals, log::kWarning,
		    "refused " + who(caller) + ": neither root nor a member of the kel group");
		turn_away(fd, NUQ_E_DENIED);
		return;
	}
	const bool root = caller.uid == 0;
	size_t &mine = per_uid_[caller.uid];
	if (mine >= (root ? limits_.root : limits_.per_user) || (!root && users_ >= limits_.users)) {
		const size_t held = mine, all = users_;
		if (held == 0)
			per_uid_.erase(caller.uid);
		hold.unlock();
		log::write_limited(refusals, log::kWarning,
		    "turned away " + who(caller) + ": it holds " + std::to_string(held) +
		        " connections, all callers but root " + std::to_string(all));
		turn_away(fd, NUQ_E_BUSY);
		return;
	}
	// A caller that stops reading its replies must not hold a thread for ever.
	const auto idle = std::chrono::duration_cast<std::chrono::microseconds>(limits_.idle);
	const struct timeval tv = {static_cast<time_t>(idle.count() / 1000000),
	    static_cast<suseconds_t>(idle.count() % 1000000)};
	(void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
	mine++;
	if (!root)
		users_++;
	clients_.push_back(fd);
	if (stopping_)
		shutdown(fd, SHUT_RDWR);  // stop() ran while this one was accepted
	try {
		std::thread([this, fd, uid = caller.uid] { serve(fd, uid); }).detach();
	} catch (const std::exception &) {
		clients_.erase(std::remove(clients_.begin(), clients_.end(), fd), clients_.end());
		if (--mine == 0)
			per_uid_.erase(caller.uid);
		if (!root)
			users_--;
		hold.unlock();
		log::write_limited(accept_failures, log::kErr, "cannot start a thread for " + who(caller));
		turn_away(fd, NUQ_E_SYSTEM);
	}
}

void Server::stop()
{
	if (stopping_.exchange(true))
		return;
	if (wake_[1] != -1) {
		const char c = 'x';
		(void)!write(wake_[1], &c, 1);
	}
	// Wake every connection's reader: they see their peer gone and end.
	std::lock_guard<std::mutex> hold(mutex_);
	for (int fd : clients_)
		shutdown(fd, SHUT_RDWR);
}

namespace {
thread_local std::optional<uid_t> t_serving;
}  // namespace

std::optional<uid_t> serving_uid()
{
	return t_serving;
}

void Server::serve(int fd, uid_t uid)
{
	t_serving = uid;  // each connection has a thread of its own
	LineReader reader(fd);
	std::string line;
	while (!stopping_) {
		const ReadResult r = reader.read(&line, limits_.idle);
		if (r == ReadResult::TooLong) {
			(void)write_line(fd, error_reply(kNullId, NUQ_E_REQUEST));
			break;  // the rest of the stream cannot be framed any more
		}
		if (r != ReadResult::Line)
			break;  // closed, failed, or idle too long
		if (!write_line(fd, dispatcher_.handle(line)))
			break;
	}
	std::lock_guard<std::mutex> hold(mutex_);
	clients_.erase(std::remove(clients_.begin(), clients_.end(), fd), clients_.end());
	if (--per_uid_[uid] == 0)
		per_uid_.erase(uid);
	if (uid != 0)
		users_--;
	close(fd);
	idle_.notify_all();
}

}  // namespace nuq

#include "server.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "nuq_errors.h"
#include "wire.h"

namespace nuq {

std::string error_reply(const Json &id, int code, const Json &data)
{
	Json err = {{"code", code}, {"message", nuq_err_string(code)}};
	if (!data.is_null())
		err["data"] = data;
	return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", err}}.dump();
}

namespace {

std::string result_reply(const Json &id, const Json &result)
{
	return Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}}.dump();
}

}  // namespace

void Dispatcher::add(Interface iface)
{
	std::string name = iface.name;
	interfaces_[name] = std::move(iface);
}

std::string Dispatcher::handle(const std::string &request) const
{
	Json req = Json::parse(request, nullptr, false);
	if (req.is_discarded() || !req.is_object() || req.value("jsonrpc", "") != "2.0" ||
	    !req.contains("id") || !req["method"].is_string() || !req["params"].is_object())
		return error_reply(req.is_object() && req.contains("id") ? req["id"] : Json(nullptr),
		    NUQ_E_REQUEST);
	const Json &id = req["id"];
	const Json &params = req["params"];
	const std::string op = req["method"];
	if (op == "ping")
		return result_reply(id, Json::object());	// the far end is a server of ours
	if (!params["interface"].is_string() || !params["keys"].is_object())
		return error_reply(id, NUQ_E_REQUEST);
	auto it = interfaces_.find(params["interface"].get<std::string>());
	if (it == interfaces_.end())
		return error_reply(id, NUQ_E_NOINTERFACE);
	const Interface &iface = it->second;
	try {
		if (op == "lookup") {
			Json found;
			if (!iface.lookup(params["keys"], params.value("strict", true), &found))
				return error_reply(id, NUQ_E_NOTFOUND);
			return result_reply(id, {{"keys", found}});
		}
		if (op == "call") {
			if (!params["method"].is_string())
				return error_reply(id, NUQ_E_REQUEST);
			auto m = iface.methods.find(params["method"].get<std::string>());
			if (m == iface.methods.end())
				return error_reply(id, NUQ_E_NOMETHOD);
			// The object may have gone since it was looked up.
			Json found;
			if (!iface.lookup(params["keys"], true, &found))
				return error_reply(id, NUQ_E_NOTFOUND);
			const Json args = params.contains("args") ? params["args"] : Json::object();
			Reply reply = m->second(found, args);
			if (reply.status == NUQ_E_SUCCESS)
				return result_reply(id, reply.value);
			return error_reply(id, reply.status, reply.value);
		}
		return error_reply(id, NUQ_E_REQUEST);
	} catch (const Json::exception &) {
		return error_reply(id, NUQ_E_BADARGS);	// arguments of the wrong shape
	} catch (const std::exception &) {
		return error_reply(id, NUQ_E_SYSTEM);
	}
}

bool authorised(uid_t uid, gid_t gid)
{
	if (uid == 0)
		return true;
	struct group grbuf, *gr = nullptr;
	char buf[8192];
	if (getgrnam_r("kel", &grbuf, buf, sizeof(buf), &gr) != 0 || gr == nullptr)
		return false;
	if (gid == gr->gr_gid)
		return true;
	struct passwd pwbuf, *pw = nullptr;
	char pwtext[8192];
	if (getpwuid_r(uid, &pwbuf, pwtext, sizeof(pwtext), &pw) != 0 || pw == nullptr)
		return false;
	for (char **member = gr->gr_mem; *member != nullptr; member++)
		if (std::strcmp(*member, pw->pw_name) == 0)
			return true;
	return false;
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

bool Server::listen(const std::string &path)
{
	struct sockaddr_un addr {};
	if (path.size() >= sizeof(addr.sun_path)) {
		errno = ENAMETOOLONG;
		return false;
	}
	if (pipe2(wake_, O_CLOEXEC) != 0)
		return false;
	listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (listen_fd_ == -1)
		return false;
	addr.sun_family = AF_UNIX;
	std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
	(void)unlink(path.c_str());	// a socket left by a daemon that died
	if (bind(listen_fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0)
		return false;
	// Access is decided per caller (root or the kel group), not by the file mode.
	(void)chmod(path.c_str(), 0666);
	return ::listen(listen_fd_, 64) == 0;
}

void Server::run()
{
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
		if (fd == -1)
			continue;
		std::lock_guard<std::mutex> hold(mutex_);
		clients_.push_back(fd);
		if (stopping_)
			shutdown(fd, SHUT_RDWR);	// stop() ran while this one was accepted
		std::thread([this, fd] { serve(fd); }).detach();
	}
	std::unique_lock<std::mutex> hold(mutex_);
	idle_.wait(hold, [this] { return clients_.empty(); });
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

void Server::serve(int fd)
{
	struct ucred cred {};
	socklen_t len = sizeof(cred);
	const bool ok = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 &&
	    authorised(cred.uid, cred.gid);
	LineReader reader(fd);
	std::string line;
	while (!stopping_) {
		const ReadResult r = reader.read(&line, std::chrono::milliseconds(-1));
		if (r == ReadResult::TooLong) {
			(void)write_line(fd, error_reply(nullptr, NUQ_E_REQUEST));
			break;	// the rest of the stream cannot be framed any more
		}
		if (r != ReadResult::Line)
			break;
		if (!ok) {
			Json req = Json::parse(line, nullptr, false);
			const Json id = req.is_object() && req.contains("id") ? req["id"] : Json(nullptr);
			(void)write_line(fd, error_reply(id, NUQ_E_DENIED));
			continue;
		}
		if (!write_line(fd, dispatcher_.handle(line)))
			break;
	}
	std::lock_guard<std::mutex> hold(mutex_);
	clients_.erase(std::remove(clients_.begin(), clients_.end(), fd), clients_.end());
	close(fd);
	idle_.notify_all();
}

}  // namespace nuq

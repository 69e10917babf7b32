// A test interface and a server of it on a socket, for the transport's tests.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include "nuq_errors.h"
#include "server.h"

namespace kel::test {

using nlohmann::json;

// A test interface: objects "a" and "b"; "echo" answers its args, "fail" its own error
// record, "add" wants two numbers.
inline nuq::Dispatcher test_dispatcher()
{
	nuq::Interface iface;
	iface.name = "test.Thing";
	iface.lookup = [](const json &keys, bool strict, json *found) {
		if (!keys.contains("name")) {
			if (strict)
				return false;
			*found = {{"name", "a"}};  // the first object matches no key at all
			return true;
		}
		const std::string name = keys["name"];
		if (name != "a" && name != "b")
			return false;
		*found = {{"name", name}};
		return true;
	};
	iface.methods["echo"] = [](const json &keys, const json &args) {
		return nuq::Reply{NUQ_E_SUCCESS, {{"keys", keys}, {"args", args}}};
	};
	iface.methods["fail"] = [](const json &, const json &) {
		return nuq::Reply{NUQ_E_OBJECT, {{"code", 37}, {"why", "it failed"}}};
	};
	iface.methods["add"] = [](const json &, const json &args) {
		const json *x = nuq::member(args, "x"), *y = nuq::member(args, "y");
		const auto small = [](const json *n) {
			return n != nullptr && n->is_number_integer() && n->get<long long>() > -1000000000LL &&
			    n->get<long long>() < 1000000000LL;
		};
		if (!small(x) || !small(y))
			return nuq::Reply{NUQ_E_BADARGS, nullptr};
		return nuq::Reply{NUQ_E_SUCCESS, x->get<long long>() + y->get<long long>()};
	};
	nuq::Dispatcher d;
	d.add(iface);
	return d;
}

// A server of test_dispatcher() listening on `socket`, run in a thread until it goes.
class TestServer {
public:
	explicit TestServer(const std::string &socket, nuq::Limits limits = {})
	    : socket_(socket), server_(dispatcher_, limits)
	{
		if (server_.listen(socket_))
			thread_ = std::thread([this] { server_.run(); });
	}
	~TestServer()
	{
		server_.stop();
		if (thread_.joinable())
			thread_.join();
	}
	TestServer(const TestServer &) = delete;
	TestServer &operator=(const TestServer &) = delete;

	bool listening() const { return thread_.joinable(); }
	const std::string &socket() const { return socket_; }
	nuq::Server &server() { return server_; }

private:
	std::string socket_;
	nuq::Dispatcher dispatcher_ = test_dispatcher();
	nuq::Server server_;
	std::thread thread_;
};

}  // namespace kel::test

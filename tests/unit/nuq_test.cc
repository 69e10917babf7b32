#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "client.h"
#include "nuq_errors.h"
#include "server.h"
#include "test_support.h"
#include "wire.h"

namespace {

using nlohmann::json;

// A test interface: objects "a" and "b"; "echo" answers its args, "fail" its own error
// record, "add" wants two numbers.
nuq::Dispatcher test_dispatcher()
{
	nuq::Interface iface;
	iface.name = "test.Thing";
	iface.lookup = [](const json &keys, bool strict, json *found) {
		if (!keys.contains("name")) {
			if (strict)
				return false;
			*found = {{"name", "a"}};	// the first object matches no key at all
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
		return nuq::Reply{NUQ_E_SUCCESS, args.at("x").get<int>() + args.at("y").get<int>()};
	};
	nuq::Dispatcher d;
	d.add(iface);
	return d;
}

int reply_code(const std::string &reply)
{
	const json r = json::parse(reply);
	return r.contains("error") ? r["error"]["code"].get<int>() : 0;
}

TEST(NuqDispatch, RequestsAndTheirErrors)
{
	const nuq::Dispatcher d = test_dispatcher();
	struct {
		const char *request;
		int code;
	} cases[] = {
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":"b"}}})", 0},
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":"z"}}})", NUQ_E_NOTFOUND},
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{}}})", NUQ_E_NOTFOUND},
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{},"strict":false}})", 0},
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"nope","keys":{}}})", NUQ_E_NOINTERFACE},
		{R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"nope"}})", NUQ_E_NOMETHOD},
		{R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"add","args":{"x":"one"}}})", NUQ_E_BADARGS},
		{R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"fail"}})", NUQ_E_OBJECT},
		{R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"q"},"method":"echo"}})", NUQ_E_NOTFOUND},
		{R"({"jsonrpc":"2.0","id":1,"method":"bogus","params":{"interface":"test.Thing","keys":{}}})", NUQ_E_REQUEST},
		{R"({"jsonrpc":"1.0","id":1,"method":"lookup","params":{}})", NUQ_E_REQUEST},
		{R"(not json at all)", NUQ_E_REQUEST},
		{R"([1,2,3])", NUQ_E_REQUEST},
		{R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":5,"keys":{}}})", NUQ_E_REQUEST},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.request);
		EXPECT_EQ(reply_code(d.handle(c.request)), c.code);
	}
}

// A server on a socket in the scratch tree, run in a thread for one test.
class NuqServer : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		socket_ = path("s.sock");
		ASSERT_TRUE(server_.listen(socket_));
		thread_ = std::thread([this] { server_.run(); });
	}
	void TearDown() override
	{
		server_.stop();
		thread_.join();
		unsetenv("KEL_NUQ_TIMEOUT_MS");
		ScratchRoot::TearDown();
	}

	nuq_conn_t *connect() { return kel::test::connect_unix(socket_); }

	nuq::Dispatcher dispatcher_ = test_dispatcher();
	nuq::Server server_{dispatcher_};
	std::thread thread_;
	std::string socket_;
};

TEST_F(NuqServer, LookupsAndCallsRoundTrip)
{
	nuq_conn_t *conn = connect();
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *thing = nullptr;
	ASSERT_EQ(nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "b"), 0);
	json result, error;
	ASSERT_EQ(nuq::call(thing, "echo", {{"text", "hi \"there\"\n"}}, &result, &error), 0);
	EXPECT_EQ(result["keys"]["name"], "b");
	EXPECT_EQ(result["args"]["text"], "hi \"there\"\n");
	ASSERT_EQ(nuq::call(thing, "add", {{"x", 2}, {"y", 40}}, &result, &error), 0);
	EXPECT_EQ(result, 42);
	EXPECT_EQ(nuq::call(thing, "fail", json::object(), &result, &error), NUQ_E_OBJECT);
	EXPECT_EQ(error["why"], "it failed");
	EXPECT_EQ(nuq::call(thing, "nope", json::object(), &result, &error), NUQ_E_NOMETHOD);
	nuq_instance_rele(thing);

	nuq_instance_t *none = reinterpret_cast<nuq_instance_t *>(1);
	EXPECT_EQ(nuq_lookup(conn, "test.Thing", 1, &none, 1, "name", "zz"), NUQ_E_NOTFOUND);
	EXPECT_EQ(none, nullptr);
	ASSERT_EQ(nuq_lookup(conn, "test.Thing", 0, &thing, 0), 0);
	EXPECT_EQ(nuq::keys(thing)["name"], "a");
	nuq_instance_rele(thing);
	nuq_disconnect(conn);
}

TEST_F(NuqServer, ConcurrentClients)
{
	std::vector<std::thread> clients;
	std::atomic<int> good{0};
	for (int i = 0; i < 8; i++)
		clients.emplace_back([&, i] {
			nuq_conn_t *conn = connect();
			nuq_instance_t *thing = nullptr;
			if (conn == nullptr || nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a") != 0)
				return;
			json result;
			bool ok = true;
			for (int j = 0; j < 50 && ok; j++)
				ok = nuq::call(thing, "add", {{"x", i}, {"y", j}}, &result, nullptr) == 0 && result == i + j;
			good += ok;
			nuq_instance_rele(thing);
			nuq_disconnect(conn);
		});
	for (std::thread &t : clients)
		t.join();
	EXPECT_EQ(good, 8);
}

TEST_F(NuqServer, OversizedRequestsAreAnsweredAndTheConnectionClosed)
{
	nuq_conn_t *conn = connect();
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *thing = nullptr;
	ASSERT_EQ(nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a"), 0);
	json result;
	EXPECT_NE(nuq::call(thing, "echo", {{"big", std::string(nuq::kMaxLine + 10, 'x')}}, &result, nullptr), 0);
	// The connection is unusable afterwards; a new one works.
	EXPECT_EQ(nuq::call(thing, "add", {{"x", 1}, {"y", 1}}, &result, nullptr), NUQ_E_CLOSED);
	nuq_instance_rele(thing);
	nuq_disconnect(conn);
	conn = connect();
	ASSERT_EQ(nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a"), 0);
	EXPECT_EQ(nuq::call(thing, "add", {{"x", 1}, {"y", 1}}, &result, nullptr), 0);
	nuq_instance_rele(thing);
	nuq_disconnect(conn);
}

TEST_F(NuqServer, CallersOutsideTheKelGroupAreRefused)
{
	struct passwd *nobody = getpwnam("nobody");
	if (nobody == nullptr)
		GTEST_SKIP() << "no user 'nobody' here";
	std::filesystem::permissions(path(""), std::filesystem::perms::all);
	const int status = kel::test::in_child([&] {
		if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
			return 10;
		nuq_conn_t *conn = connect();
		if (conn == nullptr)
			return 11;
		nuq_instance_t *thing = nullptr;
		const int rc = nuq_lookup(conn, "test.Thing", 1, &thing, 1, "name", "a");
		nuq_disconnect(conn);
		return rc == NUQ_E_DENIED ? 0 : 12;
	});
	EXPECT_EQ(status, 0);
}

// A peer that reads one request and then does what `then` says: close, or stay silent.
void fake_peer(int fd, bool close_it)
{
	nuq::LineReader r(fd);
	std::string line;
	(void)r.read(&line, std::chrono::milliseconds(5000));
	if (close_it) {
		close(fd);
		return;
	}
	(void)r.read(&line, std::chrono::milliseconds(5000));	// until the client gives up
	close(fd);
}

TEST(NuqClient, PeerClosingMidCallAndTimeouts)
{
	for (bool close_it : {true, false}) {
		SCOPED_TRACE(close_it ? "peer closes" : "peer stays silent");
		setenv("KEL_NUQ_TIMEOUT_MS", "200", 1);
		int sv[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
		std::thread peer(fake_peer, sv[1], close_it);
		nuq_conn_t *conn = nuq::connect_fds(sv[0], sv[0]);
		nuq_instance_t *thing = nullptr;
		EXPECT_EQ(nuq_lookup(conn, "test.Thing", 1, &thing, 0), close_it ? NUQ_E_CLOSED : NUQ_E_TIMEOUT);
		nuq_disconnect(conn);
		peer.join();
		unsetenv("KEL_NUQ_TIMEOUT_MS");
	}
}

TEST(NuqClient, RepliesThatDoNotFit)
{
	for (const char *reply : {"garbage", R"({"jsonrpc":"2.0","id":99,"result":{}})",
	         R"({"jsonrpc":"2.0","id":1,"error":{"code":"x"}})"}) {
		SCOPED_TRACE(reply);
		int sv[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
		std::thread peer([&] {
			nuq::LineReader r(sv[1]);
			std::string line;
			(void)r.read(&line, std::chrono::milliseconds(5000));
			(void)nuq::write_line(sv[1], reply);
			close(sv[1]);
		});
		nuq_conn_t *conn = nuq::connect_fds(sv[0], sv[0]);
		nuq_instance_t *thing = nullptr;
		EXPECT_EQ(nuq_lookup(conn, "test.Thing", 1, &thing, 0), NUQ_E_PROTOCOL);
		nuq_disconnect(conn);
		peer.join();
	}
	EXPECT_STREQ(nuq_err_string(NUQ_E_DENIED), "permission denied by the remote server");
}

}  // namespace

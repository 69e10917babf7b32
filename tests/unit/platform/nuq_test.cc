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
#include "nuq_fixture.h"
#include "server.h"
#include "test_support.h"
#include "wire.h"

namespace {

using kel::test::test_dispatcher;
using nlohmann::json;

// The server error a reply carries (0 for a result), checking that it is a JSON-RPC 2.0
// reply whatever the request was.
int reply_code(const std::string &reply, json *id = nullptr)
{
	const json r = json::parse(reply, nullptr, false);
	EXPECT_TRUE(r.is_object() && r.value("jsonrpc", json()) == "2.0" && r.contains("id") &&
	    r.contains("error") != r.contains("result"))
	    << reply;
	if (id != nullptr)
		*id = r.value("id", json());
	if (!r.contains("error"))
		return 0;
	const json &code = r["error"]["code"];
	EXPECT_TRUE(code.is_number_integer()) << reply;
	return nuq::from_wire_code(code.get<long>());
}

std::string nested(size_t depth)
{
	return std::string(depth, '[') + std::string(depth, ']');
}

TEST(NuqDispatch, RequestsAndTheirErrors)
{
	const nuq::Dispatcher d = test_dispatcher();
	struct {
		const char *request;
		int code;
	} cases[] = {
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":"b"}}})",
	        0},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":"z"}}})",
	        NUQ_E_NOTFOUND},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{}}})",
	        NUQ_E_NOTFOUND},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{},"strict":false}})",
	        0},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"nope","keys":{}}})",
	        NUQ_E_NOINTERFACE},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"nope"}})",
	        NUQ_E_NOMETHOD},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"add","args":{"x":"one"}}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"fail"}})",
	        NUQ_E_OBJECT},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"q"},"method":"echo"}})",
	        NUQ_E_NOTFOUND},
	    {R"({"jsonrpc":"2.0","id":"x","method":"ping"})", 0},
	    // Members missing or of the wrong type, each checked before it is used.
	    {R"({"jsonrpc":"2.0","id":1,"method":"bogus","params":{"interface":"test.Thing","keys":{}}})",
	        NUQ_E_NOMETHOD},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"keys":{}}})", NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing"}})", NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":5,"keys":{}}})", NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":[]}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{},"strict":"no"}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":7}}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"}}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"echo","args":[1]}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":["echo"]}})",
	        NUQ_E_BADARGS},
	    {R"({"jsonrpc":"1.0","id":1,"method":"lookup","params":{}})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":5,"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":null,"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":["2.0"],"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":{"v":"2.0"},"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":true,"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"id":1,"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":"2.0","method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":"2.0","id":{"a":1},"method":"ping"})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":"2.0","id":1,"method":5})", NUQ_E_REQUEST},
	    {R"({"jsonrpc":"2.0","id":1e400,"method":"ping"})", NUQ_E_PARSE},
	    {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[1]})", NUQ_E_REQUEST},
	    {R"([1,2,3])", NUQ_E_REQUEST},
	    {R"("ping")", NUQ_E_REQUEST},
	    {R"(not json at all)", NUQ_E_PARSE},
	    {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"\xff\"}", NUQ_E_PARSE},
	    {"", NUQ_E_PARSE},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.request);
		EXPECT_EQ(reply_code(d.handle(c.request)), c.code);
	}
}

TEST(NuqDispatch, ErrorsUseTheProtocolsCodesAndNameTheRequest)
{
	const nuq::Dispatcher d = test_dispatcher();
	struct {
		std::string request;
		long wire;
		json id;
	} cases[] = {
	    {"{", -32700, nullptr},
	    {R"({"jsonrpc":5,"id":"r1","method":"ping"})", -32600, "r1"},
	    {R"({"jsonrpc":"2.0","id":[1],"method":"ping"})", -32600, nullptr},
	    {R"({"jsonrpc":"2.0","id":2,"method":"nope"})", -32601, 2},
	    {R"({"jsonrpc":"2.0","id":3,"method":"lookup","params":{"keys":{}}})", -32602, 3},
	    {R"({"jsonrpc":"2.0","id":4,"method":"lookup","params":{"interface":"x","keys":{}}})", -32006, 4},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.request);
		const json r = json::parse(d.handle(c.request));
		EXPECT_EQ(r["error"]["code"], c.wire);
		EXPECT_EQ(r["id"], c.id);
	}
}

// An id comes back as the caller wrote it, whatever the parser makes of the number, in
// results and errors alike.
TEST(NuqDispatch, IdsAreEchoedAsWritten)
{
	const nuq::Dispatcher d = test_dispatcher();
	struct {
		std::string line;
		const char *id;
	} cases[] = {
	    {R"({"jsonrpc":"2.0","id":18446744073709551616,"method":"ping"})", "18446744073709551616"},
	    {R"({"jsonrpc":"2.0","id":-18446744073709551617,"method":"ping"})", "-18446744073709551617"},
	    {R"({"jsonrpc":"2.0","id":123456789012345678901234567890,"method":"nope"})",
	        "123456789012345678901234567890"},
	    {R"({"jsonrpc":"2.0","id":18446744073709551615,"method":"ping"})", "18446744073709551615"},
	    {R"({"jsonrpc":"2.0","id":-9223372036854775808,"method":"ping"})", "-9223372036854775808"},
	    {R"({"jsonrpc":"2.0","id":1.50,"method":"ping"})", "1.50"},
	    {R"({"jsonrpc":"2.0","id":1E+2,"method":"ping"})", "1E+2"},
	    {R"({"jsonrpc":"2.0","id":-0,"method":"ping"})", "-0"},
	    {R"({"jsonrpc":"2.0","id":0.1,"method":"lookup","params":{"keys":{}}})", "0.1"},
	    {R"({"jsonrpc":"2.0","id":"\u00e9\"x","method":"ping"})", R"("\u00e9\"x")"},
	    {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", "null"},
	    {R"({"jsonrpc":5,"id":2.50,"method":"ping"})", "2.50"},
	    // Where and how the member is written.
	    {" \t{ \"jsonrpc\" : \"2.0\" ,\r\n \"id\"\t:\n 3.0E0 , \"method\":\"ping\" } ", "3.0E0"},
	    {"\xEF\xBB\xBF{\"jsonrpc\":\"2.0\",\"id\":4.0,\"method\":\"ping\"}", "4.0"},
	    {R"({"jsonrpc":"2.0","\u0069d":5.0,"method":"ping"})", "5.0"},
	    {R"({"params":{"id":1,"x":["id",{"id":2}]},"jsonrpc":"2.0","id":6.0,"method":"nope"})", "6.0"},
	    {R"({"id":1,"jsonrpc":"2.0","id":7.0,"method":"ping"})", "7.0"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.line);
		const std::string reply = d.handle(c.line);
		EXPECT_NE(reply.find(std::string(R"("id":)") + c.id + R"(,"jsonrpc")"), std::string::npos) << reply;
		json id;
		reply_code(reply, &id);
		EXPECT_EQ(id, json::parse(c.id));
	}
}

// A NUL in any text of a request would cut it short where it becomes a C string: refused
// as bad arguments, whichever interface and method, wherever it sits.
TEST(NuqDispatch, TextsWithANulAreRefused)
{
	const nuq::Dispatcher d = test_dispatcher();
	const std::string call =
	    R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},)";
	for (const std::string &line :
	    {
	        std::string(
	            R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing","keys":{"name":"a\u0000x"}}})"),
	        std::string(
	            R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"test.Thing\u0000","keys":{}}})"),
	        call + R"("method":"echo","args":{"t":"x\u0000"}}})",
	        call + R"("method":"echo","args":{"t":["ok",{"u":"\u0000"}]}}})",
	        call + R"("method":"echo","args":{"t\u0000u":1}}})",
	        call + R"("method":"echo\u0000"}})",
	    }) {
		SCOPED_TRACE(line);
		EXPECT_EQ(reply_code(d.handle(line)), NUQ_E_BADARGS);
	}
	EXPECT_EQ(reply_code(d.handle(call + R"("method":"echo","args":{"t":"x\u0001"}}})")), 0);

	// The accessors modules use refuse such a text too.
	const json obj = {{"nul", std::string("lo\0x", 4)}, {"fine", "lo"}};
	const char *out = "unset";
	EXPECT_EQ(nuq::text_member(obj, "nul"), nullptr);
	EXPECT_FALSE(nuq::optional_text(obj, "nul", &out));
	ASSERT_NE(nuq::text_member(obj, "fine"), nullptr);
	EXPECT_TRUE(nuq::optional_text(obj, "fine", &out));
	EXPECT_STREQ(out, "lo");
}

// Deep nesting anywhere in a line (the id, the params, an argument) is refused before
// anything recursive sees it; nesting our own requests use is served.
TEST(NuqDispatch, NestingIsBounded)
{
	const nuq::Dispatcher d = test_dispatcher();
	const std::string deep = nested(65000);
	const std::string call =
	    R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing","keys":{"name":"a"},"method":"echo","args":{"x":)";
	for (const std::string &line : {deep, R"({"jsonrpc":"2.0","id":)" + deep + R"(,"method":"ping"})",
	         call + deep + "}}}", call + nested(nuq::kMaxNesting) + "}}}"}) {
		SCOPED_TRACE(line.substr(0, 40));
		EXPECT_EQ(reply_code(d.handle(line)), NUQ_E_PARSE);
	}
	EXPECT_EQ(reply_code(d.handle(call + nested(nuq::kMaxNesting - 3) + "}}}")), 0);
	// Brackets inside strings are text, not nesting.
	EXPECT_EQ(reply_code(d.handle(call + "\"" + std::string(100, '[') + "\\\"[\"}}}")), 0);
	EXPECT_TRUE(nuq::nesting_within("]]]]", 1));
	EXPECT_FALSE(nuq::nesting_within("]]]][[", 1));
}

// A server on a socket in the scratch tree, run in a thread for one test.
class NuqServer : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		server_ = std::make_unique<kel::test::TestServer>(path("s.sock"));
	}
	void TearDown() override
	{
		server_.reset();
		unsetenv("KEL_NUQ_TIMEOUT_MS");
		ScratchRoot::TearDown();
	}

	nuq_conn_t *connect() { return kel::test::connect_unix(server_->socket()); }

	std::unique_ptr<kel::test::TestServer> server_;
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
				ok = nuq::call(thing, "add", {{"x", i}, {"y", j}}, &result, nullptr) == 0 &&
				    result == i + j;
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
	(void)r.read(&line, std::chrono::milliseconds(5000));  // until the client gives up
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

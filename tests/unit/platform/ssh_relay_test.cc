// Setting up a connection over ssh, with a stand-in for ssh first on the PATH: a
// connection ssh failed to set up (its own failure, status 255, before any reply) is set
// up again a few times, and only then is what ssh said passed on; any other failure is
// final at once.
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "client.h"
#include "test_support.h"

namespace {

class SshRelay : public kel::test::ScratchRoot {
protected:
	void SetUp() override
	{
		ScratchRoot::SetUp();
		const std::string bin = path("bin");
		ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
		// Counts its runs; fails the first FAILS of them with STATUS, saying so; then
		// answers the ping with REPLY and waits for the caller to hang up.
		std::ofstream(bin + "/ssh") << R"(#!/bin/sh
n=$(($(cat "$KELT_SSH_RUNS" 2>/dev/null || echo 0) + 1))
echo "$n" >"$KELT_SSH_RUNS"
if [ "$n" -le "$KELT_SSH_FAILS" ]; then
	echo "run $n: Connection reset by peer" >&2
	exit "$KELT_SSH_STATUS"
fi
read -r request
echo "$KELT_SSH_REPLY"
cat >/dev/null
)";
		ASSERT_EQ(chmod((bin + "/ssh").c_str(), 0755), 0);
		path_ = std::getenv("PATH");
		setenv("PATH", (bin + ":" + path_).c_str(), 1);
		setenv("KELT_SSH_RUNS", path("runs").c_str(), 1);
	}
	void TearDown() override
	{
		setenv("PATH", path_.c_str(), 1);
		for (const char *v : {"KELT_SSH_RUNS", "KELT_SSH_FAILS", "KELT_SSH_STATUS", "KELT_SSH_REPLY"})
			unsetenv(v);
		ScratchRoot::TearDown();
	}
	int runs()
	{
		int n = 0;
		std::ifstream(path("runs")) >> n;
		std::remove(path("runs").c_str());
		return n;
	}

	std::string path_;
};

TEST_F(SshRelay, OnlyConnectionsSshCouldNotSetUpAreTriedAgain)
{
	const std::string pong = R"({"jsonrpc":"2.0","id":1,"result":{}})";
	const struct {
		const char *what;
		int fails, status;
		std::string reply;
		bool made;
		int runs;
		std::string said;  // what the caller is told
	} cases[] = {
	    {"set up at the first try", 0, 255, pong, true, 1, ""},
	    {"set up at the third: the failures are no news", 2, 255, pong, true, 3, ""},
	    {"never set up: the last failure is told", 99, 255, pong, false, 5,
	        "ssh to node1: run 5: Connection reset by peer\n"},
	    {"the remote command failed: final", 99, 1, pong, false, 1,
	        "ssh to node1: run 1: Connection reset by peer\n"},
	    // A reply came, whatever it is: something may have been delivered.
	    {"a reply that does not fit: final", 0, 255, "garbage", false, 1, ""},
	};
	nuq_uri_t *uri = nuq_alloc_uri("ssh://node1", NUQS_SSH);
	ASSERT_NE(uri, nullptr);
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		setenv("KELT_SSH_FAILS", std::to_string(c.fails).c_str(), 1);
		setenv("KELT_SSH_STATUS", std::to_string(c.status).c_str(), 1);
		setenv("KELT_SSH_REPLY", c.reply.c_str(), 1);
		testing::internal::CaptureStderr();
		nuq_conn_t *conn = nuq_connect_uri(uri, nullptr);
		EXPECT_EQ(conn != nullptr, c.made);
		nuq_disconnect(conn);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), c.said);
		EXPECT_EQ(runs(), c.runs);
	}
	nuq_free_uri(uri);
}

}  // namespace

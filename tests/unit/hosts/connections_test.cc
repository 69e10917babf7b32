#include <sys/socket.h>

#include <sqlite3.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include <kel/libkel.h>
#include "client.h"
#include "connections.h"
#include "controller_calls.h"
#include "ctrlprop.h"
#include "error_code.h"
#include "kept.h"
#include "nuq_errors.h"
#include "server.h"
#include "store_fixture.h"
#include "test_support.h"
#include "vnic.h"

namespace {

TEST(Connections, HostUrisFromTemplates)
{
	struct {
		const char *tmpl;
		const char *want;
	} cases[] = {
	    {"ssh://", "ssh://node1.example"},
	    {"ssh://ops@", "ssh://ops@node1.example"},
	    {"unix://", "unix://"},
	    {"unix://ops@", "unix://ops@localhost"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.tmpl);
		char buf[128];
		ASSERT_EQ(kel_host_uri(c.tmpl, "node1.example", buf, sizeof(buf)), KEL_SUCCESS);
		EXPECT_STREQ(buf, c.want);
	}
	char small[10];
	EXPECT_EQ(kel_host_uri("ssh://ops@", "node1.example", small, sizeof(small)), KEL_E_NOSPACE);
}

TEST(Connections, OwnHostName)
{
	char name[256];
	ASSERT_EQ(kel_get_hostname(name, sizeof(name)), KEL_SUCCESS);
	EXPECT_GT(std::strlen(name), 0u);
}

// A store and, on demand, a daemon socket serving only pings and one interface.
class ConnectionsStore : public kel::test::StoreFixture {
protected:
	void TearDown() override
	{
		if (thread_.joinable()) {
			server_.stop();
			thread_.join();
		}
		StoreFixture::TearDown();
	}

	void start_daemon()
	{
		std::filesystem::create_directories(path("run/kel"));
		ASSERT_TRUE(server_.listen(path("run/kel/keld.sock")));
		thread_ = std::thread([this] { server_.run(); });
	}

	nuq::Dispatcher dispatcher_;
	nuq::Server server_{dispatcher_};
	std::thread thread_;
};

TEST_F(ConnectionsStore, ToTheController)
{
	nuq_conn_t *conn = reinterpret_cast<nuq_conn_t *>(1);
	EXPECT_EQ(kel_nuq_connection_to_controller(&conn), KEL_E_NOTFOUND);  // no setting at all
	EXPECT_EQ(conn, nullptr);
	ASSERT_EQ(kel_set_client_togprop("controller="), KEL_SUCCESS);
	EXPECT_EQ(kel_nuq_connection_to_controller(&conn), KEL_E_CTRL_CONNECT);
	ASSERT_EQ(kel_set_client_togprop("controller=unix://"), KEL_SUCCESS);
	EXPECT_EQ(kel_nuq_connection_to_controller(&conn), KEL_E_CTRL_CONNECT);  // nobody listens
	start_daemon();
	ASSERT_EQ(kel_nuq_connection_to_controller(&conn), KEL_SUCCESS);
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *none = nullptr;
	EXPECT_EQ(nuq_lookup(conn, "kel.Nothing", 0, &none, 0), 6);  // the daemon answers
	nuq_disconnect(conn);
}

TEST_F(ConnectionsStore, ToANodeThroughItsTemplate)
{
	nuq_conn_t *conn = nullptr;
	// The fabric's template ssh:// reaches nobody here.
	EXPECT_EQ(kel_nuq_connection_to_kelnode(h_, "no-such-host.invalid", &conn), KEL_E_HOST_CONNECT);
	EXPECT_EQ(conn, nullptr);
	EXPECT_EQ(h_->edh_cnt, 0);
	// A host of its own with unix:// reaches the local daemon, whatever the name.
	start_daemon();
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", "node-a"), KEL_SUCCESS);
	ASSERT_EQ(kel_nuq_connection_to_kelnode(h_, "node-a", &conn), KEL_SUCCESS);
	nuq_disconnect(conn);
	EXPECT_EQ(kel_nuq_connection_to_kelnode(h_, "node-b", &conn), KEL_E_HOST_CONNECT);
	// Now the fabric's template too.
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", nullptr), KEL_SUCCESS);
	ASSERT_EQ(kel_nuq_connection_to_kelnode(h_, "node-b", &conn), KEL_SUCCESS);
	nuq_disconnect(conn);
	// A template naming a user gives unix://user@localhost: still the local daemon.
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://ops@", "node-c"), KEL_SUCCESS);
	ASSERT_EQ(kel_nuq_connection_to_kelnode(h_, "node-c", &conn), KEL_SUCCESS);
	nuq_disconnect(conn);
}

// A connection given back is taken up again; one whose daemon went away meanwhile fails
// its first exchange as stale, and the one opened after it reaches the new daemon.
TEST_F(ConnectionsStore, KeptConnectionsAreTakenUpAgainOrMadeAnew)
{
	nuq::drop_kept_connections();
	auto keld = std::make_unique<kel::test::Keld>();
	ASSERT_GT(keld->pid(), 0);
	const auto daemon = [](nuq::KeptConnection &c) {
		nuq_instance_t *inst = nullptr;
		const int r = nuq_lookup(c.get(), "kel.Daemon", 0, &inst, 0);
		nuq_instance_rele(inst);
		return r;
	};
	nuq_conn_t *first = nullptr;
	{
		nuq::KeptConnection c;
		ASSERT_EQ(c.open("unix://"), NUQ_E_SUCCESS);
		ASSERT_EQ(daemon(c), 0);
		EXPECT_FALSE(c.stale(NUQ_E_CLOSED));  // a new connection is never stale
		first = c.get();
	}
	nuq::KeptConnection again;
	ASSERT_EQ(again.open("unix://"), NUQ_E_SUCCESS);
	EXPECT_EQ(again.get(), first);
	EXPECT_FALSE(again.stale(NUQ_E_NOTFOUND));        // an answer, not a dead connection
	ASSERT_EQ(again.open("unix://"), NUQ_E_SUCCESS);  // gives the held one back first
	EXPECT_EQ(again.get(), first);
	EXPECT_EQ(keld->stop(), 0);
	keld = std::make_unique<kel::test::Keld>();
	ASSERT_GT(keld->pid(), 0);
	const int r = daemon(again);
	EXPECT_NE(r, 0);
	ASSERT_TRUE(again.stale(r));
	ASSERT_EQ(again.open("unix://"), NUQ_E_SUCCESS);
	EXPECT_EQ(daemon(again), 0);
	nuq::drop_kept_connections();
}

// A controller whose store is out of reach for its first answers (its database failing
// over) serves the call once it is back; one that does not answer at all is passed over.
TEST_F(ConnectionsStore, CallsWaitOutAStoreFailover)
{
	int asked = 0;
	nuq::Interface ctl;
	ctl.name = "kelcntl.KELController";
	ctl.lookup = [](const nuq::Json &, bool, nuq::Json *found) {
		*found = nuq::Json::object();
		return true;
	};
	ctl.methods["getVPortInfo"] = [&](const nuq::Json &, const nuq::Json &) {
		if (++asked <= 2) {
			const int lost = kel::sql_error(SQLITE_IOERR);
			return nuq::Reply{NUQ_E_OBJECT, {{"ekele_err", lost}, {"ekele_errmsg", "lost"}}};
		}
		return nuq::Reply{NUQ_E_SUCCESS, nuq::Json::array()};
	};
	dispatcher_.add(ctl);
	start_daemon();
	const std::string live = "unix://localhost" + path("run/kel/keld.sock");
	ASSERT_EQ(kel_set_client_togprop(("controller=unix://localhost/nowhere/keld.sock," + live).c_str()),
	    KEL_SUCCESS);
	kelcntl_VPortInfo **ports = nullptr;
	int count = -1;
	const auto t0 = std::chrono::steady_clock::now();
	ASSERT_EQ(kel_get_host_vnicinfo(&ports, &count), KEL_SUCCESS);
	EXPECT_EQ(count, 0);
	EXPECT_EQ(asked, 3);
	// Two pauses, of 0.25 s and 0.5 s, between the three rounds.
	EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(700));
	kelcntl_VPortInfo_array_free(ports, count);
	// An answer that is not about the store's reach is the call's answer at once.
	EXPECT_TRUE(kel::store_unavailable(kel::sql_error(SQLITE_READONLY)));
	EXPECT_FALSE(kel::store_unavailable(kel::sql_error(SQLITE_CONSTRAINT)));
	EXPECT_FALSE(kel::store_unavailable(KEL_E_VPORT_NOTFOUND));
}

}  // namespace

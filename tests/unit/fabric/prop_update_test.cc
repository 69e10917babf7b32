// Property updates: the checks every update makes, the store, and for bound ports the
// live state of the VNIC on a host (a namespace with its own keld).
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <kel/libkel.h>
#include "fan_out.h"
#include "fault.h"
#include "harl.h"
#include "netns.h"
#include "nuq_errors.h"
#include "nuq_uri.h"
#include "prop_update.h"
#include "server.h"
#include "store_fixture.h"

namespace {

class PropUpdate : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		make_web("subnet=10.0.0.0/24,defrouter=10.0.0.254,pool=10.0.0.10-10.0.0.20", {"p1", "p2", "p3"});
	}
	void TearDown() override
	{
		kel::fault::disarm();
		StoreFixture::TearDown();
	}

	int kelprop(const char *prop) { return kel_set_kelprop(h_, "sys-global", "web", prop, 0); }
	int vportprop(const char *vport, const char *prop)
	{
		return kel_set_vportprop(h_, "sys-global", "web", vport, prop, 0);
	}
	int ipnetprop(const char *prop) { return kel_set_ipnetprop(h_, "sys-global", "web", "n", prop, 0); }

	std::string props(const char *table, const char *name)
	{
		const std::string t(table);
		return value("SELECT " + t + "_props FROM " + t + "_tbl WHERE " + t + "_name = ?", {name});
	}
	std::string pool_column() { return value("SELECT ipnet_avail_pool_range FROM ipnet_tbl"); }

	// Marks a port bound to `vnic` on `host` (the binding itself is tested elsewhere).
	void bind(const char *vport, const char *host, const char *vnic)
	{
		sql(std::string("UPDATE vport_tbl SET vport_status = 1, vport_hostname = '") + host +
		    "', vport_vnicname = '" + vnic + "' WHERE vport_name = '" + vport + "'");
	}
};

TEST_F(PropUpdate, TheChecksEveryUpdateMakes)
{
	struct {
		bool on_ipnet;
		const char *prop;
		int rc;
	} cases[] = {
	    {false, "cos=3,maxbw=10M", KEL_E_INVALID_ARGS},
	    {false, "", KEL_E_INVALID_ARGS},
	    {false, nullptr, KEL_E_INVALID_ARGS},
	    {false, "cos", KEL_E_INVALID_PROP},
	    {false, "vlanid=5", KEL_E_READONLY},
	    {false, "nosuch=1", KEL_E_INVALID_PROP},
	    {false, "cos=3", KEL_E_INVALID_PROP},  // writable, but not on switches
	    {false, "maxbw=fast", KEL_E_INVALID_MAXBW},
	    {true, "subnet=10.1.0.0/24", KEL_E_READONLY},
	    {true, "maxbw=10M", KEL_E_INVALID_PROP},  // a switch's, not a network's
	    {true, "cos=1,pool=", KEL_E_INVALID_ARGS},
	};
	const std::string before = props("kel", "web");
	for (const auto &c : cases)
		EXPECT_EQ(c.on_ipnet ? ipnetprop(c.prop) : kelprop(c.prop), c.rc) << (c.prop ? c.prop : "NULL");
	EXPECT_EQ(vportprop("p1", "macaddr=2:8:20:1:2:3"), KEL_E_READONLY);
	EXPECT_EQ(vportprop("p1", "cos=9"), KEL_E_INVALID_COS);
	EXPECT_EQ(vportprop("p9", "cos=1"), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(kel_set_vportprop(h_, "sys-global", "nope", "p1", "cos=1", 0), KEL_E_KEL_NOTFOUND);
	EXPECT_EQ(kel_set_kelprop(h_, "sys-global", "nope", "maxbw=1M", 0), KEL_E_KEL_NOTFOUND);
	EXPECT_EQ(props("kel", "web"), before);
}

TEST_F(PropUpdate, UnboundObjectsChangeOnlyInTheStore)
{
	ASSERT_EQ(vportprop("p1", "priority=high"), KEL_SUCCESS);
	ASSERT_EQ(vportprop("p1", "acme:tier=gold"), KEL_SUCCESS);
	EXPECT_NE(props("vport", "p1").find("priority=high"), std::string::npos);
	// The empty value clears.
	ASSERT_EQ(vportprop("p1", "priority="), KEL_SUCCESS);
	EXPECT_EQ(props("vport", "p1").find("priority"), std::string::npos);
	EXPECT_NE(props("vport", "p1").find("acme:tier=gold"), std::string::npos);
	// Nothing bound: nothing to reach, so a switch change is complete at once.
	ASSERT_EQ(kelprop("maxbw=100M"), KEL_SUCCESS);
	ASSERT_EQ(kelprop("acme:x=1"), KEL_SUCCESS);
	EXPECT_NE(props("kel", "web").find("maxbw=100M"), std::string::npos);
	ASSERT_EQ(kelprop("maxbw="), KEL_SUCCESS);
	EXPECT_EQ(props("kel", "web").find("maxbw"), std::string::npos);
	// An object without any property yet gets its first.
	add_kel(9, "bare");
	ASSERT_EQ(kel_set_kelprop(h_, "sys-global", "bare", "maxbw=1M", 0), KEL_SUCCESS);
	EXPECT_EQ(props("kel", "bare"), "maxbw=1M");
	EXPECT_NE(props("kel", "web").find("acme:x=1"), std::string::npos);
}

TEST_F(PropUpdate, PoolsKeepEveryAddressInUse)
{
	// p1-p3 drew .10-.12; one more address is given outside the pool.
	ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", "p4", "ipaddr=10.0.0.40", nullptr, 0), KEL_SUCCESS);
	EXPECT_EQ(pool_column(), "10.0.0.13-10.0.0.20");
	EXPECT_EQ(ipnetprop("pool=10.0.0.11-10.0.0.30"), KEL_E_RANGE_INUSE);  // drops .10
	EXPECT_EQ(ipnetprop("pool=10.0.0.1-10.0.0.254"), KEL_E_POOL_DEFROUTER);
	EXPECT_EQ(ipnetprop("pool=10.1.0.1-10.1.0.5"), KEL_E_INVALID_POOL);
	EXPECT_EQ(pool_column(), "10.0.0.13-10.0.0.20");
	// Growing past the given address keeps it out of what is available.
	ASSERT_EQ(ipnetprop("pool=10.0.0.5-10.0.0.9,10.0.0.10-10.0.0.50"), KEL_SUCCESS);
	EXPECT_NE(props("ipnet", "n").find("pool=10.0.0.5-10.0.0.50"), std::string::npos);
	EXPECT_EQ(pool_column(), "10.0.0.5-10.0.0.9,10.0.0.13-10.0.0.39,10.0.0.41-10.0.0.50");
	// The empty pool is the whole span but the router; what is available is the
	// network's remaining range.
	ASSERT_EQ(ipnetprop("pool="), KEL_SUCCESS);
	EXPECT_NE(props("ipnet", "n").find("pool=10.0.0.1-10.0.0.253"), std::string::npos);
	EXPECT_EQ(pool_column(), value("SELECT ipnet_avail_range FROM ipnet_tbl"));
	ASSERT_EQ(ipnetprop("acme:owner=ops"), KEL_SUCCESS);
	EXPECT_NE(props("ipnet", "n").find("acme:owner=ops"), std::string::npos);
}

// A host: a namespace holding the VNIC "vn0", served by its own keld.
class BoundPropUpdate : public PropUpdate {
protected:
	void SetUp() override
	{
		PropUpdate::SetUp();
		ASSERT_TRUE(host_.ok());
		ASSERT_TRUE(kel::test::fabric_vnic(host_, "vn0", "up0", "02:00:00:00:00:20"));
		keld_ = std::make_unique<kel::test::Keld>(host_.name());
		ASSERT_GT(keld_->pid(), 0);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", "h"), KEL_SUCCESS);
		bind("p1", "h", "vn0");
	}
	void TearDown() override
	{
		keld_.reset();
		PropUpdate::TearDown();
	}

	bool shows(const std::string &cmd, const std::string &text)
	{
		return host_.exec("sh -c '" + cmd + " | grep -q \"" + text + "\"'");
	}
	bool rate(const std::string &r) { return shows("tc qdisc show dev vn0", "tbf.*rate " + r); }
	bool nft(const std::string &text) { return shows("nft list table netdev kel", text); }

	kel::test::NetNs host_{"prop"};
	std::unique_ptr<kel::test::Keld> keld_;
};

TEST_F(BoundPropUpdate, TheVnicFollowsThePortAndItsSwitch)
{
	ASSERT_EQ(vportprop("p1", "maxbw=20M"), KEL_SUCCESS);
	EXPECT_TRUE(rate("20Mbit"));
	// The port has its own value: the switch's does not reach it.
	ASSERT_EQ(kelprop("maxbw=50M"), KEL_SUCCESS);
	EXPECT_TRUE(rate("20Mbit"));
	// Cleared on the port, the switch's value takes over on the link.
	ASSERT_EQ(vportprop("p1", "maxbw="), KEL_SUCCESS);
	EXPECT_TRUE(rate("50Mbit"));
	EXPECT_EQ(props("vport", "p1").find("maxbw"), std::string::npos);
	// Cleared on the switch, the catalogue default (no cap) reaches the port.
	ASSERT_EQ(kelprop("maxbw="), KEL_SUCCESS);
	EXPECT_FALSE(rate(""));

	ASSERT_EQ(vportprop("p1", "priority=high"), KEL_SUCCESS);
	EXPECT_TRUE(nft("meta priority set"));
	// Protection brings the port's own address as the allowed source, and none clears it.
	ASSERT_EQ(vportprop("p1", "protection=mac-nospoof,ip-nospoof"), KEL_SUCCESS);
	EXPECT_TRUE(nft("ip saddr != @vn0.allowed4"));
	EXPECT_TRUE(nft("10.0.0.10"));
	ASSERT_EQ(vportprop("p1", "protection=none"), KEL_SUCCESS);
	EXPECT_FALSE(nft("10.0.0.10"));
	EXPECT_FALSE(nft("saddr"));
	EXPECT_NE(props("vport", "p1").find("protection=none"), std::string::npos);
	// A non-link property of a bound port goes to the store only.
	ASSERT_EQ(vportprop("p1", "acme:x=1"), KEL_SUCCESS);
}

TEST_F(BoundPropUpdate, UnreachableHostsAndFailedStores)
{
	bind("p2", "gone.invalid", "vn9");  // the fabric's ssh:// reaches nobody here
	bind("p3", "h", "vn0");             // a second port on the reachable host
	// The switch's value is stored and reaches the hosts that answer.
	EXPECT_EQ(kelprop("maxbw=30M"), KEL_E_PROP_PARTIAL);
	EXPECT_NE(props("kel", "web").find("maxbw=30M"), std::string::npos);
	EXPECT_TRUE(rate("30Mbit"));
	// A port whose host does not answer keeps its stored value.
	EXPECT_EQ(vportprop("p2", "maxbw=5M"), KEL_E_HOST_CONNECT);
	EXPECT_EQ(props("vport", "p2").find("maxbw"), std::string::npos);
	// Only link properties travel to the hosts: nothing here can miss an extended one.
	EXPECT_EQ(kelprop("acme:x=1"), KEL_SUCCESS);
	// A VNIC the host no longer has.
	bind("p3", "h", "vn7");
	EXPECT_EQ(vportprop("p3", "maxbw=5M"), (NUQ_E_NOTFOUND << 8) | KEL_E_NUQ);

	// Whatever statement fails, the link ends with the value the store holds.
	ASSERT_EQ(vportprop("p1", "maxbw=20M"), KEL_SUCCESS);
	const int reached = kel::test::for_each_failing_statement([&] { return vportprop("p1", "maxbw=40M"); },
	    [&](int nth, int rc) {
		    EXPECT_NE(rc, KEL_SUCCESS) << nth;
		    EXPECT_NE(props("vport", "p1").find("maxbw=20M"), std::string::npos) << nth;
		    EXPECT_TRUE(rate("20Mbit")) << nth;
	    },
	    SQLITE_IOERR * 256 + KEL_E_SQL);
	EXPECT_GT(reached, 2);
	EXPECT_TRUE(rate("40Mbit"));
}

// A host's datalink manager that records what it is asked, at the daemon socket the
// library reaches host "h" through; `on_lookup` may change the store meanwhile.
class RecordingHost : public PropUpdate {
protected:
	void SetUp() override
	{
		PropUpdate::SetUp();
		nuq::Interface iface;
		iface.name = "harl.Datalink";
		iface.lookup = [this](const nuq::Json &keys, bool, nuq::Json *found) {
			if (on_lookup)
				on_lookup(keys.at("name"));
			*found = keys;
			return true;
		};
		iface.methods["setProperty"] = [this](const nuq::Json &keys, const nuq::Json &args) {
			const std::string text = args.at("text");
			std::lock_guard<std::mutex> hold(mutex_);
			calls.push_back(keys.at("name").get<std::string>() + " " + text);
			if (text.rfind("allowed-ips=", 0) == 0)
				return nuq::Reply{NUQ_E_OBJECT, {{"dde_err", 3}, {"dde_errmsg", "no"}}};
			return nuq::Reply{NUQ_E_SUCCESS, nuq::Json::object()};
		};
		dispatcher_.add(iface);
		std::filesystem::create_directories(path("run/kel"));
		ASSERT_TRUE(server_.listen(path("run/kel/keld.sock")));
		serving_ = std::thread([this] { server_.run(); });
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", "h"), KEL_SUCCESS);
	}
	void TearDown() override
	{
		server_.stop();
		if (serving_.joinable())
			serving_.join();
		PropUpdate::TearDown();
	}

	std::vector<std::string> calls;
	std::function<void(const std::string &vnic)> on_lookup;
	std::mutex lookups_;  // for what on_lookup keeps

private:
	std::mutex mutex_;
	nuq::Dispatcher dispatcher_;
	nuq::Server server_{dispatcher_};
	std::thread serving_;
};

// A refused allowed-ips puts the protection just set back, and the caller gets the refusal.
TEST_F(RecordingHost, AFailedAllowedListPutsTheProtectionBack)
{
	nuq_conn_t *conn = kel::test::connect_unix(path("run/kel/keld.sock"));
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *link = nullptr;
	ASSERT_EQ(harl_Datalink__nuq_lookup(conn, 1, &link, 1, "name", "vn0"), 0);
	attrset_t *kelprops = kel_create_attrset(1, "protection", DATA_TYPE_STRING, "restricted");
	attrset_t *vportprops = kel_create_attrset(1, "ipaddr", DATA_TYPE_STRING, "10.0.0.10/24");
	EXPECT_EQ(kel_host_set_one_linkprop(link, kelprops, vportprops, "protection", "mac-nospoof,ip-nospoof", 0),
	    (3 << 8) | KEL_E_WEXO);
	EXPECT_EQ(calls,
	    (std::vector<std::string>{"vn0 protection=mac-nospoof,ip-nospoof", "vn0 allowed-ips=10.0.0.10",
	        "vn0 protection=restricted"}));
	// Clearing the protection clears the allowed list too; "none" reaches the link as "".
	calls.clear();
	(void)kel_host_set_one_linkprop(link, kelprops, vportprops, "protection", "none", 0);
	EXPECT_EQ(calls.at(0), "vn0 protection=");
	EXPECT_EQ(calls.at(1), "vn0 allowed-ips=");
	attrset_free(kelprops);
	attrset_free(vportprops);
	nuq_instance_rele(link);
	nuq_disconnect(conn);
}

// While the host is being reached the port moves to another VNIC, or is unbound: the
// update follows the port rather than the link it first looked up.
TEST_F(RecordingHost, APortThatMovesMeanwhileIsFollowed)
{
	bind("p1", "h", "vn0");
	kel_dbhandle_t other = nullptr;
	ASSERT_EQ(kel_db_open(&other, KEL_DB_READWRITE), KEL_SUCCESS);
	auto move_once = [&](const char *sql) {
		on_lookup = [&, sql, done = false](const std::string &) mutable {
			if (!std::exchange(done, true)) {
				EXPECT_EQ(kel::exec(other, sql), KEL_SUCCESS);
			}
		};
	};
	move_once("UPDATE vport_tbl SET vport_vnicname = 'vn1' WHERE vport_name = 'p1'");
	ASSERT_EQ(vportprop("p1", "maxbw=5M"), KEL_SUCCESS);
	EXPECT_EQ(calls, std::vector<std::string>{"vn1 maxbw=5M"});
	move_once("UPDATE vport_tbl SET vport_status = 0 WHERE vport_name = 'p1'");
	calls.clear();
	ASSERT_EQ(vportprop("p1", "maxbw=6M"), KEL_SUCCESS);
	EXPECT_TRUE(calls.empty());
	EXPECT_NE(props("vport", "p1").find("maxbw=6M"), std::string::npos);
	on_lookup = nullptr;
	kel_db_close(other);
}

// A switch change reaches every bound port once, over one connection per host, several
// hosts at a time but never more than the bound; a host that cannot be reached costs
// only its own ports.
TEST_F(RecordingHost, ASwitchChangeReachesItsHostsTogether)
{
	const std::string keluuid = value("SELECT kel_uuid FROM kel_tbl WHERE kel_name = 'web'");
	std::vector<std::string> want;
	for (int i = 0; i < 24; i++) {
		const std::string host = "h" + std::to_string(i), vnic = "v" + std::to_string(i);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uri-template=unix://", host.c_str()), KEL_SUCCESS);
		for (const std::string &name : {vnic, vnic + "b"}) {
			ASSERT_EQ(kel::exec(h_,
			              "INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
			              "vport_status, vport_vnicname, vport_hostname) VALUES (?, ?, ?, '', 1, ?, ?)",
			              {uuid(1000 + static_cast<int>(want.size())), keluuid, "q" + name, name, host}),
			    KEL_SUCCESS);
			want.push_back(name + " maxbw=30M");
		}
	}
	bind("p1", "gone.invalid", "vx");  // the fabric's ssh:// reaches nobody here
	int in_flight = 0, most = 0;
	on_lookup = [&](const std::string &) {
		{
			std::lock_guard<std::mutex> hold(lookups_);
			most = std::max(most, ++in_flight);
		}
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
		std::lock_guard<std::mutex> hold(lookups_);
		--in_flight;
	};
	EXPECT_EQ(kelprop("maxbw=30M"), KEL_E_PROP_PARTIAL);
	std::sort(calls.begin(), calls.end());
	std::sort(want.begin(), want.end());
	EXPECT_EQ(calls, want);
	EXPECT_GT(most, 1);
	EXPECT_LE(most, static_cast<int>(kel::kMaxParallelHosts));
}

}  // namespace

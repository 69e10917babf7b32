#include <sqlite3.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <set>
#include <string>

#include <kel/libkel.h>
#include "fault.h"
#include "kelcntl.h"
#include "nuq_errors.h"
#include "store_fixture.h"

namespace {

constexpr int kInjected = SQLITE_IOERR * 256 + KEL_E_SQL;

class Bindings : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		make_web("subnet=10.0.0.0/24", {"p1", "p2"});
		// The uplinks take their share of the fabric's VNIs when they are set.
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-range=100-200", nullptr), KEL_SUCCESS);
		for (const char *host : {"h1", "h2"})
			ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=net0", host), KEL_SUCCESS);
	}
	void TearDown() override
	{
		kel::fault::disarm();
		StoreFixture::TearDown();
	}

	// Binds; "<port>@<host>:<vnic> uplink=<port> protection=<..>" or "error N".
	std::string bind(const char *vport, const char *vnic, const char *host, const char *props = nullptr,
	    const char *kel = "web")
	{
		kel_t *k = nullptr;
		const int rc = kel_db_assign_vport(h_, "sys-global", kel, vport, vnic, host, props, &k);
		EXPECT_EQ(h_->edh_cnt, 0);
		if (rc != KEL_SUCCESS) {
			EXPECT_EQ(k, nullptr);
			return "error " + std::to_string(rc);
		}
		EXPECT_EQ(kel_list_count(&k->kel_ports), 1);
		auto *vp = static_cast<kel_vport_t *>(list_head(&k->kel_ports));
		char *protection = nullptr;
		EXPECT_EQ(attrset_lookup_string(k->kel_props, "protection", &protection), 0);
		std::string out = std::string(vp->evp_name) + "@" + vp->evp_hostname + ":" + vp->evp_vnicname +
		    " uplink=" + k->kel_uport + " protection=" + (protection ? protection : "");
		kel_free_kel(k);
		return out;
	}

	// Binds a port of "web" (NULL: a new system port) to a VNIC on "h1"; the library's code.
	using Binder = std::function<int(const char *vport, const char *vnic)>;

	// For a forked worker: its own store handle, kept until the process exits.
	static Binder local_binder()
	{
		kel_dbhandle_t h = nullptr;
		if (kel_db_open(&h, SQLITE_OPEN_READWRITE) != KEL_SUCCESS)
			return nullptr;
		return [h](const char *vport, const char *vnic) {
			kel_t *k = nullptr;
			const int rc = kel_db_assign_vport(h, "sys-global", "web", vport, vnic, "h1", nullptr, &k);
			kel_free_kel(k);
			return rc;
		};
	}

	// For a forked worker: a node's connection to the controller's keld; a transport
	// failure reads as -1.
	static Binder remote_binder()
	{
		nuq_conn_t *conn = kel::test::connect_keld();
		nuq_instance_t *inst = nullptr;
		if (conn == nullptr || kelcntl_KEL__nuq_lookup(conn, 0, &inst, 1, "name", "web") != 0)
			return nullptr;
		return [inst](const char *vport, const char *vnic) {
			kelcntl_KELImplInfo *info = nullptr;
			kelcntl_KELError *err = nullptr;
			const int rc = kelcntl_KEL_assignVPort(inst, vnic, "h1", vport, nullptr, &info, &err);
			const int code = rc == 0 ? KEL_SUCCESS : rc == NUQ_E_OBJECT ? err->ekele_err : -1;
			kelcntl_KELImplInfo_free(info);
			kelcntl_KELError_free(err);
			return code;
		};
	}

	void expect_no_port_bound_twice(bool over_keld);

	// Where each port is bound, and which is migrating: "p1=h1:vn0 p2=- ...".
	std::string ports()
	{
		std::string out;
		kel::for_each_row(h_,
		    "SELECT vport_name, vport_status, vport_hostname, vport_vnicname, vport_props "
		    "FROM vport_tbl ORDER BY vport_name",
		    {}, [&](kel::Statement &st) {
			    out += out.empty() ? "" : " ";
			    out += st.text(0);
			    out += std::string("=") +
			        (st.integer(1) == 0 ? "-" : std::string(st.text(2)) + ":" + st.text(3));
			    const std::string props = st.text(4) ? st.text(4) : "";
			    const auto at = props.find("kel:migrating_to=");
			    if (at != std::string::npos)
				    out += ">" + props.substr(at + 17, props.find(',', at) - at - 17);
			    return KEL_SUCCESS;
		    });
		return out;
	}

	std::string err(int rc) { return "error " + std::to_string(rc); }
};

TEST_F(Bindings, BindAndUnbindNamedPorts)
{
	EXPECT_EQ(bind("p1", "vn0", "h1"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	// Binding the VNIC again, even naming another port, hands back the binding it has.
	EXPECT_EQ(bind("p1", "vn0", "h1"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(bind("p2", "vn0", "h1"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(bind("p1", "vn1", "h1"), err(KEL_E_VPORT_INUSE));
	EXPECT_EQ(bind("p1", "vn0", "h2"), err(KEL_E_VPORT_INUSE));
	EXPECT_EQ(bind("p9", "vn1", "h1"), err(KEL_E_VPORT_NOTFOUND));
	EXPECT_EQ(bind("p2", "vn1", "h1"), "p2@h1:vn1 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(ports(), "p1=h1:vn0 p2=h1:vn1");
	// The default protection is only reported: the store keeps what the operator set.
	EXPECT_EQ(value("SELECT kel_props FROM kel_tbl"), "l2-type=flat");

	EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "h1", nullptr), KEL_SUCCESS);
	EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "h1", nullptr), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(kel_db_unassign_vport(h_, "vn1", "h2", nullptr), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(ports(), "p1=- p2=h1:vn1");
	EXPECT_EQ(bind("p1", "vn0", "h2"), "p1@h2:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
}

TEST_F(Bindings, BadArguments)
{
	EXPECT_EQ(bind("p1", "vn0", ""), err(KEL_E_INVALID_ARGS));
	EXPECT_EQ(bind("p1", "vn0", "bad host!"), err(KEL_E_INVALID_ARGS));
	EXPECT_EQ(bind("p/1", "vn0", "h1"), err(KEL_E_INVALID_ARGS));
	EXPECT_EQ(bind("p1", "", "h1"), err(KEL_E_INVALID_ARGS));
	EXPECT_EQ(bind("p1", "vn0", "h1", "vmid"), err(KEL_E_INVALID_ARGS));
	EXPECT_EQ(bind("p1", "vn0", "h1", nullptr, "nosuch"), err(KEL_E_KEL_NOTFOUND));
	kel_t *k = nullptr;
	EXPECT_EQ(kel_db_assign_vport(nullptr, "sys-global", "web", "p1", "vn0", "h1", nullptr, &k),
	    KEL_E_INVALID_ARGS);
	EXPECT_EQ(kel_db_unassign_vport(h_, nullptr, "h1", nullptr), KEL_E_INVALID_ARGS);
	EXPECT_EQ(ports(), "p1=- p2=-");
}

TEST_F(Bindings, SystemPortsComeAndGoWithTheirBinding)
{
	const std::string pools_before = value("SELECT ipnet_avail_range FROM ipnet_tbl");
	const std::string got = bind(nullptr, "vn5", "h1");
	ASSERT_EQ(got.rfind("sys-", 0), 0u) << got;
	EXPECT_NE(got.find("@h1:vn5 uplink=net0"), std::string::npos) << got;
	EXPECT_EQ(rows("vport_tbl"), 3);
	EXPECT_NE(value("SELECT ipnet_avail_range FROM ipnet_tbl"), pools_before);

	EXPECT_EQ(kel_db_unassign_vport(h_, "vn5", "h1", nullptr), KEL_SUCCESS);
	EXPECT_EQ(rows("vport_tbl"), 2);
	EXPECT_EQ(value("SELECT ipnet_avail_range FROM ipnet_tbl"), pools_before);
}

TEST_F(Bindings, WithoutAnUplinkNothingIsLeftBehind)
{
	const std::string pools_before = value("SELECT ipnet_avail_range FROM ipnet_tbl");
	EXPECT_EQ(bind(nullptr, "vn0", "h3"), err(KEL_E_UPLINK_REQUIRED));
	EXPECT_EQ(bind("p1", "vn0", "h3"), err(KEL_E_UPLINK_REQUIRED));
	EXPECT_EQ(ports(), "p1=- p2=-");
	EXPECT_EQ(value("SELECT ipnet_avail_range FROM ipnet_tbl"), pools_before);
	// A fabric-wide uplink serves hosts that have none of their own.
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=bond0", nullptr), KEL_SUCCESS);
	EXPECT_EQ(bind("p1", "vn0", "h3"), "p1@h3:vn0 uplink=bond0 protection=mac-nospoof,ip-nospoof");
}

TEST_F(Bindings, VxlanBindingsCarryTheEndpoint)
{
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-mgroup=239.1.1.1", nullptr), KEL_SUCCESS);
	ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-addr=192.168.5.0/24", "h4"), KEL_SUCCESS);
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_create_kel(h_, nullptr, "vx", "l2-type=vxlan", 0, &k), KEL_SUCCESS);
	kel_free_kel(k);
	kel_ipnet_t *ip = nullptr;
	ASSERT_EQ(kel_db_add_ipnet(h_, "sys-global", "vx", "n2", "subnet=10.1.0.0/24", &ip, 0), KEL_SUCCESS);
	kel_free_ipnet(ip);

	auto endpoint = [&](const char *host) {
		kel_t *got = nullptr;
		const int rc = kel_db_assign_vport(h_, "sys-global", "vx", nullptr, "vn0", host, nullptr, &got);
		if (rc != KEL_SUCCESS)
			return err(rc);
		std::string out = std::string("uplink=") + got->kel_uport + " local=" + got->kel_localaddr +
		    " mgroup=" + got->kel_mgroup + " " + got->kel_ipvers;
		kel_free_kel(got);
		return out;
	};
	// A host with an endpoint address needs no uplink port; one with neither cannot bind.
	EXPECT_EQ(endpoint("h4"), "uplink= local=192.168.5.0/24 mgroup=239.1.1.1 v4");
	EXPECT_EQ(endpoint("h1"), "uplink=net0 local= mgroup=239.1.1.1 v4");
	EXPECT_EQ(endpoint("h3"), err(KEL_E_UPLINK_REQUIRED));
}

TEST_F(Bindings, AVirtualMachineTakesItsPortAlong)
{
	ASSERT_EQ(bind("p1", "vn0", "h1", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(bind("p1", "vn0", "h2", "vmid=vm8"), err(KEL_E_VPORT_INUSE));
	EXPECT_EQ(bind("p1", "vn0", "h2"), err(KEL_E_VPORT_INUSE));
	EXPECT_EQ(bind("p1", "vn0", "h2", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(ports(), "p1=h1:vn0>h2 p2=-");
	// The source letting go completes the move.
	EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "h1", nullptr), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=h2:vn0 p2=-");
	EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "h2", nullptr), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=- p2=-");
}

// A port's counters survive its VNICs: each one's, handed over as it lets go (the old
// host completing a move, a failed move's destination, a plain unbinding), adds to what
// the port keeps, and a port read while free reports just that.
TEST_F(Bindings, CountersOfVnicsThatAreGoneStayWithThePort)
{
	// What the port keeps, as stored.
	auto gone = [&] {
		const std::string props = value("SELECT vport_props FROM vport_tbl WHERE vport_name = 'p1'");
		const size_t at = props.find("kel:counters_gone=");
		return at == std::string::npos ? "none" : props.substr(at + 18, props.find(',', at) - at - 18);
	};
	const kel_vport_counters_t on_h1 = {5, 500, 6, 600}, on_h2 = {1, 100, 2, 200}, back = {7, 700, 8, 800};
	ASSERT_EQ(bind("p1", "vn0", "h1", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	ASSERT_EQ(bind("p1", "vn0", "h2", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(kel_db_unassign_vport_counted(h_, "vn0", "h1", nullptr, &on_h1), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=h2:vn0 p2=-");
	EXPECT_EQ(gone(), "5/500/6/600") << "the move's old host handed its counters over";
	// Nothing bound to that VNIC there: nothing is kept.
	EXPECT_EQ(kel_db_unassign_vport_counted(h_, "vn0", "h1", nullptr, &back), KEL_E_VPORT_NOTFOUND);
	EXPECT_EQ(gone(), "5/500/6/600");
	// A move back that fails: its destination lets go, with what its VNIC carried.
	ASSERT_EQ(bind("p1", "vn0", "h1", "vmid=vm7"), "p1@h2:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(kel_db_unassign_vport_counted(h_, "vn0", "h1", "vport=p1", &back), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=h2:vn0 p2=-");
	EXPECT_EQ(gone(), "12/1200/14/1400");
	// While bound, the total needs the host, which is not there to ask.
	kel_vport_counters_t total = {9, 9, 9, 9};
	EXPECT_EQ(kel_db_get_vport_counters(h_, "sys-global", "web", "p1", &total) & 0xff, KEL_E_HOST_CONNECT);
	EXPECT_EQ(total.evc_ipackets + total.evc_rbytes + total.evc_opackets + total.evc_obytes, 0u) << "cleared";
	EXPECT_EQ(kel_db_unassign_vport_counted(h_, "vn0", "h2", nullptr, &on_h2), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=- p2=-");
	ASSERT_EQ(kel_db_get_vport_counters(h_, "sys-global", "web", "p1", &total), KEL_SUCCESS);
	EXPECT_EQ(std::to_string(total.evc_ipackets) + "/" + std::to_string(total.evc_rbytes) + "/" +
	        std::to_string(total.evc_opackets) + "/" + std::to_string(total.evc_obytes),
	    "13/1300/16/1600")
	    << "a free port's total is what is gone";
	// A hand-edited value that is no four numbers counts as none, and never stops an unbinding.
	sql("UPDATE vport_tbl SET vport_props = 'kel:counters_gone=1/-2/3/4' WHERE vport_name = 'p1'");
	ASSERT_EQ(bind("p1", "vn0", "h1"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	EXPECT_EQ(kel_db_unassign_vport_counted(h_, "vn0", "h1", nullptr, &on_h2), KEL_SUCCESS);
	EXPECT_EQ(gone(), "1/100/2/200");
}

TEST_F(Bindings, AFailedMigrationLeavesThePortWhereItWas)
{
	ASSERT_EQ(bind("p1", "vn0", "h1", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	ASSERT_EQ(bind("p1", "vn0", "h2", "vmid=vm7"), "p1@h1:vn0 uplink=net0 protection=mac-nospoof,ip-nospoof");
	// The destination found through the caller's filter, as the node does on a failed move.
	EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", "h2", "vport=p1"), KEL_SUCCESS);
	EXPECT_EQ(ports(), "p1=h1:vn0 p2=-");
}

TEST_F(Bindings, AFailedBindChangesNothing)
{
	const std::string before = ports() + value("SELECT ipnet_avail_range FROM ipnet_tbl");
	// Fail each statement in turn until the bind of a new system port runs through.
	kel::test::for_each_failing_statement(
	    [&] {
		    kel_t *k = nullptr;
		    const int rc = kel_db_assign_vport(h_, "sys-global", "web", nullptr, "vn0", "h1", nullptr, &k);
		    kel_free_kel(k);
		    EXPECT_EQ(h_->edh_cnt, 0);
		    return rc;
	    },
	    [&](int, int rc) {
		    if (rc == KEL_SUCCESS)  // a failed read that means "nothing there" may still bind
			    ASSERT_EQ(kel_db_unassign_vport(h_, "vn0", "h1", nullptr), KEL_SUCCESS);
		    else
			    EXPECT_EQ(ports() + value("SELECT ipnet_avail_range FROM ipnet_tbl"), before);
	    },
	    kInjected);
	EXPECT_EQ(rows("vport_tbl"), 3);
}

TEST_F(Bindings, AFailedUnbindChangesNothing)
{
	const std::string got = bind(nullptr, "vn0", "h1");
	ASSERT_EQ(got.rfind("sys-", 0), 0u) << got;
	const std::string before = ports() + value("SELECT ipnet_avail_range FROM ipnet_tbl");
	// With counters handed over, which a failed unbinding keeps no more than its other changes.
	const kel_vport_counters_t last = {1, 2, 3, 4};
	kel::test::for_each_failing_statement(
	    [&] { return kel_db_unassign_vport_counted(h_, "vn0", "h1", nullptr, &last); },
	    [&](int, int rc) {
		    ASSERT_NE(rc, KEL_SUCCESS);
		    EXPECT_EQ(ports() + value("SELECT ipnet_avail_range FROM ipnet_tbl"), before);
	    },
	    kInjected);
	EXPECT_EQ(ports(), "p1=- p2=-");
}

// Several processes bind the same named ports and new system ports at once: each named
// port goes to one binder only, and no system port name or address is handed out twice.
// Several processes bind the same ports at once, straight through the library or as
// nodes do, over the transport to a keld holding the store.
void Bindings::expect_no_port_bound_twice(bool over_keld)
{
	constexpr int kWorkers = 4, kSystemPorts = 5;
	ASSERT_EQ(kel_db_add_vport(h_, "sys-global", "web", "p3", nullptr, nullptr, 0), KEL_SUCCESS);
	std::unique_ptr<kel::test::Keld> keld;
	if (over_keld) {
		keld = std::make_unique<kel::test::Keld>();
		ASSERT_GT(keld->pid(), 0);
	}
	// Exit status: bit n set when the worker won port p<n+1>; 64 on an unexpected answer.
	auto worker = [&](int id) {
		Binder bind = over_keld ? remote_binder() : local_binder();
		if (!bind)
			return 64;
		int won = 0;
		for (int n = 0; n < 3 + kSystemPorts && won < 64; n++) {
			const std::string vport = "p" + std::to_string(n + 1);
			const std::string vnic = "w" + std::to_string(id) + "n" + std::to_string(n);
			const int rc = bind(n < 3 ? vport.c_str() : nullptr, vnic.c_str());
			if (rc == KEL_SUCCESS && n < 3)
				won |= 1 << n;
			else if (rc != KEL_SUCCESS && (n >= 3 || rc != KEL_E_VPORT_INUSE))
				won = 64;
		}
		return won;
	};
	pid_t pids[kWorkers];
	for (int i = 0; i < kWorkers; i++)
		if ((pids[i] = fork()) == 0)
			_exit(worker(i));
	int winners[3] = {0, 0, 0};
	for (pid_t pid : pids) {
		const int won = kel::test::wait_exit(pid);
		ASSERT_LT(won, 64);
		for (int n = 0; n < 3; n++)
			winners[n] += (won >> n) & 1;
	}
	for (int n = 0; n < 3; n++)
		EXPECT_EQ(winners[n], 1) << "p" << n + 1;

	std::set<std::string> names, addresses;
	int bound = 0;
	ASSERT_EQ(kel::for_each_row(h_, "SELECT vport_name, vport_props, vport_status FROM vport_tbl", {},
	              [&](kel::Statement &st) {
		              names.insert(st.text(0));
		              const std::string props = st.text(1);
		              const size_t at = props.find("ipaddr=");
		              addresses.insert(props.substr(at, props.find(',', at) - at));
		              bound += st.integer(2);
		              return KEL_SUCCESS;
	              }),
	    KEL_SUCCESS);
	EXPECT_EQ(bound, 3 + kWorkers * kSystemPorts);
	EXPECT_EQ(rows("vport_tbl"), bound);
	EXPECT_EQ(static_cast<int>(names.size()), bound);
	EXPECT_EQ(static_cast<int>(addresses.size()), bound);
	if (keld) {
		EXPECT_EQ(keld->stop(), 0);
	}
}

TEST_F(Bindings, ConcurrentBindersNeverShareAPort)
{
	expect_no_port_bound_twice(false);
}

TEST_F(Bindings, ConcurrentNodesNeverShareAPort)
{
	expect_no_port_bound_twice(true);
}

}  // namespace

// Memory running out in the middle of a store operation: every allocation the operation
// makes through operator new is made to fail in turn, and each time an operation that
// fails must leave the store exactly as it was, with no drawn ID or address kept out of
// its pool. The sanitizer build runs the same loop and finds any leak.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <new>
#include <string>

#include <kel/libkel.h>
#include <kel/libkel_node.h>
#include <kel/sys/fabric.h>
#include "nuq_errors.h"
#include "paths.h"
#include "store_fixture.h"
#include "test_support.h"
#include "vur.h"
#include "wexo.h"

namespace {

// 0: disarmed; n > 0: the n-th operator new from now throws.
std::atomic<long> countdown{0};
std::atomic<bool> fired{false};

void *allocate(std::size_t n)
{
	if (countdown.load(std::memory_order_relaxed) > 0 && countdown.fetch_sub(1) == 1) {
		fired = true;
		throw std::bad_alloc();
	}
	void *p = std::malloc(n != 0 ? n : 1);
	if (p == nullptr)
		throw std::bad_alloc();
	return p;
}

}  // namespace

// The test binary's own allocator: the library's objects are linked into it, so their
// C++ allocations come here.
void *operator new(std::size_t n)
{
	return allocate(n);
}
void *operator new[](std::size_t n)
{
	return allocate(n);
}
void *operator new(std::size_t n, const std::nothrow_t &) noexcept
{
	try {
		return allocate(n);
	} catch (const std::bad_alloc &) {
		return nullptr;
	}
}
void *operator new[](std::size_t n, const std::nothrow_t &t) noexcept
{
	return operator new(n, t);
}
void operator delete(void *p) noexcept
{
	std::free(p);
}
void operator delete[](void *p) noexcept
{
	std::free(p);
}
void operator delete(void *p, std::size_t) noexcept
{
	std::free(p);
}
void operator delete[](void *p, std::size_t) noexcept
{
	std::free(p);
}

namespace {

class OutOfMemory : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vlan-range=100-199", nullptr), KEL_SUCCESS);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-range=5000-5999", nullptr), KEL_SUCCESS);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=eth0", nullptr), KEL_SUCCESS);
		make_web("subnet=10.1.0.0/24", {"p1", "p2"});
	}
	void TearDown() override
	{
		countdown = 0;
		StoreFixture::TearDown();
	}

	// Runs `op` with its 1st, 2nd, ... allocation failing, until it runs through without
	// reaching the failure; then it must have succeeded. An operation that fails must
	// leave the store as it was: nothing written, no ID or address kept from its pool.
	void each_allocation_fails(const char *what, const std::function<int()> &op)
	{
		for (long nth = 1;; nth++) {
			ASSERT_LT(nth, 5000) << what << ": the operation never ran through";
			const std::string before = dump();
			const Tables rows = snapshot();
			fired = false;
			countdown = nth;
			const int rc = op();
			countdown = 0;
			// A success, or one with a warning (a range left partly or not shared out),
			// changed what it was asked to.
			const bool done = rc == KEL_SUCCESS || rc == KEL_E_RANGE_PARTIAL || rc == KEL_E_RANGE_MANUAL;
			if (!fired) {
				EXPECT_TRUE(done) << what << ": " << rc;
				return;
			}
			if (done)
				restore(rows);
			else
				ASSERT_EQ(dump(), before) << what << ": allocation " << nth << " failed it (" << rc
				                          << ") and changed the store";
		}
	}
};

TEST_F(OutOfMemory, StoreOperationsChangeNothingWhenMemoryRunsOut)
{
	const struct {
		const char *what;
		std::function<int(kel_dbhandle_t)> op;
	} cases[] = {
	    {"add a vport with a drawn address and MAC",
	        [](kel_dbhandle_t h) {
		        kel_vport_t *vp = nullptr;
		        const int rc = kel_db_add_vport(h, "sys-global", "web", "p3", nullptr, &vp, 0);
		        kel_free_vport(vp);
		        return rc;
	        }},
	    {"create a VLAN kel with a drawn ID",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_create_kel(h, nullptr, "db", "l2-type=vlan", 0, &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"add an ipnet",
	        [](kel_dbhandle_t h) {
		        kel_ipnet_t *ip = nullptr;
		        const int rc = kel_db_add_ipnet(h, "sys-global", "db", "back", "subnet=10.2.0.0/24", &ip, 0);
		        kel_free_ipnet(ip);
		        return rc;
	        }},
	    {"bind a port",
	        [](kel_dbhandle_t h) {
		        kel_t *k = nullptr;
		        const int rc = kel_db_assign_vport(h, "sys-global", "web", "p1", "vn1", "host-a", "vmid=7", &k);
		        kel_free_kel(k);
		        return rc;
	        }},
	    {"unbind it", [](kel_dbhandle_t h) { return kel_db_unassign_vport(h, "vn1", "host-a", nullptr); }},
	    {"shrink the pool",
	        [](kel_dbhandle_t h) {
		        return kel_set_ipnetprop(h, "sys-global", "web", "n", "pool=10.1.0.2-10.1.0.99", 0);
	        }},
	    {"share the VLAN range between uplinks",
	        [](kel_dbhandle_t h) {
		        return kel_db_set_ctrlprop(h, "uplink-port=eth1,vlan-range=150-199", "host-a");
	        }},
	    {"change the fabric's VXLAN range",
	        [](kel_dbhandle_t h) { return kel_db_set_ctrlprop(h, "vxlan-range=5000-6999", nullptr); }},
	    {"remove a vport, giving its address back",
	        [](kel_dbhandle_t h) { return kel_db_remove_vport(h, "sys-global", "web", "p2", nullptr, 0); }},
	    {"delete a kel, giving its ID back",
	        [](kel_dbhandle_t h) { return kel_db_delete_kel(h, "sys-global", "db", 0); }},
	};
	for (const auto &c : cases)
		each_allocation_fails(c.what, [&] { return c.op(h_); });
}

TEST_F(OutOfMemory, ListingsLeakNothingWhenMemoryRunsOut)
{
	// What a failed listing allocated must be freed: the sanitizer build checks that.
	each_allocation_fails("list kels with their ports and networks", [&] {
		list_t kels;
		const int rc = kel_db_get_filtered_kellist(h_, "tenant=sys-global", &kels, 0);
		if (rc == KEL_SUCCESS)
			kel_free_kellist(&kels);
		return rc;
	});
	each_allocation_fails("list properties", [&] {
		list_t props;
		const int rc = kel_db_get_filtered_proplist(h_, "kel=web", nullptr, &props, KEL_PROPTYPE_VPORT);
		if (rc == KEL_SUCCESS)
			kel_free_proplist(&props);
		return rc;
	});
}

// A namespace's name is checked before anything is made of it, whatever its length, and
// memory running out while a handle is made is a status, never an exception out of the
// C API (which would end the caller).
TEST(NodeSideOutOfMemory, OpeningANamespaceAnswersWithAStatus)
{
	const std::string huge(64 << 20, 'n');
	wexo_handle_t h = nullptr;
	fired = false;
	countdown = 1;
	EXPECT_EQ(wexo_open_netns(huge.c_str(), &h), WEXO_STATUS_BADARG);
	countdown = 0;
	EXPECT_FALSE(fired) << "the name was copied before it was checked";
	for (long nth = 1;; nth++) {
		ASSERT_LT(nth, 100);
		fired = false;
		countdown = nth;
		const wexo_status_t st = wexo_open_netns("kel-no-such-namespace", &h);
		countdown = 0;
		EXPECT_EQ(h, nullptr);
		if (!fired) {
			EXPECT_EQ(st, WEXO_STATUS_NOTFOUND);
			break;
		}
		EXPECT_TRUE(st == WEXO_STATUS_NOMEM || st == WEXO_STATUS_NOTFOUND) << st;
	}
}

// Whether `rc`, of a call whose codes are datalink statuses (`wexo`) or library codes,
// says memory ran out.
bool says_nomem(int rc, bool wexo)
{
	if (wexo)
		return rc == WEXO_STATUS_NOMEM;
	return KEL_ERR_REASON(rc) == KEL_E_NOMEM || rc == KEL_WEXO_ERROR(WEXO_STATUS_NOMEM) ||
	    rc == KEL_ERR_CODE(NUQ_E_NOMEM, KEL_E_NUQ) || rc == KEL_ERR_CODE(VUR_ERROR_NO_MEMORY, KEL_E_VUR);
}

class NodeSideCalls : public kel::test::ScratchRoot {};

// Every call libkel_node.so exports, with each of its allocations made to fail in turn:
// the call returns (an exception out of a noexcept export would end the test binary),
// with what it answers when memory does not run out, or with the code that says it ran
// out. The calls run on this host's loopback link (read only), on links that do not
// exist, and without a controller: what is tested is the way out, not the fabric.
// wexo_link_state and wexo_fabric_leftovers are left out: they read the nftables listing
// as JSON documents, and the JSON library's destructor allocates (it moves nested values
// onto a heap stack), so an allocation failing there ends the process whatever the call
// does around it.
TEST_F(NodeSideCalls, EachAnswersWhenMemoryRunsOut)
{
	wexo_handle_t h = nullptr;
	ASSERT_EQ(wexo_open(&h), WEXO_STATUS_OK);
	datalink_id_t lo = 0;
	ASSERT_EQ(wexo_name2info(h, "lo", &lo, nullptr), WEXO_STATUS_OK);
	const datalink_id_t none = 0x7ffffff0;
	const struct {
		const char *name;
		bool wexo;
		std::function<int()> call;
	} calls[] = {
	    {"wexo_open", true,
	        [] {
		        wexo_handle_t o = nullptr;
		        int st = wexo_open(&o);
		        wexo_close(o);
		        return st;
	        }},
	    {"wexo_open_netns", true,
	        [] {
		        wexo_handle_t o = nullptr;
		        int st = wexo_open_netns("kel-none", &o);
		        wexo_close(o);
		        return st;
	        }},
	    {"wexo_name2info", true,
	        [&] {
		        datalink_id_t id;
		        return wexo_name2info(h, "lo", &id, nullptr);
	        }},
	    {"wexo_datalink_id2info", true,
	        [&] {
		        char name[32];
		        return wexo_datalink_id2info(h, lo, nullptr, nullptr, nullptr, name, sizeof(name));
	        }},
	    {"wexo_link_mtu", true,
	        [&] {
		        uint32_t mtu;
		        return wexo_link_mtu(h, lo, &mtu);
	        }},
	    {"wexo_link_stats", true,
	        [&] {
		        wexo_stats_t st;
		        return wexo_link_stats(h, lo, &st);
	        }},
	    {"wexo_link_owned", true, [&] { return wexo_link_owned(h, lo, "lo"); }},
	    {"wexo_link_up", true, [&] { return wexo_link_up(h, none); }},
	    {"wexo_link_set_ipaddr", true, [&] { return wexo_link_set_ipaddr(h, none, "192.0.2.1", 24, nullptr); }},
	    {"wexo_set_linkprop", true, [&] { return wexo_set_linkprop(h, none, "maxbw", "10M"); }},
	    {"wexo_vnic_create", true,
	        [&] {
		        datalink_id_t id;
		        return wexo_vnic_create(h, "kel-oom0", none, WEXO_VNIC_MACVLAN, "02:00:00:00:00:01", &id);
	        }},
	    {"wexo_vnic_delete", true, [&] { return wexo_vnic_delete(h, "kel-oom0", nullptr); }},
	    {"wexo_vnic_lower", true,
	        [&] {
		        datalink_id_t id;
		        return wexo_vnic_lower(h, "kel-oom0", &id);
	        }},
	    {"wexo_vnic_own", true, [&] { return wexo_vnic_own(h, "kel-oom0", "02:00:00:00:00:01", none, nullptr); }},
	    {"wexo_vnic_recorded_lower", true,
	        [] {
		        char b[32];
		        return wexo_vnic_recorded_lower("kel-oom0", b, sizeof(b));
	        }},
	    {"wexo_vnic_disown", true, [&] { return wexo_vnic_disown(h, "kel-oom0"); }},
	    {"wexo_parse_link_props", true,
	        [] {
		        wexo_arg_list_t *args = nullptr;
		        int st = wexo_parse_link_props("maxbw=10M,priority=high", &args, B_FALSE);
		        wexo_free_args(args);
		        return st;
	        }},
	    {"wexo_vxlan_get_flood", true,
	        [&] {
		        wexo_flood_t f{};
		        int st = wexo_vxlan_get_flood(h, lo, &f);
		        wexo_free_flood(&f);
		        return st;
	        }},
	    {"wexo_vxlan_set_flood", true,
	        [&] {
		        const char *remotes[] = {"192.0.2.2"};
		        return wexo_vxlan_set_flood(h, none, remotes, 1, B_FALSE);
	        }},
	    {"wexo_fabric_remove_leftover", true, [] { return wexo_fabric_remove_leftover("vnic", "kel-oom0"); }},
	    {"kel_connect_vnic", false,
	        [&] {
		        wexo_arg_list_t *props = nullptr;
		        datalink_id_t lower = 0;
		        kelcntl_KELImplInfo *info = nullptr;
		        int rc = kel_connect_vnic(h, nullptr, "k", nullptr, "kel-oom0", &props, nullptr, &lower, &info,
		            0);
		        wexo_free_args(props);
		        kelcntl_KELImplInfo_free(info);
		        return rc;
	        }},
	    {"kel_disconnect_vnic", false, [&] { return kel_disconnect_vnic(h, "kel-oom0", nullptr, none, 0); }},
	    {"kel_vnic_create", false,
	        [] {
		        kel_vnic_t v{};
		        int rc = kel_vnic_create(nullptr, "k", nullptr, "kel-oom0", nullptr, WEXO_VNIC_MACVLAN, 0, &v);
		        kel_vnic_free(&v);
		        return rc;
	        }},
	    {"kel_vnic_remove", false, [] { return kel_vnic_remove("kel-oom0", nullptr, 0); }},
	    {"kel_get_vnicinfo", false,
	        [] {
		        kelcntl_VPortInfo **ports = nullptr;
		        int n = 0;
		        int rc = kel_get_vnicinfo("kel-oom0", &ports, &n);
		        kelcntl_VPortInfo_array_free(ports, n);
		        return rc;
	        }},
	    {"kel_get_host_vnicinfo", false,
	        [] {
		        kelcntl_VPortInfo **ports = nullptr;
		        int n = 0;
		        int rc = kel_get_host_vnicinfo(&ports, &n);
		        kelcntl_VPortInfo_array_free(ports, n);
		        return rc;
	        }},
	    {"kel_get_vnicstat", false,
	        [] {
		        link_stat_t st;
		        return kel_get_vnicstat(nullptr, "kel-oom0", &st);
	        }},
	};
	for (const auto &c : calls) {
		SCOPED_TRACE(c.name);
		const int expected = c.call();
		for (long nth = 1;; nth++) {
			ASSERT_LT(nth, 2000);
			fired = false;
			countdown = nth;
			const int rc = c.call();
			countdown = 0;
			if (!fired) {
				EXPECT_EQ(rc, expected);
				break;
			}
			EXPECT_TRUE(rc == expected || says_nomem(rc, c.wexo)) << "allocation " << nth << ": " << rc;
		}
	}
	wexo_close(h);
}

}  // namespace

#include <uuid/uuid.h>

#include <string>

#include <kel/libkel.h>
#include "fault.h"
#include "kel_lifecycle.h"
#include "store_fixture.h"

namespace {

class KelLifecycle : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		set_ctrl("vlan-range", "10-12");
		set_ctrl("vlan-range-avail", "10-12");
		set_ctrl("vxlan-range", "5000-5999");
		set_ctrl("vxlan-range-avail", "5000-5999");
	}
	void TearDown() override
	{
		kel::fault::disarm();
		StoreFixture::TearDown();
	}

	// Creates a switch and returns "ok <stored properties>" or "error N".
	std::string create(const char *name, const char *props = nullptr, const char *tenant = nullptr,
	    uint32_t flags = 0)
	{
		kel_t *k = reinterpret_cast<kel_t *>(1);
		const int rc = kel_db_create_kel(h_, tenant, name, props, flags, &k);
		EXPECT_EQ(h_->edh_cnt, 0) << "store lock left held";
		if (rc != KEL_SUCCESS) {
			EXPECT_EQ(k, nullptr);
			return "error " + std::to_string(rc);
		}
		char uu[KEL_UUID_TEXT_LEN];
		uuid_unparse_lower(k->kel_uuid, uu);
		kel_free_kel(k);
		return "ok " + value("SELECT kel_props FROM kel_tbl WHERE kel_uuid = ?", {uu});
	}
};

TEST_F(KelLifecycle, VlanIdsComeLowestFirstAndGoBack)
{
	EXPECT_EQ(create("a"), "ok l2-type=vlan,vlanid=10");
	EXPECT_EQ(create("b"), "ok l2-type=vlan,vlanid=11");
	EXPECT_EQ(create("c"), "ok l2-type=vlan,vlanid=12");
	EXPECT_EQ(create("d"), "error " + std::to_string(KEL_E_NO_VLANID));
	EXPECT_EQ(ctrl("vlan-range-avail"), "");
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, "b", 0), KEL_SUCCESS);
	EXPECT_EQ(ctrl("vlan-range-avail"), "11");
	EXPECT_EQ(create("d"), "ok l2-type=vlan,vlanid=11");
	EXPECT_EQ(rows("kel_tbl"), 3);
}

TEST_F(KelLifecycle, RequestedIdsAndTypes)
{
	EXPECT_EQ(create("a", "l2-type=vlan,vlanid=11"), "ok vlanid=11,l2-type=vlan");  // set order
	EXPECT_EQ(ctrl("vlan-range-avail"), "10,12");
	EXPECT_EQ(create("b", "l2-type=vlan,vlanid=11"), "error " + std::to_string(KEL_E_VLANID_UNAVAIL));
	EXPECT_EQ(create("b", "vlanid=99"), "error " + std::to_string(KEL_E_VLANID_UNAVAIL));
	EXPECT_EQ(ctrl("vlan-range-avail"), "10,12");
	EXPECT_EQ(create("x", "l2-type=vxlan"), "ok l2-type=vxlan,vni=5000");
	EXPECT_EQ(create("y", "l2-type=vxlan,vni=5500"), "ok vni=5500,l2-type=vxlan");
	EXPECT_EQ(ctrl("vxlan-range-avail"), "5001-5499,5501-5999");
	EXPECT_EQ(create("z", "l2-type=vxlan,vlanid=10"), "error " + std::to_string(KEL_E_L2TYPE_INCOMPAT));
	EXPECT_EQ(create("z", "vni=10"), "error " + std::to_string(KEL_E_L2TYPE_INCOMPAT));
	// Flat switches draw nothing and keep a given ID as a plain property.
	EXPECT_EQ(create("f", "l2-type=flat"), "ok l2-type=flat");
	EXPECT_EQ(create("g", "l2-type=flat,vlanid=10"), "ok vlanid=10,l2-type=flat");
	EXPECT_EQ(ctrl("vlan-range-avail"), "10,12");
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, "g", 0), KEL_SUCCESS);
	EXPECT_EQ(ctrl("vlan-range-avail"), "10,12");
	// The controller's type decides when none is given.
	set_ctrl("l2-type", "vxlan");
	EXPECT_EQ(create("v"), "ok l2-type=vxlan,vni=5001");
	set_ctrl("l2-type", "bogus");
	EXPECT_EQ(create("w"), "error " + std::to_string(KEL_E_INVALID_L2TYPE));
}

TEST_F(KelLifecycle, NamesTenantsAndUuids)
{
	EXPECT_EQ(create("web", nullptr, "t1").substr(0, 2), "ok");
	EXPECT_EQ(create("web", nullptr, "t1"), "error " + std::to_string(KEL_E_EXISTS));
	EXPECT_EQ(create("web", nullptr, "t2").substr(0, 2), "ok");
	EXPECT_EQ(create("a-b"), "error " + std::to_string(KEL_E_INVALID_NAME));
	EXPECT_EQ(create("a-b", "l2-type=flat", nullptr, KEL_NAME_DASH_OK), "ok l2-type=flat");
	EXPECT_EQ(create("ok", nullptr, "bad tenant"), "error " + std::to_string(KEL_E_INVALID_NAME));
	EXPECT_EQ(create("ok", "cos=1"), "error " + std::to_string(KEL_E_INVALID_PROP));
	EXPECT_EQ(create("ok", "x,cos=1"), "error " + std::to_string(KEL_E_INVALID_PROP));
	EXPECT_EQ(create("ok", "maxbw=fast"), "error " + std::to_string(KEL_E_INVALID_MAXBW));

	const std::string uu = "6b8b4567-327b-23c6-643c-986966334873";
	EXPECT_EQ(create(nullptr, ("l2-type=flat,uuid=" + uu).c_str()), "ok l2-type=flat");
	EXPECT_EQ(value("SELECT kel_name FROM kel_tbl WHERE kel_uuid = ?", {uu}), "6b8b4567327b23c6643c986966334873");
	EXPECT_EQ(value("SELECT kel_props FROM kel_tbl WHERE kel_uuid = ?", {uu}), "l2-type=flat");
	EXPECT_TRUE(kel_db_kel_exists(h_, "sys-global", uu.c_str()));
	// A NULL tenant is "sys-global" for deletion too.
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, uu.c_str(), 0), KEL_SUCCESS);
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, uu.c_str(), 0), KEL_E_KEL_NOTFOUND);
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, "", 0), KEL_E_INVALID_NAME);
}

TEST_F(KelLifecycle, EveryFailedCreationLeavesNothingBehind)
{
	// Fail the Nth statement of a creation, for every N a creation runs: each failure
	// must leave no row and the ID pool as it was. (A failing name check reads as "no
	// such switch", so that one creation succeeds; it is undone before going on.)
	int failures = 0;
	bool returned_record = false;
	kel::test::for_each_failing_statement(
	    [&] {
		    kel_t *k = nullptr;
		    const int rc = kel_db_create_kel(h_, nullptr, "a", "maxbw=10M", 0, &k);
		    returned_record = k != nullptr;
		    kel_free_kel(k);
		    return rc;
	    },
	    [&](int, int rc) {
		    if (rc == KEL_SUCCESS) {
			    ASSERT_EQ(kel_db_delete_kel(h_, nullptr, "a", 0), KEL_SUCCESS);
		    } else {
			    failures++;
			    EXPECT_EQ(rc, SQLITE_IOERR * 256 + KEL_E_SQL);
			    EXPECT_FALSE(returned_record);
		    }
		    EXPECT_EQ(rows("kel_tbl"), 0);
		    EXPECT_EQ(ctrl("vlan-range-avail"), "10-12");
	    },
	    SQLITE_IOERR * 256 + KEL_E_SQL, 100);
	EXPECT_GT(failures, 5);
	EXPECT_EQ(rows("kel_tbl"), 1);
	EXPECT_EQ(ctrl("vlan-range-avail"), "11-12");
}

TEST_F(KelLifecycle, DeleteTakesPortsAndNetworkAndRespectsBindings)
{
	ASSERT_EQ(create("k").substr(0, 2), "ok");
	const std::string keluuid = value("SELECT kel_uuid FROM kel_tbl WHERE kel_name = 'k'");
	sql("INSERT INTO vport_tbl (vport_uuid, vport_keluuid, vport_name, vport_props, "
	    "vport_status, vport_hostname) VALUES ('" +
	    uuid(1) + "', '" + keluuid + "', 'p1', '', 1, 'h')");
	sql("INSERT INTO ipnet_tbl (ipnet_uuid, ipnet_keluuid, ipnet_name, ipnet_props, ipnet_af, "
	    "ipnet_start_addr, ipnet_end_addr, ipnet_avail_range) VALUES ('" +
	    uuid(2) + "', '" + keluuid + "', 'n', 'subnet=10.0.0.0/24', 2, '', '', '')");
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, "k", 0), KEL_E_VPORT_INUSE);
	EXPECT_EQ(rows("kel_tbl") + rows("vport_tbl") + rows("ipnet_tbl"), 3);
	EXPECT_EQ(ctrl("vlan-range-avail"), "11-12");

	sql("UPDATE vport_tbl SET vport_status = 0");
	EXPECT_EQ(kel_db_delete_kel(h_, nullptr, "k", 0), KEL_SUCCESS);
	EXPECT_EQ(rows("kel_tbl") + rows("vport_tbl") + rows("ipnet_tbl"), 0);
	EXPECT_EQ(ctrl("vlan-range-avail"), "10-12");
}

TEST_F(KelLifecycle, FailedDeleteRollsBackTheGiveBack)
{
	ASSERT_EQ(create("k").substr(0, 2), "ok");
	// The statements of a delete: reads, BEGIN, three deletes... fail late, after the
	// give-back: the switch must be whole and the ID still held.
	for (int nth = 1; nth < 40; nth++) {
		kel::fault::fail_nth_statement(nth, SQLITE_FULL * 256 + KEL_E_SQL);
		const int rc = kel_db_delete_kel(h_, nullptr, "k", 0);
		kel::fault::disarm();
		if (rc == KEL_SUCCESS)
			break;
		SCOPED_TRACE(nth);
		EXPECT_EQ(rows("kel_tbl"), 1);
		EXPECT_EQ(ctrl("vlan-range-avail"), "11-12");
	}
	EXPECT_EQ(rows("kel_tbl"), 0);
	EXPECT_EQ(ctrl("vlan-range-avail"), "10-12");
}

}  // namespace

// The controller's interface end to end: a keld holding the store, the client stubs over
// the real transport, and the records they build.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <kel/libkel.h>
#include "client.h"
#include "kelcntl.h"
#include "kelcntl_module.h"
#include "nuq_errors.h"
#include "nuq_uri.h"
#include "store_fixture.h"

namespace {

class Controller : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		kel_t *k = nullptr;
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "vxlan-range=100-200", nullptr), KEL_SUCCESS);
		ASSERT_EQ(kel_db_set_ctrlprop(h_, "uplink-port=net0", "h1"), KEL_SUCCESS);
		ASSERT_EQ(kel_db_create_kel(h_, "acme", "web", "l2-type=flat,maxbw=50M", 0, &k), KEL_SUCCESS);
		kel_free_kel(k);
		kel_ipnet_t *ip = nullptr;
		ASSERT_EQ(kel_db_add_ipnet(h_, "acme", "web", "n", "subnet=10.0.0.0/24", &ip, 0), KEL_SUCCESS);
		kel_free_ipnet(ip);
		ASSERT_EQ(kel_db_add_vport(h_, "acme", "web", "p1", "cos=3", nullptr, 0), KEL_SUCCESS);
		keld_ = std::make_unique<kel::test::Keld>();
		ASSERT_GT(keld_->pid(), 0);
		conn_ = kel::test::connect_keld();
		ASSERT_NE(conn_, nullptr);
	}
	void TearDown() override
	{
		nuq_disconnect(conn_);
		EXPECT_EQ(keld_->stop(), 0);
		StoreFixture::TearDown();
	}

	nuq_instance_t *kel(const char *name = "web", const char *tenant = "acme")
	{
		nuq_instance_t *inst = nullptr;
		EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", name, "tenant", tenant), 0);
		return inst;
	}

	static std::string prop(kelcntl_PropertyNV **props, int count, const char *name)
	{
		for (int i = 0; i < count; i++)
			if (std::strcmp(props[i]->epnv_name, name) == 0)
				return props[i]->epnv_value;
		return "<none>";
	}

	// The controller's error for a call that answers 1, as "code message".
	template <class Call>
	static std::string error(Call &&call)
	{
		kelcntl_KELError *err = nullptr;
		EXPECT_EQ(call(&err), NUQ_E_OBJECT);
		if (err == nullptr)
			return "<no record>";
		const std::string out = std::to_string(err->ekele_err) + " " + err->ekele_errmsg;
		kelcntl_KELError_free(err);
		return out;
	}

	static std::string message(int code)
	{
		char buf[256];
		return std::to_string(code) + " " + kel_errmsg(code, buf, sizeof(buf));
	}

	std::unique_ptr<kel::test::Keld> keld_;
	nuq_conn_t *conn_ = nullptr;
};

TEST_F(Controller, LookupsFindSwitchesByNameAndTenant)
{
	nuq_instance_t *inst = nullptr;
	EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", "web", "tenant", "other"), NUQ_E_NOTFOUND);
	EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 1, "name", "nope"), NUQ_E_NOTFOUND);
	// Without a tenant the switch is looked for among the fabric's own.
	kel_t *k = nullptr;
	ASSERT_EQ(kel_db_create_kel(h_, nullptr, "lan", "l2-type=flat", 0, &k), KEL_SUCCESS);
	kel_free_kel(k);
	ASSERT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", "lan", "tenant", nullptr), 0);
	EXPECT_EQ(nuq::keys(inst), (nuq::Json{{"name", "lan"}, {"tenant", "sys-global"}}));
	nuq_instance_rele(inst);
	EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 1, &inst, 1, "name", "lan"), NUQ_E_NOTFOUND);
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &inst, 0), 0);
	nuq_instance_rele(inst);
}

TEST_F(Controller, BindingReturnsTheSwitchAndItsPortForTheHost)
{
	nuq_instance_t *inst = kel();
	ASSERT_NE(inst, nullptr);
	kelcntl_KELImplInfo *info = nullptr;
	kelcntl_KELError *err = nullptr;
	ASSERT_EQ(kelcntl_KEL_assignVPort(inst, "vn0", "h1", "p1", nullptr, &info, &err), 0);
	EXPECT_EQ(err, nullptr);
	ASSERT_NE(info, nullptr);
	EXPECT_STREQ(info->ekelii_uplink_port, "net0");
	EXPECT_STREQ(info->ekelii_vxlan_localaddr, "");
	const kelcntl_KELInfo *k = info->ekelii_kelinfo;
	EXPECT_STREQ(k->ekeli_name, "web");
	EXPECT_STREQ(k->ekeli_tenantname, "acme");
	EXPECT_EQ(std::strlen(k->ekeli_uuid), 36u);
	EXPECT_EQ(prop(k->ekeli_props, k->ekeli_props_count, "maxbw"), "50M");
	EXPECT_EQ(prop(k->ekeli_props, k->ekeli_props_count, "protection"), "mac-nospoof,ip-nospoof");
	ASSERT_EQ(k->ekeli_vports_count, 1);
	const kelcntl_VPortInfo *v = k->ekeli_vports[0];
	EXPECT_STREQ(v->evpi_name, "p1");
	EXPECT_STREQ(v->evpi_kelname, "web");
	EXPECT_STREQ(v->evpi_keluuid, k->ekeli_uuid);
	EXPECT_EQ(v->evpi_status, EVPS_USED);
	EXPECT_STREQ(v->evpi_vnicname, "vn0");
	EXPECT_STREQ(v->evpi_hostname, "h1");
	EXPECT_EQ(prop(v->evpi_props, v->evpi_props_count, "cos"), "3");
	EXPECT_EQ(prop(v->evpi_props, v->evpi_props_count, "ipaddr"), "10.0.0.2/24");
	kelcntl_KELImplInfo_free(info);

	// Store refusals come back as the error record with the library's own code.
	auto refused = [&](const char *vnic, const char *host, const char *vport) {
		return error([&](kelcntl_KELError **e) {
			return kelcntl_KEL_assignVPort(inst, vnic, host, vport, nullptr, &info, e);
		});
	};
	EXPECT_EQ(refused("vn1", "h2", "p1"), message(KEL_E_VPORT_INUSE));
	EXPECT_EQ(info, nullptr);
	EXPECT_EQ(refused("vn1", "h1", "p9"), message(KEL_E_VPORT_NOTFOUND));
	// A host without an uplink in a fabric without one cannot carry a flat switch.
	EXPECT_EQ(refused("vn1", "h2", nullptr), message(KEL_E_UPLINK_REQUIRED));
	EXPECT_EQ(kelcntl_KEL_assignVPort(inst, nullptr, "h1", "p1", nullptr, &info, &err), NUQ_E_BADARGS);
	nuq_instance_rele(inst);
}

TEST_F(Controller, SystemPortsAndUnbindingOverTheTransport)
{
	nuq_instance_t *inst = kel();
	ASSERT_NE(inst, nullptr);
	kelcntl_KELImplInfo *info = nullptr;
	kelcntl_KELError *err = nullptr;
	ASSERT_EQ(kelcntl_KEL_assignVPort(inst, "vn5", "h1", nullptr, nullptr, &info, &err), 0);
	const std::string sysport = info->ekelii_kelinfo->ekeli_vports[0]->evpi_name;
	EXPECT_EQ(sysport.rfind("sys-vport", 0), 0u) << sysport;
	kelcntl_KELImplInfo_free(info);

	nuq_instance_t *ctl = nullptr;
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &ctl, 0), 0);
	kelcntl_VPortInfo **ports = nullptr;
	int count = -1;
	ASSERT_EQ(kelcntl_KELController_getVPortInfo(ctl, "vnic=vn5,host=h1", &ports, &count, &err), 0);
	ASSERT_EQ(count, 1);
	EXPECT_EQ(ports[0]->evpi_name, sysport);
	EXPECT_STREQ(ports[0]->evpi_tenantname, "acme");
	kelcntl_VPortInfo_array_free(ports, count);

	ASSERT_EQ(kelcntl_KEL_unAssignVPort(inst, "vn5", "h1", nullptr, nullptr, &err), 0);
	// Unbinding a system port removes it; finding nothing is an empty answer.
	ASSERT_EQ(kelcntl_KELController_getVPortInfo(ctl, "vnic=vn5", &ports, &count, &err), 0);
	EXPECT_EQ(count, 0);
	kelcntl_VPortInfo_array_free(ports, count);
	EXPECT_EQ(rows("vport_tbl"), 1);
	const std::string unbind_free = error(
	    [&](kelcntl_KELError **e) { return kelcntl_KEL_unAssignVPort(inst, "vn5", "h1", "vport=p1", nullptr, e); });
	EXPECT_EQ(unbind_free, message(KEL_E_VPORT_NOTFOUND));
	const std::string bad_filter = error([&](kelcntl_KELError **e) {
		return kelcntl_KELController_getVPortInfo(ctl, "colour=blue", &ports, &count, e);
	});
	EXPECT_EQ(bad_filter, message(KEL_E_INVALID_FILTER));
	EXPECT_EQ(ports, nullptr);
	nuq_instance_rele(ctl);
	nuq_instance_rele(inst);
}

// The counters a VNIC carried travel with its unbinding and stay with the port, adding up
// over its VNICs; what is not four unsigned numbers is refused and changes nothing.
TEST_F(Controller, AnUnbindingHandsItsCountersToThePort)
{
	nuq_instance_t *inst = kel();
	ASSERT_NE(inst, nullptr);
	kelcntl_KELError *err = nullptr;
	const kel_vport_counters_t first = {1, 2, 3, 4}, second = {10, 20, 30, 40};
	kel_vport_counters_t total{};
	for (const kel_vport_counters_t *last : {&first, &second}) {
		kelcntl_KELImplInfo *info = nullptr;
		ASSERT_EQ(kelcntl_KEL_assignVPort(inst, "vn7", "h1", "p1", nullptr, &info, &err), 0);
		kelcntl_KELImplInfo_free(info);
		ASSERT_EQ(kelcntl_KEL_unAssignVPort(inst, "vn7", "h1", nullptr, last, &err), 0);
	}
	ASSERT_EQ(kel_db_get_vport_counters(h_, "acme", "web", "p1", &total), KEL_SUCCESS);
	EXPECT_EQ(total.evc_ipackets, 11u);
	EXPECT_EQ(total.evc_rbytes, 22u);
	EXPECT_EQ(total.evc_opackets, 33u);
	EXPECT_EQ(total.evc_obytes, 44u);

	kelcntl_KELImplInfo *info = nullptr;
	ASSERT_EQ(kelcntl_KEL_assignVPort(inst, "vn7", "h1", "p1", nullptr, &info, &err), 0);
	kelcntl_KELImplInfo_free(info);
	nuq_instance_t *ctl = nullptr;
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &ctl, 0), 0);
	for (const nuq::Json &bad : {nuq::Json{{"ipackets", -1}, {"rbytes", 0}, {"opackets", 0}, {"obytes", 0}},
	         nuq::Json{{"ipackets", 1}}, nuq::Json("1/2/3/4")}) {
		SCOPED_TRACE(bad.dump());
		nuq::Json result, error;
		EXPECT_EQ(nuq::call(inst, "unAssignVPort", {{"vnicname", "vn7"}, {"hostname", "h1"}, {"counters", bad}},
		              &result, &error),
		    NUQ_E_BADARGS);
		kelcntl_VPortInfo **ports = nullptr;
		int count = 0;
		ASSERT_EQ(kelcntl_KELController_getVPortInfo(ctl, "vnic=vn7,host=h1", &ports, &count, &err), 0);
		EXPECT_EQ(count, 1) << "the port stays bound";
		kelcntl_VPortInfo_array_free(ports, count);
	}
	nuq_instance_rele(ctl);
	nuq_instance_rele(inst);
}

// As many names as one request can carry: refused as a clause too long, and keld
// answers the next caller as it did the first.
TEST_F(Controller, AFilterOfManyNamesIsRefused)
{
	nuq_instance_t *ctl = nullptr;
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &ctl, 0), 0);
	std::string filter = "vport=p0";
	for (int i = 1; i < 20000; i++)
		filter += ",p" + std::to_string(i);
	kelcntl_VPortInfo **ports = nullptr;
	int count = -1;
	const std::string refused = error([&](kelcntl_KELError **e) {
		return kelcntl_KELController_getVPortInfo(ctl, filter.c_str(), &ports, &count, e);
	});
	EXPECT_EQ(refused, message(KEL_E_NOSPACE));
	kelcntl_KELError *err = nullptr;
	ASSERT_EQ(kelcntl_KELController_getVPortInfo(ctl, "vport=p0,p1", &ports, &count, &err), 0);
	ASSERT_EQ(count, 1);
	EXPECT_STREQ(ports[0]->evpi_name, "p1");
	kelcntl_VPortInfo_array_free(ports, count);
	nuq_instance_rele(ctl);
}

// keld keeps its store handles from call to call: a store removed, or made again, under
// it is what its next call sees, never the file it had open.
TEST_F(Controller, WithoutAStoreThereIsNothingToFind)
{
	nuq_instance_t *inst = nullptr;
	ASSERT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", "web", "tenant", "acme"), 0);
	nuq_instance_rele(inst);
	ASSERT_EQ(std::remove(db_path().c_str()), 0);
	EXPECT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &inst, 0), NUQ_E_NOTFOUND);
	EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", "web", "tenant", "acme"), NUQ_E_NOTFOUND);
	// A named object is not asked for: the call finds it gone, as the lookup would.
	ASSERT_EQ(kelcntl_KEL__nuq_lookup(conn_, NUQ_LOOKUP_NAMED, &inst, 2, "name", "web", "tenant", "acme"), 0);
	kelcntl_KELError *err = nullptr;
	EXPECT_EQ(kelcntl_KEL_syncFlood(inst, &err), NUQ_E_NOTFOUND);
	EXPECT_EQ(err, nullptr);
	nuq_instance_rele(inst);
	ASSERT_EQ(kel_db_create(), KEL_SUCCESS);
	EXPECT_EQ(kelcntl_KEL__nuq_lookup(conn_, 0, &inst, 2, "name", "web", "tenant", "acme"), NUQ_E_NOTFOUND);
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn_, 0, &inst, 0), 0);
	nuq_instance_rele(inst);
}

class KelcntlRecords : public kel::test::ScratchRoot {};

// A reply that breaks off inside a nested record is a protocol error, with nothing built
// left behind (the sanitizer build checks the "nothing").
TEST_F(KelcntlRecords, MalformedRepliesBuildNothing)
{
	const nuq::Json vport = {{"evpi_name", "p"}, {"evpi_uuid", "u"}, {"evpi_kelname", "k"}, {"evpi_keluuid", "ku"},
	    {"evpi_tenantname", "t"}, {"evpi_status", 1}, {"evpi_vnicname", "v"},
	    {"evpi_props", {{{"epnv_name", "a"}, {"epnv_value", "1"}}}}, {"evpi_hostname", "h"}};
	nuq::Json broken = vport;
	broken.erase("evpi_hostname");
	nuq::Json bad_prop = vport;
	bad_prop["evpi_props"] = {{{"epnv_name", "a"}, {"epnv_value", 1}}};
	// A NUL would cut the C string short: "lo\0x" read as "lo".
	nuq::Json nul = vport;
	nul["evpi_hostname"] = std::string("h\0x", 3);
	nuq::Dispatcher dispatcher;
	nuq::Interface iface;
	iface.name = "kelcntl.KELController";
	iface.lookup = [](const nuq::Json &, bool, nuq::Json *found) {
		*found = nuq::Json::object();
		return true;
	};
	iface.methods["getVPortInfo"] = [&](const nuq::Json &, const nuq::Json &args) {
		const std::string f = args.at("filter");
		const nuq::Json answer = f == "good" ? nuq::Json{vport, vport}
		    : f == "broken"                  ? nuq::Json{vport, broken}
		    : f == "prop"                    ? nuq::Json{vport, bad_prop}
		    : f == "nul"                     ? nuq::Json{vport, nul}
		                                     : nuq::Json{{"not", "a list"}};
		return nuq::Reply{NUQ_E_SUCCESS, answer};
	};
	dispatcher.add(iface);
	nuq::Server server(dispatcher);
	ASSERT_TRUE(server.listen(path("fake.sock")));
	std::thread serving([&] { server.run(); });
	nuq_conn_t *conn = kel::test::connect_unix(path("fake.sock"));
	ASSERT_NE(conn, nullptr);
	nuq_instance_t *ctl = nullptr;
	ASSERT_EQ(kelcntl_KELController__nuq_lookup(conn, 0, &ctl, 0), 0);
	kelcntl_VPortInfo **ports = nullptr;
	int count = -1;
	ASSERT_EQ(kelcntl_KELController_getVPortInfo(ctl, "good", &ports, &count, nullptr), 0);
	ASSERT_EQ(count, 2);
	EXPECT_STREQ(ports[1]->evpi_props[0]->epnv_value, "1");
	kelcntl_VPortInfo_array_free(ports, count);
	for (const char *f : {"broken", "prop", "nul", "shape"}) {
		EXPECT_EQ(kelcntl_KELController_getVPortInfo(ctl, f, &ports, &count, nullptr), NUQ_E_PROTOCOL) << f;
		EXPECT_EQ(ports, nullptr);
		EXPECT_EQ(count, 0);
	}
	nuq_instance_rele(ctl);
	nuq_disconnect(conn);
	server.stop();
	serving.join();
}

}  // namespace

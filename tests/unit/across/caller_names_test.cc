// Names, tenants and hosts a caller gives go into the filters the library builds; a
// text that is not one name must be refused before it can add a key or an alternative
// there. Every such operation, with each such text in each position, leaves the store
// as it was.
#include <functional>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "store_fixture.h"

namespace {

class CallerNames : public kel::test::StoreFixture {
protected:
	void SetUp() override
	{
		StoreFixture::SetUp();
		set_ctrl("vlan-range", "100-199");
		set_ctrl("vlan-range-avail", "100-199");
		// The same names in two tenants: a widened filter would reach acme's objects.
		for (const char *tenant : {"sys-global", "acme"}) {
			const std::string subnet = std::string("subnet=10.") + (*tenant == 'a' ? "1" : "0") + ".0.0/24";
			kel_t *k = nullptr;
			ASSERT_EQ(kel_db_create_kel(h_, tenant, "db", "l2-type=vlan", 0, &k), KEL_SUCCESS);
			kel_free_kel(k);
			kel_ipnet_t *ip = nullptr;
			ASSERT_EQ(kel_db_add_ipnet(h_, tenant, "db", "n", subnet.c_str(), &ip, 0), KEL_SUCCESS);
			kel_free_ipnet(ip);
			ASSERT_EQ(kel_db_add_vport(h_, tenant, "db", "p", nullptr, nullptr, 0), KEL_SUCCESS);
		}
	}
};

// Texts that are not one name: alternatives, extra keys, an empty name, wildcards.
const char *const kHostile[] = {"nosuch,acme", "db,db", "nosuch,kel=db", "", "a=b", "%", "d*", "db ", "ac me",
    "sys-global,acme"};

TEST_F(CallerNames, NoCallerTextWidensAFilter)
{
	using Op = std::function<int(const char *t, const char *k, const char *m)>;
	struct {
		const char *what;
		Op op;
		int names = 3;                     // how many of tenant, switch and member it takes
		int refused = KEL_E_INVALID_NAME;  // its answer to a text that is not one name
		bool empty_is_any = false;         // a reader that takes an empty name as any
	} ops[] = {
	    {"delete-kel", [&](auto t, auto k, auto) { return kel_db_delete_kel(h_, t, k, 0); }, 2},
	    {"add-ipnet",
	        [&](auto t, auto k, auto) {
		        kel_ipnet_t *ip = nullptr;
		        const int rc = kel_db_add_ipnet(h_, t, k, "n2", "subnet=10.9.0.0/24", &ip, 0);
		        kel_free_ipnet(ip);
		        return rc;
	        },
	        2},
	    {"remove-ipnet", [&](auto t, auto k, auto m) { return kel_db_remove_ipnet(h_, t, k, m, 0); }},
	    {"add-vport", [&](auto t, auto k, auto) { return kel_db_add_vport(h_, t, k, "p2", nullptr, nullptr, 0); },
	        2},
	    {"add-system-vport",
	        [&](auto t, auto k, auto) {
		        char name[KEL_NAME_LEN];
		        return kel_db_add_system_vport(h_, t, k, name);
	        },
	        2},
	    {"remove-vport", [&](auto t, auto k, auto m) { return kel_db_remove_vport(h_, t, k, m, "force=yes", 0); }},
	    {"reset-vport", [&](auto t, auto k, auto m) { return kel_db_reset_vport(h_, t, k, m, "force=yes", 0); }},
	    {"set-kelprop", [&](auto t, auto k, auto) { return kel_set_kelprop(h_, t, k, "maxbw=5M", 0); }, 2},
	    {"set-vportprop", [&](auto t, auto k, auto m) { return kel_set_vportprop(h_, t, k, m, "maxbw=5M", 0); }},
	    {"set-ipnetprop",
	        [&](auto t, auto k, auto m) { return kel_set_ipnetprop(h_, t, k, m, "pool=10.0.0.50-10.0.0.60", 0); }},
	    {"kel list",
	        [&](auto t, auto k, auto) {
		        list_t list;
		        const int rc = kel_db_get_kellist(h_, *t ? t : "sys-global", k, &list, 0);
		        if (rc == KEL_SUCCESS)
			        kel_free_kellist(&list);
		        return rc;
	        },
	        2, KEL_E_INVALID_NAME, true},
	    // Its names are checked as the filter's values are: a name that is not one is
	    // invalid arguments, as it has always been.
	    {"ipnet list",
	        [&](auto t, auto k, auto m) {
		        list_t list;
		        const int rc = kel_db_get_ipnetlist(h_, t, k, m, &list, 0);
		        if (rc == KEL_SUCCESS)
			        kel_free_ipnetlist(&list);
		        return rc;
	        },
	        3, KEL_E_INVALID_ARGS, true},
	    {"kel and port",
	        [&](auto t, auto k, auto m) {
		        kel_t *kel = nullptr;
		        const int rc = kel_db_get_kelvport(h_, t, k, m, &kel);
		        kel_free_kel(kel);
		        return rc;
	        }},
	};
	const std::string before = dump();
	for (const auto &o : ops) {
		for (int position = 0; position < o.names; position++) {
			for (const char *bad : kHostile) {
				// An empty tenant or name asks a reader for any: that is its API.
				if (*bad == '\0' && o.empty_is_any)
					continue;
				SCOPED_TRACE(std::string(o.what) + " with '" + bad + "' as argument " +
				    std::to_string(position));
				const char *args[3] = {"sys-global", "db", position == 2 ? bad : "p"};
				if (std::string(o.what).find("ipnet") != std::string::npos && position != 2)
					args[2] = "n";
				args[position] = bad;
				EXPECT_EQ(o.op(args[0], args[1], args[2]), o.refused);
				ASSERT_EQ(dump(), before);
			}
		}
	}
	// The network reader takes empty names as any.
	list_t nets;
	ASSERT_EQ(kel_db_get_ipnetlist(h_, "", "db", "", &nets, 0), KEL_SUCCESS);
	EXPECT_EQ(kel_list_count(&nets), 2u);
	kel_free_ipnetlist(&nets);
}

TEST_F(CallerNames, HostsAndVnicsToo)
{
	const std::string before = dump();
	for (const char *bad : {"h1,h2", "", "h1,vnic=x"}) {
		SCOPED_TRACE(bad);
		EXPECT_EQ(kel_db_unassign_vport(h_, bad, "h1", nullptr), KEL_E_INVALID_ARGS);
		EXPECT_EQ(kel_db_unassign_vport(h_, "vn0", bad, nullptr), KEL_E_INVALID_ARGS);
		if (*bad != '\0') {
			list_t props;
			EXPECT_EQ(kel_db_get_ctrlprop(h_, nullptr, bad, &props), KEL_E_INVALID_HOSTNAME);
		}
	}
	EXPECT_EQ(dump(), before);
}

}  // namespace

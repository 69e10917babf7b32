#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kel/libkel.h>
#include "filter.h"
#include "store_fixture.h"

namespace {

// The clause and its parameters ("100=k1 101=k2") for a filter over table1[, table2].
struct Built {
	int rc;
	std::string clause;
	std::string params;
};

Built build(const char *filter, const char *t1, const char *t2 = nullptr, size_t size = 2048)
{
	std::vector<char> buf(size, '#');
	attrset_t *params = reinterpret_cast<attrset_t *>(1);
	Built out;
	out.rc = kel_filterstr2sqlfmt(filter, buf.data(), size, &params, t1, t2);
	if (out.rc != KEL_SUCCESS) {
		EXPECT_EQ(params, nullptr);
		return out;
	}
	out.clause = buf.data();
	for (attrset_entry_t *e = attrset_next_entry(params, nullptr); e; e = attrset_next_entry(params, e)) {
		char *v = nullptr;
		EXPECT_EQ(attrset_entry_value_string(e, &v), 0);
		out.params += std::string(out.params.empty() ? "" : " ") + attrset_entry_name(e) + "=" + v;
	}
	attrset_free(params);
	return out;
}

const char *const U = "6b8b4567-327b-23c6-643c-986966334873";

TEST(FilterClause, Translation)
{
	struct {
		std::string filter;
		const char *t1, *t2;
		const char *clause;
		const char *params;
	} cases[] = {
	    {"tenant=t1,kel=k1,k2", "vport_tbl", "kel_tbl",
	        " WHERE ( kel_name = ?100 OR kel_name = ?101 ) AND ( kel_tenant_name = ?102 )", "100=k1 101=k2 102=t1"},
	    {"maxbw=10M,tenant=t1", "kel_tbl", "vport_tbl",
	        " WHERE ( kel_tenant_name = ?100 ) AND ( kel_props LIKE ?101 OR kel_props LIKE ?102 )",
	        "100=t1 101=%maxbw=10M,% 102=%maxbw=10M"},
	    {"maxbw=10M,20M", "kel_tbl", nullptr,
	        " WHERE ( kel_props LIKE ?100 OR kel_props LIKE ?101 OR kel_props LIKE ?102 OR "
	        "kel_props LIKE ?103 )",
	        "100=%maxbw=10M,% 101=%maxbw=10M 102=%maxbw=20M,% 103=%maxbw=20M"},
	    {"protection=ip-nospoof", "vport_tbl", nullptr, " WHERE ( vport_props LIKE ?100 OR vport_props LIKE ?101 )",
	        "100=%protection=%ip-nospoof,% 101=%protection=%ip-nospoof"},
	    // The first value fixes the column for all values of the key.
	    {std::string("kel=") + U + ",k2", "kel_tbl", nullptr, " WHERE ( kel_uuid = ?100 OR kel_uuid = ?101 )", ""},
	    {std::string("uuid=") + U, "vport_tbl", "kel_tbl", " WHERE ( vport_uuid = ?100 )", ""},
	    {"kel=k1,kel=k2", "kel_tbl", nullptr, " WHERE ( kel_name = ?100 ) AND ( kel_name = ?101 )",
	        "100=k2 101=k1"},
	    // Keys of tables the query does not read are skipped.
	    {"host=h1", "kel_tbl", "ipnet_tbl", "", ""},
	    {"ipnet=n1,vport=p1", "vport_tbl", "kel_tbl", " WHERE ( vport_name = ?100 )", "100=p1"},
	    {"ctrl_pname=l2-type,ctrl_host=", "ctrl_tbl", nullptr,
	        " WHERE ( ctrl_host = ?100 ) AND ( ctrl_pname = ?101 )", "100= 101=l2-type"},
	    {"", "kel_tbl", nullptr, "", ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.filter);
		const Built b = build(c.filter.c_str(), c.t1, c.t2);
		ASSERT_EQ(b.rc, KEL_SUCCESS);
		EXPECT_EQ(b.clause, c.clause);
		if (*c.params != '\0') {
			EXPECT_EQ(b.params, c.params);
		}
	}
	EXPECT_EQ(build(nullptr, "kel_tbl").clause, "");
}

TEST(FilterClause, Refusals)
{
	struct {
		const char *filter;
		const char *t1;
		int rc;
	} cases[] = {
	    {"tenant=t1,", "kel_tbl", KEL_E_INVALID_ARGS},
	    {"bogus=1", "kel_tbl", KEL_E_INVALID_FILTER},
	    {"cos=1", "kel_tbl", KEL_E_INVALID_FILTER},  // a vport property, not a kel one
	    {"bogus=1", "ctrl_tbl", KEL_E_INVALID_ARGS},
	    {"kel=k1,,k2", "kel_tbl", KEL_E_INVALID_ARGS},  // an empty piece
	    {"kel=bad name", "kel_tbl", KEL_E_INVALID_ARGS},
	    {"host=-bad", "vport_tbl", KEL_E_INVALID_ARGS},
	    {"vnic=a/b/c", "vport_tbl", KEL_E_INVALID_ARGS},
	    {"noequals", "kel_tbl", KEL_E_INVALID_ARGS},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.filter);
		EXPECT_EQ(build(c.filter, c.t1).rc, c.rc);
	}
}

TEST(FilterClause, LongFiltersNeverOverrunTheClause)
{
	std::string many = "kel=k0";
	for (int i = 1; i < 200; i++)
		many += ",k" + std::to_string(i);
	EXPECT_EQ(build(many.c_str(), "kel_tbl").rc, KEL_E_NOSPACE);
	// A property pattern alone longer than its buffer.
	std::string wide = "maxbw=" + std::string(3000, '1');
	EXPECT_EQ(build(wide.c_str(), "kel_tbl").rc, KEL_E_NOSPACE);
	// Exactly at the edge: the clause " WHERE ( kel_name = ?100 )" is 26 characters.
	EXPECT_EQ(build("kel=k1", "kel_tbl", nullptr, 26).rc, KEL_E_NOSPACE);
	EXPECT_EQ(build("kel=k1", "kel_tbl", nullptr, 27).rc, KEL_SUCCESS);
	// The piece that fills the clause ends the build: nothing after it is looked at, so a
	// filter of any length costs no more than what fits.
	EXPECT_EQ(build((many + ",bad name").c_str(), "kel_tbl").rc, KEL_E_NOSPACE);
	EXPECT_EQ(build(("maxbw=" + std::string(3000, '1') + ",2,3").c_str(), "kel_tbl").rc, KEL_E_NOSPACE);
}

TEST(FilterValidation, ByObjectAndPropertyType)
{
	struct {
		const char *filter;
		kel_type_t type;
		kel_proptype_t ptype;
		int rc;
	} cases[] = {
	    {"vnic=x", KEL_TYPE_IPNET, KEL_PROPTYPE_IPNET, KEL_E_INVALID_FILTER},
	    {"maxbw=1", KEL_TYPE_VPORT, KEL_PROPTYPE_VPORT, KEL_SUCCESS},
	    {"tenant=t,kel=k,host=h", KEL_TYPE_KEL, KEL_PROPTYPE_KEL, KEL_SUCCESS},
	    {"ipnet=n", KEL_TYPE_VPORT, KEL_PROPTYPE_VPORT, KEL_E_INVALID_FILTER},
	    {"acme:x=1", KEL_TYPE_IPNET, KEL_PROPTYPE_IPNET, KEL_SUCCESS},
	    {"", KEL_TYPE_KEL, KEL_PROPTYPE_KEL, KEL_SUCCESS},
	    {"kel=a,", KEL_TYPE_KEL, KEL_PROPTYPE_KEL, KEL_E_INVALID_ARGS},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.filter);
		EXPECT_EQ(kel_validate_filterstr(c.filter, c.type, c.ptype), c.rc);
	}
	EXPECT_EQ(kel_validate_filterstr(nullptr, KEL_TYPE_KEL, KEL_PROPTYPE_KEL), KEL_SUCCESS);
}

TEST(FilterValidation, RegexAlternation)
{
	char text[] = "a,b,c";
	kel_filterstr2regex(text);
	EXPECT_STREQ(text, "a|b|c");
	char empty[] = "";
	kel_filterstr2regex(empty);
	EXPECT_STREQ(empty, "");
}

using FilterStore = kel::test::StoreFixture;

std::vector<std::string> names(kel_dbhandle_t h, const char *filter, int *rc)
{
	std::vector<std::string> out;
	*rc = kel_db_get_filtered_common(h, "kel_tbl", nullptr, nullptr, nullptr, filter, &out,
	    [](const kel::Statement &st, void *arg) {
		    static_cast<std::vector<std::string> *>(arg)->push_back(st.text(1));
		    return KEL_SUCCESS;
	    });
	return out;
}

TEST_F(FilterStore, PropertyConditionsMatchWholeEntries)
{
	add_kel(1, "a", "sys-global", "maxbw=10M");
	add_kel(2, "b", "sys-global", "a=b,maxbw=10M,c=d");
	add_kel(3, "c", "sys-global", "maxbw=10MB");
	add_kel(4, "d", "t2", "protection=mac-nospoof,ip-nospoof");
	int rc;
	EXPECT_EQ(names(h_, "maxbw=10M", &rc), (std::vector<std::string>{"a", "b"}));
	EXPECT_EQ(rc, KEL_SUCCESS);
	EXPECT_EQ(names(h_, "protection=ip-nospoof", &rc), (std::vector<std::string>{"d"}));
	EXPECT_EQ(names(h_, "", &rc).size(), 4u);
	EXPECT_EQ(names(h_, "kel=a,c", &rc), (std::vector<std::string>{"a", "c"}));
	EXPECT_EQ(names(h_, "kel=a,kel=c", &rc), std::vector<std::string>{});
	EXPECT_EQ(names(h_, "tenant=t2", &rc), (std::vector<std::string>{"d"}));
}

TEST_F(FilterStore, HostileValuesStayValues)
{
	add_kel(1, "a");
	add_kel(2, "b", "sys-global", "acme:x=1");
	int rc;
	// Quotes, statement ends and comment marks in a value are bound, never parsed.
	for (const char *filter : {"acme:x=1' OR '1'='1", "acme:x=1); DROP TABLE kel_tbl; --", "acme:x=\" OR 1=1 --"}) {
		SCOPED_TRACE(filter);
		EXPECT_EQ(names(h_, filter, &rc), std::vector<std::string>{});
		EXPECT_EQ(rc, KEL_SUCCESS);
	}
	EXPECT_EQ(names(h_, "", &rc).size(), 2u);
}

TEST_F(FilterStore, SingleValueReadAndWrite)
{
	add_kel(1, "a", "sys-global", "maxbw=1M");
	add_kel(2, "b", "sys-global", "");
	char buf[8] = "keep";
	EXPECT_EQ(
	    kel_db_get_filtered_value(h_, "kel_tbl", "kel_props", "kel=nosuch", buf, sizeof(buf), DATA_TYPE_STRING),
	    KEL_SUCCESS);
	EXPECT_STREQ(buf, "keep");
	EXPECT_EQ(kel_db_get_filtered_value(h_, "kel_tbl", "kel_props", "kel=a", buf, 5, DATA_TYPE_STRING),
	    KEL_SUCCESS);
	EXPECT_STREQ(buf, "maxb");
	char *copy = nullptr;
	EXPECT_EQ(kel_db_get_filtered_value(h_, "kel_tbl", "kel_props", "kel=a", &copy, -1, DATA_TYPE_STRING),
	    KEL_SUCCESS);
	EXPECT_STREQ(copy, "maxbw=1M");
	std::free(copy);
	int status = -1;
	EXPECT_EQ(kel_db_get_filtered_value(h_, "kel_tbl", "kel_status", "kel=b", &status, 0, DATA_TYPE_INT32),
	    KEL_SUCCESS);
	EXPECT_EQ(status, 0);

	EXPECT_EQ(kel_db_set_filtered_value(h_, "kel_tbl", "kel_props", "kel=b", "maxbw=5M", DATA_TYPE_STRING),
	    KEL_SUCCESS);
	int rc;
	EXPECT_EQ(names(h_, "maxbw=5M", &rc), std::vector<std::string>{"b"});
	// An empty filter updates every row.
	const int seven = 7;
	EXPECT_EQ(kel_db_set_filtered_value(h_, "kel_tbl", "kel_status", "", &seven, DATA_TYPE_INT32), KEL_SUCCESS);
	EXPECT_EQ(kel_db_get_filtered_value(h_, "kel_tbl", "kel_status", "kel=a", &status, 0, DATA_TYPE_INT32),
	    KEL_SUCCESS);
	EXPECT_EQ(status, 7);
}

TEST_F(FilterStore, ExistenceTest)
{
	add_kel(1, "a", "t1");
	add_ipnet(10, 1, "n1", "10.0.0.0/24");
	EXPECT_TRUE(kel_db_value_exists(h_, "AND", nullptr, "kel_ipnet_view", 2, "kel_tenant_name", DATA_TYPE_STRING,
	    "t1", "ipnet_name", DATA_TYPE_STRING, "n1"));
	EXPECT_FALSE(kel_db_value_exists(h_, "AND", nullptr, "kel_ipnet_view", 2, "kel_tenant_name", DATA_TYPE_STRING,
	    "t2", "ipnet_name", DATA_TYPE_STRING, "n1"));
	EXPECT_TRUE(kel_db_value_exists(h_, "OR", "=", "kel_tbl", 2, "kel_name", DATA_TYPE_STRING, "zz", "kel_status",
	    DATA_TYPE_INT32, 0));
	EXPECT_FALSE(kel_db_value_exists(h_, "XOR", nullptr, "kel_tbl", 2, "kel_name", DATA_TYPE_STRING, "a",
	    "kel_name", DATA_TYPE_STRING, "a"));
	EXPECT_FALSE(kel_db_value_exists(h_, "AND", nullptr, "kel_tbl", 0));
	EXPECT_FALSE(kel_db_value_exists(h_, "AND", nullptr, "no_such_table", 1, "x", DATA_TYPE_STRING, "y"));
	EXPECT_TRUE(kel_db_kel_exists(h_, "t1", "a"));
	EXPECT_TRUE(kel_db_kel_exists(h_, "t1", uuid(1).c_str()));
	EXPECT_FALSE(kel_db_kel_exists(h_, "sys-global", "a"));
}

// A filter of 100,000 names: in one key it cannot fit the clause and is refused; in a
// key the query skips it costs nothing, and the rest of the filter still selects.
TEST_F(FilterStore, HugeFiltersAreRefusedOrSkipped)
{
	add_kel(1, "a");
	add_kel(2, "b");
	add_kel(3, "c");
	std::string alternatives = "kel=k0", keys = "host=h0";
	for (int i = 1; i < 100000; i++) {
		alternatives += ",k" + std::to_string(i);
		keys += ",host=h" + std::to_string(i);
	}
	int rc;
	EXPECT_EQ(names(h_, alternatives.c_str(), &rc), std::vector<std::string>{});
	EXPECT_EQ(rc, KEL_E_NOSPACE);
	EXPECT_EQ(names(h_, (keys + ",kel=b").c_str(), &rc), std::vector<std::string>{"b"});
	EXPECT_EQ(rc, KEL_SUCCESS);
	// As many alternatives as the clause holds still select the right rows.
	std::string most = "kel=a";
	for (int i = 0; i < 60; i++)
		most += ",x" + std::to_string(i);
	EXPECT_EQ(names(h_, (most + ",c").c_str(), &rc), (std::vector<std::string>{"a", "c"}));
	EXPECT_EQ(rc, KEL_SUCCESS);
}

}  // namespace

#include <string>
#include <vector>

#include <kel/libkel.h>
#include "nuq_uri.h"
#include "service_config.h"
#include "test_support.h"

namespace {

using ClientSettings = kel::test::ScratchRoot;

std::string controller()
{
	char buf[1024];
	const int rc = kel_tog_get_one_value(KEL_NODE_FMRI, "config", "controller", VUR_TYPE_ASTRING, buf, sizeof(buf));
	return rc == KEL_SUCCESS ? std::string(buf) : "error " + std::to_string(rc);
}

TEST_F(ClientSettings, ControllerValues)
{
	struct {
		std::string text;
		int rc;
		const char *stored;  // nullptr: unchanged
	} cases[] = {
	    {"controller=unix://", KEL_SUCCESS, "unix://"},
	    {"controller=ssh://ctl", KEL_SUCCESS, "ssh://ctl"},
	    {"controller=ssh://admin@ctl.example:2222/run/kel/keld.sock", KEL_SUCCESS,
	        "ssh://admin@ctl.example:2222/run/kel/keld.sock"},
	    {"controller=unix://root@localhost/run/kel/other.sock", KEL_SUCCESS,
	        "unix://root@localhost/run/kel/other.sock"},
	    // Several controllers, tried in this order; blanks around each are the reader's.
	    {"controller=unix://localhost/run/kel/a.sock, ssh://ctl2", KEL_SUCCESS,
	        "unix://localhost/run/kel/a.sock, ssh://ctl2"},
	    {"controller=ssh://ctl1,,ssh://ctl2", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://ctl1,", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://ctl1,http://ctl2", KEL_E_INVALID_URI, nullptr},
	    {"controller=", KEL_SUCCESS, ""},
	    {"controller=http://ctl", KEL_E_INVALID_URI, nullptr},
	    {"controller=UNIX://", KEL_E_INVALID_URI, nullptr},  // parses, but not as written
	    {"controller=unix://otherhost/x", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://bad host", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://ctl:99999", KEL_E_INVALID_URI, nullptr},
	    // The socket path becomes part of the command the far host's shell runs.
	    {"controller=ssh://ctl/run/kel/keld.sock;reboot", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://ctl/run/$(id)", KEL_E_INVALID_URI, nullptr},
	    // An ssh controller without a host could never be reached.
	    {"controller=ssh://", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://ops@", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh:///run/kel/keld.sock", KEL_E_INVALID_URI, nullptr},
	    {"controller=ssh://:22", KEL_E_INVALID_URI, nullptr},
	    {"controller", KEL_E_INVALID_PROP, nullptr},
	    {"uuid=x", KEL_E_INVALID_PROP, nullptr},
	    {"controller=ssh://" + std::string(1010, 'a'), KEL_E_INVALID_PROP, nullptr},
	};
	std::string last = "error " + std::to_string(KEL_E_NOTFOUND);
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text.substr(0, 60));
		EXPECT_EQ(kel_set_client_togprop(c.text.c_str()), c.rc);
		if (c.stored != nullptr)
			last = c.stored;
		EXPECT_EQ(controller(), last);
	}
}

TEST_F(ClientSettings, Listing)
{
	list_t list;
	// Nothing configured yet: an empty list.
	ASSERT_EQ(kel_get_client_togprop(nullptr, &list), KEL_SUCCESS);
	EXPECT_EQ(kel_list_count(&list), 0);
	kel_free_togproplist(&list);

	ASSERT_EQ(kel_set_client_togprop("controller=ssh://ctl"), KEL_SUCCESS);
	// Other properties of the service are not client settings and are not listed.
	ASSERT_EQ(kel_tog_set_one_value(KEL_NODE_FMRI, "config", "other", VUR_TYPE_ASTRING, const_cast<char *>("x")),
	    KEL_SUCCESS);
	for (const char *names : {static_cast<const char *>(nullptr), "controller"}) {
		ASSERT_EQ(kel_get_client_togprop(names, &list), KEL_SUCCESS);
		ASSERT_EQ(kel_list_count(&list), 1);
		auto *p = static_cast<kel_togprop_t *>(list_head(&list));
		EXPECT_STREQ(p->esp_propname, "controller");
		EXPECT_STREQ(p->esp_propval, "ssh://ctl");
		EXPECT_STREQ(p->esp_defvalue, "");
		EXPECT_STREQ(p->esp_perm, "rw");
		kel_free_togproplist(&list);
	}
	EXPECT_EQ(kel_get_client_togprop("controller,bogus", &list), KEL_E_INVALID_PROP);
	EXPECT_EQ(kel_get_client_togprop("controller,", &list), KEL_E_INVALID_ARGS);
	kel_free_togproplist(nullptr);
}

TEST_F(ClientSettings, ControllerUuid)
{
	char buf[37];
	EXPECT_EQ(kel_get_controller_togprop("uuid", buf, sizeof(buf)), KEL_E_NOTFOUND);
	const char *uu = "6b8b4567-327b-23c6-643c-986966334873";
	ASSERT_EQ(kel_set_controller_togprop("uuid", uu), KEL_SUCCESS);
	ASSERT_EQ(kel_get_controller_togprop("uuid", buf, sizeof(buf)), KEL_SUCCESS);
	EXPECT_STREQ(buf, uu);
	EXPECT_EQ(kel_get_controller_togprop("l2-type", buf, sizeof(buf)), KEL_E_INVALID_CTRLPROP);
	EXPECT_EQ(kel_set_controller_togprop("l2-type", "vlan"), KEL_E_INVALID_CTRLPROP);
}

TEST(NuqUri, SchemesAndParts)
{
	struct {
		const char *text;
		int mask;
		bool ok;
		nuq_scheme_t scheme;
		const char *user, *host;
		int port;
		const char *path;
	} cases[] = {
	    {"unix://", NUQS_UNIX | NUQS_SSH, true, NUQS_UNIX, "", "", 0, ""},
	    {"unix://localhost/run/x.sock", NUQS_UNIX, true, NUQS_UNIX, "", "localhost", 0, "/run/x.sock"},
	    {"ssh://ops@ctl-1.example:22/run/kel/keld.sock", NUQS_SSH, true, NUQS_SSH, "ops", "ctl-1.example", 22,
	        "/run/kel/keld.sock"},
	    {"SSH://ctl", NUQS_SSH, true, NUQS_SSH, "", "ctl", 0, ""},
	    {"ssh://ctl", NUQS_UNIX, false, NUQS_SSH, "", "", 0, ""},  // scheme not in the mask
	    {"unix://localhost", NUQS_UNIX, true, NUQS_UNIX, "", "localhost", 0, ""},
	    {"unix://ops@localhost", NUQS_UNIX, true, NUQS_UNIX, "ops", "localhost", 0, ""},
	    {"unix://ops@ctl", NUQS_UNIX, false, NUQS_UNIX, "", "", 0, ""},
	    {"unix://localhost:9/x", NUQS_UNIX, false, NUQS_UNIX, "", "", 0, ""},
	    {"ssh://@ctl", NUQS_SSH, false, NUQS_SSH, "", "", 0, ""},
	    {"ssh://", NUQS_SSH, false, NUQS_SSH, "", "", 0, ""},  // no host to reach
	    {"ssh://ctl:0", NUQS_SSH, false, NUQS_SSH, "", "", 0, ""},
	    {"ssh://ctl/relative path", NUQS_SSH, false, NUQS_SSH, "", "", 0, ""},
	    {"ctl", NUQS_SSH, false, NUQS_SSH, "", "", 0, ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.text);
		nuq_uri_t *uri = nuq_alloc_uri(c.text, c.mask);
		ASSERT_EQ(uri != nullptr, c.ok);
		if (uri == nullptr)
			continue;
		EXPECT_EQ(nuq_uri_get_scheme(uri), c.scheme);
		EXPECT_STREQ(nuq_uri_get_user(uri), c.user);
		EXPECT_STREQ(nuq_uri_get_host(uri), c.host);
		EXPECT_EQ(nuq_uri_get_port(uri), c.port);
		EXPECT_STREQ(nuq_uri_get_path(uri), c.path);
		nuq_free_uri(uri);
	}
}

}  // namespace

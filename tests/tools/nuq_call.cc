// Test client: nuq_call URI INTERFACE METHOD [key=value [ARGS-JSON]] looks the object up
// by the key and calls the method with the arguments (none by default); prints the
// result as JSON, or "error N: text" and the error record, and exits 1.
#include <cstdio>
#include <string>

#include "client.h"
#include "nuq_errors.h"

int main(int argc, char **argv)
{
	if (argc < 4) {
		std::fprintf(stderr, "usage: nuq_call URI INTERFACE METHOD [key=value...]\n");
		return 2;
	}
	nuq_uri_t *uri = nuq_alloc_uri(argv[1], NUQS_UNIX | NUQS_SSH);
	nuq_conn_t *conn = uri ? nuq_connect_uri(uri, nullptr) : nullptr;
	nuq_free_uri(uri);
	if (conn == nullptr) {
		std::printf("error %d: %s\n", NUQ_E_CONNECT, nuq_err_string(NUQ_E_CONNECT));
		return 1;
	}
	// Keys go through a one-key lookup at most here: enough for the scenarios.
	nuq_instance_t *obj = nullptr;
	int rc;
	if (argc >= 5) {
		const std::string kv = argv[4];
		const size_t eq = kv.find('=');
		rc = nuq_lookup(conn, argv[2], 0, &obj, 1, kv.substr(0, eq).c_str(),
		    eq == std::string::npos ? "" : kv.substr(eq + 1).c_str());
	} else {
		rc = nuq_lookup(conn, argv[2], 0, &obj, 0);
	}
	nlohmann::json result, error;
	const nlohmann::json args = argc >= 6 ? nlohmann::json::parse(argv[5], nullptr, false)
	                                      : nlohmann::json::object();
	if (rc == 0)
		rc = nuq::call(obj, argv[3], args, &result, &error);
	if (rc == 0)
		std::printf("%s\n", result.dump().c_str());
	else
		std::printf("error %d: %s %s\n", rc, nuq_err_string(rc), error.dump().c_str());
	nuq_instance_rele(obj);
	nuq_disconnect(conn);
	return rc == 0 ? 0 : 1;
}

#include "nuq_uri.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <new>
#include <string>

#include "kelnet.h"

struct nuq_uri {
	nuq_scheme_t scheme;
	std::string user;
	std::string host;
	int port = 0;
	std::string path;
};

namespace {

bool valid_user(const std::string &user)
{
	if (user.empty() || user.size() > 32)
		return false;
	for (char c : user)
		if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.')
			return false;
	return true;
}

// An absolute path of printable characters without blanks.
bool valid_path(const std::string &path)
{
	if (path.empty() || path[0] != '/')
		return false;
	for (char c : path)
		if (!std::isgraph(static_cast<unsigned char>(c)))
			return false;
	return true;
}

// A path the far host's shell reads as it stands: ssh hands the remote command to the
// login shell there, so a ';', '$' or blank in it would run something else.
bool shell_plain_path(const std::string &path)
{
	return std::all_of(path.begin(), path.end(), [](char c) {
		return std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '.' || c == '_' || c == '-';
	});
}

bool parse_port(const std::string &text, int *port)
{
	if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
		return false;
	*port = std::stoi(text);
	return *port >= 1 && *port <= 65535;
}

// [user@]host[:port][/path] after the scheme; `local` demands the host "localhost" and
// takes no port.
bool parse_authority(const std::string &rest, bool local, nuq_uri &uri)
{
	std::string auth = rest;
	if (const size_t slash = rest.find('/'); slash != std::string::npos) {
		uri.path = rest.substr(slash);
		auth = rest.substr(0, slash);
		if (!valid_path(uri.path))
			return false;
	}
	if (const size_t at = auth.find('@'); at != std::string::npos) {
		uri.user = auth.substr(0, at);
		auth = auth.substr(at + 1);
		if (!valid_user(uri.user))
			return false;
	}
	if (const size_t colon = auth.find(':'); colon != std::string::npos) {
		if (local || !parse_port(auth.substr(colon + 1), &uri.port))
			return false;
		auth = auth.substr(0, colon);
	}
	uri.host = auth;
	// "unix://user@localhost" is the local daemon's own socket: the user is who the
	// caller is, which the daemon learns from the socket itself.
	if (local)
		return uri.host == "localhost";
	return valid_hostname(uri.host.c_str());
}

}  // namespace

extern "C" {

nuq_uri_t *nuq_alloc_uri(const char *text, int mask)
{
	if (text == nullptr)
		return nullptr;
	const std::string s(text);
	const size_t sep = s.find("://");
	if (sep == std::string::npos)
		return nullptr;
	const std::string scheme = s.substr(0, sep), rest = s.substr(sep + 3);
	auto *uri = new (std::nothrow) nuq_uri;
	if (uri == nullptr)
		return nullptr;
	bool ok = false;
	try {
		if (strcasecmp(scheme.c_str(), "unix") == 0 && (mask & NUQS_UNIX)) {
			uri->scheme = NUQS_UNIX;
			ok = rest.empty() || parse_authority(rest, true, *uri);
		} else if (strcasecmp(scheme.c_str(), "ssh") == 0 && (mask & NUQS_SSH)) {
			uri->scheme = NUQS_SSH;
			// An ssh URI is where a connection goes: without a host it goes nowhere.
			// ("ssh://" alone is a host URI template, which is read elsewhere.)
			ok = parse_authority(rest, false, *uri) && shell_plain_path(uri->path);
		}
	} catch (const std::exception &) {
		ok = false;
	}
	if (!ok) {
		delete uri;
		return nullptr;
	}
	return uri;
}

void nuq_free_uri(nuq_uri_t *uri)
{
	delete uri;
}

nuq_scheme_t nuq_uri_get_scheme(const nuq_uri_t *uri)
{
	return uri->scheme;
}
const char *nuq_uri_get_user(const nuq_uri_t *uri)
{
	return uri->user.c_str();
}
const char *nuq_uri_get_host(const nuq_uri_t *uri)
{
	return uri->host.c_str();
}
int nuq_uri_get_port(const nuq_uri_t *uri)
{
	return uri->port;
}
const char *nuq_uri_get_path(const nuq_uri_t *uri)
{
	return uri->path.c_str();
}

}  // extern "C"

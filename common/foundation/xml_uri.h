// libxml2's URI parser, loaded on first use. libxml2 and the ICU data it pulls in take
// longer to load than most commands take to run, and only the "uri-template" checks and
// the host URIs built from it need the parser.
#pragma once

#include <libxml/uri.h>

#include <memory>

namespace kel::xml_uri {

struct Free {
	void operator()(xmlURIPtr uri) const;
};
using Ptr = std::unique_ptr<xmlURI, Free>;

// `text` parsed; NULL when it is no URI, memory ran out, or libxml2 cannot be loaded.
Ptr parse(const char *text);

}  // namespace kel::xml_uri

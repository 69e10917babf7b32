// keld's "harl.Datalink" module: the host's datalinks, served to the interface's clients.
#pragma once

#include <string>

#include <kel/libkel_node.h>
#include "server.h"

namespace harl {

// Opens a handle on the namespace of the link `name` ("LINK", or "NAMESPACE/LINK" for a
// VNIC placed in a named namespace) and finds the link there. *h is to be closed whatever
// the outcome.
wexo_status_t find_link(const std::string &name, wexo_handle_t *h, datalink_id_t *id);

// The server side, for keld: the host's datalinks in keld's network namespace.
nuq::Interface datalink_interface();

}  // namespace harl

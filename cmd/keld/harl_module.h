// keld's "harl.Datalink" module: the host's datalinks, served to the interface's clients.
#pragma once

#include "server.h"

namespace harl {

// The server side, for keld: the host's datalinks in keld's network namespace.
nuq::Interface datalink_interface();

}  // namespace harl

// keld's controller module: "kelcntl.KEL" and "kelcntl.KELController" over the store
// operations, for the nodes' clients (kelcntl.h).
#pragma once

#include "server.h"

namespace kelcntl {

// The server side, for keld on the controller: each call opens the store for itself.
nuq::Interface kel_interface();
nuq::Interface controller_interface();

}  // namespace kelcntl

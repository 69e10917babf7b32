// The controller's remote interface, whose client stubs libkel.so exports for the node
// side (declared in <kel/sys/fabric.h>). "kelcntl.KEL" objects are the switches, found by
// "name" and "tenant" (tenant "sys-global" when not given); they bind and unbind ports
// for a host's VNICs. The one "kelcntl.KELController" object (no keys) lists ports by a
// filter. The records (public, libkel_node.h) own their strings and arrays and are
// freed with their free functions.
// Methods return 0, 1 when the controller answered with a kelcntl_KELError, or a remote
// administration error.
#pragma once

#include <kel/libkel_node.h>
#include <kel/sys/fabric.h>

#include "nuq_types.h"

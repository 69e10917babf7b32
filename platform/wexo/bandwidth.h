// Link bandwidth text, the value of a link's "maxbw" property, and the datalink statuses'
// texts: the store's checks and messages read them, so they live with the store's side
// (libkel.so), declared for the node side and keld in <kel/sys/fabric.h>.
#pragma once

#include <kel/sys/fabric.h>

// VNICs named by the path of their network namespace, the way container runtimes hand
// namespaces over ("/proc/PID/ns/net/eth0", "/var/run/netns/X/eth0", any bind-mounted
// namespace file): the rest of the fabric knows a namespace by its name under
// /run/netns, so a path is turned into that name, and a namespace that has none is given
// one ("kel-ns-" and its inode number in hex) by a bind mount that lasts until its last
// VNIC of the fabric goes.
#pragma once

#include <string>

inline constexpr char kAttachedNetnsPrefix[] = "kel-ns-";

// `vnic` as "NAME/LINK" into *out (unchanged when it does not start with "/"). A
// namespace without a name gets one with `attach`, and is KEL_E_NOTFOUND without; a path
// that is no network namespace is KEL_E_INVALID_ARGS, one that cannot be opened the
// system's error.
int kel_vnic_by_name(const char *vnic, bool attach, std::string *out);
// Removes the name the fabric gave namespace `ns` once no VNIC is recorded in it.
void kel_netns_release(const std::string &ns);

// Sharing one ssh connection per host between calls and processes: ssh's own connection
// multiplexing, through control sockets in a directory that only the caller can use.
#pragma once

#include <string>
#include <vector>

namespace nuq {

// The ssh options that make a call share the host's connection (and leave it open for
// KEL_SSH_PERSIST seconds, 60 by default, after the last call), or none when sharing is
// turned off (KEL_SSH_PERSIST=0) or no private directory for the sockets is to be had.
std::vector<std::string> ssh_share_options();

// Whether `dir` may hold the control sockets: a directory (not a link to one) owned by
// `uid` that no one else may enter or write. Anyone who could place a socket there
// could stand in for every host.
bool private_dir(const std::string &dir, uid_t uid);

}  // namespace nuq

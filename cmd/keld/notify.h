// Telling the service manager how the daemon is doing (readiness, reloads, stopping),
// over the datagram socket it names in $NOTIFY_SOCKET. Without one this does nothing.
#pragma once

namespace keld {

// Sends `state`, newline-separated assignments such as "READY=1"; false when a socket
// is named but the message could not be sent.
bool notify(const char *state);

}  // namespace keld

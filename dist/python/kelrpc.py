#!/usr/bin/env python3
"""Call keld's remote interfaces from Python, with the standard library alone.

keld(8) serves a host's remote interfaces on the unix socket /run/kel/keld.sock (below
$KEL_ROOT when it is set) to root and to the members of the group kel; another host
reaches it over ssh, where "keld bridge" relays the session to that socket. The wire is
described in kel-rpc(7): one JSON object a line, each request answered by one reply.

    import kelrpc

    with kelrpc.connect() as keld:                   # this host's keld
        print(keld.info()["version"])
    with kelrpc.connect(ssh="root@ctl1") as ctl:     # the controller's, over ssh
        ctl.assign_vport("web", "vn0", "node1", vportname="p1")
        print(ctl.get_vport_info("host=node1"))

Client.call() calls any method of any interface; the named methods of Client (info,
get_stat, assign_vport, ...) are one each for the methods keld serves, as METHODS lists
them. Every failure is a KelRpcError: a RemoteError when keld answered with an error
(.code is the wire's code; KelError and DatalinkError carry the method's own error
record, .err and .errmsg), a TransportError when no answer came.

Whatever comes back may come from a host that is not to be trusted: a reply line is
bounded in length (max_reply) and in nesting, parsed as JSON and nothing else, and the
named methods check the type of what they return.

As a command, it makes one call and prints its result as JSON:

    python3 kelrpc.py [--socket PATH | --ssh [USER@]HOST [--remote-socket PATH]]
                      METHOD [NAME=TEXT | NAME:=JSON ...]

for example "python3 kelrpc.py getVPortInfo filter=host=node1", or
"python3 kelrpc.py setFlood link=kel-vxlan5000 remotes:='[\"10.0.0.2\"]'".
"""

import argparse
import inspect
import json
import os
import re
import select
import socket
import subprocess
import sys
import threading
import time

__all__ = [
    "DEFAULT_SOCKET", "DEFAULT_TENANT", "METHODS", "Client", "connect", "socket_path",
    "KelRpcError", "TransportError", "ConnectError", "ConnectionClosed", "CallTimeout",
    "ProtocolError", "RemoteError", "ParseError", "InvalidRequest", "MethodNotFound",
    "InvalidArguments", "MethodError", "KelError", "DatalinkError", "ObjectNotFound",
    "PermissionDenied", "NoSuchInterface", "ServerFailure", "Busy",
]

DEFAULT_SOCKET = "/run/kel/keld.sock"
DEFAULT_TENANT = "sys-global"
# keld refuses a longer request line and closes the connection: what follows it could
# not be framed any more.
MAX_REQUEST = 256 * 1024
# keld's replies have no bound of their own (a controller with many ports answers
# getVPortInfo in one line), so this one is generous; a reply beyond it is refused.
DEFAULT_MAX_REPLY = 16 * 1024 * 1024
# As deep as keld lets a request nest; its own replies nest five deep at most.
MAX_NESTING = 32
DEFAULT_TIMEOUT = 30.0
# Where hosts install keld (the installation writes its own here).
KELD = "/usr/sbin/keld"


# ----------------------------------------------------------------------------- errors

def _printable(text, limit=512):
    """`text` as it may be shown on a terminal: control characters escaped, bounded."""
    text = str(text)
    if len(text) > limit:
        text = text[:limit] + "..."
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in text)


class KelRpcError(Exception):
    """Every failure of a call: keld's error answer, or no answer at all."""


class TransportError(KelRpcError):
    """No answer came: keld could not be reached, or what came back is no answer."""


class ConnectError(TransportError):
    """keld's socket could not be reached (or ssh could not start "keld bridge")."""


class ConnectionClosed(TransportError):
    """The connection ended before the answer came."""


class CallTimeout(TransportError):
    """No answer within the client's time-out; whether the call took effect is unknown."""


class ProtocolError(TransportError):
    """What came back is not an answer: too long, too deep, not JSON, or not a reply."""


class RemoteError(KelRpcError):
    """keld answered with an error.

    .code is the wire's code (-32002, ...), .message keld's text for it, .data what
    the error carried beyond them (None when nothing).
    """

    def __init__(self, code, message, data=None):
        self.code = code
        self.message = message
        self.data = data
        super().__init__(code, message, data)

    def __str__(self):
        return "%s (code %d)" % (_printable(self.message or "error"), self.code)


class ParseError(RemoteError):
    """-32700: the request was not JSON, or nested too deeply."""


class InvalidRequest(RemoteError):
    """-32600: the line was no request, or longer than keld takes."""


class MethodNotFound(RemoteError):
    """-32601: no such method, of the protocol or of the interface."""


class InvalidArguments(RemoteError):
    """-32602: the parameters or the method's arguments do not fit it."""


class ObjectNotFound(RemoteError):
    """-32002: no object of the interface has those keys (on a host without a store,
    the controller's interfaces have none)."""


class PermissionDenied(RemoteError):
    """-32003: the caller is neither root nor a member of the group kel on keld's host."""


class NoSuchInterface(RemoteError):
    """-32006: keld serves no interface of that name."""


class ServerFailure(RemoteError):
    """-32007: keld failed (out of memory, a thread it could not start)."""


class Busy(RemoteError):
    """-32010: the caller holds as many connections as keld allows it."""


class MethodError(RemoteError):
    """-32001: the method's own error record came back (.data).

    .err is the record's code and .errmsg its text; None and "" when the record does
    not have them.
    """

    _code_member = None
    _text_member = None

    def __init__(self, code, message, data=None):
        super().__init__(code, message, data)
        record = data if isinstance(data, dict) else {}
        err = record.get(self._code_member) if self._code_member else None
        text = record.get(self._text_member) if self._text_member else None
        self.err = err if type(err) is int else None
        self.errmsg = text if isinstance(text, str) else ""

    def __str__(self):
        if self.err is None:
            return super().__str__()
        return "%s (error %d)" % (_printable(self.errmsg or self.message), self.err)


class KelError(MethodError):
    """The controller's error record: .err is a libkel code (KEL_E_*), .errmsg its text."""

    _code_member = "ekele_err"
    _text_member = "ekele_errmsg"


class DatalinkError(MethodError):
    """A host's datalink error record: .err is a datalink status, .errmsg its text."""

    _code_member = "dde_err"
    _text_member = "dde_errmsg"


_ERRORS = {
    -32700: ParseError, -32600: InvalidRequest, -32601: MethodNotFound,
    -32602: InvalidArguments, -32001: MethodError, -32002: ObjectNotFound,
    -32003: PermissionDenied, -32006: NoSuchInterface, -32007: ServerFailure,
    -32010: Busy,
}


def _remote_error(error):
    """The exception for the "error" member of a reply, which has an integer code."""
    code = error["code"]
    message = error.get("message")
    message = message if isinstance(message, str) else ""
    data = error.get("data")
    cls = _ERRORS.get(code, RemoteError)
    if cls is MethodError and isinstance(data, dict):
        if "ekele_err" in data:
            cls = KelError
        elif "dde_err" in data:
            cls = DatalinkError
    return cls(code, message, data)


# ----------------------------------------------------------------------------- the wire

# A JSON string: what lies between its quotes is no structure.
_STRING = re.compile(r'"[^"\\]*(?:\\.[^"\\]*)*"')
_BRACKET = re.compile(r"[\[\]{}]")


def _nesting_within(text, limit):
    """Whether the arrays and objects of `text` nest at most `limit` deep, found by a
    scan rather than by the parser, whose recursion a deep line would exhaust."""
    depth = 0
    for m in _BRACKET.finditer(_STRING.sub("", text)):
        if m.group() in "[{":
            depth += 1
            if depth > limit:
                return False
        elif depth > 0:
            depth -= 1
    return True


def _refuse_constant(name):
    raise ValueError("not JSON: " + name)


def socket_path():
    """keld's socket: /run/kel/keld.sock below $KEL_ROOT when it is set, as keld has it."""
    root = os.environ.get("KEL_ROOT", "").rstrip("/")
    return root + DEFAULT_SOCKET


# What goes into ssh's arguments. The destination must not read as an option; a remote
# socket path travels through the remote shell, so only plain path characters pass.
_DESTINATION = re.compile(r"^(?:[A-Za-z0-9_][A-Za-z0-9_.-]{0,31}@)?"
                          r"(?:[A-Za-z0-9][A-Za-z0-9.-]{0,252}|[0-9A-Fa-f.]*:[0-9A-Fa-f:.]*)$")
_REMOTE_PATH = re.compile(r"^/[A-Za-z0-9/._-]{0,106}$")


def _ready(fd, events, timeout):
    """Whether `fd` is ready for `events` (or failed) within `timeout` seconds; poll
    rather than select, which takes no descriptor above 1023."""
    poller = select.poll()
    poller.register(fd, events)
    return bool(poller.poll(max(0, int(timeout * 1000 + 0.999))))


def _wait(fd, events, deadline, late):
    """Whether `fd` is ready for `events` before `deadline` (time.monotonic()); CallTimeout
    saying `late` once the deadline has passed."""
    left = deadline - time.monotonic()
    if left <= 0:
        raise CallTimeout(late)
    return _ready(fd, events, left)


class _Channel:
    """One connection's byte stream: a unix socket, or the pipes of an ssh running
    "keld bridge". Reads and writes never block past the caller's deadline."""

    def __init__(self, rfd, wfd, close, words=None):
        self.rfd, self.wfd = rfd, wfd
        self._close = close
        self.words = words  # what ssh said, for its failures
        self.buffer = bytearray()
        self.scanned = 0  # how much of the buffer holds no newline
        for fd in {rfd, wfd}:
            os.set_blocking(fd, False)

    def close(self):
        close, self._close = self._close, None
        if close is not None:
            close()

    def idle_end(self):
        """Whether something arrived unasked: between calls that is keld closing the
        connection (idle too long, or stopping), which no longer carries calls."""
        if self.buffer:
            return True
        return _ready(self.rfd, select.POLLIN, 0)

    def send(self, data, deadline):
        """Writes `data` whole; False when the peer is gone. A server that turned the
        connection away has answered and closed it: the answer is still there to read."""
        view = memoryview(data)
        while view:
            if not _wait(self.wfd, select.POLLOUT, deadline, "no room to send the request in time"):
                continue
            try:
                n = os.write(self.wfd, view)
            except (BlockingIOError, InterruptedError):
                continue
            except OSError:  # EPIPE, ECONNRESET: the reader is gone
                return False
            view = view[n:]
        return True

    def read_line(self, deadline, limit):
        """The next line, without its newline, of at most `limit` bytes."""
        while True:
            nl = self.buffer.find(b"\n", self.scanned)
            if nl >= 0:
                if nl > limit:
                    raise ProtocolError("reply longer than %d bytes" % limit)
                line = bytes(self.buffer[:nl])
                del self.buffer[:nl + 1]
                self.scanned = 0
                return line
            self.scanned = len(self.buffer)
            if len(self.buffer) > limit:
                raise ProtocolError("reply longer than %d bytes" % limit)
            if not _wait(self.rfd, select.POLLIN, deadline, "no answer in time"):
                continue
            try:
                chunk = os.read(self.rfd, 65536)
            except (BlockingIOError, InterruptedError):
                continue
            except OSError as e:
                raise ConnectionClosed("connection failed: %s" % e.strerror) from None
            if not chunk:
                raise ConnectionClosed("connection closed" + _said(self.words))
            self.buffer += chunk


def _said(words):
    """What ssh said, to name in an error."""
    text = words.text() if words is not None else ""
    return ": " + _printable(text) if text else ""


class _Words:
    """ssh's standard error, drained by a thread so that a talkative ssh never stalls on
    a full pipe, and kept to its last few kilobytes."""

    KEEP = 4096

    def __init__(self, pipe):
        self._kept = bytearray()
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._drain, args=(pipe,), daemon=True)
        self._thread.start()

    def _drain(self, pipe):
        while True:
            chunk = pipe.read1(4096) if hasattr(pipe, "read1") else pipe.read(4096)
            if not chunk:
                break
            with self._lock:
                self._kept += chunk
                del self._kept[:-self.KEEP]
        pipe.close()

    def text(self, wait=0.0):
        """What ssh said so far (after waiting up to `wait` seconds for it to end)."""
        self._thread.join(wait)
        with self._lock:
            kept = bytes(self._kept)
        lines = kept.decode("utf-8", "replace").splitlines()
        return "; ".join(line.strip() for line in lines if line.strip())


# ----------------------------------------------------------------------------- methods

# Every method keld serves: its interface, the Client method that calls it, and what its
# result must be.
METHODS = {
    "info": ("kel.Daemon", "info", dict),
    "getLeftovers": ("kel.Daemon", "get_leftovers", dict),
    "removeLeftover": ("kel.Daemon", "remove_leftover", dict),
    "getStat": ("harl.Datalink", "get_stat", dict),
    "setProperty": ("harl.Datalink", "set_property", dict),
    "getState": ("harl.Datalink", "get_state", dict),
    "getFlood": ("harl.Datalink", "get_flood", dict),
    "setFlood": ("harl.Datalink", "set_flood", dict),
    "assignVPort": ("kelcntl.KEL", "assign_vport", dict),
    "unAssignVPort": ("kelcntl.KEL", "unassign_vport", dict),
    "syncFlood": ("kelcntl.KEL", "sync_flood", dict),
    "getVPortInfo": ("kelcntl.KELController", "get_vport_info", list),
}


class Client:
    """A connection to one keld, used by one call at a time (a lock orders threads).

    Made by connect(). A connection keld closed between calls (it closes one that sends
    nothing for a minute) is made again before the next call; nothing is ever sent twice.
    After a failure that leaves replies unmatched (a time-out, a reply out of order) the
    connection is dropped, and the next call makes a new one.
    """

    def __init__(self, path=None, ssh=None, remote_path=None, port=None, ssh_config=None,
                 timeout=DEFAULT_TIMEOUT, max_reply=DEFAULT_MAX_REPLY, keld=None):
        """See connect(); this does not connect yet."""
        if ssh is not None:
            if path is not None:
                raise ValueError("a socket path or ssh, not both")
            if not isinstance(ssh, str) or not _DESTINATION.match(ssh):
                raise ValueError("not an ssh destination: %r" % (ssh,))
            if remote_path is not None and (not isinstance(remote_path, str)
                                            or not _REMOTE_PATH.match(remote_path)
                                            or "/../" in remote_path + "/"):
                raise ValueError("not a plain absolute socket path: %r" % (remote_path,))
            if port is not None and (type(port) is not int or not 1 <= port <= 65535):
                raise ValueError("not a port: %r" % (port,))
            # The far host's login shell reads the command as it stands.
            if keld is not None and (not isinstance(keld, str) or not _REMOTE_PATH.match(keld)):
                raise ValueError("not a plain absolute path: %r" % (keld,))
        elif remote_path is not None or port is not None:
            raise ValueError("a remote socket path and a port are for ssh")
        self.path = path if path is not None or ssh is not None else socket_path()
        self.ssh, self.remote_path, self.port = ssh, remote_path, port
        self.keld = keld if keld is not None else KELD
        self.ssh_config = ssh_config if ssh_config is not None else os.environ.get("KEL_SSH_CONFIG")
        self.timeout = timeout
        self.max_reply = max_reply
        self._channel = None
        self._next_id = 0
        self._lock = threading.Lock()

    # -- the connection

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        """Ends the connection (and its ssh); the next call would make a new one."""
        with self._lock:
            self._drop()

    def _drop(self):
        if self._channel is not None:
            self._channel.close()
            self._channel = None

    def _open(self):
        if self.ssh is None:
            self._channel = self._open_unix()
            return
        channel = self._channel = self._open_ssh()
        # Starting ssh proves nothing about the far end: one exchange does.
        try:
            self._exchange("ping", {})
        except TransportError as e:
            self._drop()  # ssh is ended, so that all it said is there
            words = channel.words.text(wait=1.0)
            raise ConnectError("cannot reach keld on %s over ssh: %s"
                               % (self.ssh, _printable(words) if words else e)) from None
        except RemoteError:
            self._drop()
            raise

    def _open_unix(self):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            sock.settimeout(self.timeout)
            sock.connect(self.path)
        except OSError as e:
            sock.close()
            raise ConnectError("cannot connect to %s: %s" % (_printable(self.path), e.strerror or e)) from None
        return _Channel(sock.fileno(), sock.fileno(), sock.close)

    def _open_ssh(self):
        argv = ["ssh", "-T", "-o", "BatchMode=yes", "-o", "ConnectTimeout=10"]
        if self.ssh_config:
            argv += ["-F", self.ssh_config]
        if self.port is not None:
            argv += ["-p", str(self.port)]
        argv += ["--", self.ssh, self.keld, "bridge"]
        if self.remote_path is not None:
            argv.append(self.remote_path)
        try:
            proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, close_fds=True)
        except OSError as e:
            raise ConnectError("cannot run ssh: %s" % (e.strerror or e)) from None
        words = _Words(proc.stderr)

        def close():
            # Its stdin closed, ssh ends; one that does not is stopped, and reaped.
            for pipe in (proc.stdin, proc.stdout):
                try:
                    pipe.close()
                except OSError:
                    pass
            try:
                proc.wait(1)
            except subprocess.TimeoutExpired:
                proc.terminate()
                try:
                    proc.wait(2)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()

        return _Channel(proc.stdout.fileno(), proc.stdin.fileno(), close, words)

    # -- one exchange

    def _request(self, method, params):
        """One request and its reply: the result, or the exception for the error."""
        with self._lock:
            if self._channel is not None and self._channel.idle_end():
                self._drop()
            if self._channel is None:
                self._open()
            return self._exchange(method, params)

    def _exchange(self, method, params):
        self._next_id += 1
        rid = self._next_id
        line = json.dumps({"jsonrpc": "2.0", "id": rid, "method": method, "params": params},
                          ensure_ascii=True, allow_nan=False, separators=(",", ":")).encode("ascii")
        if len(line) > MAX_REQUEST:
            raise ValueError("request of %d bytes: keld takes %d at most" % (len(line), MAX_REQUEST))
        channel = self._channel
        deadline = time.monotonic() + self.timeout
        try:
            sent = channel.send(line + b"\n", deadline)
            raw = channel.read_line(deadline, self.max_reply)
        except TransportError:
            self._drop()
            raise
        try:
            reply = self._parse(raw)
        except ProtocolError:
            self._drop()
            raise
        rid_back = reply["id"]
        ours = type(rid_back) is int and rid_back == rid
        if "result" in reply and ours:
            if not sent:
                self._drop()
            return reply["result"]
        error = reply.get("error")
        # An error without an id answers a line keld could not read, or the connection
        # itself (a caller turned away): with one request in flight, it is this one's.
        if not isinstance(error, dict) or type(error.get("code")) is not int or not (ours or rid_back is None):
            self._drop()
            raise ProtocolError("a reply that does not answer the request")
        if not sent or rid_back is None:
            self._drop()  # keld may have closed it; the next call starts afresh
        raise _remote_error(error)

    def _parse(self, raw):
        try:
            text = raw.decode("utf-8")
        except UnicodeDecodeError:
            raise ProtocolError("reply is not UTF-8") from None
        if not _nesting_within(text, MAX_NESTING):
            raise ProtocolError("reply nested more than %d deep" % MAX_NESTING)
        try:
            reply = json.loads(text, parse_constant=_refuse_constant)
        except (ValueError, RecursionError):
            raise ProtocolError("reply is not JSON") from None
        if not isinstance(reply, dict) or "id" not in reply:
            raise ProtocolError("reply is not a JSON-RPC reply")
        return reply

    # -- the protocol's methods

    def ping(self):
        """keld's answer to a ping: {"socket": the path it listens on}, or {}."""
        return self._request("ping", {})

    def lookup(self, interface, keys=None, strict=True):
        """The full keys of the object of `interface` that `keys` name (all its keys
        with `strict`, else any object matching those given). ObjectNotFound if none."""
        found = self._request("lookup", {"interface": interface, "keys": dict(keys or {}),
                                         "strict": bool(strict)})
        keys = found.get("keys") if isinstance(found, dict) else None
        if not isinstance(keys, dict):
            raise ProtocolError("a lookup answered without keys")
        return keys

    def call(self, interface, method, args=None, keys=None):
        """Calls `method` of the object of `interface` named by `keys` with `args` (a
        dict) and returns its result as keld sent it.

        keld finds the object again by all of its keys at each call. Without `keys`
        the object is looked up first by none (kel.Daemon's and kelcntl.KELController's
        one object; harl.Datalink and kelcntl.KEL need theirs named).
        """
        if keys is None:
            keys = self.lookup(interface, {}, strict=False)
        params = {"interface": interface, "keys": dict(keys), "method": method}
        if args is not None:
            params["args"] = dict(args)
        return self._request("call", params)

    def _method(self, method, args=None, keys=None):
        interface, _, kind = METHODS[method]
        result = self.call(interface, method, args, keys)
        if not isinstance(result, kind):
            raise ProtocolError("%s answered a %s, not a %s" % (method, type(result).__name__, kind.__name__))
        return result

    # -- kel.Daemon: this host's keld

    def info(self, check=False):
        """The daemon: host, version, pid, uptime (seconds), reloads, controller (its
        "controller" setting); with `check`, also controller_rc, the libkel code that
        trying to reach its controller gave (0: reached)."""
        return self._method("info", {"check": bool(check)})

    def get_leftovers(self, grace=None):
        """What the fabric made on this host and nothing uses any more: {"leftovers":
        [{"age", "kind", "name", "what"}, ...]}. `grace` (seconds, at most 86400; keld's
        default 60): VNICs recorded more recently are still being made and left out."""
        return self._method("getLeftovers", {} if grace is None else {"grace": grace})

    def remove_leftover(self, kind, name):
        """Removes the leftover `name` of `kind` ("vnic", "link", "table", "filters")
        when it still is one; DatalinkError (status 25) when it is in use again."""
        return self._method("removeLeftover", {"kind": kind, "name": name})

    # -- harl.Datalink: the links the fabric made on this host

    def get_stat(self, link):
        """The counters of `link` ("LINK" or "NAMESPACE/LINK"): dls_ipackets, dls_rbytes,
        dls_idrops, dls_obytes, dls_opackets, dls_odrops, and dls_idropbytes and
        dls_odropbytes, always 0. DatalinkError (status 26) for a link the fabric did not
        make; ObjectNotFound when there is no such link."""
        return self._method("getStat", keys={"name": link})

    def set_property(self, link, text):
        """Applies one link property, "name=value" ("name=" resets it), live on `link`."""
        return self._method("setProperty", {"text": text}, keys={"name": link})

    def get_state(self, link):
        """What is in force on `link`, read back from the kernel: mac, lower, lower_kind,
        lower_id, local, group, maxbw (bits per second, 0 for none), filtered, filters,
        allowed."""
        return self._method("getState", keys={"name": link})

    def get_flood(self, link):
        """The flood list of VXLAN link `link`: {"local": its endpoint, "remotes": [...]}."""
        return self._method("getFlood", keys={"name": link})

    def set_flood(self, link, remotes, only_add=False):
        """Makes the flood list of `link` exactly `remotes` (addresses), or with
        `only_add` adds those missing."""
        return self._method("setFlood", {"remotes": list(remotes), "only_add": bool(only_add)},
                            keys={"name": link})

    # -- kelcntl.KEL: a kel, on the controller

    def assign_vport(self, kel, vnicname, hostname, vportname=None, extra=None, tenant=DEFAULT_TENANT):
        """Binds port `vportname` of `kel` (None: a new system port) to VNIC `vnicname` on
        host `hostname`; `extra` is the binding's property text ("vmid=...", link
        properties). Returns the kel with that port, its networks and the host's view:
        {"ekelii_kelinfo", "ekelii_uplink_port", "ekelii_vxlan_ipvers",
        "ekelii_vxlan_localaddr", "ekelii_vxlan_mgroup"}."""
        return self._method("assignVPort", {"vnicname": vnicname, "hostname": hostname, "vportname": vportname,
                                            "extra": extra}, keys={"name": kel, "tenant": tenant})

    def unassign_vport(self, kel, vnicname, hostname, extra=None, counters=None, tenant=DEFAULT_TENANT):
        """Releases the port bound to VNIC `vnicname` on `hostname` (or, when none is,
        the one the filter `extra` selects), keeping `counters` ({"ipackets", "rbytes",
        "opackets", "obytes"}) with the port, then joins `kel`'s hosts again."""
        args = {"vnicname": vnicname, "hostname": hostname, "extra": extra}
        if counters is not None:
            args["counters"] = dict(counters)
        return self._method("unAssignVPort", args, keys={"name": kel, "tenant": tenant})

    def sync_flood(self, kel, tenant=DEFAULT_TENANT):
        """Joins the hosts of VXLAN kel `kel` again (their flood lists), when the fabric
        has no multicast group."""
        return self._method("syncFlood", keys={"name": kel, "tenant": tenant})

    # -- kelcntl.KELController: the controller

    def get_vport_info(self, filter=""):  # noqa: A002 (the wire's own name)
        """The ports that match `filter` ("host=node1,vnic=vn0"; "" for all), a list of
        {"evpi_name", "evpi_kelname", "evpi_status", "evpi_hostname", ...}; [] for none."""
        return self._method("getVPortInfo", {"filter": filter}, keys={})


def connect(path=None, ssh=None, remote_path=None, port=None, ssh_config=None, timeout=DEFAULT_TIMEOUT,
            max_reply=DEFAULT_MAX_REPLY, keld=None):
    """A Client of one keld, connected.

    `path`: keld's unix socket (default: /run/kel/keld.sock below $KEL_ROOT). `ssh`:
    "[USER@]HOST" instead, reached by running "ssh -T -o BatchMode=yes -o
    ConnectTimeout=10 [-F $KEL_SSH_CONFIG] [-p PORT] -- HOST KELD bridge [REMOTE_PATH]"
    (`ssh_config` overrides $KEL_SSH_CONFIG), proven with a ping. `keld`: where keld is
    installed on HOST (default KELD, where this module's installation put it: hosts run
    it by that path, as a login that is not root has no sbin directory on its PATH). `timeout`: seconds a
    call waits for its answer. `max_reply`: the longest reply line taken, in bytes.
    ConnectError when keld cannot be reached.
    """
    client = Client(path, ssh, remote_path, port, ssh_config, timeout, max_reply, keld)
    with client._lock:
        client._open()
    return client


# ----------------------------------------------------------------------------- command line

def _value(text):
    """NAME=TEXT or NAME:=JSON, as a (name, value) pair."""
    name, eq, value = text.partition("=")
    if not eq or not name or name == ":":
        raise ValueError("not NAME=VALUE: %s" % text)
    if name.endswith(":"):
        return name[:-1], json.loads(value, parse_constant=_refuse_constant)
    return name, value


def _dump(value):
    # ASCII only: nothing keld's host sends reaches the terminal as a control sequence.
    return json.dumps(value, ensure_ascii=True, indent=2, sort_keys=False)


def main(argv=None):
    """The command line; returns the exit status: 0 answered, 1 keld answered with an
    error, 2 usage, 3 keld not reached or no answer."""
    methods = sorted(METHODS)
    parser = argparse.ArgumentParser(
        prog="kelrpc", description="Make one call of keld's and print its result as JSON.",
        epilog="METHOD is one of %s; or ping, lookup INTERFACE [KEYS-JSON], call INTERFACE METHOD "
               "[KEYS-JSON [ARGS-JSON]]. Arguments are NAME=TEXT or NAME:=JSON (e.g. check:=true); "
               "the object is named by link= (datalink methods), kel= and tenant= (kel methods). "
               "See kel-rpc(7)." % ", ".join(methods))
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--socket", metavar="PATH", help="keld's socket (default: %s below $KEL_ROOT)" % DEFAULT_SOCKET)
    where.add_argument("--ssh", metavar="[USER@]HOST", help="reach keld on HOST over ssh")
    parser.add_argument("--remote-socket", metavar="PATH", help="keld's socket on HOST (with --ssh)")
    parser.add_argument("--remote-keld", metavar="PATH", help="where keld is on HOST (with --ssh; default %s)" % KELD)
    parser.add_argument("--timeout", type=float, default=DEFAULT_TIMEOUT, help="seconds to wait for an answer")
    parser.add_argument("method", metavar="METHOD")
    parser.add_argument("args", nargs="*", metavar="ARG")
    opts = parser.parse_args(argv)

    try:
        if opts.method == "ping":
            if opts.args:
                raise ValueError("ping takes no arguments")
            call = lambda c: c.ping()  # noqa: E731
        elif opts.method in ("lookup", "call"):
            need = 1 if opts.method == "lookup" else 2
            if not need <= len(opts.args) <= need + (1 if opts.method == "lookup" else 2):
                raise ValueError("usage: %s" % ("lookup INTERFACE [KEYS-JSON]" if need == 1 else
                                                "call INTERFACE METHOD [KEYS-JSON [ARGS-JSON]]"))
            rest = [json.loads(a, parse_constant=_refuse_constant) for a in opts.args[need:]]
            if not all(isinstance(r, dict) for r in rest):
                raise ValueError("keys and arguments are JSON objects")
            if opts.method == "lookup":
                call = lambda c: c.lookup(opts.args[0], rest[0] if rest else {}, strict=False)  # noqa: E731
            else:
                keys = rest[0] if rest else None
                args = rest[1] if len(rest) == 2 else None
                call = lambda c: c.call(opts.args[0], opts.args[1], args, keys)  # noqa: E731
        elif opts.method in METHODS:
            wrapper = getattr(Client, METHODS[opts.method][1])
            kwargs = dict(_value(a) for a in opts.args)
            try:
                inspect.signature(wrapper).bind(None, **kwargs)
            except TypeError as e:
                raise ValueError("%s: %s" % (opts.method, e)) from None
            call = lambda c: wrapper(c, **kwargs)  # noqa: E731
        else:
            raise ValueError("no such method: %s (one of ping, lookup, call, %s)" % (opts.method, ", ".join(methods)))
    except ValueError as e:
        print("kelrpc: %s" % _printable(e), file=sys.stderr)
        return 2

    try:
        with connect(opts.socket, opts.ssh, opts.remote_socket, timeout=opts.timeout,
                     keld=opts.remote_keld) as client:
            result = call(client)
    except ValueError as e:
        print("kelrpc: %s" % _printable(e), file=sys.stderr)
        return 2
    except RemoteError as e:
        error = {"code": e.code, "message": e.message}
        if e.data is not None:
            error["data"] = e.data
        print(_dump({"error": error}))
        print("kelrpc: %s" % e, file=sys.stderr)
        return 1
    except TransportError as e:
        print("kelrpc: %s" % e, file=sys.stderr)
        return 3
    print(_dump(result))
    return 0


if __name__ == "__main__":
    sys.exit(main())

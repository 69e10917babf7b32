// The audit trail: each change made through the library (a kel, an ipnet, a port, a
// property, a controller property, a binding, a migration, a repair) goes to the system
// log once, with who asked, what, and how it ended. Who asked is the local user, or the
// user and host a remote call came from, which keld names for the thread serving it.
#pragma once

#include <string>

#include "c_boundary.h"

namespace kel::audit {

// What a change is: its action ("create-kel", "bind", ...), the tenant and object it
// concerns and, for a property, the setting asked for.
struct Change {
	const char *action = "";
	std::string tenant{};
	std::string object{};
	std::string detail{};
};

// A caller's text for a record: "" (or `none`) for NULL.
inline std::string text(const char *s, const char *none = "")
{
	return s != nullptr && *s != '\0' ? s : none;
}
// A member of a kel, as KEL/NAME.
inline std::string member(const char *kel, const char *name)
{
	return text(kel) + "/" + text(name);
}

// The change `action` of `object` in `tenant` (NULL: the default tenant), asking `detail`.
inline Change on(const char *action, const char *tenant, std::string object, const char *detail = nullptr)
{
	return Change{action, text(tenant, KEL_DEFAULT_TENANT), std::move(object), text(detail)};
}

// Sends the record of `change`, which ended with libkel code `rc`. Never throws: a log
// that cannot be written loses the line, never the change.
void record(const Change &change, int rc) noexcept;

// While a change runs on this thread: changes it makes through other entry points are
// part of it and not logged again, and refine() may say what it turned out to be (a bind
// that starts a migration). The outermost one records itself when it ends.
class Scope {
public:
	Scope() noexcept;
	~Scope();
	Scope(const Scope &) = delete;
	Scope &operator=(const Scope &) = delete;
	bool outermost() const { return outermost_; }

private:
	bool outermost_;
};

// Within a change: what it turned out to be, and what to add to its record.
void refine(const char *action, const std::string &detail = "") noexcept;
// Within a change: a host that missed it (a property it could not take live), logged on
// a line of its own with the host.
void missed(const std::string &host, int rc) noexcept;

// The library call `body` (returning a libkel code), run through c_boundary and recorded
// as `change` when it is the outermost change of the thread. `make` builds the Change
// (it may allocate, so it runs inside the boundary).
template <class Make, class Body>
int logged(Make &&make, Body &&body) noexcept
{
	Scope scope;
	const int rc = c_boundary(std::forward<Body>(body));
	if (scope.outermost())
		(void)c_boundary([&] {
			record(make(), rc);
			return 0;
		});
	return rc;
}

// The caller of the changes this thread makes from now on: a remote call's user and the
// host it named. Empty: the local user again.
void set_caller(const std::string &user, const std::string &host) noexcept;

}  // namespace kel::audit

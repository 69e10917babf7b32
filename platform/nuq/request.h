// A request line as the server reads it: bounded nesting, the JSON-RPC 2.0 envelope
// checked member by member, and typed access to the members of what it carries. Nothing
// here throws on a caller's bytes; a shape that does not fit is an error number.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace nuq {

using Json = nlohmann::json;

// The deepest nesting of arrays and objects a request may have. Our own requests nest
// four deep; a much deeper line is an attack on the parser's and printer's recursion.
inline constexpr int kMaxNesting = 32;

// Whether the arrays and objects of `text` nest at most `limit` deep. Counted by a
// scan, without parsing (brackets inside strings do not count), so that no line
// reaches a recursive parser or printer unchecked.
bool nesting_within(std::string_view text, int limit);

// The id of a request that had none the reply may echo.
inline constexpr const char *kNullId = "null";

struct Request {
	// A string, a number or null, all the protocol allows, as the caller wrote it (JSON
	// text): a reply echoes it exactly, and the parser keeps neither the digits of an
	// integer beyond 64 bits nor the written form of a number ("1.50", "1e2").
	std::string id = kNullId;
	std::string method;
	Json params;  // an object
};

// Reads one line into *req: NUQ_E_SUCCESS, NUQ_E_PARSE (not JSON, or too deep) or
// NUQ_E_REQUEST (not a request). On failure req->id is the request's id when it had a
// valid one, else null, as the error reply must carry.
int parse_request(const std::string &line, Request *req);

// Whether a string anywhere in `value` (a member's name too) holds a NUL. Every text a
// request carries ends up a C string somewhere, cut short at its first NUL: "lo\0x"
// would be taken for "lo".
bool holds_nul(const Json &value);

// Member `name` of `obj`; nullptr when `obj` is not an object or has no such member.
const Json *member(const Json &obj, const char *name);
// Member `name` of `obj` when it is a string without a NUL; nullptr otherwise.
const std::string *text_member(const Json &obj, const char *name);
// A member a record must have, for the readers that build a whole record at once and
// throw when a member is missing (RecordUnreadable; a client stub answers it as
// NUQ_E_PROTOCOL): the member, a text without a NUL (null reads as ""), an integer, an
// array.
struct RecordUnreadable {};
const Json &required_member(const Json &obj, const char *name);
const std::string &required_text(const Json &obj, const char *name);
long long required_integer(const Json &obj, const char *name);
const Json::array_t &required_array(const Json &value);
// An optional text member: true with *out NULL when absent or null, or with its text;
// false when it is there with another type or holds a NUL.
bool optional_text(const Json &obj, const char *name, const char **out);

// A reply line; values that are not valid UTF-8 are sent with replacement characters
// rather than failing the reply.
std::string dump_line(const Json &value);

}  // namespace nuq

#include "request.h"

#include "nuq_errors.h"

namespace nuq {
namespace {

// Scanning text the parser has accepted: whitespace as JSON has it, and where a value
// ends.
bool is_space(char c)
{
	return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

size_t skip_space(std::string_view text, size_t at)
{
	while (at < text.size() && is_space(text[at]))
		at++;
	return at;
}

// Where the strings of a JSON text are, fed one character at a time: brackets and commas
// inside them are no structure.
class Strings {
public:
	// Whether `c` belongs to a string, its quotes included.
	bool take(char c)
	{
		if (!in_) {
			in_ = c == '"';
			return in_;
		}
		if (escaped_)
			escaped_ = false;
		else if (c == '\\')
			escaped_ = true;
		else if (c == '"')
			in_ = false;
		return true;
	}
	// Whether the last character taken left a string open.
	bool open() const { return in_; }

private:
	bool in_ = false, escaped_ = false;
};

size_t value_end(std::string_view text, size_t at)
{
	int depth = 0;
	Strings strings;
	for (size_t i = at; i < text.size(); i++) {
		const char c = text[i];
		if (strings.take(c)) {
			if (!strings.open() && depth == 0)
				return i + 1;
			continue;
		}
		if (c == '[' || c == '{') {
			depth++;
		} else if (c == ']' || c == '}') {
			if (depth == 0)
				return i;
			if (--depth == 0)
				return i + 1;
		} else if (depth == 0 && (c == ',' || is_space(c))) {
			return i;
		}
	}
	return text.size();
}

// The text of the top-level member "id" of `line`, an object the parser accepted; the
// last one when the name repeats, as the parser keeps the last. Empty when there is none.
std::string_view id_text(std::string_view line)
{
	constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // the parser skips one
	size_t i = skip_space(line,
	    line.substr(0, kByteOrderMark.size()) == kByteOrderMark ? kByteOrderMark.size() : 0);
	std::string_view found;
	if (i >= line.size() || line[i] != '{')
		return found;
	for (i = skip_space(line, i + 1); i < line.size() && line[i] == '"';) {
		const size_t name_end = value_end(line, i);
		const std::string_view name = line.substr(i, name_end - i);
		const size_t start = skip_space(line, skip_space(line, name_end) + 1);  // past the colon
		const size_t end = value_end(line, start);
		// A name may be written with escapes ("\u0069d").
		if (name == "\"id\"" ||
		    (name.find('\\') != std::string_view::npos &&
		        Json::parse(name.begin(), name.end(), nullptr, false) == "id"))
			found = line.substr(start, end - start);
		i = skip_space(line, end);
		if (i < line.size() && line[i] == ',')
			i = skip_space(line, i + 1);
	}
	return found;
}

// The id as a reply echoes it: as the caller wrote it. The parser's own value is the
// fallback, should the written text ever not stand for the value it parsed.
std::string echoed_id(const std::string &line, const Json &id)
{
	const std::string_view written = id_text(line);
	if (!written.empty() && Json::parse(written.begin(), written.end(), nullptr, false) == id)
		return std::string(written);
	return dump_line(id);
}

}  // namespace

bool nesting_within(std::string_view text, int limit)
{
	int depth = 0;
	Strings strings;
	for (const char c : text) {
		if (strings.take(c))
			continue;
		if (c == '[' || c == '{') {
			if (++depth > limit)
				return false;
		} else if ((c == ']' || c == '}') && depth > 0) {
			depth--;  // unbalanced text is the parser's to refuse
		}
	}
	return true;
}

const Json *member(const Json &obj, const char *name)
{
	if (!obj.is_object())
		return nullptr;
	const auto it = obj.find(name);
	return it != obj.end() ? &*it : nullptr;
}

bool holds_nul(const Json &value)
{
	if (value.is_string())
		return value.get_ref<const std::string &>().find('\0') != std::string::npos;
	if (value.is_array()) {
		for (const Json &item : value)
			if (holds_nul(item))
				return true;
	} else if (value.is_object()) {
		for (const auto &[name, item] : value.get_ref<const Json::object_t &>())
			if (name.find('\0') != std::string::npos || holds_nul(item))
				return true;
	}
	return false;
}

const std::string *text_member(const Json &obj, const char *name)
{
	const Json *m = member(obj, name);
	return m != nullptr && m->is_string() && !holds_nul(*m) ? &m->get_ref<const std::string &>() : nullptr;
}

const Json &required_member(const Json &obj, const char *name)
{
	const Json *m = member(obj, name);
	if (m == nullptr)
		throw RecordUnreadable();
	return *m;
}

const std::string &required_text(const Json &obj, const char *name)
{
	static const std::string empty;
	const Json &m = required_member(obj, name);
	if (m.is_null())
		return empty;
	const std::string *text = text_member(obj, name);
	if (text == nullptr)
		throw RecordUnreadable();
	return *text;
}

long long required_integer(const Json &obj, const char *name)
{
	// Only integers: converting a float out of range would be undefined.
	const Json &m = required_member(obj, name);
	if (!m.is_number_integer())
		throw RecordUnreadable();
	return m.get<long long>();
}

const Json::array_t &required_array(const Json &value)
{
	if (!value.is_array())
		throw RecordUnreadable();
	return value.get_ref<const Json::array_t &>();
}

bool optional_text(const Json &obj, const char *name, const char **out)
{
	*out = nullptr;
	const Json *m = member(obj, name);
	if (m == nullptr || m->is_null())
		return true;
	if (!m->is_string() || holds_nul(*m))
		return false;
	*out = m->get_ref<const std::string &>().c_str();
	return true;
}

int parse_request(const std::string &line, Request *req)
{
	req->id = kNullId;
	if (!nesting_within(line, kMaxNesting))
		return NUQ_E_PARSE;
	Json parsed = Json::parse(line, nullptr, false);
	if (parsed.is_discarded())
		return NUQ_E_PARSE;
	if (!parsed.is_object())
		return NUQ_E_REQUEST;
	// The id first, so that every later refusal can name the request it answers.
	// A request without one would be a notification, which this server does not take.
	const Json *id = member(parsed, "id");
	if (id == nullptr || !(id->is_string() || id->is_number() || id->is_null()))
		return NUQ_E_REQUEST;
	req->id = echoed_id(line, *id);
	const std::string *version = text_member(parsed, "jsonrpc");
	const std::string *method = text_member(parsed, "method");
	const Json *params = member(parsed, "params");
	if (version == nullptr || *version != "2.0" || method == nullptr)
		return NUQ_E_REQUEST;
	req->method = *method;
	if (params == nullptr)
		req->params = Json::object();
	else if (params->is_object())
		req->params = std::move(parsed["params"]);
	else
		return NUQ_E_REQUEST;
	return NUQ_E_SUCCESS;
}

std::string dump_line(const Json &value)
{
	return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace nuq

#include "request.h"

#include "nuq_errors.h"

namespace nuq {

bool nesting_within(std::string_view text, int limit)
{
	int depth = 0;
	bool in_string = false, escaped = false;
	for (const char c : text) {
		if (in_string) {
			if (escaped)
				escaped = false;
			else if (c == '\\')
				escaped = true;
			else if (c == '"')
				in_string = false;
			continue;
		}
		if (c == '"') {
			in_string = true;
		} else if (c == '[' || c == '{') {
			if (++depth > limit)
				return false;
		} else if ((c == ']' || c == '}') && depth > 0) {
			depth--;	// unbalanced text is the parser's to refuse
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
	req->id = nullptr;
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
	req->id = *id;
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

#include "output.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace keladm {
namespace {

std::string upper(const char *s)
{
	std::string out(s);
	for (char &c : out)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	return out;
}

// Parseable lines separate fields with ':'; a ':' or '\' inside a value is escaped.
std::string escape_colons(std::string_view v)
{
	std::string out;
	for (char c : v) {
		if (c == ':' || c == '\\')
			out += '\\';
		out += c;
	}
	return out;
}

// The length of the well-formed UTF-8 sequence at the start of `v`, or 0.
size_t utf8_length(std::string_view v)
{
	const auto byte = [&](size_t i) { return static_cast<unsigned char>(v[i]); };
	const unsigned char c = byte(0);
	size_t len;
	unsigned min;
	if (c < 0x80)
		return 1;
	else if (c >= 0xc2 && c <= 0xdf)
		len = 2, min = 0x80;
	else if (c >= 0xe0 && c <= 0xef)
		len = 3, min = 0x800;
	else if (c >= 0xf0 && c <= 0xf4)
		len = 4, min = 0x10000;
	else
		return 0;
	if (v.size() < len)
		return 0;
	unsigned code = c & (0x7f >> len);
	for (size_t i = 1; i < len; i++) {
		if ((byte(i) & 0xc0) != 0x80)
			return 0;
		code = code << 6 | (byte(i) & 0x3f);
	}
	// No overlong forms, no surrogates, nothing past U+10FFFF.
	return code >= min && !(code >= 0xd800 && code <= 0xdfff) && code <= 0x10ffff ? len : 0;
}

// A JSON string of `v`. Values come from the store and from callers, so they may hold any
// bytes: a byte that does not start a well-formed UTF-8 sequence becomes U+FFFD, and the
// output is valid UTF-8 whatever the input.
std::string json_string(std::string_view v)
{
	std::string out = "\"";
	while (!v.empty()) {
		const unsigned char c = static_cast<unsigned char>(v[0]);
		size_t len = 1;
		if (c == '"' || c == '\\') {
			out += '\\';
			out += static_cast<char>(c);
		} else if (c < 0x20 || c == 0x7f) {
			char buf[8];
			std::snprintf(buf, sizeof(buf), "\\u%04x", c);
			out += buf;
		} else if ((len = utf8_length(v)) == 0) {
			out += "\\ufffd";
			len = 1;
		} else {
			out.append(v.substr(0, len));
		}
		v.remove_prefix(len);
	}
	return out + "\"";
}

bool whole_number(std::string_view v)
{
	if (v.empty() || v.size() > 39)  // 2^128 has 39 digits: address counts reach that
		return false;
	for (char c : v)
		if (c < '0' || c > '9')
			return false;
	return v.size() == 1 || v[0] != '0';
}

// A field's value in JSON, typed by its kind.
std::string json_value(Kind kind, std::string_view v)
{
	if (kind == Kind::List) {
		std::string out = "[";
		for (size_t pos = 0; !v.empty() && pos <= v.size();) {
			const size_t comma = std::min(v.find(',', pos), v.size());
			out += (pos ? ", " : "") + json_string(v.substr(pos, comma - pos));
			pos = comma + 1;
		}
		return out + "]";
	}
	if (v.empty() || v == "--")
		return "null";
	if (kind == Kind::Number)
		return whole_number(v) ? std::string(v) : "null";
	if (kind == Kind::Decimal) {
		const size_t dot = v.find('.');
		const bool ok = whole_number(v.substr(0, dot)) &&
		    (dot == std::string_view::npos ||
		        (dot + 1 < v.size() &&
		            v.substr(dot + 1).find_first_not_of("0123456789") == std::string_view::npos));
		return ok ? std::string(v) : "null";
	}
	if (kind == Kind::Flag)
		return v == "yes" ? "true" : v == "no" ? "false" : "null";
	return json_string(v);
}

}  // namespace

bool Output::configure(std::span<const Field> all, const std::string &chosen, Format format, const char *also)
{
	all_ = all;
	format_ = format;
	columns_.clear();
	if (chosen.empty()) {
		for (size_t i = 0; i < all.size(); i++)
			if (!all[i].on_request || (also != nullptr && std::strcmp(all[i].name, also) == 0))
				columns_.push_back(i);
	} else {
		size_t pos = 0;
		while (pos <= chosen.size()) {
			size_t comma = chosen.find(',', pos);
			if (comma == std::string::npos)
				comma = chosen.size();
			const std::string name = chosen.substr(pos, comma - pos);
			size_t i = 0;
			while (i < all.size() && name != all[i].name)
				i++;
			if (i == all.size()) {
				std::fprintf(stderr, "keladm: unknown field '%s'; fields are:", name.c_str());
				for (const Field &f : all)
					std::fprintf(stderr, " %s", f.name);
				std::fprintf(stderr, "\n");
				return false;
			}
			columns_.push_back(i);
			pos = comma + 1;
		}
	}
	width_.clear();
	for (size_t c : columns_)
		width_.push_back(std::strlen(all_[c].name));
	return true;
}

bool Output::shows(const char *name) const
{
	for (size_t c : columns_)
		if (std::strcmp(all_[c].name, name) == 0)
			return true;
	return false;
}

void Output::add(const std::vector<std::string> &values)
{
	add_with([&](size_t i) -> const std::string & { return values[i]; });
}

void Output::put(size_t column, std::string_view value)
{
	// Values are C texts: a '\0' would end one early, so none is kept.
	value = value.substr(0, value.find('\0'));
	const size_t start = row_.size();
	row_.append(value);
	// A value may come from any caller of the store: on a terminal a control character
	// (an escape sequence) would act rather than show, so tables and lines show '?'.
	// JSON escapes them itself.
	if (format_ != Format::Json)
		for (size_t i = start; i < row_.size(); i++)
			if (static_cast<unsigned char>(row_[i]) < 0x20 || row_[i] == 0x7f)
				row_[i] = '?';
	row_ += '\0';
	width_[column] = std::max(width_[column], value.size());
}

void Output::keep_row()
{
	constexpr size_t kBlock = 1 << 20;
	if (blocks_.empty() || blocks_.back().size() + row_.size() > blocks_.back().capacity()) {
		blocks_.emplace_back();
		blocks_.back().reserve(std::max(kBlock, row_.size()));
	}
	blocks_.back() += row_;
}

template <class OnRow>
void Output::each_row(OnRow &&on_row) const
{
	std::vector<std::string_view> row(columns_.size());
	for (const std::string &block : blocks_) {
		size_t pos = 0;
		while (pos < block.size()) {
			for (auto &value : row) {
				const size_t end = block.find('\0', pos);
				value = std::string_view(block).substr(pos, end - pos);
				pos = end + 1;
			}
			on_row(row);
		}
	}
}

void Output::print() const
{
	if (format_ == Format::Json) {
		std::printf("[");
		bool first = true;
		each_row([&](const std::vector<std::string_view> &row) {
			std::printf("%s{", first ? "" : ", ");
			first = false;
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s: %s", c ? ", " : "", json_string(all_[columns_[c]].name).c_str(),
				    json_value(all_[columns_[c]].kind, row[c]).c_str());
			std::printf("}");
		});
		std::printf("]\n");
		return;
	}
	if (format_ == Format::Parseable) {
		// With one field there is no separator to tell apart: its value is printed as it is.
		const bool escape = columns_.size() > 1;
		each_row([&](const std::vector<std::string_view> &row) {
			for (size_t c = 0; c < columns_.size(); c++)
				std::printf("%s%s", c ? ":" : "",
				    escape ? escape_colons(row[c]).c_str() : std::string(row[c]).c_str());
			std::printf("\n");
		});
		return;
	}
	auto line = [&](auto value_of) {
		std::string out;
		for (size_t c = 0; c < columns_.size(); c++) {
			std::string v(value_of(c));
			if (c + 1 < columns_.size())
				v.resize(width_[c] + 2, ' ');
			out += v;
		}
		// An empty last column leaves padding behind: no line ends in blanks.
		out.erase(out.find_last_not_of(' ') + 1);
		std::printf("%s\n", out.c_str());
	};
	line([&](size_t c) { return upper(all_[columns_[c]].name); });
	each_row([&](const std::vector<std::string_view> &row) { line([&](size_t c) { return row[c]; }); });
}

}  // namespace keladm

#include "pg_dialect.h"

#include <cctype>
#include <cstring>

namespace kel::pg {

namespace {

bool word_char(char c)
{
	return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

bool same_word(const std::string &w, const char *upper)
{
	if (w.size() != std::strlen(upper))
		return false;
	for (size_t i = 0; i < w.size(); i++)
		if (std::toupper(static_cast<unsigned char>(w[i])) != upper[i])
			return false;
	return true;
}

class Rewriter {
public:
	explicit Rewriter(const std::string &in) : in_(in) {}

	Translated run()
	{
		while (at_ < in_.size()) {
			const char c = in_[at_];
			if (c == '\'' || c == '"')
				quoted(c);
			else if (c == '?')
				parameter();
			else if (word_char(c) && !std::isdigit(static_cast<unsigned char>(c)))
				word();
			else if (c == '=' && at_ + 1 < in_.size() && in_[at_ + 1] == '=')
				equals();
			else
				out_.sql += in_[at_++];
		}
		return out_;
	}

private:
	void quoted(char q)
	{
		const size_t start = at_++;
		while (at_ < in_.size()) {
			if (in_[at_++] != q)
				continue;
			if (at_ < in_.size() && in_[at_] == q) {
				at_++;  // a doubled quote stands for itself
				continue;
			}
			break;
		}
		out_.sql.append(in_, start, at_ - start);
		operand_done();
	}

	void parameter()
	{
		at_++;
		int n = 0;
		bool numbered = false;
		while (at_ < in_.size() && std::isdigit(static_cast<unsigned char>(in_[at_]))) {
			n = n * 10 + (in_[at_++] - '0');
			numbered = true;
		}
		if (!numbered)
			n = out_.highest + 1;
		if (n > out_.highest)
			out_.highest = n;
		const auto slot = out_.slots.try_emplace(n, static_cast<int>(out_.slots.size()) + 1).first;
		out_.sql += "$" + std::to_string(slot->second);
		operand_done();
	}

	// The word at the read position, without moving it: after blanks from `from`.
	std::string peek_word(size_t from, size_t *end) const
	{
		while (from < in_.size() && std::isspace(static_cast<unsigned char>(in_[from])))
			from++;
		size_t e = from;
		while (e < in_.size() && word_char(in_[e]))
			e++;
		*end = e;
		return in_.substr(from, e - from);
	}

	bool call_follows() const
	{
		size_t i = at_;
		while (i < in_.size() && std::isspace(static_cast<unsigned char>(in_[i])))
			i++;
		return i < in_.size() && in_[i] == '(';
	}

	void word()
	{
		const size_t start = at_;
		while (at_ < in_.size() && word_char(in_[at_]))
			at_++;
		const std::string w = in_.substr(start, at_ - start);
		if (same_word(w, "LIKE")) {
			out_.sql += "ILIKE";
			like_ = true;
		} else if (same_word(w, "IS")) {
			is();
		} else if (same_word(w, "INSTR") && call_follows()) {
			out_.sql += "strpos";
		} else if (same_word(w, "IFNULL") && call_follows()) {
			out_.sql += "coalesce";
		} else if (same_word(w, "TRIM") && call_follows()) {
			out_.sql += "btrim";
		} else {
			out_.sql += w;
		}
	}

	// SQLite's "==" is SQL's "=".
	void equals()
	{
		out_.sql += '=';
		at_ += 2;
	}

	// "IS NULL" and "IS NOT NULL" mean the same in both; any other IS compares values.
	void is()
	{
		size_t end = 0;
		const std::string next = peek_word(at_, &end);
		if (same_word(next, "NULL")) {
			out_.sql += "IS";
			return;
		}
		if (same_word(next, "NOT")) {
			size_t after = 0;
			if (same_word(peek_word(end, &after), "NULL")) {
				out_.sql += "IS";
				return;
			}
			out_.sql += "IS DISTINCT FROM";
			at_ = end;
			return;
		}
		out_.sql += "IS NOT DISTINCT FROM";
	}

	// The pattern of a LIKE (always a parameter or a quoted text in the library's SQL) has
	// been written: no escape character, as in SQLite.
	void operand_done()
	{
		if (like_) {
			out_.sql += " ESCAPE ''";
			like_ = false;
		}
	}

	const std::string &in_;
	size_t at_ = 0;
	bool like_ = false;
	Translated out_;
};

}  // namespace

Translated translate(const std::string &sqlite_sql)
{
	return Rewriter(sqlite_sql).run();
}

}  // namespace kel::pg

#include "range.h"
#include "c_boundary.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "kel_assert.h"
#include "number.h"

namespace {

using Element = KelRangeElement;

std::vector<Element> elements(const char *range)
{
	return kel_range_elements(range);
}

}  // namespace

std::vector<KelRangeElement> kel_range_elements(const char *range)
{
	std::vector<Element> out;
	const std::string text = range != nullptr ? range : "";
	size_t pos = 0;
	while (pos <= text.size()) {
		size_t comma = text.find(',', pos);
		if (comma == std::string::npos)
			comma = text.size();
		if (comma > pos) {
			const std::string piece = text.substr(pos, comma - pos);
			const size_t dash = piece.find('-');
			if (dash == std::string::npos)
				out.push_back({piece, piece, false});
			else
				out.push_back({piece.substr(0, dash), piece.substr(dash + 1), true});
		}
		pos = comma + 1;
	}
	return out;
}

std::string kel_range_element_text(const std::string &start, const std::string &end, int type)
{
	return kel_rsrc_cmp(start.c_str(), end.c_str(), type) == 0 ? start : start + "-" + end;
}

namespace {

bool parses(const std::string &value, int type)
{
	unsigned char addr[sizeof(struct in6_addr)];
	long number;
	switch (type) {
	case KEL_RANGE_NUMBER: return kel::parse_long(value.c_str(), &number);
	case KEL_RANGE_IPV4: return inet_pton(AF_INET, value.c_str(), addr) == 1;
	case KEL_RANGE_IPV6: return inet_pton(AF_INET6, value.c_str(), addr) == 1;
	}
	KEL_ASSERT(kel::kAreaUtil, !"unknown range type");
}

int cmp(const std::string &a, const std::string &b, int type)
{
	return kel_rsrc_cmp(a.c_str(), b.c_str(), type);
}

std::string neighbour(const std::string &value, int delta, int type)
{
	char buf[INET6_ADDRSTRLEN + 16];
	return kel_rsrc_value(value.c_str(), delta, buf, sizeof(buf), type);
}

// Writes an element with kel_print_range, keeping track of overflow.
class Printer {
public:
	Printer(char *buf, size_t size) : buf_(buf), size_(size)
	{
		if (size_ > 0)
			buf_[0] = '\0';
	}
	void add(const std::string &start, const std::string &end, int type)
	{
		kel_print_range(start.c_str(), end.c_str(), buf_, size_, &len_, type);
	}
	bool overflowed() const { return static_cast<size_t>(len_) >= size_; }

private:
	char *buf_;
	size_t size_;
	int len_ = 0;
};

}  // namespace

int kel_ipcmp(sa_family_t af, const char *ip1, const char *ip2)
{
	if (af == AF_INET) {
		struct in_addr addr1, addr2;
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET, ip1, &addr1) == 1);
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET, ip2, &addr2) == 1);
		const long long diff = static_cast<long long>(ntohl(addr1.s_addr)) - ntohl(addr2.s_addr);
		return diff > INT_MAX ? INT_MAX : diff < INT_MIN ? INT_MIN : static_cast<int>(diff);
	}
	if (af == AF_INET6) {
		unsigned char addr1[16], addr2[16];
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET6, ip1, &addr1) == 1);
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET6, ip2, &addr2) == 1);
		// Only the last three bytes are told apart exactly: enough for neighbours.
		for (int i = 0; i < 13; i++)
			if (addr1[i] != addr2[i])
				return addr1[i] > addr2[i] ? INT_MAX : INT_MIN;
		const int low1 = addr1[13] << 16 | addr1[14] << 8 | addr1[15];
		const int low2 = addr2[13] << 16 | addr2[14] << 8 | addr2[15];
		return low1 - low2;
	}
	return 0;
}

int kel_numstrcmp(const char *a, const char *b)
{
	const long long diff = static_cast<long long>(std::atoi(a)) - std::atoi(b);
	return diff > INT_MAX ? INT_MAX : diff < INT_MIN ? INT_MIN : static_cast<int>(diff);
}

int kel_rsrc_cmp(const char *a, const char *b, int type)
{
	switch (type) {
	case KEL_RANGE_NUMBER: return kel_numstrcmp(a, b);
	case KEL_RANGE_IPV4: return kel_ipcmp(AF_INET, a, b);
	case KEL_RANGE_IPV6: return kel_ipcmp(AF_INET6, a, b);
	}
	KEL_ASSERT(kel::kAreaUtil, !"unknown range type");
}

char *kel_rsrc_value(const char *value, int delta, char *buf, size_t size, int type)
{
	if (type == KEL_RANGE_NUMBER) {
		std::snprintf(buf, size, "%lld", static_cast<long long>(std::atoi(value)) + delta);
	} else if (type == KEL_RANGE_IPV4) {
		struct in_addr in;
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET, value, &in) == 1);
		in.s_addr = htonl(ntohl(in.s_addr) + static_cast<uint32_t>(delta));
		if (inet_ntop(AF_INET, &in, buf, static_cast<socklen_t>(size)) == nullptr && size)
			buf[0] = '\0';
	} else {
		KEL_ASSERT(kel::kAreaUtil, type == KEL_RANGE_IPV6);
		unsigned char addr[16];
		KEL_ASSERT(kel::kAreaUtil, inet_pton(AF_INET6, value, addr) == 1);
		// Carry (or borrow) from the last byte upwards; out of the first byte it is lost.
		for (int i = 15; i >= 0; i--) {
			const unsigned char before = addr[i];
			addr[i] = static_cast<unsigned char>(before + delta);
			if (!(delta > 0 && before == 0xff) && !(delta < 0 && before == 0))
				break;
		}
		if (inet_ntop(AF_INET6, addr, buf, static_cast<socklen_t>(size)) == nullptr && size)
			buf[0] = '\0';
	}
	return buf;
}

void kel_str2range(char *element, char **startp, char **endp, int type)
{
	KEL_ASSERT(kel::kAreaUtil, element != NULL && startp != NULL && endp != NULL);
	*startp = element;
	*endp = element;
	if (char *dash = std::strchr(element, '-')) {
		*dash = '\0';
		*endp = dash + 1;
	}
	switch (type) {
	case KEL_RANGE_NUMBER:
		KEL_ASSERT(kel::kAreaUtil, atoi(*startp) >= 0 && atoi(*endp) >= 0);
		KEL_ASSERT(kel::kAreaUtil, atoi(*startp) <= atoi(*endp));
		break;
	case KEL_RANGE_IPV4: KEL_ASSERT(kel::kAreaUtil, kel_ipcmp(AF_INET, *startp, *endp) <= 0); break;
	case KEL_RANGE_IPV6: KEL_ASSERT(kel::kAreaUtil, kel_ipcmp(AF_INET6, *startp, *endp) <= 0); break;
	default: KEL_ASSERT(kel::kAreaUtil, !"unknown range type");
	}
}

void kel_print_range(const char *start, const char *end, char *buf, size_t size, int *len, int type)
{
	const size_t at = static_cast<size_t>(*len);
	const size_t room = at < size ? size - at : 0;
	char *dst = room > 0 ? buf + at : nullptr;
	const char *sep = *len != 0 ? "," : "";
	const int n = kel_rsrc_cmp(start, end, type) == 0 ? std::snprintf(dst, room, "%s%s", sep, start)
	                                                  : std::snprintf(dst, room, "%s%s-%s", sep, start, end);
	*len += n;
}

int kel_rsrc_valid_range(const char *range, int type, const char *min, const char *max, const char *excluded)
{
	return kel::c_boundary([&] {
		const std::string *prev_end = nullptr;
		const std::vector<Element> elems = elements(range);
		for (const Element &e : elems) {
			if (!parses(e.start, type) || !parses(e.end, type))
				return KEL_E_INVALID_RANGE;
			for (const std::string *v : {&e.start, &e.end})
				if (cmp(*v, min, type) < 0 || cmp(*v, max, type) > 0)
					return KEL_E_INVALID_RANGE;
			if (excluded != nullptr && cmp(e.start, excluded, type) <= 0 && cmp(e.end, excluded, type) >= 0)
				return KEL_E_RANGE_EXCLUSIVE;
			const int span = cmp(e.start, e.end, type);
			if (span > 0 || (span == 0 && e.interval))
				return KEL_E_INVALID_RANGE;
			if (prev_end != nullptr && cmp(e.start, *prev_end, type) <= 0)
				return KEL_E_INVALID_RANGE;
			prev_end = &e.end;
		}
		return KEL_SUCCESS;
	});
}

int kel_rsrc_range_merge(const char *range, char *buf, size_t size, int type)
{
	if (size > 0)
		buf[0] = '\0';
	return kel::c_boundary([&] {
		const std::vector<Element> elems = elements(range);
		if (elems.empty())
			return KEL_SUCCESS;
		size_t n = 0;
		auto write = [&](const std::string &start, const std::string &end, bool single) {
			const size_t room = n < size ? size - n : 0;
			const char *sep = n != 0 ? "," : "";
			n += single
			    ? std::snprintf(room ? buf + n : nullptr, room, "%s%s", sep, start.c_str())
			    : std::snprintf(room ? buf + n : nullptr, room, "%s%s-%s", sep, start.c_str(), end.c_str());
			return n < size;
		};
		const Element *first = &elems[0];
		std::string run_end = first->end;
		bool single = !first->interval;
		for (size_t i = 1; i < elems.size(); i++) {
			if (cmp(elems[i].start, run_end, type) > 1) {
				if (!write(first->start, run_end, single))
					return KEL_E_NOSPACE;
				first = &elems[i];
				single = !first->interval;
			} else {
				single = false;
			}
			run_end = elems[i].end;
		}
		return write(first->start, run_end, single) ? KEL_SUCCESS : KEL_E_NOSPACE;
	});
}

namespace {

// The elements of a range-set after normalising it.
int normalised(const char *range, int type, std::vector<Element> *out)
{
	std::string merged(range != nullptr ? std::strlen(range) + 1 : 1, '\0');
	int rc = kel_rsrc_range_merge(range, merged.data(), merged.size(), type);
	if (rc == KEL_SUCCESS)
		*out = elements(merged.c_str());
	return rc;
}

int diff(const char *a, const char *b, char *buf, size_t size, int type)
{
	std::vector<Element> as, bs;
	int rc = normalised(a, type, &as);
	if (rc == KEL_SUCCESS)
		rc = normalised(b, type, &bs);
	if (rc != KEL_SUCCESS)
		return rc;
	Printer out(buf, size);
	size_t cursor = 0;
	for (const Element &ae : as) {
		const std::string *last_end = nullptr;
		std::string piece_start = ae.start;
		while (cursor < bs.size() && cmp(bs[cursor].start, ae.end, type) <= 0) {
			const Element &be = bs[cursor];
			// A b element outside this a element would give pieces running backwards.
			if (cmp(be.start, ae.start, type) < 0 || cmp(be.end, ae.end, type) > 0)
				return KEL_E_INVALID_RANGE;
			if (cmp(be.start, piece_start, type) > 0)
				out.add(piece_start, neighbour(be.start, -1, type), type);
			last_end = &be.end;
			if (cmp(be.end, ae.end, type) < 0)
				piece_start = neighbour(be.end, +1, type);
			cursor++;
		}
		if (last_end == nullptr)
			out.add(ae.start, ae.end, type);
		else if (cmp(*last_end, ae.end, type) != 0)
			out.add(piece_start, ae.end, type);
	}
	return out.overflowed() ? KEL_E_NOSPACE : KEL_SUCCESS;
}

}  // namespace

int kel_rsrc_range_diff(const char *a, const char *b, void *out, int size, int type)
{
	char *buf = nullptr;
	size_t bufsize;
	if (size >= 0) {
		buf = static_cast<char *>(out);
		bufsize = static_cast<size_t>(size);
		if (bufsize > 0)
			buf[0] = '\0';
	} else {
		*static_cast<char **>(out) = nullptr;
		bufsize = std::strlen(a ? a : "") + 2 * std::strlen(b ? b : "") + 1024;
		if ((buf = static_cast<char *>(std::calloc(bufsize, 1))) == nullptr)
			return KEL_E_NOMEM;
	}
	const int rc = kel::c_boundary([&] { return diff(a, b, buf, bufsize, type); });
	if (size < 0) {
		if (rc == KEL_SUCCESS)
			*static_cast<char **>(out) = buf;
		else
			std::free(buf);
	}
	return rc;
}

int kel_rsrc_range_contains(const char *a, const char *b, int type)
{
	return kel::c_boundary([&] {
		const std::vector<Element> as = elements(a), bs = elements(b);
		size_t cursor = 0;
		for (const Element &ae : as) {
			for (; cursor < bs.size(); cursor++) {
				const Element &be = bs[cursor];
				if (cmp(be.start, ae.end, type) > 0)
					break;  // try the next element of a
				if (cmp(be.start, ae.start, type) < 0 || cmp(be.end, ae.end, type) > 0)
					return KEL_E_RANGE_INUSE;
			}
		}
		return cursor == bs.size() ? KEL_SUCCESS : KEL_E_RANGE_INUSE;
	});
}

// Operands that name a member of a switch (an ipnet, a vport) as KEL/NAME.
#include "keladm.h"

namespace keladm {

bool one_member(const Subcommand &cmd, const Options &opts, MemberParser parse, const char *what,
    Member *out)
{
	if (opts.operands.size() != 1) {
		usage_error(cmd, std::string(cmd.name) + " takes one KEL/" + what);
		return false;
	}
	char k[KEL_NAME_LEN], n[KEL_NAME_LEN];
	if (!parse(opts.operands[0], k, n) || *k == '\0' || *n == '\0') {
		usage_error(cmd, std::string("'") + opts.operands[0] + "' is not KEL/" + what);
		return false;
	}
	out->kel = k;
	out->name = n;
	return true;
}

bool member_selection(const Subcommand &cmd, const Options &opts, MemberParser parse,
    const char *what, char (&kel)[KEL_NAME_LEN], char (&name)[KEL_NAME_LEN])
{
	kel[0] = name[0] = '\0';
	if (opts.operands.size() > 1) {
		usage_error(cmd, std::string(cmd.name) + " takes at most one KEL or KEL/" + what);
		return false;
	}
	if (opts.operands.empty())
		return true;
	// "KEL" alone names the switch; "KEL/NAME" one member.
	const std::string text = opts.operands[0];
	const bool compound = text.find('/') != std::string::npos;
	if (!parse(compound ? text.c_str() : (text + "/").c_str(), kel, name)) {
		usage_error(cmd, "'" + text + "' is not KEL or KEL/" + what);
		return false;
	}
	return true;
}

}  // namespace keladm

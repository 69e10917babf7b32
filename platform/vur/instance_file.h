// One service instance's file: its property groups and their typed properties.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vur.h"

namespace vur {

struct Property {
	std::string name;
	vur_type_t type;
	std::string value;
};

struct Group {
	std::string name;
	std::string type;
	uint64_t generation = 0;  // the file generation of the group's last change
	std::vector<Property> props;

	Property *find(const std::string &prop);
};

struct InstanceFile {
	uint64_t generation = 0;  // raised by every write
	std::vector<Group> groups;

	Group *find(const std::string &group);
};

// The file of instance "svc:/SERVICE:INSTANCE" under $KEL_ROOT/etc/kel/svc/, or "" when
// the name does not designate an instance.
std::string instance_path(const std::string &fmri);

// Reads the instance; a missing file is an instance without groups. VUR_ERROR_NONE or
// the error number.
int load(const std::string &path, InstanceFile *out);

// Changes the instance under an exclusive lock: reads it afresh, lets `change` edit it,
// and when `change` returns VUR_ERROR_NONE writes it (temp file, fsync, rename) with its
// generation raised. Any other result of `change` is returned and nothing is written.
int update(const std::string &path, const std::function<int(InstanceFile &)> &change);

// Sets the calling thread's vur_error().
void set_error(int err);

}  // namespace vur

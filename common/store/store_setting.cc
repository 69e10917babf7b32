#include "store_setting.h"

#include "instance_file.h"

namespace kel::store {

std::string conninfo()
{
	vur::InstanceFile file;
	if (vur::load(vur::instance_path(kControllerInstance), &file) != VUR_ERROR_NONE)
		return "";
	vur::Group *group = file.find(kSettingGroup);
	vur::Property *prop = group != nullptr ? group->find(kSettingName) : nullptr;
	return prop != nullptr ? prop->value : "";
}

}  // namespace kel::store

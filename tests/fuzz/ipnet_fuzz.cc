// Subnets: a parsed subnet contains its own span, and its canonical text parses to the
// same span.
#include <cstdint>
#include <cstring>
#include <string>

#include <kel/libkel.h>
#include "fuzz_check.h"
#include "subnet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string text(reinterpret_cast<const char *>(data), size);
	kel_ipnet_t ipnet;
	if (kel_parse_ipnet(text.c_str(), &ipnet) != KEL_SUCCESS)
		return 0;
	FUZZ_CHECK(kel_ipnet_contains_ip(&ipnet, ipnet.ei_sastr));
	FUZZ_CHECK(kel_ipnet_contains_ip(&ipnet, ipnet.ei_eastr));
	kel_ipnet_t again;
	FUZZ_CHECK(kel_parse_ipnet(ipnet.ei_subnet, &again) == KEL_SUCCESS);
	FUZZ_CHECK(std::strcmp(again.ei_subnet, ipnet.ei_subnet) == 0);
	FUZZ_CHECK(std::strcmp(again.ei_sastr, ipnet.ei_sastr) == 0);
	FUZZ_CHECK(std::strcmp(again.ei_eastr, ipnet.ei_eastr) == 0);
	return 0;
}

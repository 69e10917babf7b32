// The container plugin's configuration and result: what a runtime hands it is checked
// before anything is bound, and its result chains after the plugins before it.
#include <string>

#include <gtest/gtest.h>

#include "conf.h"
#include "result.h"

namespace {

using namespace kelcni;
using nlohmann::json;

int code_of(const std::string &text)
{
	const auto parsed = parse_conf(text);
	const Error *e = std::get_if<Error>(&parsed);
	return e != nullptr ? e->code : 0;
}

TEST(CniConf, WhatIsRefusedAndWhy)
{
	const struct {
		const char *conf;
		int code;
	} cases[] = {
	    {R"({"cniVersion":"1.0.0","name":"n","type":"kel","kel":"web"})", 0},
	    {R"({"cniVersion":"0.3.1","name":"n","type":"kel","kel":"web","tenant":"acme","vport":"c1",
	        "defaultRoute":false,"properties":{"protection":"mac-nospoof,ip-nospoof","cos":"3"},
	        "runtimeConfig":{},"prevResult":{"interfaces":[]}})",
	        0},
	    {R"({"cniVersion":"1.0.0","name":"n","type":"kel","kel":"web")", kDecodeFailure},
	    {R"(["cniVersion"])", kDecodeFailure},
	    {R"({"cniVersion":"0.2.0","kel":"web"})", kIncompatibleVersion},
	    {R"({"name":"n","kel":"web"})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","bridge":"br0"})", kUnsupportedField},
	    {R"({"cniVersion":"1.0.0","kel":"web","ipam":{}})", kUnsupportedField},
	    {R"({"cniVersion":"1.0.0","name":"n"})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web/x"})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":7})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","defaultRoute":"yes"})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","properties":{"ipaddr":"10.0.0.1"}})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","properties":{"maxbw":"1M,vmid=x"}})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","properties":{"maxbw":"1M=2"}})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","properties":{"protection":",none"}})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","properties":{"maxbw":10}})", kInvalidConfig},
	    {R"({"cniVersion":"1.0.0","kel":"web","prevResult":[]})", kInvalidConfig},
	};
	for (const auto &c : cases)
		EXPECT_EQ(code_of(c.conf), c.code) << c.conf;
}

TEST(CniConf, TheBindingCarriesTheContainerAndTheProperties)
{
	const auto parsed = parse_conf(
	    R"({"cniVersion":"1.0.0","kel":"web","properties":{"maxbw":"5M","protection":"mac-nospoof,ip-nospoof"}})");
	ASSERT_TRUE(std::holds_alternative<NetConf>(parsed));
	EXPECT_EQ(binding_props(std::get<NetConf>(parsed), "abc123"),
	    "containerid=abc123,maxbw=5M,protection=mac-nospoof,ip-nospoof");
	for (const char *id : {"", "-x", "a/b", "a,b", "a=b", "a b"})
		EXPECT_FALSE(valid_container_id(id)) << id;
	EXPECT_TRUE(valid_container_id("4f1c_x.y-z"));
}

TEST(CniResult, ChainsAfterThePluginsBefore)
{
	NetConf conf;
	conf.version = "0.4.0";
	conf.prev_result = json::parse(R"({"interfaces":[{"name":"lo"}],"ips":[{"address":"127.0.0.1/8","interface":0}],
	    "dns":{"nameservers":["192.0.2.53"]}})");
	Attachment a;
	a.ifname = "eth0";
	a.mac = "02:08:20:00:00:01";
	a.sandbox = "/run/netns/c1";
	a.address = "10.1.0.5/24";
	a.gateway = "10.1.0.1";
	a.default_route = true;
	a.dns = {"10.1.0.53"};
	const json r = add_result(conf, a);
	EXPECT_EQ(r["cniVersion"], "0.4.0");
	EXPECT_EQ(r["interfaces"].size(), 2u);
	EXPECT_EQ(r["ips"][1],
	    json::parse(R"({"address":"10.1.0.5/24","gateway":"10.1.0.1","interface":1,"version":"4"})"));
	EXPECT_EQ(r["routes"], json::parse(R"([{"dst":"0.0.0.0/0","gw":"10.1.0.1"}])"));
	EXPECT_EQ(r["dns"]["nameservers"], json::parse(R"(["192.0.2.53"])")) << "the earlier plugin's stand";

	conf.version = "1.0.0";
	conf.prev_result.reset();
	a.address = "2001:db8::5/64";
	a.gateway = "";
	const json v6 = add_result(conf, a);
	EXPECT_FALSE(v6["ips"][0].contains("version"));
	EXPECT_FALSE(v6.contains("routes")) << "no router, no route";
	EXPECT_EQ(v6["dns"]["nameservers"], json::parse(R"(["10.1.0.53"])"));
	EXPECT_EQ(error_object("", Error{kDrift, "m", ""}),
	    json::parse(R"({"cniVersion":"1.0.0","code":101,"msg":"m"})"));
}

}  // namespace

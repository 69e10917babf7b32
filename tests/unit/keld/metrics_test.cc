// keld's metrics as a monitoring system reads them: every family announced once, lines
// whose labels cannot break the format whatever the names hold, histograms cumulative,
// and requests counted under names no caller can make up.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "metrics.h"
#include "nuq_fixture.h"

namespace {

using keld::metrics::exposition;
using keld::metrics::Registry;
using keld::metrics::Sample;

// The lines of `text` that are not comments.
std::vector<std::string> sample_lines(const std::string &text)
{
	std::vector<std::string> out;
	for (size_t start = 0; start < text.size();) {
		const size_t end = text.find('\n', start);
		const std::string line = text.substr(start, end - start);
		if (line.rfind('#', 0) != 0)
			out.push_back(line);
		start = end + 1;
	}
	return out;
}

TEST(Metrics, EveryFamilyIsAnnouncedOnceInTheTableOrder)
{
	const std::string text = exposition({});
	size_t at = 0;
	for (const auto &f : keld::metrics::families()) {
		const std::string help = std::string("# HELP ") + f.name + " ";
		const std::string type = std::string("# TYPE ") + f.name + " " + f.type + "\n";
		const size_t h = text.find(help);
		ASSERT_NE(h, std::string::npos) << f.name;
		EXPECT_GE(h, at) << f.name << " out of order";
		EXPECT_EQ(text.find(help, h + 1), std::string::npos) << f.name;
		EXPECT_EQ(text.find(type), text.find('\n', h) + 1) << f.name;
		at = h;
		// Counters, and counters alone, end in _total.
		const std::string name = f.name;
		EXPECT_EQ(name.size() > 6 && name.compare(name.size() - 6, 6, "_total") == 0,
		    std::string(f.type) == "counter")
		    << name;
	}
	EXPECT_TRUE(sample_lines(text).empty());
}

TEST(Metrics, LabelsAreSortedAndEscapedAndUnknownFamiliesLeftOut)
{
	const std::vector<Sample> samples = {
	    {"kel_tenant_kels", {{"tenant", "a\"b\\c\nd"}}, 3},
	    {"kel_vnic_receive_bytes_total", {{"vnic", "ns/eth0"}, {"host", "h1"}, {"kel", "web"}},
	        18446744073709551615.0},
	    {"kel_vnic_maxbw_bytes_per_second", {}, 1250000},
	    {"kel_fan_out_timestamp_seconds", {{"operation", "verify"}}, 0.5},
	    {"not_ours_total", {}, 1},
	};
	EXPECT_EQ(sample_lines(exposition(samples)),
	    (std::vector<std::string>{"kel_vnic_receive_bytes_total{host=\"h1\",kel=\"web\",vnic=\"ns/eth0\"} "
	                              "1.8446744073709552e+19",
	        "kel_vnic_maxbw_bytes_per_second 1250000", "kel_tenant_kels{tenant=\"a\\\"b\\\\c\\nd\"} 3",
	        "kel_fan_out_timestamp_seconds{operation=\"verify\"} 0.5"}));
}

TEST(Metrics, CountsAndHistogramsAccumulate)
{
	Registry r;
	const keld::metrics::Labels l = {{"outcome", "success"}};
	r.count("kel_controller_binds_total", l);
	r.count("kel_controller_binds_total", l, 2);
	r.count("kel_controller_binds_total", {{"outcome", "failure"}});
	for (double s : {0.0005, 0.003, 0.003, 20.0})
		r.observe("kel_controller_bind_duration_seconds", {}, s);
	const std::vector<std::string> lines = sample_lines(exposition(r.samples()));
	const auto has = [&](const std::string &line) {
		return std::find(lines.begin(), lines.end(), line) != lines.end();
	};
	EXPECT_TRUE(has("kel_controller_binds_total{outcome=\"success\"} 3"));
	EXPECT_TRUE(has("kel_controller_binds_total{outcome=\"failure\"} 1"));
	// Cumulative: each bucket holds those below it; beyond the last bound only +Inf.
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_bucket{le=\"0.001\"} 1"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_bucket{le=\"0.0025\"} 1"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_bucket{le=\"0.005\"} 3"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_bucket{le=\"10\"} 3"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_bucket{le=\"+Inf\"} 4"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_count 4"));
	EXPECT_TRUE(has("kel_controller_bind_duration_seconds_sum 20.0065"));
	// The buckets come first, in the order of their bounds, then the sum and the count.
	const auto pos = [&](const std::string &prefix) {
		return std::find_if(lines.begin(), lines.end(), [&](const std::string &s) {
			return s.rfind(prefix, 0) == 0;
		}) - lines.begin();
	};
	EXPECT_LT(pos("kel_controller_bind_duration_seconds_bucket{le=\"10\"}"),
	    pos("kel_controller_bind_duration_seconds_bucket{le=\"+Inf\"}"));
	EXPECT_LT(pos("kel_controller_bind_duration_seconds_bucket{le=\"+Inf\"}"),
	    pos("kel_controller_bind_duration_seconds_sum"));
}

// What the dispatcher tells of each request: the names of what was asked only when they
// are the server's, so that a caller cannot grow the metrics with names of its own.
TEST(Metrics, RequestsAreToldUnderTheServersNamesOnly)
{
	nuq::Dispatcher d = kel::test::test_dispatcher();
	std::vector<nuq::Handled> seen;
	d.set_observer([&](const nuq::Handled &h) { seen.push_back(h); });
	const auto call = [](const char *method) {
		return std::string(R"({"jsonrpc":"2.0","id":1,"method":"call","params":{"interface":"test.Thing",)") +
		    R"("keys":{"name":"a"},"method":")" + method + R"(","args":{}}})";
	};
	d.handle(call("echo"));
	d.handle(call("fail"));
	d.handle(call("made-up-by-the-caller"));
	d.handle(R"({"jsonrpc":"2.0","id":1,"method":"lookup","params":{"interface":"other.Made.Up","keys":{}}})");
	d.handle(R"({"jsonrpc":"2.0","id":1,"method":"ping"})");
	d.handle("not json");
	ASSERT_EQ(seen.size(), 6u);
	const std::vector<std::vector<std::string>> want = {{"test.Thing", "echo", "ok"},
	    {"test.Thing", "fail", "error"}, {"test.Thing", "unknown", "error"}, {"unknown", "unknown", "error"},
	    {"", "ping", "ok"}, {"unknown", "unknown", "error"}};
	for (size_t i = 0; i < want.size(); i++)
		EXPECT_EQ((std::vector<std::string>{seen[i].interface, seen[i].method, seen[i].error ? "error" : "ok"}),
		    want[i])
		    << i;
}

}  // namespace

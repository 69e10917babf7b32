// The server's dispatcher: any request line gets exactly one reply line, a JSON-RPC 2.0
// reply with an id the protocol allows and either a result or an error whose code a
// client of ours understands. Nothing a caller sends may make it throw or crash.
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "nuq_errors.h"
#include "nuq_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const nuq::Dispatcher dispatcher = kel::test::test_dispatcher();
	const std::string line(reinterpret_cast<const char *>(data), size);
	const std::string reply = dispatcher.handle(line);
	FUZZ_CHECK(reply.find('\n') == std::string::npos);
	const nlohmann::json r = nlohmann::json::parse(reply, nullptr, false);
	FUZZ_CHECK(r.is_object());
	FUZZ_CHECK(r.value("jsonrpc", nlohmann::json()) == "2.0");
	const nlohmann::json *id = nuq::member(r, "id");
	FUZZ_CHECK(id != nullptr && (id->is_null() || id->is_string() || id->is_number()));
	const nlohmann::json *result = nuq::member(r, "result");
	const nlohmann::json *error = nuq::member(r, "error");
	FUZZ_CHECK((result == nullptr) != (error == nullptr));
	if (error != nullptr) {
		const nlohmann::json *code = nuq::member(*error, "code");
		FUZZ_CHECK(code != nullptr && code->is_number_integer());
		FUZZ_CHECK(nuq::from_wire_code(code->get<long>()) != NUQ_E_PROTOCOL);
	}
	// A request whose id could be read is answered under that id.
	if (nuq::nesting_within(line, nuq::kMaxNesting)) {
		const nlohmann::json req = nlohmann::json::parse(line, nullptr, false);
		const nlohmann::json *sent = nuq::member(req, "id");
		if (sent != nullptr && (sent->is_string() || sent->is_number()))
			FUZZ_CHECK(*id == *sent);
	}
	return 0;
}

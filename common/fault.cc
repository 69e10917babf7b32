#include "fault.h"

#include <atomic>

namespace kel::fault {
namespace {

std::atomic<int> countdown{0};
std::atomic<int> fault_code{0};

}  // namespace

void fail_nth_statement(int nth, int code)
{
	fault_code.store(code);
	countdown.store(nth);
}

void disarm()
{
	countdown.store(0);
}

bool armed()
{
	return countdown.load() > 0;
}

int next_statement_fault()
{
	if (countdown.load(std::memory_order_relaxed) <= 0)
		return 0;
	return countdown.fetch_sub(1) == 1 ? fault_code.load() : 0;
}

}  // namespace kel::fault

#include "fault.h"

#include <unistd.h>

#include <atomic>

namespace kel::fault {
namespace {

std::atomic<int> countdown{0};
std::atomic<int> fault_code{0};
std::atomic<bool> die{false};

}  // namespace

void fail_nth_statement(int nth, int code)
{
	die.store(false);
	fault_code.store(code);
	countdown.store(nth);
}

void die_at_nth_statement(int nth, int status)
{
	die.store(true);
	fault_code.store(status);
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
	if (countdown.fetch_sub(1) != 1)
		return 0;
	if (die.load())
		_exit(fault_code.load());
	return fault_code.load();
}

}  // namespace kel::fault

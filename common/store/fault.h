// Fault injection for tests: make the Nth statement prepared from now on fail with a
// chosen code, to prove that every error path rolls back and gives back what it drew.
// Disarmed it costs one atomic load per statement; nothing in the library arms it.
#pragma once

namespace kel::fault {

// The `nth` (1-based) statement prepared after this call fails with `code`.
void fail_nth_statement(int nth, int code);
// The process ends at once, with `status` and without any cleanup, just before it
// prepares the `nth` statement from now on: a crash (kill -9, power loss) between any
// two statements of an operation.
void die_at_nth_statement(int nth, int status);
// Disarms any pending failure.
void disarm();
// Whether a failure is still pending (fewer statements ran than it waits for).
bool armed();
// Called by the statement layer before each prepare: the code to fail with, or 0.
int next_statement_fault();

}  // namespace kel::fault

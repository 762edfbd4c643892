// Fault injection and allocation counting for the test hooks.
#include "faultinject.h"
#include "nuvcsock_test.h"

namespace nuvcsock {
namespace {

long attempts;
long fail_at;         // attempt number that fails, 0 for none
bool fail_onwards;    // whether every attempt from fail_at on fails

}  // namespace

bool allocation_must_fail() {
  ++attempts;
  if (fail_at == 0) return false;
  if (fail_onwards) return attempts >= fail_at;
  if (attempts != fail_at) return false;
  fail_at = 0;
  return true;
}

}  // namespace nuvcsock

extern "C" {

long nuvcsock_allocations(void) { return nuvcsock::attempts; }

void nuvcsock_fail_nth_allocation(long n) {
  nuvcsock::fail_onwards = false;
  nuvcsock::fail_at = n > 0 ? nuvcsock::attempts + n : 0;
}

void nuvcsock_fail_from_allocation(long n) {
  nuvcsock::fail_onwards = n > 0;
  nuvcsock::fail_at = n > 0 ? nuvcsock::attempts + n : 0;
}

}

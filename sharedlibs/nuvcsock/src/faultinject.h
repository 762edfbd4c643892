// Shared fault-injection counter of the platform allocators (private).
#ifndef NUVCSOCK_FAULTINJECT_H
#define NUVCSOCK_FAULTINJECT_H

namespace nuvcsock {

// Counts one allocation attempt; returns true when the test hook says it
// must fail.
bool allocation_must_fail();

}  // namespace nuvcsock

#endif

// What the monitor publishes, read as another program would, compared with what the kernel, the
// interfaces and the registry of heartbeats say themselves.

#ifndef OVARD_TESTS_TARGET_READER_H
#define OVARD_TESTS_TARGET_READER_H

#include <vector>

#include "records/reqcmd.h"

namespace target {

/// Expects every field of the system segment to agree with the machine's own figures, those that
/// grow with what they were before and after a publishing cycle. Takes a cycle.
void expectMachineAgrees();

/// Expects the application segment to hold just these applications, in this order, each field as
/// the request and the processes have it.
void expectApplicationsAgree(const std::vector<reqcmd>& requests);

} // namespace target

#endif // OVARD_TESTS_TARGET_READER_H

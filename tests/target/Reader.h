// What the monitor publishes, read as another program would, compared with what the kernel, the
// interfaces and the registry of heartbeats say themselves.

#ifndef OVARD_TESTS_TARGET_READER_H
#define OVARD_TESTS_TARGET_READER_H

#include <sys/types.h>

#include <vector>

#include "records/reqcmd.h"

namespace target {

/// Expects every field of the system segment, but for the leases, to agree with the machine's own
/// figures. Takes a few cycles, in which there is work and traffic of a known size.
void expectMachineAgrees();

/// Expects the application segment to hold just these applications, in this order, each field as
/// the request and the processes have it, and the header to be that of the monitor of that pid.
void expectApplicationsAgree(const std::vector<reqcmd>& requests, pid_t monitor);

} // namespace target

#endif // OVARD_TESTS_TARGET_READER_H

// The published state of the machine, for people and for scripts.

#ifndef OVARD_CLIENT_OVARDCTL_SYSTEM_VIEW_H
#define OVARD_CLIENT_OVARDCTL_SYSTEM_VIEW_H

#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/Publication.h"
#include "records/segments.h"

namespace ovardctl {

/// Shows the machine. The record counts only where the publication says that it could be read, and
/// may hold anything. A function of its arguments alone.
Report makeSystemReport(const Publication& publication, const system_segment& segment,
                        const ViewStyle& style);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_SYSTEM_VIEW_H

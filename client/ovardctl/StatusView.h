// The published applications, for people and for scripts.

#ifndef OVARD_CLIENT_OVARDCTL_STATUS_VIEW_H
#define OVARD_CLIENT_OVARDCTL_STATUS_VIEW_H

#include <string>

#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/Publication.h"
#include "records/segments.h"

namespace ovardctl {

/// Shows the applications, or only that called `name` where it is not empty. Names are compared as
/// far as they are published, which is 31 characters. The records count only where the publication
/// says that they could be read, and may hold anything. A function of its arguments alone.
Report makeStatusReport(const Publication& publication, const application_segment& segment,
                        const std::string& name, const ViewStyle& style);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_STATUS_VIEW_H

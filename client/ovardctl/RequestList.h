// The requests of a file in a table, or in JSON.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_LIST_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_LIST_H

#include <string>

#include "client/ovardctl/RequestFile.h"

namespace ovardctl {

/// One line for each record under a line of titles, none longer than kLineWidth.
std::string requestTable(const RequestFile& file);

/// One object with all values of all records.
std::string requestJson(const RequestFile& file);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_LIST_H

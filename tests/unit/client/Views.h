// Circumstances and checks for the tests of what ovardctl shows.

#ifndef OVARD_TESTS_UNIT_CLIENT_VIEWS_H
#define OVARD_TESTS_UNIT_CLIENT_VIEWS_H

#include <string>

#include "client/ovardctl/Publication.h"

namespace client_test {

inline constexpr ovardctl::ViewStyle kPlain{false, false, false};
inline constexpr ovardctl::ViewStyle kColoured{false, false, true};
inline constexpr ovardctl::ViewStyle kJson{true, false, false};
inline constexpr ovardctl::ViewStyle kJsonLine{true, true, false};

/// A segment that was read whole, 1.5 seconds after it was written, while a monitor runs.
ovardctl::Publication runningPublication();

/// The same, without a monitor, after 306 seconds.
ovardctl::Publication stalePublication();

/// A segment that could not be read.
ovardctl::Publication lackingPublication(ovard_client::MonitorState monitor,
                                         ovard_client::SegmentResult result,
                                         std::int32_t systemError = 0);

/// No line is longer than 80 columns and nothing but line feeds and printable ASCII is in it.
void expectFitsATerminal(const std::string& text);

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_VIEWS_H

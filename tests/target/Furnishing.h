// The folders, devices and interfaces of a sandbox on the test machine.

#ifndef OVARD_TESTS_TARGET_FURNISHING_H
#define OVARD_TESTS_TARGET_FURNISHING_H

#include <string>
#include <vector>

namespace target {

/// What a sandbox is to have beside the usual.
struct Furniture {
    std::string keptFolder;           ///< where private folders are kept; empty: in memory
    std::vector<std::string> brought; ///< absolute paths that stay visible
};

/// Furnishes new mount and network namespaces as scripts/sandbox does. Throws std::system_error;
/// the namespaces are good for nothing then.
void furnishSandbox(const Furniture& furniture);

} // namespace target

#endif // OVARD_TESTS_TARGET_FURNISHING_H

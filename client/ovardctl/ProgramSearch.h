// Programs that requests name, looked for in this file system or in the image of another one.

#ifndef OVARD_CLIENT_OVARDCTL_PROGRAM_SEARCH_H
#define OVARD_CLIENT_OVARDCTL_PROGRAM_SEARCH_H

#include <string>

namespace ovardctl {

enum class ProgramState {
    Executable,    ///< a plain file that somebody may execute
    NotExecutable, ///< a plain file that nobody may execute
    NotPlain,      ///< something else, such as a directory
    Missing,
    Unknown, ///< out of reach: no rights, too many symbolic links
};

/// What lies at the absolute path `program` below the directory `root`, which is empty for this
/// file system itself. Symbolic links are followed as if `root` were the root directory.
ProgramState examineProgram(const std::string& root, const std::string& program);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_PROGRAM_SEARCH_H

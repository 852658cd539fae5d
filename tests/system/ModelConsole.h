// What a monitor at verbosity 6 shows of its registry, of the requests that it executes and of its
// launches.

#ifndef OVARD_TESTS_SYSTEM_MODEL_CONSOLE_H
#define OVARD_TESTS_SYSTEM_MODEL_CONSOLE_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace systemtest {

/// The console of one monitor, read as it grows.
class ModelConsole {
public:
    ModelConsole() = default;

    /// Reads from the beginning of the file.
    explicit ModelConsole(std::string path)
        : path_(std::move(path)) {}

    /// Takes in what has come since.
    void update();

    const std::string& path() const { return path_; }

    /// Publishing cycles that have begun. The pass before each has shown the registry.
    std::size_t cycles() const { return cycles_; }

    /// The registry at the last pass: of each entry the lines behind "App Info:" but for those that
    /// time alone changes.
    const std::vector<std::string>& registry() const { return registry_; }

    /// Results of the requests that were executed, in their order.
    const std::vector<int>& results() const { return results_; }

    /// How often an application was launched.
    int launches() const { return launches_; }

private:
    void take(const std::string& line);

    std::string path_;
    std::size_t read_ = 0;
    std::string partOfLine_;
    std::vector<std::string> shown_; ///< since the last cycle began
    std::size_t cycles_ = 0;
    std::vector<std::string> registry_;
    std::vector<int> results_;
    int launches_ = 0;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_CONSOLE_H

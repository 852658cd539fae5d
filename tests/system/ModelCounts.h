// How often what has come about in the model-based test.

#ifndef OVARD_TESTS_SYSTEM_MODEL_COUNTS_H
#define OVARD_TESTS_SYSTEM_MODEL_COUNTS_H

#include <cstdint>
#include <map>
#include <string>

namespace systemtest {

/// Things by their names, and how many of each there were.
class ModelCounts {
public:
    void add(const std::string& name, std::uint64_t number = 1) { counts_[name] += number; }

    /// Adds what the text of others says.
    void addText(const std::string& text);

    /// "571 requests, 206 crashes".
    std::string text() const;

    /// 0 for what never was.
    std::uint64_t of(const std::string& name) const;

private:
    std::map<std::string, std::uint64_t> counts_;
};

/// What is counted beside the steps by the names of their kinds.
inline constexpr const char* kReplies = "replies";
inline constexpr const char* kClocks = "clocks to be set";
inline constexpr const char* kPairsWithPriorities = "pairs with priorities";

/// Of so many steps, a thousand or more, each kind must have its share, or their comparison says
/// less than it seems to.
void expectAllKinds(const ModelCounts& counts, std::uint64_t steps);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_COUNTS_H

// Options and positional arguments of the tool's commands, laid over the argument parser. What is
// wrong with a value leaves the parser as CLI::ValidationError, which names the option. All
// references have to outlive the parsing.

#ifndef OVARD_CLIENT_OVARDCTL_OPTIONS_H
#define OVARD_CLIENT_OVARDCTL_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "client/ovardctl/RequestValues.h"
#include "records/reqcmd.h"

namespace ovardctl {

/// Takes the text of an option; returns what is wrong with it, empty when it was taken.
using TextReader = std::function<std::string(const std::string&)>;

CLI::Option* addText(CLI::App& app, const std::string& name, const std::string& help,
                     const TextReader& read);

/// A decimal number from `low` to `high`.
CLI::Option* addNumber(CLI::App& app, const std::string& name, std::int32_t& number,
                       std::int32_t low, std::int32_t high, const std::string& help);

/// An option without a value: `set` is called when it is given.
CLI::Option* addSwitch(CLI::App& app, const std::string& name, const std::function<void()>& set,
                       const std::string& help);

/// What is said of an empty NAME.
inline constexpr const char* kEmptyName = "it is empty; give the name of an application";

/// The positional NAME of an application, which is not empty, into a request.
CLI::Option* addName(CLI::App& app, reqcmd& request, const std::string& help);

/// A text for a field of a request.
template <std::size_t Size>
CLI::Option* addField(CLI::App& app, const std::string& name, char (&field)[Size],
                      const std::string& help) {
    return addText(app, name, help,
                   [&field](const std::string& text) { return readField(text, field); });
}

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_OPTIONS_H

#include "client/ovardctl/Options.h"

namespace ovardctl {

CLI::Option* addText(CLI::App& app, const std::string& name, const std::string& help,
                     const TextReader& read) {
    const auto store = [name, read](const std::string& text) {
        const std::string problem = read(text);
        if (!problem.empty()) {
            throw CLI::ValidationError(name, problem);
        }
    };
    return app.add_option_function<std::string>(name, store, help);
}

CLI::Option* addNumber(CLI::App& app, const std::string& name, std::int32_t& number,
                       std::int32_t low, std::int32_t high, const std::string& help) {
    return addText(app, name, help,
                   [&number, low, high](const std::string& text) {
                       return readNumber(text, low, high, number);
                   })
        ->type_name("N");
}

CLI::Option* addSwitch(CLI::App& app, const std::string& name, const std::function<void()>& set,
                       const std::string& help) {
    return app.add_flag_callback(name, set, help)->disable_flag_override();
}

CLI::Option* addName(CLI::App& app, reqcmd& request, const std::string& help) {
    return addText(app, "NAME", help, [&request](const std::string& text) {
        return text.empty() ? std::string(kEmptyName) : readField(text, request.name);
    });
}

} // namespace ovardctl

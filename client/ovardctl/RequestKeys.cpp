#include "client/ovardctl/RequestKeys.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <utility>

#include "client/ovardctl/RequestValues.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

/// Words of the actions, indexed by `AppmonAction`. The reserved ones have none.
constexpr std::array<const char*, 9> kActionWords = {
    "start",
    "stop",
    "stop-all",
    "stop-all-but-security",
    "stop-port-apps",
    "restart",
    "restart-all",
    "restart-self-restarting",
    "restart-port-apps",
};

template <auto Field> std::string readText(std::string_view value, reqcmd& record) {
    if (value.find('\0') != std::string_view::npos) {
        return "a NUL ends the text; only the raw key takes bytes behind it";
    }
    return readField(value, record.*Field);
}

template <auto Field> std::string writeText(const reqcmd& record) {
    return std::string(platform::fieldText(record.*Field));
}

std::string readCommand(std::string_view value, reqcmd& record) {
    if (programOf(value).empty()) {
        return "there is no program in it; give its absolute path";
    }
    return readText<&reqcmd::cmd>(value, record);
}

template <auto Field> std::string readBytes(std::string_view value, reqcmd& record) {
    auto& field = record.*Field;
    if (value.size() > sizeof field) {
        return std::to_string(value.size()) + " bytes are too many for the field, at most " +
               std::to_string(sizeof field) + " fit";
    }
    std::memset(field, 0, sizeof field);
    std::memcpy(field, value.data(), value.size());
    return {};
}

/// All of the field but the zeros at its end.
template <auto Field> std::string writeBytes(const reqcmd& record) {
    const std::string_view bytes(record.*Field, sizeof(record.*Field));
    return std::string(bytes.substr(0, bytes.find_last_not_of('\0') + 1));
}

template <auto Field, std::int32_t Low, std::int32_t High>
std::string readInteger(std::string_view value, reqcmd& record) {
    std::int32_t number = 0;
    std::string problem = readNumber(value, Low, High, number);
    if (problem.empty()) {
        record.*Field = static_cast<std::decay_t<decltype(record.*Field)>>(number);
    }
    return problem;
}

template <auto Field> std::string writeInteger(const reqcmd& record) {
    return std::to_string(record.*Field);
}

template <auto Field> std::string readChoice(std::string_view value, reqcmd& record) {
    if (value != "yes" && value != "no") {
        return "\"" + std::string(value) + "\" is neither yes nor no";
    }
    record.*Field = value == "yes" ? 1 : 0;
    return {};
}

template <auto Field> std::string writeChoice(const reqcmd& record) {
    return record.*Field == 0 ? "no" : "yes";
}

std::string readAction(std::string_view value, reqcmd& record) {
    std::string words;
    for (std::size_t action = 0; action < kActionWords.size(); ++action) {
        if (value == kActionWords[action]) {
            record.action = static_cast<std::int32_t>(action);
            return {};
        }
        words += std::string(words.empty() ? "" : ", ") + kActionWords[action];
    }
    return "\"" + std::string(value) + "\" is none of " + words;
}

std::string writeAction(const reqcmd& record) {
    return actionText(record.action);
}

template <auto Field> constexpr std::size_t sizeOfField() {
    return sizeof(std::declval<reqcmd>().*Field);
}

template <auto Field> constexpr Key textKey(const char* name, std::size_t offset) {
    return {name, offset, sizeOfField<Field>(), readText<Field>, writeText<Field>};
}

template <auto Field> constexpr Key bytesKey(const char* name, std::size_t offset) {
    return {name, offset, sizeOfField<Field>(), readBytes<Field>, writeBytes<Field>};
}

template <auto Field> constexpr Key choiceKey(const char* name, std::size_t offset) {
    return {name, offset, sizeOfField<Field>(), readChoice<Field>, writeChoice<Field>};
}

template <auto Field, std::int32_t Low = kMinInt, std::int32_t High = kMaxInt>
constexpr Key integerKey(const char* name, std::size_t offset) {
    return {name, offset, sizeOfField<Field>(), readInteger<Field, Low, High>, writeInteger<Field>};
}

template <auto Field> constexpr Key byteKey(const char* name, std::size_t offset) {
    return integerKey<Field, 0, std::numeric_limits<std::uint8_t>::max()>(name, offset);
}

constexpr Key kNameKey = textKey<&reqcmd::name>("name", offsetof(reqcmd, name));

constexpr std::array<Key, 12> kPlainKeys = {{
    {"action", offsetof(reqcmd, action), sizeof(reqcmd::action), readAction, writeAction},
    {"cmd", offsetof(reqcmd, cmd), sizeof(reqcmd::cmd), readCommand, writeText<&reqcmd::cmd>},
    textKey<&reqcmd::version>("version", offsetof(reqcmd, version)),
    textKey<&reqcmd::pidfile>("pidfile", offsetof(reqcmd, pidfile)),
    {"port", offsetof(reqcmd, porttype), sizeof(reqcmd::porttype) + sizeof(reqcmd::portnum),
     readPort, portText},
    integerKey<&reqcmd::priority, kMinPriority, kMaxPriority>("priority",
                                                              offsetof(reqcmd, priority)),
    integerKey<&reqcmd::delay, 0>("delay", offsetof(reqcmd, delay)),
    choiceKey<&reqcmd::keepalive>("keepalive", offsetof(reqcmd, keepalive)),
    choiceKey<&reqcmd::heartbeat>("heartbeat", offsetof(reqcmd, heartbeat)),
    {"restart", offsetof(reqcmd, restart_type), sizeof(reqcmd::restart_type), readRestartType,
     policyText},
    integerKey<&reqcmd::last_runtime_life_limit, 0>("life-limit",
                                                    offsetof(reqcmd, last_runtime_life_limit)),
    choiceKey<&reqcmd::nowait>("no-wait", offsetof(reqcmd, nowait)),
}};

constexpr std::array<Key, 15> kRawKeys = {{
    bytesKey<&reqcmd::name>("raw.name", offsetof(reqcmd, name)),
    integerKey<&reqcmd::action>("raw.action", offsetof(reqcmd, action)),
    bytesKey<&reqcmd::cmd>("raw.cmd", offsetof(reqcmd, cmd)),
    bytesKey<&reqcmd::version>("raw.version", offsetof(reqcmd, version)),
    bytesKey<&reqcmd::pidfile>("raw.pidfile", offsetof(reqcmd, pidfile)),
    integerKey<&reqcmd::porttype>("raw.porttype", offsetof(reqcmd, porttype)),
    integerKey<&reqcmd::portnum>("raw.portnum", offsetof(reqcmd, portnum)),
    integerKey<&reqcmd::priority>("raw.priority", offsetof(reqcmd, priority)),
    integerKey<&reqcmd::delay>("raw.delay", offsetof(reqcmd, delay)),
    byteKey<&reqcmd::keepalive>("raw.keepalive", offsetof(reqcmd, keepalive)),
    byteKey<&reqcmd::heartbeat>("raw.heartbeat", offsetof(reqcmd, heartbeat)),
    integerKey<&reqcmd::restart_type>("raw.restart", offsetof(reqcmd, restart_type)),
    integerKey<&reqcmd::last_runtime_life_limit>("raw.life-limit",
                                                 offsetof(reqcmd, last_runtime_life_limit)),
    byteKey<&reqcmd::nowait>("raw.no-wait", offsetof(reqcmd, nowait)),
    byteKey<&reqcmd::reserved>("raw.reserved", offsetof(reqcmd, reserved)),
}};

} // namespace

const Key& nameKey() {
    return kNameKey;
}

Keys plainKeys() {
    return {kPlainKeys.data(), kPlainKeys.size()};
}

Keys rawKeys() {
    return {kRawKeys.data(), kRawKeys.size()};
}

const Key* findKey(std::string_view name) {
    for (const Keys keys : {plainKeys(), rawKeys()}) {
        const Key* const found = std::find_if(keys.begin(), keys.end(),
                                              [name](const Key& key) { return key.name == name; });
        if (found != keys.end()) {
            return found;
        }
    }
    return nullptr;
}

bool doOverlap(const Key& left, const Key& right) {
    return left.offset < right.offset + right.size && right.offset < left.offset + left.size;
}

bool areSame(const Key& key, const reqcmd& left, const reqcmd& right) {
    return std::memcmp(reinterpret_cast<const char*>(&left) + key.offset,
                       reinterpret_cast<const char*>(&right) + key.offset, key.size) == 0;
}

std::string actionText(std::int32_t action) {
    const auto index = static_cast<std::size_t>(action);
    return action >= 0 && index < kActionWords.size() ? kActionWords[index]
                                                      : std::to_string(action);
}

std::string portText(const reqcmd& record) {
    const std::string number = std::to_string(record.portnum);
    switch (record.porttype) {
    case PORT_TYPE_NONE:
        return "none";
    case PORT_TYPE_COM:
        return "com:" + number;
    case PORT_TYPE_ETH:
        return "eth:" + number;
    default:
        return std::to_string(record.porttype) + ':' + number;
    }
}

std::string policyText(const reqcmd& record) {
    switch (record.restart_type) {
    case RESTART_TYPE_SELF:
        return "self";
    case RESTART_TYPE_ALL:
        return "all";
    default:
        return std::to_string(record.restart_type);
    }
}

bool needsName(std::int32_t action) {
    return action == APPMONCTL_Start || action == APPMONCTL_Stop || action == APPMONCTL_Restart;
}

} // namespace ovardctl

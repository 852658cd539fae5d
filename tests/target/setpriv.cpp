// Runs a command as another user or with other capabilities: what the system tests need of the tool
// of that name, which the test machine's busybox does not have.
//
//   setpriv [--reuid=ID] [--regid=ID] [--clear-groups] [--bounding-set=CAPS] [--inh-caps=CAPS]
//           [--ambient-caps=CAPS] COMMAND [ARGUMENT]...
//
// CAPS is one of "-sys_boot", "+sys_boot" and the like, or several separated by commas.

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr int kNotExecutable = 127;

struct Change {
    int capability;
    bool add;
};

struct Options {
    long user = -1;  ///< -1: as it is
    long group = -1; ///< likewise
    bool clearGroups = false;
    std::vector<Change> bounding;
    std::vector<Change> inheritable;
    std::vector<Change> ambient;
    char** command = nullptr;
};

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// Those that the tests name.
int capabilityOf(const std::string& name) {
    constexpr std::pair<const char*, int> kNames[] = {{"chown", CAP_CHOWN},
                                                      {"dac_override", CAP_DAC_OVERRIDE},
                                                      {"kill", CAP_KILL},
                                                      {"setgid", CAP_SETGID},
                                                      {"setuid", CAP_SETUID},
                                                      {"sys_admin", CAP_SYS_ADMIN},
                                                      {"sys_boot", CAP_SYS_BOOT},
                                                      {"sys_nice", CAP_SYS_NICE},
                                                      {"sys_ptrace", CAP_SYS_PTRACE},
                                                      {"sys_resource", CAP_SYS_RESOURCE}};
    for (const auto& [known, number] : kNames) {
        if (name == known) {
            return number;
        }
    }
    throw std::invalid_argument("unknown capability " + name);
}

std::vector<Change> parseChanges(const std::string& text) {
    std::vector<Change> changes;
    std::istringstream stream(text);
    for (std::string one; std::getline(stream, one, ',');) {
        if (one.empty() || (one[0] != '+' && one[0] != '-')) {
            throw std::invalid_argument("not a change of capabilities: " + one);
        }
        changes.push_back({capabilityOf(one.substr(1)), one[0] == '+'});
    }
    return changes;
}

void parseOption(const std::string& word, Options& options) {
    const std::size_t sign = word.find('=');
    const std::string name = word.substr(0, sign);
    const std::string value = sign == std::string::npos ? "" : word.substr(sign + 1);
    if (name == "--reuid") {
        options.user = std::stol(value);
    } else if (name == "--regid") {
        options.group = std::stol(value);
    } else if (name == "--clear-groups") {
        options.clearGroups = true;
    } else if (name == "--bounding-set") {
        options.bounding = parseChanges(value);
    } else if (name == "--inh-caps") {
        options.inheritable = parseChanges(value);
    } else if (name == "--ambient-caps") {
        options.ambient = parseChanges(value);
    } else {
        throw std::invalid_argument("unknown option " + word);
    }
}

Options parseOptions(char** argv) {
    Options options;
    char** word = argv + 1;
    for (; *word != nullptr && std::strncmp(*word, "--", 2) == 0; ++word) {
        parseOption(*word, options);
    }
    if (*word == nullptr) {
        throw std::invalid_argument("no command given");
    }
    options.command = word;
    return options;
}

/// The capability sets of this process, as the kernel takes them.
class CapabilitySets {
public:
    CapabilitySets() { require(::syscall(SYS_capget, &header_, data_.data()) == 0, "capget"); }

    void setInheritable(const Change& change) {
        const auto number = static_cast<unsigned>(change.capability);
        std::uint32_t& word = data_[number / 32].inheritable;
        const std::uint32_t bit = std::uint32_t{1} << number % 32;
        word = change.add ? word | bit : word & ~bit;
    }

    /// What may be inherited is permitted again: the change of the user may have taken it away.
    void store() { require(::syscall(SYS_capset, &header_, data_.data()) == 0, "capset"); }

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data_{};
};

void changeUser(const Options& options) {
    // Kept over the change of the user, so that they can become ambient ones.
    require(::prctl(PR_SET_KEEPCAPS, options.ambient.empty() ? 0 : 1) == 0, "keep capabilities");
    require(!options.clearGroups || ::setgroups(0, nullptr) == 0, "setgroups");
    const auto group = static_cast<gid_t>(options.group);
    const auto user = static_cast<uid_t>(options.user);
    require(options.group == -1 || ::setresgid(group, group, group) == 0, "setresgid");
    require(options.user == -1 || ::setresuid(user, user, user) == 0, "setresuid");
}

void changeCapabilities(const Options& options) {
    CapabilitySets sets;
    for (const Change& change : options.inheritable) {
        sets.setInheritable(change);
    }
    sets.store();
    for (const Change& change : options.ambient) {
        const int what = change.add ? PR_CAP_AMBIENT_RAISE : PR_CAP_AMBIENT_LOWER;
        require(::prctl(PR_CAP_AMBIENT, what, change.capability, 0, 0) == 0, "ambient");
    }
}

void runCommand(const Options& options) {
    for (const Change& change : options.bounding) {
        require(change.add || ::prctl(PR_CAPBSET_DROP, change.capability) == 0, "bounding set");
    }
    changeUser(options);
    changeCapabilities(options);
    ::execvp(options.command[0], options.command);
    require(false, options.command[0]);
}

} // namespace

int main(int /*argc*/, char** argv) {
    try {
        runCommand(parseOptions(argv));
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "setpriv: %s\n", error.what());
    }
    return kNotExecutable;
}

#include "tests/unit/client/RequestRecords.h"

#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "platform/Text.h"

namespace client_test {

using platform::copyToField;

reqcmd requestOf(std::int32_t action, const std::string& name, const std::string& cmd,
                 const std::string& pidfile) {
    reqcmd record{};
    record.action = action;
    copyToField(record.name, name);
    copyToField(record.cmd, cmd);
    copyToField(record.pidfile, pidfile);
    return record;
}

reqcmd startOf(const std::string& name) {
    const std::string program = "/home/kelvo/root/" + name;
    return requestOf(APPMONCTL_Start, name, program + " -a b", "/tmp/pid" + program + ".pid");
}

std::string imageOf(const std::vector<reqcmd>& records) {
    return {reinterpret_cast<const char*>(records.data()), records.size() * sizeof(reqcmd)};
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeContent(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    EXPECT_EQ(contentOf(path), content);
}

} // namespace client_test

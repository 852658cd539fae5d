// A request file of the test's own.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_REQUEST_FILE_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_REQUEST_FILE_FIXTURE_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iterator>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace requestfiles {

// What nearly all of these tests name.
using fakes::world;
using requests::makeRequest;
using testing::IsEmpty;

inline constexpr const char* kMissing = "/nonexistent/folder/requests";

/// A folder of the test's own, with one request file in it.
class RequestFileTest : public testing::Test {
protected:
    RequestFileTest() {
        char folder[] = "/tmp/ovard_request_files.XXXXXX";
        folder_ = ::mkdtemp(folder);
        path_ = folder_ + "/requests";
        world().textFiles["/proc/stat"] = ""; // else the manager's making would be traced
    }

    ~RequestFileTest() override {
        std::remove(path_.c_str());
        ::rmdir(folder_.c_str());
    }

    int append(const reqcmd& request) {
        return manager().appendAppConfigurationFile(path_.c_str(), 0, request);
    }

    void writeFile(const std::string& content) {
        std::ofstream(path_, std::ios::binary) << content;
    }

    std::string fileContent() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    static std::string imageOf(const reqcmd& request) {
        return {reinterpret_cast<const char*>(&request), sizeof request};
    }

    static AppManager& manager() { return *AppManager::Instance(verbose); }

    std::string folder_;
    std::string path_;
    std::deque<reqcmd> queue_;
};

} // namespace requestfiles

#endif // OVARD_TESTS_UNIT_APPMANAGER_REQUEST_FILE_FIXTURE_H

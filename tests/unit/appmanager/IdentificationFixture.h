// A manager and the record of a launched application, for the tests of its identification.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_IDENTIFICATION_FIXTURE_H
#define OVARD_TESTS_UNIT_APPMANAGER_IDENTIFICATION_FIXTURE_H

#include <cstring>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/DataServer.h"

namespace launches {

/// The lines of `text` that begin with `prefix`, or all the others.
inline std::string linesThat(bool begin, const std::string& prefix, const std::string& text) {
    std::istringstream lines(text);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if ((line.rfind(prefix, 0) == 0) == begin) {
            kept += lines.eof() ? line : line + '\n';
        }
    }
    return kept;
}

class IdentificationTest : public testing::Test {
protected:
    IdentificationTest() {
        platform::copyToField(app_.name, "data_server");
        platform::copyToField(app_.cmd, kServer);
        platform::copyToField(app_.pidfile, "/tmp/old.pid");
        app_.pid = kLaunched;
        app_.start_time = 22;
        app_.status = APP_STATUS_STARTING0;
        before_ = app_;
    }

    void useCommand(const std::string& command) {
        platform::copyToField(app_.cmd, command);
        before_ = app_;
    }

    void expectRecordUnchanged() const { EXPECT_EQ(std::memcmp(&app_, &before_, sizeof app_), 0); }

    FixtureManager manager_;
    appinfo app_ = {};
    appinfo before_ = {};
};

/// Searches for the application's daemon.
class SearchTest : public IdentificationTest {
protected:
    int find(bool argv0Only = false) {
        statstruct_proc info = {};
        info.pid = kLaunched;
        char** argv = nullptr;
        const int argc = manager_.commandline_parser(app_.cmd, argv);
        const int result = manager_.findDaemon(app_, &info, argc, argv, argv0Only);
        manager_.commandline_parser_cleanup(argc, argv);
        return result;
    }

    /// What a search at `verbosity` prints, without the traces of the command's words.
    std::string tracesAt(int verbosity, bool argv0Only = false) {
        app_ = before_;
        world().console.clear();
        verbose = verbosity;
        (void)find(argv0Only);
        return linesThat(false, "commandline_parser: ", world().consoleText());
    }
};

} // namespace launches

#endif // OVARD_TESTS_UNIT_APPMANAGER_IDENTIFICATION_FIXTURE_H

// Views of the registry for people: a JSON status file, console dumps, one-line summaries.

#include <fcntl.h>

#include <cstdio>
#include <mutex>
#include <string>

#include "appmanager/AppManager.h"
#include "appmanager/DateText.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/UniqueFd.h"
#include "records/codes.h"

namespace {

/// Size of the buffers that the one-line summaries fill, in bytes.
constexpr std::size_t kSummarySize = 1024;

constexpr mode_t kJsonFileMode = 0644;

constexpr const char* kJsonHead = "{\n"
                                  "\"version\":\"0.01.00\",\n"
                                  "\"apps\":{\n"
                                  "\t\"name\":\"Meter Applications:\",\n"
                                  "  \t\"width\":800,\n"
                                  "\t\"header\":[\"ID\",\"Name\",\"Process ID\",\"Status\","
                                  "\"Up Time\",\"Start Time (UTC)\"],\n"
                                  "\t\"rows\":[\n";
constexpr const char* kJsonTail = "\t\t]\n"
                                  "\t}\n"
                                  "}\n";

/// Word of the JSON file for a status; null for those that have none.
const char* jsonStatusWord(std::int32_t status) {
    switch (status) {
    case APP_STATUS_STARTING0:
    case APP_STATUS_STARTING:
        return "starting";
    case APP_STATUS_RUNNING0:
        return "started";
    case APP_STATUS_RUNNING:
        return "running";
    case APP_STATUS_STOPPED:
        return "stopped";
    default:
        return nullptr;
    }
}

/// The rows of the JSON file. Texts are written as they stand: a quote in a name is not escaped.
std::string jsonRows(const std::vector<appinfo>& applications) {
    std::string rows;
    // Deliberate: a status without a word repeats that of the row before.
    std::string word;
    int number = 1;
    for (const appinfo& app : applications) {
        if (const char* own = jsonStatusWord(app.status)) {
            word = own;
        }
        // Deliberate: the first row never shows a start time.
        const DateText start(app.start_time);
        rows += number == 1 ? "" : ",\n";
        rows += platform::formatText(
            kSummarySize, "\t\t [\"%d\",\"%s\",\"%d\",\"%s \",\"%d\",\"%s\"]", number, app.name,
            app.pid, word.c_str(), app.uptime, number == 1 ? "" : start.text);
        ++number;
    }
    return rows;
}

} // namespace

void AppManager::updateJsonFile(const char* path) {
    platform::trace(verbose > 7, "updateJsonFile() jsonfile=%s\n", path);
    // Deliberate: written in place, and not at all when it cannot be opened.
    const platform::UniqueFd file =
        platform::openNamedFile(path, O_WRONLY | O_CREAT | O_TRUNC, kJsonFileMode);
    if (!file.valid()) {
        return;
    }
    std::string text = kJsonHead;
    {
        const std::lock_guard lock(app_lock);
        text += jsonRows(applist);
    }
    text += kJsonTail;
    (void)platform::writeFully(file.get(), text.data(), text.size()); // The next one may succeed.
}

void AppManager::displayAppInfo(const appinfo& app) {
    platform::trace(true,
                    "App Info:\n"
                    "\tname = %s\n"
                    "\tversion = %s\n"
                    "\tcmd = \"%s\"\n"
                    "\tpidfile = \"%s\"\n"
                    "\tpid = %d\n"
                    "\tstatus = %d\n"
                    "\tport_type = %d\n"
                    "\tport_num = %d\n"
                    "\tstart_time = %s\n"
                    "\tuptime = %d\n"
                    "\tpriority = %d\n"
                    "\trestart_type = %d\n"
                    "\tlast_runtime_life_limit = %d\n",
                    app.name, app.version, app.cmd, app.pidfile, app.pid, app.status, app.port_type,
                    app.port_num, DateText(app.start_time).text, app.uptime, app.priority,
                    app.restart_type, app.last_runtime_life_limit);
}

void AppManager::displayAppList(const std::vector<appinfo>& applications) {
    for (const appinfo& app : applications) {
        displayAppInfo(app);
    }
}

void AppManager::writeAppInfo(char* /*buffer*/, const appinfo& app) {
    displayAppInfo(app); // Deliberate: the buffer is left untouched.
}

void AppManager::displayAppItem(const appinfo& app, char* buffer) {
    const DateText since(app.start_time);
    switch (app.port_type) {
    case PORT_TYPE_NONE:
        (void)std::snprintf(buffer, kSummarySize,
                            "name=%s pid = %d status = %d uptime= %d since = %s", app.name, app.pid,
                            app.status, app.uptime, since.text);
        break;
    case PORT_TYPE_COM:
        (void)std::snprintf(
            buffer, kSummarySize,
            "name=%s pid = %d status = %d uptime= %d since = %s using COM port %d\n", app.name,
            app.pid, app.status, app.uptime, since.text, app.port_num);
        break;
    case PORT_TYPE_ETH:
        (void)std::snprintf(buffer, kSummarySize,
                            "name=%s pid = %d status = %d uptime= %d since = %s using IP port %d\n",
                            app.name, app.pid, app.status, app.uptime, since.text, app.port_num);
        break;
    default:
        break; // Deliberate: the buffer is left as it was.
    }
}

int AppManager::displayMonitorInfo(char* buffer) {
    if (buffer == nullptr) {
        return -1;
    }
    (void)std::snprintf(buffer, kSummarySize, "The monitor start @ %s with uptime = %d seconds",
                        DateText(ovard_start_time).text, updateUptime(ovard_start_time));
    return 0;
}

void AppManager::displayAppListHtml() {}

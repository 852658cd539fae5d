// The two calls by which the manager's init reaches other modules, replaced by script.
//
// The linker hands those calls, wherever they are made outside the module itself, to
// ScriptedInit.cpp, which passes them on unless a test has put something in their place.

#ifndef OVARD_TESTS_UNIT_SUPPORT_SCRIPTED_INIT_H
#define OVARD_TESTS_UNIT_SUPPORT_SCRIPTED_INIT_H

#include <functional>
#include <vector>

#include "records/appinfo.h"

namespace faults {

/// Replaces the calls while it lives. One at a time; main thread only.
class ScriptedInit {
public:
    ScriptedInit();
    ~ScriptedInit();
    ScriptedInit(const ScriptedInit&) = delete;
    ScriptedInit& operator=(const ScriptedInit&) = delete;

    /// In place of AppStatusUpdate::initUserShm; empty: the real one.
    std::function<int(std::vector<appinfo>& applist, bool discover)> initUserShm;

    /// In place of AppServer::initCommunication; empty: the real one.
    std::function<int()> initCommunication;
};

} // namespace faults

#endif // OVARD_TESTS_UNIT_SUPPORT_SCRIPTED_INIT_H

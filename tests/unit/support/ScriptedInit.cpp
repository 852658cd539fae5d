#include "tests/unit/support/ScriptedInit.h"

#include "server/AppServer.h"
#include "status/AppStatusUpdate.h"

namespace {

faults::ScriptedInit* active = nullptr;

} // namespace

namespace faults {

ScriptedInit::ScriptedInit() {
    active = this;
}

ScriptedInit::~ScriptedInit() {
    active = nullptr;
}

} // namespace faults

// The names that the linker gives to a call and to its replacement: those of the member functions,
// which take their object first.
extern "C" {

int __real__ZN15AppStatusUpdate11initUserShmERSt6vectorI7appinfoSaIS1_EEb(
    AppStatusUpdate* self, std::vector<appinfo>& applications, bool discover);
int __real__ZN9AppServer17initCommunicationEv(AppServer* self);

int __wrap__ZN15AppStatusUpdate11initUserShmERSt6vectorI7appinfoSaIS1_EEb(
    AppStatusUpdate* self, std::vector<appinfo>& applications, bool discover) {
    if (active != nullptr && active->initUserShm) {
        return active->initUserShm(applications, discover);
    }
    return __real__ZN15AppStatusUpdate11initUserShmERSt6vectorI7appinfoSaIS1_EEb(self, applications,
                                                                                 discover);
}

int __wrap__ZN9AppServer17initCommunicationEv(AppServer* self) {
    if (active != nullptr && active->initCommunication) {
        return active->initCommunication();
    }
    return __real__ZN9AppServer17initCommunicationEv(self);
}

} // extern "C"

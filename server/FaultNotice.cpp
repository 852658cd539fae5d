#include "server/FaultNotice.h"

#include <cstring>

#include "platform/Log.h"
#include "server/AppServer.h"

void FaultNotice::update(AppServer& log, int error) {
    const bool fails = error != 0;
    if (!news_.isDue(fails)) {
        return;
    }
    if (fails) {
        char text[128];
        log.writeLog(kLogError, "%s cannot be written: %s", path_,
                     ::strerror_r(error, text, sizeof text));
    } else {
        log.writeLog(kLogInfo, "%s is written again", path_);
    }
}

// A time as messages and reports show it.

#ifndef OVARD_APPMANAGER_DATE_TEXT_H
#define OVARD_APPMANAGER_DATE_TEXT_H

#include <ctime>

#include "platform/Time.h"

/// Date and time of `time` in UTC.
struct DateText {
    explicit DateText(std::time_t time) { getDateStringFromTimeStruct(text, time); }
    char text[256];
};

#endif // OVARD_APPMANAGER_DATE_TEXT_H

#include "runtime/VersionInformation.h"

#include <cstring>
#include <string>

#include "platform/Console.h"
#include "runtime/BuildStamp.h"

char version_information_resource[kVersionSlotCount][kVersionSlotSize] = {
    "VER_VersionInformation=1.0\n",
    "VER_Company=The ovard maintainers\n",
    "VER_Copyright=Copyright (c) 2026 The ovard maintainers\n",
    "VER_Product=Power Meter, Application Monitor\n",
    "VER_ProductVersion=1.0\n",
    "VER_File=ovard\n",
    "VER_FileDate=" OVARD_BUILD_DATE " " OVARD_BUILD_TIME " (" OVARD_BUILD_KIND ")\n",
    "VER_FileVersion=0005.0001." OVARD_BUILD_STAMP "\n",
    "VER_FileDescription=Application Monitor\n",
};

namespace {

/// A slot's text; a patched slot may fill its whole width.
std::string slotText(VersionSlot slot) {
    const char* const text = version_information_resource[slot];
    return {text, ::strnlen(text, kVersionSlotSize)};
}

} // namespace

char* VI_VALUE_RemoveTerminator(const char* value, char* out) {
    const std::size_t length = ::strnlen(value, kVersionSlotSize);
    std::memcpy(out, value, length);
    out[length > 0 ? length - 1 : 0] = '\0';
    return out;
}

int VI_print_FileVersion_FileDate() {
    platform::printConsoleLine(slotText(kSlotFileVersion) + slotText(kSlotFileDate));
    return 0;
}

void copyVersionValue(VersionSlot slot, char* out, std::size_t size) {
    const std::string text = slotText(slot);
    const std::size_t equals = text.find('=');
    const std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
    char stripped[kVersionSlotSize + 1];
    VI_VALUE_RemoveTerminator(value.c_str(), stripped);
    const std::size_t length = ::strnlen(stripped, size - 1);
    std::memcpy(out, stripped, length);
    out[length] = '\0';
}

#include "platform/Settings.h"

std::int32_t g_verbose = 3;
std::int32_t verbose = 0;
std::int32_t app_pidfile_minimum_start_time = 7;
std::int32_t app_heartbeat_minimum_start_time = 30;
std::int32_t app_heartbeat_expire_interval = 30;
const char* pszExecuteAppConfigurationFile = nullptr;
const char* pszAppendToAppConfigurationFile = nullptr;
const char* g_fileVersion = "";
const char* g_fileDate = "";
std::atomic<std::int32_t> g_bDaemonShutdown{0};
void (*g_releaseResources)(bool full) = nullptr;
void (*g_exitMonitor)(int status) = nullptr;

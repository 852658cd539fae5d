#include "client/ovardctl/RequestList.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;

RequestFile fileOf(const std::vector<reqcmd>& records) {
    return decodeRequests(imageOf(records));
}

reqcmd meter() {
    reqcmd record = startOf("meter");
    std::strcpy(record.version, "1.2");
    record.porttype = PORT_TYPE_ETH;
    record.portnum = 502;
    record.restart_type = RESTART_TYPE_ALL;
    return record;
}

TEST(RequestList, ShowsOneLineForEachRequest) {
    reqcmd odd = requestOf(77, "a\nb");
    odd.porttype = 7;
    odd.portnum = -1;
    odd.restart_type = 5;
    EXPECT_EQ(requestTable(fileOf({meter(), requestOf(APPMONCTL_Stop, "meter"),
                                   requestOf(APPMONCTL_Restart_All, ""), odd})),
              "NO  ACTION       NAME    VERSION  PORT     POLICY  COMMAND\n"
              " 1  start        meter   1.2      eth:502  all     /home/kelvo/root/meter -a b\n"
              " 2  stop         meter   -        -        self    -\n"
              " 3  restart-all  -       -        -        self    -\n"
              " 4  77           a\\x0ab  -        7:-1     5       -\n");
    EXPECT_EQ(requestTable(fileOf({})), "NO  ACTION  NAME  VERSION  PORT  POLICY  COMMAND\n");
}

TEST(RequestList, LinesFitTheTerminal) {
    reqcmd widest;
    std::memset(&widest, 'w', sizeof widest);
    widest.action = APPMONCTL_Restart_All_But;
    widest.porttype = -2147483647;
    widest.portnum = -2147483647;
    widest.restart_type = -2147483647;
    const std::string table = requestTable(fileOf(std::vector<reqcmd>(100, widest)));
    std::size_t begin = 0;
    while (begin < table.size()) {
        const std::size_t end = table.find('\n', begin);
        EXPECT_LE(end - begin, 80u) << table.substr(begin, end - begin);
        begin = end + 1;
    }
    EXPECT_NE(table.find("restar"), std::string::npos);
    EXPECT_NE(table.find('~'), std::string::npos);
}

TEST(RequestList, JsonHasEveryValue) {
    reqcmd record = meter();
    record.priority = -5;
    record.delay = 9;
    record.keepalive = 2;
    record.heartbeat = 1;
    record.last_runtime_life_limit = 600;
    RequestFile file = fileOf({record});
    file.tailSize = 3;
    EXPECT_EQ(requestJson(file), "{\n"
                                 "  \"byte_order\": \"" +
                                     std::string(byteOrderWord(nativeByteOrder())) +
                                     "\",\n"
                                     "  \"count\": 1,\n"
                                     "  \"bytes_left_over\": 3,\n"
                                     "  \"requests\": [\n"
                                     "    {\n"
                                     "      \"number\": 1,\n"
                                     "      \"action\": \"start\",\n"
                                     "      \"action_code\": 0,\n"
                                     "      \"name\": \"meter\",\n"
                                     "      \"version\": \"1.2\",\n"
                                     "      \"command\": \"/home/kelvo/root/meter -a b\",\n"
                                     "      \"pid_file\": \"/tmp/pid/home/kelvo/root/meter.pid\",\n"
                                     "      \"port_type\": 2,\n"
                                     "      \"port_number\": 502,\n"
                                     "      \"priority\": -5,\n"
                                     "      \"delay\": 9,\n"
                                     "      \"keepalive\": true,\n"
                                     "      \"no_wait\": false,\n"
                                     "      \"heartbeat\": true,\n"
                                     "      \"policy\": \"all\",\n"
                                     "      \"life_limit_s\": 600\n"
                                     "    }\n"
                                     "  ]\n"
                                     "}\n");
}

} // namespace

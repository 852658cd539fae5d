#include "client/ovardctl/RequestList.h"

#include <utility>

#include "client/ovardctl/JsonText.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/RequestKeys.h"
#include "client/ovardctl/Table.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

using platform::fieldText;

std::string orDash(std::string text) {
    return text.empty() ? "-" : std::move(text);
}

std::string portCell(const reqcmd& record) {
    return record.porttype == PORT_TYPE_NONE && record.portnum == 0 ? "-" : portText(record);
}

Json recordJson(std::size_t number, const reqcmd& record) {
    Json object;
    object["number"] = number;
    object["action"] = actionText(record.action);
    object["action_code"] = record.action;
    object["name"] = jsonField(record.name);
    object["version"] = jsonField(record.version);
    object["command"] = jsonField(record.cmd);
    object["pid_file"] = jsonField(record.pidfile);
    object["port_type"] = record.porttype;
    object["port_number"] = record.portnum;
    object["priority"] = record.priority;
    object["delay"] = record.delay;
    object["keepalive"] = record.keepalive != 0;
    object["no_wait"] = record.nowait != 0;
    object["heartbeat"] = record.heartbeat != 0;
    object["policy"] = policyText(record);
    object["life_limit_s"] = record.last_runtime_life_limit;
    return object;
}

} // namespace

std::string requestTable(const RequestFile& file) {
    using Alignment = Table::Alignment;
    Table table({{"NO", Alignment::Right},
                 {"ACTION", Alignment::Left, true},
                 {"NAME", Alignment::Left, true},
                 {"VERSION", Alignment::Left, true},
                 {"PORT", Alignment::Left, true},
                 {"POLICY", Alignment::Left},
                 {"COMMAND", Alignment::Left, true}});
    std::size_t number = 0;
    for (const reqcmd& record : file.records) {
        ++number;
        table.add({{std::to_string(number)},
                   {actionText(record.action)},
                   {orDash(printable(fieldText(record.name)))},
                   {orDash(printable(fieldText(record.version)))},
                   {portCell(record)},
                   {policyText(record)},
                   {orDash(printable(fieldText(record.cmd)))}});
    }
    return table.text(false);
}

std::string requestJson(const RequestFile& file) {
    Json object;
    object["byte_order"] = byteOrderWord(file.byteOrder);
    object["count"] = file.records.size();
    object["bytes_left_over"] = file.tailSize;
    object["requests"] = Json::array();
    std::size_t number = 0;
    for (const reqcmd& record : file.records) {
        ++number;
        object["requests"].push_back(recordJson(number, record));
    }
    return jsonText(object, {true, false, false});
}

} // namespace ovardctl

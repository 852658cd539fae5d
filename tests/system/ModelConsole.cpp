#include "tests/system/ModelConsole.h"

#include <fstream>
#include <iterator>
#include <string>

namespace systemtest {
namespace {

bool beginsWith(const std::string& line, const std::string& beginning) {
    return line.compare(0, beginning.size(), beginning) == 0;
}

} // namespace

void ModelConsole::update() {
    std::ifstream file(path_, std::ios::binary);
    (void)file.seekg(static_cast<std::streamoff>(read_)); // nothing is read where it fails
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    read_ += text.size();
    partOfLine_ += text;
    std::size_t begin = 0;
    for (std::size_t end = partOfLine_.find('\n'); end != std::string::npos;
         end = partOfLine_.find('\n', begin)) {
        take(partOfLine_.substr(begin, end - begin));
        begin = end + 1;
    }
    partOfLine_.erase(0, begin);
}

void ModelConsole::take(const std::string& line) {
    const std::string resultSign = "\")=";
    if (line == "App Info:") {
        shown_.emplace_back();
    } else if (beginsWith(line, "sys.kernel.name    = ")) { // the first line of a cycle
        registry_.swap(shown_);
        shown_.clear();
        ++cycles_;
    } else if (beginsWith(line, "process_command_thread: processCmd(")) {
        const std::size_t sign = line.rfind(resultSign);
        if (sign != std::string::npos) { // else it is the line before the execution
            results_.push_back(std::stoi(line.substr(sign + resultSign.size())));
        }
    } else if (beginsWith(line, "start_process ") &&
               line.find(" after start_process_fork2=") != std::string::npos) {
        ++launches_;
    } else if (beginsWith(line, "\t") && !shown_.empty() && !beginsWith(line, "\tstart_time = ") &&
               !beginsWith(line, "\tuptime = ")) {
        shown_.back() += line + "\n";
    }
}

} // namespace systemtest

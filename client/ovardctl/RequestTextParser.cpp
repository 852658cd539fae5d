// The text form, read.

#include <algorithm>
#include <utility>

#include "client/ovardctl/EscapedText.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/RequestKeys.h"
#include "client/ovardctl/RequestText.h"
#include "client/ovardctl/RequestValues.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr const char* kByteOrderKey = "byte-order";

/// Most of an unknown text that a message repeats.
constexpr std::size_t kLongestQuote = 40;

std::string_view trimmed(std::string_view text) {
    constexpr const char* kBlanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string quoted(std::string_view text) {
    return '"' + std::string(text.substr(0, kLongestQuote)) +
           (text.size() > kLongestQuote ? "..." : "") + '"';
}

std::string listOf(const Keys& keys) {
    std::string list;
    for (const Key& key : keys) {
        list += std::string(list.empty() ? "" : ", ") + key.name;
    }
    return list;
}

/// Takes a text line by line.
class Parser {
public:
    explicit Parser(const char* meterRoot)
        : meterRoot_(meterRoot) {}

    RequestText parse(std::string_view text);

private:
    /// A key of the present section.
    struct Given {
        const Key* key;
        std::size_t line;
    };

    void takeLine(std::string_view line);
    void takeHead(std::string_view line);
    void takePair(std::string_view name, std::string_view value);
    void takeByteOrder(std::string_view value);
    void takeKey(const Key& key, std::string_view value);
    void endSection();
    void completeStart(reqcmd& record);
    const Given* givenFor(const Key& key) const;
    bool isGiven(const char* name) const { return givenFor(*findKey(name)) != nullptr; }
    bool isFull() const { return result_.problems.size() >= kMostTextProblems; }
    void complain(std::size_t line, const std::string& text);

    const char* meterRoot_;
    RequestText result_;
    std::size_t line_ = 0;
    std::size_t headLine_ = 0; ///< of the present section; 0 before the first one
    bool isDamaged_ = false;   ///< the present section has a problem
    std::vector<Given> given_; ///< in the present section
};

RequestText Parser::parse(std::string_view text) {
    while (!text.empty() && !isFull()) {
        ++line_;
        const std::size_t end = text.find('\n');
        takeLine(trimmed(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    endSection();
    return std::move(result_);
}

void Parser::takeLine(std::string_view line) {
    if (line.empty() || line.front() == '#' || line.front() == ';') {
        return;
    }
    if (line.front() == '[') {
        takeHead(line);
        return;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        complain(line_, quoted(line) + " is neither [name] nor key = value, nor does it begin "
                                       "with # or ; as a comment");
        return;
    }
    takePair(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
}

void Parser::takeHead(std::string_view line) {
    endSection();
    headLine_ = line_;
    given_.clear();
    isDamaged_ = false;
    if (result_.records.size() == kMostRecords) {
        complain(line_, "there are more than " + std::to_string(kMostRecords) + " sections");
        return;
    }
    reqcmd& record = result_.records.emplace_back(reqcmd{});
    if (line.back() != ']') {
        complain(line_, "the name of the section does not end with ]");
        return;
    }
    std::string name;
    std::string problem = unescape(trimmed(line.substr(1, line.size() - 2)), name);
    if (problem.empty()) {
        problem = nameKey().read(name, record);
    }
    if (!problem.empty()) {
        complain(line_, "the name of the section: " + problem);
    }
}

void Parser::takePair(std::string_view name, std::string_view value) {
    if (name == kByteOrderKey) {
        takeByteOrder(value);
        return;
    }
    const Key* const key = findKey(name);
    if (key == nullptr) {
        complain(line_, "the key " + quoted(name) + " is not known; the keys are " +
                            listOf(plainKeys()) + ", and raw ones for what these do not express");
    } else if (headLine_ == 0) {
        complain(line_, std::string(key->name) + " stands before the first [name]");
    } else {
        takeKey(*key, value);
    }
}

void Parser::takeByteOrder(std::string_view value) {
    if (headLine_ != 0) {
        complain(line_, "byte-order concerns all sections and stands before the first [name]");
        return;
    }
    if (result_.byteOrder.has_value()) {
        complain(line_, "byte-order is given already");
        return;
    }
    const std::string problem = readByteOrder(value, result_.byteOrder.emplace());
    if (!problem.empty()) {
        complain(line_, "byte-order: " + problem);
    }
}

void Parser::takeKey(const Key& key, std::string_view value) {
    const Given* const given = givenFor(key);
    if (given != nullptr) {
        complain(line_, std::string(key.name) + " is given already, by " + given->key->name +
                            " in line " + std::to_string(given->line));
        return;
    }
    given_.push_back({&key, line_});
    std::string bytes;
    std::string problem = unescape(value, bytes);
    if (problem.empty()) {
        problem = key.read(bytes, result_.records.back());
    }
    if (!problem.empty()) {
        complain(line_, std::string(key.name) + ": " + problem);
    }
}

/// What the present section leaves out is filled in, or missed.
void Parser::endSection() {
    if (headLine_ == 0 || isDamaged_ || isFull()) {
        return;
    }
    reqcmd& record = result_.records.back();
    if (needsName(record.action) && nameOf(record).empty() && !isGiven("raw.name")) {
        complain(headLine_, "the name is empty, which " + actionText(record.action) +
                                " needs; give it between the brackets");
    }
    if (record.action == APPMONCTL_Start) {
        completeStart(record);
    }
}

void Parser::completeStart(reqcmd& record) {
    const std::string_view program = programOf(platform::fieldText(record.cmd));
    if (!isGiven("cmd")) {
        complain(headLine_, "there is no cmd, which a start needs; give the absolute path of the "
                            "program and its arguments");
    } else if (!isGiven("pidfile") && !program.empty()) {
        const std::string name = conventionalPidFile(program, meterRoot_);
        const std::string problem = conventionalPidFileProblem(name);
        if (problem.empty()) {
            platform::copyToField(record.pidfile, name);
        } else {
            complain(headLine_, "the conventional name of its pid file, " + name + ',' + problem +
                                    " with pidfile");
        }
    }
}

/// The key of the present section that gives the same bytes; null when there is none.
const Parser::Given* Parser::givenFor(const Key& key) const {
    const auto found = std::find_if(given_.begin(), given_.end(), [&key](const Given& given) {
        return doOverlap(*given.key, key);
    });
    return found == given_.end() ? nullptr : &*found;
}

void Parser::complain(std::size_t line, const std::string& text) {
    isDamaged_ = true;
    if (!isFull()) {
        result_.problems.push_back({line, printable(text)});
    }
}

} // namespace

RequestText parseRequestText(std::string_view text, const char* meterRoot) {
    return Parser(meterRoot).parse(text);
}

} // namespace ovardctl

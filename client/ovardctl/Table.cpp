#include "client/ovardctl/Table.h"

#include <algorithm>
#include <utility>

namespace ovardctl {
namespace {

constexpr std::size_t kGap = 2;

/// The escape sequence that begins a tone; empty for the plain one.
std::string_view sequenceOf(Tone tone) {
    switch (tone) {
    case Tone::Heading:
        return "\x1b[1m";
    case Tone::Good:
        return "\x1b[32m";
    case Tone::Pending:
        return "\x1b[33m";
    case Tone::Bad:
        return "\x1b[31m";
    case Tone::Plain:
        break;
    }
    return {};
}

std::size_t lineWidth(const std::vector<std::size_t>& widths) {
    std::size_t sum = 0;
    for (const std::size_t width : widths) {
        sum += width + kGap;
    }
    return sum - kGap;
}

} // namespace

std::string painted(std::string_view text, Tone tone, bool colour) {
    const std::string_view sequence = sequenceOf(tone);
    if (!colour || sequence.empty() || text.empty()) {
        return std::string(text);
    }
    return std::string(sequence) + std::string(text) + "\x1b[0m";
}

std::string fitted(std::string text, std::size_t width) {
    if (text.size() > width) {
        text.resize(width - 1);
        text += '~';
    }
    return text;
}

std::vector<std::size_t> Table::widths() const {
    std::vector<std::size_t> result;
    for (const Column& column : columns_) {
        result.push_back(column.title.size());
    }
    for (const std::vector<Cell>& row : rows_) {
        for (std::size_t index = 0; index < columns_.size(); ++index) {
            result[index] = std::max(result[index], row[index].text.size());
        }
    }
    while (lineWidth(result) > kLineWidth) {
        std::size_t widest = columns_.size();
        for (std::size_t index = 0; index < columns_.size(); ++index) {
            const bool canGive =
                columns_[index].mayBeCut && result[index] > columns_[index].title.size();
            if (canGive && (widest == columns_.size() || result[index] > result[widest])) {
                widest = index;
            }
        }
        if (widest == columns_.size()) {
            break;
        }
        --result[widest];
    }
    return result;
}

std::string Table::line(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                        bool colour) const {
    std::string result;
    std::size_t blanks = 0;
    for (std::size_t index = 0; index < columns_.size(); ++index) {
        const std::string text = fitted(cells[index].text, widths[index]);
        const std::size_t padding = widths[index] - text.size();
        const bool isRight = columns_[index].alignment == Alignment::Right;
        if (!text.empty()) {
            result.append(blanks + (isRight ? padding : 0), ' ');
            result += painted(text, cells[index].tone, colour);
            blanks = 0;
        }
        blanks += kGap + (text.empty() || !isRight ? padding : 0);
    }
    return result + '\n';
}

std::string Table::text(bool colour) const {
    const std::vector<std::size_t> columnWidths = widths();
    std::vector<Cell> titles;
    for (const Column& column : columns_) {
        titles.push_back({column.title, Tone::Heading});
    }
    std::string result = line(titles, columnWidths, colour);
    for (const std::vector<Cell>& row : rows_) {
        result += line(row, columnWidths, colour);
    }
    return result;
}

} // namespace ovardctl

// Tables for the terminal, and colours in them.

#ifndef OVARD_CLIENT_OVARDCTL_TABLE_H
#define OVARD_CLIENT_OVARDCTL_TABLE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ovardctl {

/// Most columns of a line.
inline constexpr std::size_t kLineWidth = 80;

/// What a colour stands for.
enum class Tone { Plain, Heading, Good, Pending, Bad };

/// `text` in the colour of the tone; as it stands where `colour` is false.
std::string painted(std::string_view text, Tone tone, bool colour);

/// `text` cut to at most `width` characters, at least 1; a cut one ends with '~'.
std::string fitted(std::string text, std::size_t width);

/// Rows under a line of titles, two blanks between columns, no line longer than kLineWidth.
class Table {
public:
    enum class Alignment { Left, Right };

    struct Column {
        std::string title;
        Alignment alignment = Alignment::Left;
        bool mayBeCut = false; ///< gives up width when the table is too wide
    };

    struct Cell {
        std::string text; ///< printable ASCII
        Tone tone = Tone::Plain;
    };

    explicit Table(std::vector<Column> columns)
        : columns_(std::move(columns)) {}

    /// Takes a row with a cell for each column.
    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

    /// The lines of the table, each with a line feed, without blanks at the end of a line. A table
    /// without rows is its titles. Columns that may be cut are narrowed, the widest first and none
    /// below its title, until a line fits; the others must leave room for that.
    std::string text(bool colour) const;

private:
    std::vector<std::size_t> widths() const;
    std::string line(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                     bool colour) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_TABLE_H

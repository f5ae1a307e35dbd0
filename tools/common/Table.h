#pragma once

#include "Screen.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace tools {

struct Cell {
    Cell(std::string text, Colour colour = Colour::none) : text(std::move(text)), colour(colour) {} // NOLINT
    Cell(const char* text) : text(text) {} // NOLINT(google-explicit-constructor)

    std::string text;
    Colour colour = Colour::none;
};

struct Column {
    std::string title;      ///< no line of titles if none has one
    bool isNumber = false;  ///< its end stands below the title's
    bool mayShrink = false; ///< loses its end where the screen is too narrow
};

/// Rows of cells below each other, two blanks between them.
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns(std::move(columns)) {}

    /// `notes` are lines of their own below the row.
    void add(std::vector<Cell> cells, std::vector<std::string> notes = {});
    void print(std::ostream& out, const Screen& screen) const;

private:
    struct Row {
        std::vector<Cell> cells;
        std::vector<std::string> notes;
    };

    [[nodiscard]] std::vector<std::size_t> widths(const Screen& screen) const;
    void shrink(std::vector<std::size_t>& widths, std::size_t most) const;
    void printRow(std::ostream& out, const Screen& screen, const std::vector<Cell>& cells,
                  const std::vector<std::size_t>& widths) const;

    std::vector<Column> columns;
    std::vector<Row> rows;
};

/// Characters of a UTF-8 text.
std::size_t widthOf(const std::string& text);
/// `text` in lines of at most `columns`, broken at blanks; 0 is one line.
std::vector<std::string> wrapped(const std::string& text, std::size_t columns);
/// The text behind so many blanks, in as many lines as it takes.
void printIndented(std::ostream& out, const std::string& text, std::size_t indent, std::size_t columns);

} // namespace tools

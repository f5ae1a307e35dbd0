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
    std::string title;      ///< if all titles are empty, no line of titles is printed
    bool isNumber = false;  ///< aligned to the right
    bool mayShrink = false; ///< is cut if the screen is too narrow
};

/// Rows of cells, in columns with two blanks between them.
/// Owns:    its rows.
/// Threads: one at a time.
/// Fails:   never; a failed write only sets the stream's error state.
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns(std::move(columns)) {}

    /// `notes` are printed as lines of their own below the row.
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

/// The number of characters of a UTF-8 text.
std::size_t widthOf(const std::string& text);
/// Breaks `text` at blanks into lines of at most `columns`; 0 stands for one line.
std::vector<std::string> wrapped(const std::string& text, std::size_t columns);
/// Prints the text indented by `indent` blanks, in as many lines as it takes.
void printIndented(std::ostream& out, const std::string& text, std::size_t indent, std::size_t columns);

} // namespace tools

#include "Table.h"

#include <algorithm>
#include <numeric>
#include <ostream>
#include <sstream>
#include <utility>

namespace tools {

namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t narrowest = 8; // of a column that is cut
constexpr std::size_t noteIndent = 4;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

std::string cut(const std::string& text, std::size_t columns) {
    if (widthOf(text) <= columns) {
        return text;
    }
    std::size_t end = 0;
    for (std::size_t kept = 0; kept + 1 < columns; ++kept) {
        ++end;
        while (end < text.size() && isContinuation(text[end])) {
            ++end;
        }
    }
    return text.substr(0, end) + "…";
}

std::size_t totalOf(const std::vector<std::size_t>& widths) {
    return std::accumulate(widths.begin(), widths.end(), (widths.empty() ? 0 : widths.size() - 1) * gap);
}

std::vector<Cell> titlesOf(const std::vector<Column>& columns) {
    std::vector<Cell> titles;
    titles.reserve(columns.size());
    for (const Column& column : columns) {
        titles.emplace_back(column.title, Colour::bold);
    }
    return titles;
}

} // namespace

std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !isContinuation(byte); }));
}

std::vector<std::string> wrapped(const std::string& text, std::size_t columns) {
    if (columns == 0) {
        return {text};
    }
    std::vector<std::string> lines;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!lines.empty() && widthOf(lines.back()) + 1 + widthOf(word) <= columns) {
            lines.back() += ' ' + word;
        } else {
            lines.push_back(word);
        }
    }
    return lines;
}

void printIndented(std::ostream& out, const std::string& text, std::size_t indent, std::size_t columns) {
    const std::size_t room = columns > 2 * indent ? columns - indent : columns;
    for (const std::string& line : wrapped(text, room)) {
        out << std::string(indent, ' ') << line << '\n';
    }
}

void Table::add(std::vector<Cell> cells, std::vector<std::string> notes) {
    rows.push_back({std::move(cells), std::move(notes)});
}

std::vector<std::size_t> Table::widths(const Screen& screen) const {
    std::vector<std::size_t> found;
    for (std::size_t index = 0; index < columns.size(); ++index) {
        std::size_t width = widthOf(columns[index].title);
        for (const Row& row : rows) {
            width = std::max(width, widthOf(row.cells.at(index).text));
        }
        found.push_back(width);
    }
    if (screen.columns != 0) {
        shrink(found, screen.columns);
    }
    return found;
}

/// Takes one character after the other from the widest column that may shrink.
void Table::shrink(std::vector<std::size_t>& widths, std::size_t most) const {
    while (totalOf(widths) > most) {
        std::size_t* widest = nullptr;
        for (std::size_t index = 0; index < columns.size(); ++index) {
            const bool isCandidate = columns[index].mayShrink && widths[index] > narrowest;
            if (isCandidate && (widest == nullptr || widths[index] > *widest)) {
                widest = &widths[index];
            }
        }
        if (widest == nullptr) {
            return;
        }
        --*widest;
    }
}

void Table::printRow(std::ostream& out, const Screen& screen, const std::vector<Cell>& cells,
                     const std::vector<std::size_t>& widths) const {
    std::string line;
    std::string pending; // blanks that are printed only if something follows
    for (std::size_t index = 0; index < cells.size(); ++index) {
        const std::string text = cut(cells[index].text, widths[index]);
        const std::string blanks(widths[index] - widthOf(text), ' ');
        const std::string painted = screen.paint(cells[index].colour, text);
        if (columns[index].isNumber) {
            line += pending + blanks + painted;
            pending = std::string(gap, ' ');
        } else if (text.empty()) {
            pending += blanks + std::string(gap, ' ');
        } else {
            line += pending + painted;
            pending = blanks + std::string(gap, ' ');
        }
    }
    out << line << '\n';
}

void Table::print(std::ostream& out, const Screen& screen) const {
    const std::vector<std::size_t> chosen = widths(screen);
    if (std::any_of(columns.begin(), columns.end(),
                    [](const Column& column) { return !column.title.empty(); })) {
        printRow(out, screen, titlesOf(columns), chosen);
    }
    for (const Row& row : rows) {
        printRow(out, screen, row.cells, chosen);
        for (const std::string& note : row.notes) {
            printIndented(out, note, noteIndent, screen.columns);
        }
    }
}

} // namespace tools

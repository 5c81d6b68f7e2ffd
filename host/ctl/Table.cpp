#include "Table.h"

#include "Text.h"

#include <algorithm>

namespace {

constexpr const char* Gap = "  ";

bool HasHeading(const Table::Column& column) { return !column.heading.empty(); }

}  // namespace

void Table::Add(std::vector<Cell> cells) {
    cells.resize(_columns.size());
    for (Cell& cell : cells) {
        cell.text = Printable(cell.text);
    }
    _rows.push_back(std::move(cells));
}

std::string Table::Text(const Console& console) const {
    const std::vector<size_t> widths = Widths();
    std::string result;
    const auto addLine = [&](auto&& cellOf) {
        std::string blanks;
        for (size_t i = 0; i < _columns.size(); ++i) {
            const Cell& cell = cellOf(i);
            const std::string padding(widths[i] - DisplayWidth(cell.text), ' ');
            blanks += _columns[i].side == Side::Right ? padding : "";
            if (!cell.text.empty()) {
                result += blanks + console.Styled(cell.text, cell.style);
                blanks.clear();
            }
            blanks += (_columns[i].side == Side::Left ? padding : "") + Gap;
        }
        result += '\n';
    };
    if (std::any_of(_columns.begin(), _columns.end(), HasHeading)) {
        addLine([&](size_t i) { return Cell{_columns[i].heading, Style::Heading}; });
    }
    for (const std::vector<Cell>& row : _rows) {
        addLine([&](size_t i) { return row[i]; });
    }
    return result;
}

std::vector<size_t> Table::Widths() const {
    std::vector<size_t> widths;
    for (size_t i = 0; i < _columns.size(); ++i) {
        size_t width = DisplayWidth(_columns[i].heading);
        for (const std::vector<Cell>& row : _rows) {
            width = std::max(width, DisplayWidth(row[i].text));
        }
        widths.push_back(width);
    }
    return widths;
}

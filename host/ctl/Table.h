#pragma once

#include "Console.h"

#include <string>
#include <vector>

/// Rows of texts under headings, each column as wide as its widest text.
class Table {
public:
    enum class Side { Left, Right };

    struct Column {
        std::string heading;  ///< when all are empty, there is no line of headings
        Side side = Side::Left;
    };

    struct Cell {
        std::string text;  ///< from anywhere: it is made printable
        Style style = Style::Plain;
    };

    explicit Table(std::vector<Column> columns) : _columns(std::move(columns)) {}

    /// @param cells  one for each column
    void Add(std::vector<Cell> cells);

    /// @return the lines; without blanks at their ends
    std::string Text(const Console& console) const;

private:
    std::vector<size_t> Widths() const;

    std::vector<Column> _columns;
    std::vector<std::vector<Cell>> _rows;
};

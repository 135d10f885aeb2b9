#include "TextTable.h"

#include "common/Printable.h"

#include <algorithm>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::size_t GAP = 2;

/** Columns on the terminal, near enough: characters, not octets. */
std::size_t WidthOf(const std::string& text)
{
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char letter) { return (static_cast<unsigned char>(letter) & 0xC0U) != 0x80U; }));
}

} // namespace

TextTable::TextTable(std::vector<std::string> titles)
{
    m_rows.push_back(std::move(titles));
}

void TextTable::Add(std::vector<std::string> cells)
{
    for (std::string& cell : cells)
    {
        cell = Printable(cell);
    }
    m_rows.push_back(std::move(cells));
}

void TextTable::Print(std::ostream& out) const
{
    std::vector<std::size_t> widths(m_rows.front().size());
    for (const std::vector<std::string>& row : m_rows)
    {
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            widths[column] = std::max(widths[column], WidthOf(row[column]));
        }
    }
    for (const std::vector<std::string>& row : m_rows)
    {
        std::string line;
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
        {
            line += row[column] + std::string(widths[column] - WidthOf(row[column]) + GAP, ' ');
        }
        out << line << row.back() << '\n';
    }
}

} // namespace VtxQel

#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace VtxQel
{

/** TextTable prints rows for people: columns as wide as their widest cell, two blanks between them. */
class TextTable
{
  public:
    explicit TextTable(std::vector<std::string> titles);

    /** @param cells as many as there are titles. Control characters are shown escaped. */
    void Add(std::vector<std::string> cells);
    /** Prints titles and rows. */
    void Print(std::ostream& out) const;

  private:
    std::vector<std::vector<std::string>> m_rows;
};

} // namespace VtxQel

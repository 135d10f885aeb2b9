#pragma once

#include <map>
#include <string>

namespace VtxQel
{

/** The target of an HTTP request, taken apart and decoded. */
struct RequestTarget
{
    std::string path;
    /** The query's items by name; of one that is given twice the last counts. */
    std::map<std::string, std::string> query;

    /** @throws AdminException when the text is not a path with an optional query, as RFC 3986 writes it. */
    static RequestTarget Parse(const std::string& text);
};

} // namespace VtxQel

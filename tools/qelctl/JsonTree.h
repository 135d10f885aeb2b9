#pragma once

#include "Positions.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace VtxQel
{

struct JsonMember;

/** One value of a JSON text with the place where it stands. A plain value; at most 64 levels deep. */
struct JsonNode
{
    enum class Kind
    {
        null,
        boolean,
        /** A whole number from 0 to 2^64-1, in `number`. */
        wholeNumber,
        /** Any other number. */
        otherNumber,
        string,
        array,
        object
    };

    Kind kind = Kind::null;
    Position at;
    std::uint64_t number = 0;
    std::string text;
    std::vector<JsonNode> elements;
    /** In the order of the text; a name may be there twice. */
    std::vector<JsonMember> members;
    /** Where the names of `members` stand. */
    std::vector<Position> names;
};

/** A name of an object and its value. */
struct JsonMember
{
    std::string name;
    JsonNode value;
};

/** The text is not JSON; what() says why, `at` where. */
class JsonSyntaxError : public std::runtime_error
{
  public:
    JsonSyntaxError(Position position, const std::string& text) : std::runtime_error(text), at(position) {}

    const Position at;
};

/** Reads a JSON text. @throws JsonSyntaxError */
JsonNode ParseJson(const std::string& text);

} // namespace VtxQel

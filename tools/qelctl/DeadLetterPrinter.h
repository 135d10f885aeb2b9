#pragma once

#include "DeadLetterSession.h"

#include <ostream>
#include <string>
#include <vector>

namespace VtxQel
{

/** A dead letter in the list: what is printed of it, so that the message itself need not be kept. */
struct DeadLetterRow
{
    std::uint32_t number = 0;
    std::string time;
    std::string application;
    std::string reason;
    std::string tries;
    std::string routingKey;
    std::string type;
    std::string messageId;
    std::size_t bodyBytes = 0;
    std::string unreadable;

    /** Long texts, which only headers can be, are cut. */
    static DeadLetterRow Of(const DeadLetterAt& letter);
};

/** Prints a table with a head line, each row on a line; columns are as wide as they need to be, up to a limit. */
void PrintTable(std::ostream& out, const std::vector<DeadLetterRow>& rows);

/** Prints each row as a JSON object on a line of its own. */
void PrintJson(std::ostream& out, const std::vector<DeadLetterRow>& rows);

/** Prints everything of one message: properties, headers, body. */
void PrintWhole(std::ostream& out, const DeadLetterAt& letter, bool json);

/** The time as 2026-01-31T23:59:59Z; empty when it is not known. */
std::string InUtc(std::optional<std::uint64_t> secondsSinceEpoch);

} // namespace VtxQel

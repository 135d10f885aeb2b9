#include "DeadLetterPrinter.h"

#include "DeadLetter.h"
#include "TableJson.h"
#include "TextForms.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iomanip>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

constexpr std::size_t longestText = 1000;
constexpr std::size_t columnCount = 9;
using Cells = std::array<std::string, columnCount>;

constexpr std::size_t widestCell = 48;
/** Number, tries and size are set to the right. */
constexpr std::array<bool, columnCount> toTheRight = {true, false, false, false, true, false, false, false, true};
const Cells head = {"NUMBER", "TIME", "APPLICATION", "REASON", "TRIES", "ROUTING KEY", "TYPE", "MESSAGE ID", "SIZE"};

std::string Line(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/** At most so many bytes, cut between two characters. */
std::string Cut(const std::string& text, std::size_t longest)
{
    if (text.size() <= longest)
    {
        return text;
    }
    std::size_t end = longest - 3;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    {
        --end;
    }
    return text.substr(0, end) + "...";
}

std::size_t Characters(const std::string& utf8)
{
    return static_cast<std::size_t>(std::count_if(
        utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string Cell(const std::string& text)
{
    return text.empty() ? "-" : Cut(ForTerminal(text), widestCell);
}

Cells CellsOf(const DeadLetterRow& row)
{
    return {
        std::to_string(row.number),
        Cell(row.time),
        Cell(row.application),
        Cell(row.unreadable.empty() ? row.reason : "(unreadable: " + row.unreadable + ")"),
        Cell(row.tries),
        Cell(row.routingKey),
        Cell(row.type),
        Cell(row.messageId),
        row.unreadable.empty() ? std::to_string(row.bodyBytes) : "-"};
}

void PrintRow(std::ostream& out, const Cells& cells, const std::array<std::size_t, columnCount>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < columnCount; ++i)
    {
        const std::string space(widths[i] - Characters(cells[i]), ' ');
        line += (i == 0 ? "" : "  ") + (toTheRight[i] ? space + cells[i] : cells[i] + space);
    }
    out << line << "\n";
}

/** Everything but the body and the headers, in the order in which it is shown; what is absent is null. */
std::vector<std::pair<const char*, Json>> Fields(const DeadLetterAt& at)
{
    const RmqProperties& properties = *at.message.properties;
    const DeadLetter letter = DeadLetter::Of(properties);
    const auto text = [](const std::string& value) { return value.empty() ? Json() : Json(value); };
    const auto number = [](const auto& value) { return value ? Json(*value) : Json(); };
    return {
        {"time", text(InUtc(letter.time))},
        {"application", text(letter.application)},
        {"reason", text(letter.reason)},
        {"tries", number(letter.tries)},
        {"exchange", text(letter.exchange)},
        {"routingKey", text(letter.routingKey)},
        {"queue", text(letter.queue)},
        {"type", text(properties.type)},
        {"appId", text(properties.appId)},
        {"messageId", text(properties.messageId)},
        {"correlationId", text(properties.correlationId)},
        {"replyTo", text(properties.replyTo)},
        {"userId", text(letter.userId)},
        {"contentType", text(properties.contentType)},
        {"contentEncoding", text(properties.contentEncoding)},
        {"expiration", text(letter.expiration)},
        {"deliveryMode", number(properties.deliveryMode)},
        {"priority", number(properties.priority)},
        {"timestamp", text(InUtc(properties.timestamp))}};
}

Json Whole(const DeadLetterAt& at)
{
    Json object = {{"number", at.number}};
    if (!at.unreadable.empty())
    {
        object["unreadable"] = at.unreadable;
        return object;
    }
    for (const auto& [name, value] : Fields(at))
    {
        if (!value.is_null())
        {
            object[name] = value;
        }
    }
    object["headers"] = ToJson(at.message.properties->headers);
    object["bodyBytes"] = at.message.body.size();
    if (IsText(at.message.body))
    {
        object["body"] = at.message.body;
    }
    else
    {
        object["bodyBase64"] = ToBase64(at.message.body);
    }
    return object;
}

/** Text for a terminal: line ends and tabs stay, other control characters are escaped. */
std::string Shown(const std::string& text)
{
    std::string shown;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i)
    {
        const unsigned char c = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
        const bool kept = c == '\n' || c == '\t' || (c >= 0x20 && c != 0x7f);
        // Those beyond ASCII have two bytes in UTF-8.
        const bool wide = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (kept && !wide)
        {
            continue;
        }
        shown.append(text, start, i - start);
        if (i < text.size())
        {
            const std::string escaped = nlohmann::json(text.substr(i, wide ? 2 : 1)).dump(-1, ' ', true);
            const std::string quoted = c == 0x7f ? "\"\\u007f\"" : escaped;
            shown += quoted.substr(1, quoted.size() - 2);
        }
        i += wide ? 1 : 0;
        start = i + 1;
    }
    return shown;
}

} // namespace

std::string InUtc(std::optional<std::uint64_t> secondsSinceEpoch)
{
    if (!secondsSinceEpoch)
    {
        return {};
    }
    const auto seconds = static_cast<std::time_t>(*secondsSinceEpoch);
    std::tm parts = {};
    std::array<char, 64> text = {};
    if (seconds < 0 || gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
    {
        return std::to_string(*secondsSinceEpoch);
    }
    return text.data();
}

DeadLetterRow DeadLetterRow::Of(const DeadLetterAt& at)
{
    DeadLetterRow row;
    row.number = at.number;
    row.unreadable = at.unreadable;
    if (!at.unreadable.empty())
    {
        return row;
    }
    const RmqProperties& properties = *at.message.properties;
    const DeadLetter letter = DeadLetter::Of(properties);
    row.time = InUtc(letter.time);
    row.application = Cut(letter.application, longestText);
    row.reason = Cut(letter.reason, longestText);
    row.tries = letter.tries ? std::to_string(*letter.tries) : "";
    row.routingKey = Cut(letter.routingKey, longestText);
    row.type = properties.type;
    row.messageId = properties.messageId;
    row.bodyBytes = at.message.body.size();
    return row;
}

void PrintTable(std::ostream& out, const std::vector<DeadLetterRow>& rows)
{
    std::array<std::size_t, columnCount> widths = {};
    const auto widen = [&widths](const Cells& cells)
    {
        for (std::size_t i = 0; i < columnCount; ++i)
        {
            widths[i] = std::max(widths[i], Characters(cells[i]));
        }
    };
    widen(head);
    for (const DeadLetterRow& row : rows)
    {
        widen(CellsOf(row));
    }
    PrintRow(out, head, widths);
    for (const DeadLetterRow& row : rows)
    {
        PrintRow(out, CellsOf(row), widths);
    }
}

void PrintJson(std::ostream& out, const std::vector<DeadLetterRow>& rows)
{
    for (const DeadLetterRow& row : rows)
    {
        Json object = {{"number", row.number}};
        if (!row.unreadable.empty())
        {
            object["unreadable"] = row.unreadable;
        }
        else
        {
            object["time"] = row.time;
            object["application"] = row.application;
            object["reason"] = row.reason;
            object["tries"] = row.tries.empty() ? Json() : Json(std::stoull(row.tries));
            object["routingKey"] = row.routingKey;
            object["type"] = row.type;
            object["messageId"] = row.messageId;
            object["bodyBytes"] = row.bodyBytes;
        }
        out << Line(object) << "\n";
    }
}

void PrintWhole(std::ostream& out, const DeadLetterAt& at, bool json)
{
    if (json)
    {
        out << Line(Whole(at)) << "\n";
        return;
    }
    constexpr int nameWidth = 17;
    const auto field = [&out](const std::string& name, const std::string& value)
    { out << std::left << std::setw(nameWidth) << name + ":" << ForTerminal(value) << "\n"; };
    field("number", std::to_string(at.number));
    if (!at.unreadable.empty())
    {
        field("unreadable", at.unreadable);
        return;
    }
    for (const auto& [name, value] : Fields(at))
    {
        if (!value.is_null())
        {
            field(name, value.is_string() ? value.get<std::string>() : value.dump());
        }
    }
    out << "headers:\n";
    const Json headers = ToJson(at.message.properties->headers);
    for (const auto& [name, value] : headers.items())
    {
        out << "  " << ForTerminal(name) << " = " << Shown(Line(value)) << "\n";
    }
    const std::string& body = at.message.body;
    const bool text = IsText(body);
    out << "body (" << body.size() << " bytes" << (text ? "" : ", in base64") << "):\n"
        << (text ? Shown(body) : ToBase64(body)) << "\n";
}

} // namespace VtxQel

#include "TableJson.h"

#include "TextForms.h"

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

Json ToJson(const RmqValue& value)
{
    struct Visitor
    {
        char kind;

        Json operator()(std::monostate) const { return nullptr; }
        Json operator()(bool yes) const { return yes; }
        Json operator()(std::int64_t number) const { return number; }
        Json operator()(std::uint64_t number) const { return kind == 'T' ? Json{{"timestamp", number}} : Json(number); }
        Json operator()(double number) const { return number; }
        Json operator()(const RmqDecimal& decimal) const
        {
            return {{"decimals", decimal.decimals}, {"value", decimal.value}};
        }
        Json operator()(const std::string& text) const { return TextOrBase64(text); }
        Json operator()(const RmqTable& table) const { return VtxQel::ToJson(table); }
        Json operator()(const RmqArray& array) const
        {
            Json list = Json::array();
            for (const RmqValue& element : array)
            {
                list.push_back(ToJson(element));
            }
            return list;
        }
    };
    return std::visit(Visitor{value.kind}, value.value);
}

} // namespace

Json TextOrBase64(const std::string& bytes)
{
    return IsText(bytes) ? Json(bytes) : Json{{"base64", ToBase64(bytes)}};
}

Json ToJson(const RmqTable& table)
{
    Json object = Json::object();
    for (const auto& [name, value] : table)
    {
        object[name] = ToJson(value);
    }
    return object;
}

} // namespace VtxQel

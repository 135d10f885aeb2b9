#include "JsonTree.h"

#include <nlohmann/json.hpp>

#include <optional>

namespace VtxQel
{

namespace
{

constexpr std::size_t deepest = 64;

/** The library's own words without its error number and its idea of the position, which stands in front anyway. */
std::string PlainReason(const std::string& what)
{
    const std::size_t reason = what.find(": ");
    return reason == std::string::npos ? what : what.substr(reason + 2);
}

/** Builds the tree while the library reads; the innermost open object or array is the last of m_open. */
class TreeBuilder : public nlohmann::json_sax<nlohmann::json>
{
  public:
    explicit TreeBuilder(const PositionTracker& tracker) : m_tracker(tracker) {}

    bool null() override { return Add(JsonNode::Kind::null) != nullptr; }
    bool boolean(bool) override { return Add(JsonNode::Kind::boolean) != nullptr; }
    bool number_integer(number_integer_t) override { return Add(JsonNode::Kind::otherNumber) != nullptr; }
    bool number_unsigned(number_unsigned_t value) override
    {
        Add(JsonNode::Kind::wholeNumber)->number = value;
        return true;
    }
    bool number_float(number_float_t, const string_t&) override { return Add(JsonNode::Kind::otherNumber) != nullptr; }
    bool string(string_t& value) override
    {
        Add(JsonNode::Kind::string)->text = std::move(value);
        return true;
    }
    bool binary(binary_t&) override { return false; }
    bool start_object(std::size_t) override { return Open(JsonNode::Kind::object); }
    bool end_object() override { return Close(); }
    bool start_array(std::size_t) override { return Open(JsonNode::Kind::array); }
    bool end_array() override { return Close(); }
    bool key(string_t& name) override
    {
        m_open.back()->members.push_back({std::move(name), JsonNode{}});
        m_open.back()->names.push_back(m_tracker.TokenStart());
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& error) override
    {
        m_error.emplace(m_tracker.LastByte(), PlainReason(error.what()));
        return false;
    }

    JsonNode TakeRoot()
    {
        if (m_error)
        {
            throw JsonSyntaxError(*m_error);
        }
        return std::move(m_root);
    }

  private:
    JsonNode* Add(JsonNode::Kind kind)
    {
        JsonNode* node = &m_root;
        if (!m_open.empty() && m_open.back()->kind == JsonNode::Kind::object)
        {
            node = &m_open.back()->members.back().value;
        }
        else if (!m_open.empty())
        {
            node = &m_open.back()->elements.emplace_back();
        }
        node->kind = kind;
        node->at = m_tracker.TokenStart();
        return node;
    }

    bool Open(JsonNode::Kind kind)
    {
        if (m_open.size() == deepest)
        {
            m_error.emplace(m_tracker.TokenStart(), "more than " + std::to_string(deepest) + " levels deep");
            return false;
        }
        m_open.push_back(Add(kind));
        return true;
    }

    bool Close()
    {
        m_open.pop_back();
        return true;
    }

    const PositionTracker& m_tracker;
    JsonNode m_root;
    // A node that is open does not move: its parent gets no further child until it is closed.
    std::vector<JsonNode*> m_open;
    std::optional<JsonSyntaxError> m_error;
};

} // namespace

JsonNode ParseJson(const std::string& text)
{
    PositionTracker tracker;
    TreeBuilder builder(tracker);
    const TrackedIterator first(text.data(), &tracker);
    const TrackedIterator last(text.data() + text.size(), &tracker);
    nlohmann::json::sax_parse(first, last, &builder);
    return builder.TakeRoot();
}

} // namespace VtxQel

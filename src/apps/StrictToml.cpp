#include "apps/StrictToml.h"

#include "common/Printable.h"
#include "common/Suggestion.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <set>
#include <system_error>

namespace VtxQel
{

namespace
{

/**
 * No configuration needs more. The library takes a key of any number of parts, "a.a.a...", and when it forgets the
 * tables that such a key makes it needs 256 bytes of stack for each: half of a usual stack for the longest key that
 * fits here.
 */
constexpr std::size_t LARGEST_FILE = 32768;

} // namespace

class StrictToml::Document
{
  public:
    explicit Document(std::string file) : m_file(std::move(file))
    {
        if (const std::optional<std::string> text = Read())
        {
            Parse(*text);
        }
        m_readable = m_problems.empty();
    }

    const toml::node* Find(const std::string& key)
    {
        m_known.insert(key);
        return m_table.at_path(key).node();
    }

    void Fail(const toml::node* node, const std::string& key, const std::string& text)
    {
        if (!m_readable)
        {
            // The one problem is known; that keys are missing follows from it.
            return;
        }
        Report((node == nullptr ? m_file + ": " : At(node->source())) + key + " " + text);
    }

    void ReportUnknown() { Unknown(m_table, ""); }

    std::vector<std::string> m_problems;

  private:
    /** The file's content, unless that cannot be used. */
    std::optional<std::string> Read()
    {
        std::ifstream stream(m_file);
        std::string text(LARGEST_FILE + 1, '\0');
        if (!stream || (!stream.read(text.data(), static_cast<std::streamsize>(text.size())) && stream.bad()))
        {
            Report(m_file + ": cannot be read: " + std::generic_category().message(errno));
            return {};
        }
        text.resize(static_cast<std::size_t>(stream.gcount()));
        if (text.size() > LARGEST_FILE)
        {
            Report(m_file + ": has more than " + std::to_string(LARGEST_FILE) + " bytes, the most that is read");
            return {};
        }
        return text;
    }

    void Parse(const std::string& text)
    {
        try
        {
            m_table = toml::parse(text);
        }
        catch (const toml::parse_error& error)
        {
            Report(At(error.source()) + std::string(error.description()));
        }
    }

    /** Keys and values stand in the text as they were written: they must not look like another line. */
    void Report(const std::string& problem) { m_problems.push_back(Printable(problem)); }

    std::string At(const toml::source_region& place) const
    {
        return m_file + ":" + std::to_string(place.begin.line) + ":" + std::to_string(place.begin.column) + ": ";
    }

    void Unknown(const toml::table& table, const std::string& prefix)
    {
        for (const auto& [name, node] : table)
        {
            const std::string key = prefix + std::string(name.str());
            const bool section = std::any_of(
                m_known.begin(), m_known.end(),
                [&key](const std::string& known) { return known.starts_with(key + "."); });
            if (section && node.is_table())
            {
                Unknown(*node.as_table(), key + ".");
            }
            else if (!m_known.contains(key))
            {
                const std::vector<std::string> known(m_known.begin(), m_known.end());
                Report(At(name.source()) + key + " is not a key that is known" + Suggest(key, known));
            }
        }
    }

    const std::string m_file;
    toml::table m_table;
    std::set<std::string> m_known;
    bool m_readable = false;
};

StrictToml::StrictToml(const std::string& file) : m_document(std::make_unique<Document>(file)) {}

StrictToml::~StrictToml() = default;

std::string StrictToml::String(const std::string& key, const std::string& absent)
{
    const toml::node* node = m_document->Find(key);
    if (node == nullptr)
    {
        return absent;
    }
    const std::optional<std::string> text = node->value_exact<std::string>();
    if (!text)
    {
        m_document->Fail(node, key, "must be a text in quotes");
    }
    return text.value_or(absent);
}

std::int64_t StrictToml::Integer(const std::string& key, std::int64_t absent, Range range)
{
    const toml::node* node = m_document->Find(key);
    if (node == nullptr)
    {
        return absent;
    }
    const std::optional<std::int64_t> number = node->value_exact<std::int64_t>();
    if (!number || *number < range.least || *number > range.most)
    {
        m_document->Fail(
            node, key,
            "must be a whole number from " + std::to_string(range.least) + " to " + std::to_string(range.most));
        return absent;
    }
    return *number;
}

bool StrictToml::Boolean(const std::string& key, bool absent)
{
    const toml::node* node = m_document->Find(key);
    if (node == nullptr)
    {
        return absent;
    }
    const std::optional<bool> value = node->value_exact<bool>();
    if (!value)
    {
        m_document->Fail(node, key, "must be true or false");
    }
    return value.value_or(absent);
}

std::vector<std::string> StrictToml::Strings(const std::string& key)
{
    std::vector<std::string> texts;
    const toml::node* node = m_document->Find(key);
    if (node == nullptr)
    {
        return texts;
    }
    const toml::array* array = node->as_array();
    if (array == nullptr || !(array->empty() || array->is_homogeneous<std::string>()))
    {
        m_document->Fail(node, key, "must be a list of texts, for example [\"a\", \"b\"]");
        return texts;
    }
    for (const toml::node& element : *array)
    {
        texts.push_back(*element.value<std::string>());
    }
    return texts;
}

std::string StrictToml::Choice(const std::string& key, const std::string& absent, const std::vector<std::string>& words)
{
    std::string chosen = String(key, absent);
    if (std::find(words.begin(), words.end(), chosen) == words.end())
    {
        m_document->Fail(m_document->Find(key), key, "must not be \"" + chosen + "\"" + Suggest(chosen, words));
        return absent;
    }
    return chosen;
}

bool StrictToml::Has(const std::string& key) const
{
    return m_document->Find(key) != nullptr;
}

void StrictToml::Fail(const std::string& key, const std::string& text)
{
    m_document->Fail(m_document->Find(key), key, text);
}

std::vector<std::string> StrictToml::Problems()
{
    m_document->ReportUnknown();
    return m_document->m_problems;
}

} // namespace VtxQel

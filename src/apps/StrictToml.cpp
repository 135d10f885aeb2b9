#include "apps/StrictToml.h"

#include "common/Printable.h"
#include "common/Suggestion.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
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

/** The value as TOML writes it, on one line. */
std::string Written(const toml::node& value)
{
    std::ostringstream text;
    text << toml::toml_formatter(value, toml::format_flags::none);
    return text.str();
}

std::string Written(const std::string& text)
{
    return Written(toml::value<std::string>(text));
}

std::string Written(const std::vector<std::string>& texts)
{
    std::string list;
    for (const std::string& text : texts)
    {
        list += (list.empty() ? "" : ", ") + Written(text);
    }
    return "[" + list + "]";
}

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

    /** What was answered to a question. */
    void Note(const std::string& key, std::optional<std::string> value)
    {
        const bool given = m_table.at_path(key).node() != nullptr;
        const auto same = [&key](const Setting& setting) { return setting.key == key; };
        const auto noted = std::find_if(m_settings.begin(), m_settings.end(), same);
        if (noted == m_settings.end())
        {
            m_settings.push_back({key, std::move(value), given});
        }
        else
        {
            noted->value = std::move(value);
        }
    }

    void ReportUnknown() { Unknown(m_table, ""); }

    std::vector<std::string> m_problems;
    std::vector<Setting> m_settings;

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
    std::string text = absent;
    if (node != nullptr)
    {
        const std::optional<std::string> given = node->value_exact<std::string>();
        if (!given)
        {
            m_document->Fail(node, key, "must be a text in quotes");
        }
        text = given.value_or(absent);
    }
    m_document->Note(key, Written(text));
    return text;
}

std::int64_t StrictToml::Integer(const std::string& key, std::int64_t absent, Range range)
{
    const toml::node* node = m_document->Find(key);
    std::int64_t number = absent;
    if (node != nullptr)
    {
        const std::optional<std::int64_t> given = node->value_exact<std::int64_t>();
        if (!given || *given < range.least || *given > range.most)
        {
            m_document->Fail(
                node, key,
                "must be a whole number from " + std::to_string(range.least) + " to " + std::to_string(range.most));
        }
        else
        {
            number = *given;
        }
    }
    m_document->Note(key, std::to_string(number));
    return number;
}

bool StrictToml::Boolean(const std::string& key, bool absent)
{
    const toml::node* node = m_document->Find(key);
    bool value = absent;
    if (node != nullptr)
    {
        const std::optional<bool> given = node->value_exact<bool>();
        if (!given)
        {
            m_document->Fail(node, key, "must be true or false");
        }
        value = given.value_or(absent);
    }
    m_document->Note(key, value ? "true" : "false");
    return value;
}

std::vector<std::string> StrictToml::Strings(const std::string& key)
{
    std::vector<std::string> texts;
    if (const toml::node* node = m_document->Find(key))
    {
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
    }
    m_document->Note(key, Written(texts));
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
    const bool given = m_document->Find(key) != nullptr;
    m_document->Note(key, std::nullopt);
    return given;
}

void StrictToml::Fail(const std::string& key, const std::string& text)
{
    m_document->Fail(m_document->Find(key), key, text);
}

const std::vector<Setting>& StrictToml::Settings() const
{
    return m_document->m_settings;
}

std::vector<std::string> StrictToml::Problems()
{
    m_document->ReportUnknown();
    return m_document->m_problems;
}

} // namespace VtxQel

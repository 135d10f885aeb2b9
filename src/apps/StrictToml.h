#pragma once

#include "apps/Setting.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * StrictToml reads one TOML file whose every key has to be known.
 *
 * The reader asks for each key that it knows, by section, and gets the value or the default; whatever is wrong (syntax,
 * type, range) is collected as a line "FILE:LINE:COLUMN: text", and Problems() adds the keys that nobody asked for. One
 * thread, one file, no exceptions but for memory.
 */
class StrictToml
{
  public:
    /** The bounds of a whole number, both allowed. */
    struct Range
    {
        std::int64_t least;
        std::int64_t most;
    };

    /** Reads and parses; a file that cannot be read or parsed has no keys. */
    explicit StrictToml(const std::string& file);
    ~StrictToml();
    StrictToml(const StrictToml&) = delete;
    StrictToml& operator=(const StrictToml&) = delete;

    /**
     * The value of a key such as "broker.prefetch"; a dot separates section and key. The default counts when the key
     * is absent or wrong.
     */
    std::string String(const std::string& key, const std::string& absent);
    std::int64_t Integer(const std::string& key, std::int64_t absent, Range range);
    bool Boolean(const std::string& key, bool absent);
    std::vector<std::string> Strings(const std::string& key);
    /** One of the words. */
    std::string Choice(const std::string& key, const std::string& absent, const std::vector<std::string>& words);

    bool Has(const std::string& key) const;
    /** Reports a problem with a key's value: the line names the place of the key, or the file when it is absent. */
    void Fail(const std::string& key, const std::string& text);

    /** Every key that was asked for, in that order, with what was answered. */
    const std::vector<Setting>& Settings() const;
    /** Every problem, in the order of the file's reading; empty when the file is sound. Ask for all keys before. */
    std::vector<std::string> Problems();

  private:
    class Document;
    std::unique_ptr<Document> m_document;
};

} // namespace VtxQel

#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel::Fakes
{

using Strings = std::vector<std::string>;

/**
 * What the fakes of one test saw, in one order. The fakes of a test share one journal, so that a test can say what
 * happened before what across collaborators. May be used from any thread.
 */
class Journal
{
  public:
    void Note(std::string what)
    {
        const std::lock_guard lock(m_mutex);
        m_notes.push_back(std::move(what));
    }

    /** Everything noted. */
    Strings Notes() const
    {
        const std::lock_guard lock(m_mutex);
        return m_notes;
    }

    /** The notes that begin with one of the prefixes. */
    Strings NotesOf(const Strings& prefixes) const
    {
        Strings result;
        for (const std::string& note : Notes())
        {
            for (const std::string& prefix : prefixes)
            {
                if (note.rfind(prefix, 0) == 0)
                {
                    result.push_back(note);
                    break;
                }
            }
        }
        return result;
    }

    void Clear()
    {
        const std::lock_guard lock(m_mutex);
        m_notes.clear();
    }

  private:
    mutable std::mutex m_mutex;
    Strings m_notes;
};

} // namespace VtxQel::Fakes

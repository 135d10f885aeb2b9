#pragma once

#include <boost/container/small_vector.hpp>
#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <utility>

namespace VtxQel
{

/**
 * Turn is several pieces of work that a thread does in a row, for what is better done once after all of them than after
 * each: sending what they have added up.
 *
 * Lives on the stack of the thread whose work it is; one within another is part of that. What is put off keeps others
 * waiting, so nothing within a turn may block.
 */
class Turn
{
  public:
    /** What can be put off. */
    class Task
    {
      public:
        virtual ~Task() = default;
        /** Called on the thread whose turn has ended, once however often it was put off. Must not throw. */
        virtual void OnTurnEnd() = 0;
    };

    Turn() { ++Mine().depth; }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn()
    {
        if (--Mine().depth == 0)
        {
            for (const auto& task : std::exchange(Mine().tasks, {}))
            {
                task->OnTurnEnd();
            }
        }
    }

    /** Calls the task at the end of the calling thread's turn; at once when it has none. */
    static void AtEnd(const boost::shared_ptr<Task>& task)
    {
        Tasks& tasks = Mine().tasks;
        if (Mine().depth == 0)
        {
            task->OnTurnEnd();
        }
        else if (std::find(tasks.begin(), tasks.end(), task) == tasks.end())
        {
            tasks.push_back(task);
        }
    }

  private:
    using Tasks = boost::container::small_vector<boost::shared_ptr<Task>, 4>;
    struct State
    {
        int depth = 0;
        Tasks tasks;
    };

    static State& Mine()
    {
        thread_local State mine;
        return mine;
    }
};

} // namespace VtxQel

// Questions that may never be answered (a file server that is gone, a page of memory that never
// comes), asked on a thread aside, so that nobody waits for them longer than he likes.
#pragma once

#include <chrono>
#include <future>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace control {

/// Asks one question again and again, one at a time. What never answers costs one thread, which is
/// left to itself: so a question must own all that it uses. For one thread at a time.
template<class Answer>
class Aside {
public:
    using Clock = std::chrono::steady_clock;

    /// Begins to ask, unless an earlier question is without its answer. False if it did not.
    template<class Question>
    bool begin(Question question) {
        if (pending.valid()) {
            return false;
        }
        std::packaged_task<Answer()> task(std::move(question));
        pending = task.get_future();
        try {
            std::thread(std::move(task)).detach();
        } catch (const std::system_error&) {
            pending = {};
        }
        return pending.valid();
    }

    /// The answer to what was begun. Nothing if there is none by then.
    std::optional<Answer> answerBy(Clock::time_point end) {
        if (!pending.valid() || pending.wait_until(end) != std::future_status::ready) {
            return std::nullopt;
        }
        return pending.get();
    }

    /// The answer to this question, or the late one to an earlier one, which is not waited for
    /// again. Nothing if there is none within `patience`.
    template<class Question>
    std::optional<Answer> ask(Question question, std::chrono::milliseconds patience) {
        const bool isNew = begin(std::move(question));
        return answerBy(Clock::now() + (isNew ? patience : std::chrono::milliseconds(0)));
    }

private:
    std::future<Answer> pending;
};

} // namespace control

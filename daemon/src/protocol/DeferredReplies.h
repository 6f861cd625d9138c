// Answers that wait on something slower than the loop (a write that upsd
// must carry out first). The request handler opens one and gets a token;
// whoever does the work settles it with an exception code (0: done) on the
// loop's thread; the server sends the answer then, or 0x0B (Gateway Target
// Device Failed to Respond) when the bound passes first. Loop thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace tarsel::daemon {

class DeferredReplies {
  public:
    using Clock = std::chrono::steady_clock;
    using Token = std::uint64_t;

    explicit DeferredReplies(std::chrono::milliseconds bound = std::chrono::seconds(5))
        : m_bound(bound) {}

    std::chrono::milliseconds bound() const { return m_bound; }

    /* Opens an answer to settle within the bound from `now`; `onTimeout`
     * (may be empty) runs when the bound passes first. */
    Token open(Clock::time_point now, std::function<void()> onTimeout = {});
    /* Settles an open answer; false when it is no longer open (timed out
     * or discarded) or its client is gone: the outcome then reaches no one. */
    bool settle(Token token, std::uint8_t exception);
    /* True when the answer is settled and waits to be taken. */
    bool settled(Token token) const;
    /* The settled exception code (0: success), once; nothing while open. */
    std::optional<std::uint8_t> take(Token token);
    /* Forgets an answer that will never be asked for. */
    void discard(Token token);
    /* The client of an answer went away: its outcome is still kept, to be
     * taken (and counted) like any other, settled by its bound too, but it
     * answers no one: settle() says so, and no time-out note runs. */
    void orphan(Token token);
    /* Settles every answer whose bound has passed with 0x0B. */
    void expire(Clock::time_point now);
    /* When the next open answer times out; nothing when none is open. */
    std::optional<Clock::time_point> nextDeadline() const;
    /* Answers open or settled but not taken. */
    std::size_t size() const { return m_replies.size(); }

  private:
    struct Reply {
        Clock::time_point deadline;
        std::function<void()> onTimeout;
        std::optional<std::uint8_t> exception;
        bool orphaned = false;
    };

    std::chrono::milliseconds const m_bound;
    Token m_next = 1;
    std::map<Token, Reply> m_replies;
};

}  // namespace tarsel::daemon

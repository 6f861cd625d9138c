#include "DeferredReplies.h"

#include <vector>

#include "ExceptionCodes.h"

namespace tarsel::daemon {

namespace {

using exception_code::kGatewayTargetFailed;

}  // namespace

DeferredReplies::Token DeferredReplies::open(Clock::time_point now,
                                             std::function<void()> onTimeout) {
    Token const token = m_next++;
    m_replies.emplace(token, Reply{now + m_bound, std::move(onTimeout), std::nullopt});
    return token;
}

bool DeferredReplies::settle(Token token, std::uint8_t exception) {
    auto const found = m_replies.find(token);
    if (found == m_replies.end() || found->second.exception) {
        return false;
    }
    found->second.exception = exception;
    return !found->second.orphaned;
}

bool DeferredReplies::settled(Token token) const {
    auto const found = m_replies.find(token);
    return found != m_replies.end() && found->second.exception.has_value();
}

std::optional<std::uint8_t> DeferredReplies::take(Token token) {
    auto const found = m_replies.find(token);
    if (found == m_replies.end() || !found->second.exception) {
        return std::nullopt;
    }
    std::uint8_t const exception = *found->second.exception;
    m_replies.erase(found);
    return exception;
}

void DeferredReplies::discard(Token token) {
    m_replies.erase(token);
}

void DeferredReplies::orphan(Token token) {
    auto const found = m_replies.find(token);
    if (found != m_replies.end()) {
        found->second.orphaned = true;
        found->second.onTimeout = nullptr;
    }
}

void DeferredReplies::expire(Clock::time_point now) {
    // Collected first: a time-out note may open or settle other answers.
    std::vector<std::function<void()>> notes;
    for (auto& [token, reply] : m_replies) {
        if (!reply.exception && now >= reply.deadline) {
            reply.exception = kGatewayTargetFailed;
            notes.push_back(std::move(reply.onTimeout));
        }
    }
    for (auto const& note : notes) {
        if (note) {
            note();
        }
    }
}

std::optional<DeferredReplies::Clock::time_point> DeferredReplies::nextDeadline() const {
    std::optional<Clock::time_point> next;
    for (auto const& [token, reply] : m_replies) {
        if (!reply.exception && (!next || reply.deadline < *next)) {
            next = reply.deadline;
        }
    }
    return next;
}

}  // namespace tarsel::daemon

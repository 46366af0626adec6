#pragma once
// What the other members of a cluster want: the channel patterns their sessions subscribe to, by
// member, so that a member publishes to NATS only the messages someone elsewhere waits for. A
// member alone, or one whose channels nobody else reads, then costs NATS and itself nothing.
//
// Each member tells the others when its first session subscribes to a pattern and when its last
// one leaves it, and sends its whole set now and then and when it (re)joins: a set replaces what
// was known of the member, so a lost change heals at the next one. A set may come in parts, and
// what it no longer names is forgotten only once it is complete, so that no pattern it still
// holds is missing while its parts arrive. A member not heard from for `expiry` is forgotten (it
// died without saying goodbye). Until the sets of the others have had time to arrive after this
// member joined or came back from an outage, every channel counts as wanted: a member that
// cannot know yet publishes everything, as one without this knowledge would. Knowing too much
// costs only a publish nobody takes; knowing too little would lose one, so every doubt falls on
// the side of publishing.
//
// Thread safety: every function may be called from any thread at once. `mutex_` guards the
// sets; wanted() takes it shared, and not at all while nothing is wanted anywhere.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "connector/common/mutex.h"

namespace connector::bayeux::cluster {

class MemberInterest {
  public:
    using Clock = std::chrono::steady_clock;

    MemberInterest();

    // Changes whenever an answer of wanted() may have; never the same for two instances, so a
    // caller may keep an answer with it.
    std::uint64_t version() const { return version_.load(std::memory_order_acquire); }

    // True when a member other than this one may want a message on `channel`, a valid channel
    // that is no pattern.
    bool wanted(std::string_view channel) const;

    // From now until `until`, wanted() says yes to everything.
    void doubtUntil(Clock::time_point until);
    // Ends the doubt once its time has passed.
    void settle(Clock::time_point now);

    // The first part of `member`'s whole set of patterns, or the next part when `continued`.
    // Its patterns count at once; what was known and the set does not name is forgotten when
    // the set is complete(), or when the next set begins.
    void replace(std::string_view member, const std::vector<std::string_view>& patterns,
                 bool continued, Clock::time_point now);
    // `member` has told all of its set.
    void complete(std::string_view member);
    // One pattern more or less for `member`.
    void add(std::string_view member, std::string_view pattern, Clock::time_point now);
    void remove(std::string_view member, std::string_view pattern);
    void forget(std::string_view member);
    // Forgets the members last heard from before `before`, and returns their names.
    std::vector<std::string> expire(Clock::time_point before);

    // The other members heard from lately.
    std::vector<std::string> members() const;

  private:
    struct Member {
        std::set<std::string, std::less<>> patterns;
        // While a set is being told: what it named so far, and what the member added since.
        std::optional<std::set<std::string, std::less<>>> told;
        Clock::time_point heard;
    };
    // Forgets what `known` holds beyond the set it has told; true when the union changed.
    bool completeLocked(Member& known) ORVALE_REQUIRES(mutex_);
    bool has(std::string_view pattern) const ORVALE_REQUIRES_SHARED(mutex_);
    Member& member(std::string_view name, Clock::time_point now) ORVALE_REQUIRES(mutex_);
    // Counts one member more or less for `pattern`; true when the union gained or lost it.
    bool count(const std::string& pattern, bool add) ORVALE_REQUIRES(mutex_);
    // A new version, once a change is complete: a caller that reads it also sees the change.
    void bump() ORVALE_REQUIRES(mutex_);
    void drop(std::map<std::string, Member, std::less<>>::iterator it) ORVALE_REQUIRES(mutex_);

    std::atomic<std::uint64_t> version_;
    std::atomic<bool> doubt_{false};
    std::atomic<Clock::rep> doubtUntil_{0};
    // Distinct patterns wanted anywhere, for the quick answer when there is none.
    std::atomic<std::size_t> distinct_{0};

    mutable common::SharedMutex mutex_;
    std::map<std::string, Member, std::less<>> members_ ORVALE_GUARDED_BY(mutex_);
    // How many members want each pattern.
    std::map<std::string, std::size_t, std::less<>> union_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::cluster

#pragma once
// A Bayeux server that is one member of a cluster: an in-process server whose broadcast
// channels are shared, through NATS, with the servers of other processes.
//
// - A message published here goes to local subscribers as always and, once, to NATS on the
//   channel's subject; members with local subscribers for it inject it into their own server.
//   /meta and /service channels never leave the process.
// - Interest: the member holds one NATS subscription per distinct pattern its sessions subscribe
//   to, counted over sessions, so that NATS sends it only what someone here wants.
// - Subscribe and unsubscribe requests are also sent to the other members, whose servers announce
//   them to their sessions, so that subscription listeners hear the whole cluster.
// - Members tell each other which patterns they hold (MemberInterest), and a message goes to NATS
//   only when another member may want it: a member alone costs nothing per publish.
// - Publishes accepted together (under a DeferredWakes: a client's frame, or a hub's turn) on
//   one channel go to NATS as one message, and are injected together on the other side.
// - A member's first subscription to a pattern is numbered when it tells the others, and each
//   of them acknowledges it once it will send that pattern's messages: whenSubscriptionsShared
//   waits for those acknowledgements (or for `settle`, should a member not answer; such a member
//   is not waited for again until it answers), so that a client answered after it misses
//   nothing published anywhere after its answer. NATS keeps the order: a subscription reaches
//   the other NATS servers before a message sent after it.
// - Exactly once: NATS never echoes a member's publishes back; a message that reaches a member
//   through several of its subscriptions (a channel matching two patterns) is injected once, by
//   its publisher's sequence number. A batch is numbered and handed to NATS under one lock, so
//   numbers arrive in order (NATS keeps a connection's order), and a window of recent numbers
//   tells a repeat from a new one.
//
// Thread safety: as any BayeuxServer. `interestMutex_` guards the interest counts and keeps
// what the member tells the others about them in the order it changed (NATS subscriptions are
// made and the news published under it; nats.c calls nothing of ours from either). `sendMutex_`
// guards the sequence number of what this member sends, `mutex_` the numbers seen, `sharedMutex_`
// the acknowledgements and those waiting for them. The inner server is called under none of them;
// `stateMutex_` guards only the membership thread's flags. Callbacks given to
// whenSubscriptionsShared run on a thread of their own, never on the membership thread.

#include <bitset>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "common/doubling_log.h"
#include "connector/bayeux/server.h"
#include "connector/common/mutex.h"
#include "member_interest.h"
#include "nats_link.h"

namespace connector::bayeux::cluster {

// How members keep each other's interest: how long a member that (re)joins publishes everything
// while the others' patterns reach it, how often each sends its whole set, and after how long
// without news a member is taken for dead.
struct MembershipTimings {
    std::chrono::milliseconds settle{1000};
    std::chrono::milliseconds refresh{5000};
    std::chrono::milliseconds expiry{15000};
};

class ClusteredServer final : public BayeuxServer {
  public:
    // Joins the cluster at `urls`; throws std::runtime_error when none of them can be reached.
    ClusteredServer(std::shared_ptr<BayeuxServer> inner, std::vector<std::string> urls,
                    MembershipTimings timings = {});
    ~ClusteredServer() override;

    void registerSession(std::weak_ptr<BayeuxSession> session) override;
    void unregisterSession(const std::shared_ptr<BayeuxSession>& session) override;
    void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) override;
    void acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) override;
    void acceptPublish(std::shared_ptr<const PublishRequest> request) override;

    bool whenSubscriptionsShared(std::function<void()> done) override;
    std::optional<ClusterStats> clusterStats() const override;

  private:
    using Clock = std::chrono::steady_clock;

    void onMessage(std::string_view subject, std::string_view payload);
    void onMembership(std::string_view origin, std::string_view rest);
    // Tells `origin` that this member has heard its subscriptions up to `number`.
    void acknowledge(std::string_view origin, std::string_view number);
    // `member` will send the messages of the subscriptions told up to `number`.
    void onAcknowledged(std::string_view member, std::uint64_t number);
    // Hands the callbacks whose members all acknowledged, left or were waited for until `now`
    // to the membership thread, or, once it has stopped, runs them.
    void answerWaiters(Clock::time_point now) ORVALE_EXCLUDES(sharedMutex_);
    // Drops the sequence numbers seen from a member that left or was taken for dead.
    void forgetSeen(std::string_view origin) ORVALE_EXCLUDES(mutex_);
    // Runs the callbacks of answered waiters on a thread of their own.
    static void runAnswers(std::vector<std::function<void()>> answers);
    // Counts `pattern` for `clientId` up or down; the first session in makes the NATS
    // subscription and tells the others, the last one out drops it and tells them.
    void countInterest(const std::string& clientId, const std::string& pattern, bool add)
        ORVALE_REQUIRES(interestMutex_);
    void shareChange(const std::string& clientId, const std::string& pattern, bool subscribed);
    // Sends "origin\nkind\ntext" to the other members.
    void tell(char kind, std::string_view text);
    // Sends every pattern held here, in parts of a bounded size; `kind` 'H' asks for the
    // others' in return.
    void tellPatterns(char kind) ORVALE_EXCLUDES(interestMutex_);
    void keepMembership();
    // Sends the publishes this thread gathered for the cluster as one message.
    static void sendGathered();
    // Logs a subscription or publish on a channel too long to share, as unshared_ says.
    void noteUnshared(std::string_view channel);

    const std::shared_ptr<BayeuxServer> inner_;
    const MembershipTimings timings_;
    // Names this member in what it sends; random, so restarts never look alike.
    const std::string origin_;
    std::unique_ptr<NatsLink> link_;
    common::Mutex sendMutex_;
    std::uint64_t sequence_ ORVALE_GUARDED_BY(sendMutex_) = 0;
    MemberInterest others_;
    // Set when the link came back: the membership thread says hello again.
    std::atomic<bool> rejoined_{false};
    // The subject others acknowledge this member's subscriptions on.
    const std::string acknowledgements_;
    // The number of the last first subscription told to the others.
    std::atomic<std::uint64_t> told_{0};
    common::DoublingLog unshared_;  // channels too long to share, met so far

    common::Mutex interestMutex_;
    // Sessions subscribed here, per pattern.
    std::map<std::string, std::size_t> interest_ ORVALE_GUARDED_BY(interestMutex_);
    // Each local session's patterns, to drop its interest when it goes unannounced.
    std::unordered_map<std::string, std::multiset<std::string>> patternsOf_
        ORVALE_GUARDED_BY(interestMutex_);

    common::Mutex sharedMutex_;
    struct Waiter {
        std::uint64_t number;              // the last subscription told when it began
        std::vector<std::string> pending;  // the members that have not acknowledged it
        Clock::time_point deadline;
        std::function<void()> done;
    };
    std::vector<Waiter> waiters_ ORVALE_GUARDED_BY(sharedMutex_);
    // The highest number each member acknowledged.
    std::map<std::string, std::uint64_t, std::less<>> acknowledged_ ORVALE_GUARDED_BY(sharedMutex_);
    // Members that let a wait run out, not waited for until they acknowledge something again.
    std::set<std::string, std::less<>> silent_ ORVALE_GUARDED_BY(sharedMutex_);

    common::Mutex stateMutex_;
    bool stopping_ ORVALE_GUARDED_BY(stateMutex_) = false;
    // Callbacks of whenSubscriptionsShared for the membership thread to run.
    std::vector<std::function<void()>> answers_ ORVALE_GUARDED_BY(stateMutex_);
    std::condition_variable wake_;
    std::thread membership_;

    mutable common::Mutex mutex_;
    // The sequence numbers lately injected from one other member.
    class Seen {
      public:
        // True the first time `sequence` is offered; false for a repeat, or for a number too
        // far behind the highest to tell.
        bool first(std::uint64_t sequence);

      private:
        static constexpr std::uint64_t kWindow = 1024;
        std::uint64_t highest_ = 0;
        std::bitset<kWindow> recent_;  // bit n % kWindow for each n seen in the window below
    };
    // Per other member, by origin; std::less<> finds one without making a string.
    std::map<std::string, Seen, std::less<>> seen_ ORVALE_GUARDED_BY(mutex_);
};

}  // namespace connector::bayeux::cluster

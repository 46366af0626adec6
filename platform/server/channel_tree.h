#pragma once
// The subscription index of the in-process server: a tree with one node per channel segment.
//
// Each node holds the sessions subscribed to its own channel exactly, to one more level below
// it (`/a/*`) and to any depth below it (`/a/**`). Matching a published channel walks one path
// from the root, so it costs time proportional to the channel's depth plus the number of
// matches, however many subscriptions exist elsewhere. Every held pattern's text lives once, in
// its node, and deliveries point at it instead of copying it.
//
// Not thread-safe: the server guards a tree and every SessionRecord::held with its tree lock.
// Nodes emptied by an unsubscribe are handed back to the caller instead of being freed, because
// queued deliveries may still point at their pattern texts.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "connector/bayeux/server.h"
#include "queueing_session.h"

namespace connector::bayeux::detail {

struct ChannelNode;
struct SessionRecord;

// The sessions holding one pattern, in no particular order.
struct PatternSlot {
    std::string text;  // the pattern, e.g. "/a/b/*", once the slot has had a member
    ChannelNode* node = nullptr;
    std::vector<SessionRecord*> members;
};

// The three patterns a node stands for.
struct NodeSlots {
    PatternSlot exact;  // "/a/b"
    PatternSlot one;    // "/a/b/*"
    PatternSlot any;    // "/a/b/**"
};

struct ChannelNode {
    ChannelNode* parent = nullptr;
    std::string segment;  // the key in the parent's children map views this string
    // Made when one of the node's patterns is first held, and kept while the node lives: most
    // nodes only lead to deeper ones, and the slots were most of a node's size.
    std::unique_ptr<NodeSlots> slots;
    std::unordered_map<std::string_view, std::unique_ptr<ChannelNode>> children;

    bool unused() const {
        return children.empty() &&
               (!slots || (slots->exact.members.empty() && slots->one.members.empty() &&
                           slots->any.members.empty()));
    }
};

// One registered session as the tree and the delivery threads see it.
struct SessionRecord {
    SessionRecord(std::weak_ptr<BayeuxSession> s, const BayeuxSession* a, std::string i,
                  std::size_t w, QueueingSession* q = nullptr)
        : session(std::move(s)), address(a), id(std::move(i)), worker(w), queueing(q) {}

    // How often the session holds a pattern, and where it sits in the slot's members.
    struct Hold {
        std::uint32_t count = 0;
        std::uint32_t index = 0;
    };

    const std::weak_ptr<BayeuxSession> session;
    const BayeuxSession* const address;  // identity only; never dereferenced
    const std::string id;
    const std::size_t worker;  // the delivery thread that serves this session
    // The session's queue for publishes, or null; used only while `session` is locked.
    QueueingSession* const queueing;
    std::atomic<bool> expiryNoticed{false};  // set once by the first thread that finds it expired
    std::atomic<bool> removed{false};  // unregistered or replaced: queued deliveries are dropped
    std::unordered_map<PatternSlot*, Hold> held;  // guarded by the server's tree lock
};

// One session matching a published channel through one of its patterns.
struct Match {
    SessionRecord* record;
    const std::string* pattern;
};

class ChannelTree {
  public:
    ChannelTree();

    // Adds one hold of `pattern` by `record`. False when the pattern is not a channel name.
    bool subscribe(SessionRecord& record, std::string_view pattern);

    // Removes one hold of `pattern` by `record`; nodes left unused move to `retired`. False when
    // the record did not hold the pattern.
    bool unsubscribe(SessionRecord& record, std::string_view pattern,
                     std::vector<std::unique_ptr<ChannelNode>>& retired);

    // Removes every hold of `record`; nodes left unused move to `retired`.
    void removeAll(SessionRecord& record, std::vector<std::unique_ptr<ChannelNode>>& retired);

    // Appends each (session, pattern) pair matching `channel`, once per pair.
    void match(std::string_view channel, std::vector<Match>& out) const;

    // Nodes in the tree, the root included.
    std::size_t nodeCount() const { return nodes_; }

  private:
    PatternSlot* findSlot(std::string_view pattern, bool create);
    void removeMember(PatternSlot& slot, std::uint32_t index);
    void prune(ChannelNode* node, std::vector<std::unique_ptr<ChannelNode>>& retired);

    std::unique_ptr<ChannelNode> root_;
    std::size_t nodes_ = 1;
};

}  // namespace connector::bayeux::detail

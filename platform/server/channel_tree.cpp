// The channel tree: one path walk per publish, reference-counted holds per (session, pattern).

#include "channel_tree.h"

#include <utility>

#include "connector/bayeux/channel.h"

namespace connector::bayeux::detail {

namespace {

NodeSlots& slotsOf(ChannelNode& node) {
    if (!node.slots) {
        node.slots = std::make_unique<NodeSlots>();
        node.slots->exact.node = node.slots->one.node = node.slots->any.node = &node;
    }
    return *node.slots;
}

// Spells the pattern of a slot that is about to get its first member. Only held patterns are
// spelled: a text for every slot of every node on a deep channel's path cost memory quadratic
// in its depth. Once spelled, a text stays while its node lives, since queued deliveries point
// at it.
void spell(PatternSlot& slot) {
    if (!slot.text.empty())
        return;
    std::vector<const std::string*> segments;
    for (const ChannelNode* node = slot.node; node->parent; node = node->parent)
        segments.push_back(&node->segment);
    for (auto it = segments.rbegin(); it != segments.rend(); ++it) {
        slot.text += '/';
        slot.text += **it;
    }
    const NodeSlots& slots = *slot.node->slots;
    if (&slot == &slots.one)
        slot.text += "/*";
    else if (&slot == &slots.any)
        slot.text += "/**";
}

void appendMembers(const PatternSlot& slot, std::vector<Match>& out) {
    for (SessionRecord* record : slot.members)
        out.push_back(Match{record, &slot.text});
}

}  // namespace

ChannelTree::ChannelTree() : root_(std::make_unique<ChannelNode>()) {}

PatternSlot* ChannelTree::findSlot(std::string_view pattern, bool create) {
    const ChannelName name(pattern);
    if (!name.isRooted())
        return nullptr;
    PatternSlot NodeSlots::*member = &NodeSlots::exact;
    if (name.wildcard() == ChannelName::Wildcard::one)
        member = &NodeSlots::one;
    else if (name.wildcard() == ChannelName::Wildcard::any)
        member = &NodeSlots::any;

    ChannelNode* node = root_.get();
    for (std::string_view segment : name.baseSegments()) {
        auto it = node->children.find(segment);
        if (it == node->children.end()) {
            if (!create)
                return nullptr;
            auto child = std::make_unique<ChannelNode>();
            child->parent = node;
            child->segment = std::string(segment);
            const std::string_view key = child->segment;  // views the child's own string
            it = node->children.emplace(key, std::move(child)).first;
            ++nodes_;
        }
        node = it->second.get();
    }
    if (!node->slots && !create)
        return nullptr;
    return &(slotsOf(*node).*member);
}

bool ChannelTree::subscribe(SessionRecord& record, std::string_view pattern) {
    PatternSlot* slot = findSlot(pattern, true);
    if (!slot)
        return false;
    auto [it, added] = record.held.try_emplace(slot);
    if (added) {
        spell(*slot);
        it->second.index = static_cast<std::uint32_t>(slot->members.size());
        slot->members.push_back(&record);
    }
    ++it->second.count;
    return true;
}

bool ChannelTree::unsubscribe(SessionRecord& record, std::string_view pattern,
                              std::vector<std::unique_ptr<ChannelNode>>& retired) {
    PatternSlot* slot = findSlot(pattern, false);
    if (!slot)
        return false;
    auto it = record.held.find(slot);
    if (it == record.held.end())
        return false;
    if (--it->second.count > 0)
        return true;
    const std::uint32_t index = it->second.index;
    record.held.erase(it);
    removeMember(*slot, index);
    prune(slot->node, retired);
    return true;
}

void ChannelTree::removeAll(SessionRecord& record,
                            std::vector<std::unique_ptr<ChannelNode>>& retired) {
    std::vector<ChannelNode*> touched;
    touched.reserve(record.held.size());
    for (auto& [slot, hold] : record.held) {
        removeMember(*slot, hold.index);
        touched.push_back(slot->node);
    }
    record.held.clear();
    for (ChannelNode* node : touched)
        prune(node, retired);
}

void ChannelTree::match(std::string_view channel, std::vector<Match>& out) const {
    const ChannelName name(channel);
    const ChannelNode* node = root_.get();
    const auto segments = name.segments();
    for (auto it = segments.begin(); it != segments.end(); ++it) {
        const bool last = it.last();
        if (node->slots) {
            appendMembers(node->slots->any, out);
            if (last)
                appendMembers(node->slots->one, out);
        }
        auto child = node->children.find(*it);
        if (child == node->children.end())
            return;
        node = child->second.get();
        if (last && node->slots)
            appendMembers(node->slots->exact, out);
    }
}

void ChannelTree::removeMember(PatternSlot& slot, std::uint32_t index) {
    auto& members = slot.members;
    SessionRecord* moved = members.back();
    members[index] = moved;
    members.pop_back();
    if (index < members.size())
        moved->held[&slot].index = index;
}

void ChannelTree::prune(ChannelNode* node, std::vector<std::unique_ptr<ChannelNode>>& retired) {
    while (node != root_.get() && node->unused()) {
        ChannelNode* parent = node->parent;
        auto it = parent->children.find(node->segment);
        if (it == parent->children.end() || it->second.get() != node)
            return;  // retired already
        retired.push_back(std::move(it->second));
        parent->children.erase(it);
        --nodes_;
        node = parent;
    }
}

}  // namespace connector::bayeux::detail

#include "member_interest.h"

namespace connector::bayeux::cluster {

namespace {
// Versions are drawn from one sequence for every instance, so that no two instances' ever match.
std::atomic<std::uint64_t> lastVersion{0};
}  // namespace

MemberInterest::MemberInterest() : version_(++lastVersion) {}

bool MemberInterest::wanted(std::string_view channel) const {
    if (doubt_.load(std::memory_order_acquire))
        return true;
    if (distinct_.load(std::memory_order_acquire) == 0)
        return false;
    common::ReaderLock lock(mutex_);
    if (has(channel))
        return true;
    // The patterns that can match /a/b/c: /a/b/*, and /a/b/**, /a/** and /**.
    thread_local std::string pattern;
    pattern.assign(channel.substr(0, channel.rfind('/') + 1));
    pattern += '*';
    if (has(pattern))
        return true;
    for (auto slash = channel.find('/'); slash != std::string_view::npos;
         slash = channel.find('/', slash + 1)) {
        pattern.assign(channel.substr(0, slash + 1));
        pattern += "**";
        if (has(pattern))
            return true;
    }
    return false;
}

bool MemberInterest::has(std::string_view pattern) const {
    return union_.find(pattern) != union_.end();
}

void MemberInterest::doubtUntil(Clock::time_point until) {
    common::WriterLock lock(mutex_);
    doubtUntil_ = until.time_since_epoch().count();
    doubt_ = true;
    version_ = ++lastVersion;
}

void MemberInterest::settle(Clock::time_point now) {
    if (!doubt_)
        return;
    common::WriterLock lock(mutex_);
    if (now.time_since_epoch().count() >= doubtUntil_) {
        doubt_ = false;
        version_ = ++lastVersion;
    }
}

void MemberInterest::replace(std::string_view name, const std::vector<std::string_view>& patterns,
                             bool continued, Clock::time_point now) {
    common::WriterLock lock(mutex_);
    Member& known = member(name, now);
    // Only what differs is counted, and removals wait for the whole set: a set told again, as
    // every member does now and then, leaves every count as it was, so no channel reads as
    // unwanted while the set is taken in.
    bool changed = false;
    if (!continued) {
        changed = completeLocked(known);
        known.told.emplace();
    }
    for (const auto pattern : patterns) {
        if (known.told)
            known.told->emplace(pattern);
        const auto added = known.patterns.emplace(pattern);
        if (added.second)
            changed |= count(*added.first, true);
    }
    if (changed)
        bump();
}

void MemberInterest::complete(std::string_view name) {
    common::WriterLock lock(mutex_);
    const auto known = members_.find(name);
    if (known != members_.end() && completeLocked(known->second))
        bump();
}

bool MemberInterest::completeLocked(Member& known) {
    if (!known.told)
        return false;
    bool changed = false;
    for (auto it = known.patterns.begin(); it != known.patterns.end();) {
        if (known.told->count(*it)) {
            ++it;
            continue;
        }
        changed |= count(*it, false);
        it = known.patterns.erase(it);
    }
    known.told.reset();
    return changed;
}

void MemberInterest::add(std::string_view name, std::string_view pattern, Clock::time_point now) {
    common::WriterLock lock(mutex_);
    Member& known = member(name, now);
    if (known.told)
        known.told->emplace(pattern);
    const auto added = known.patterns.emplace(pattern);
    if (added.second && count(*added.first, true))
        bump();
}

void MemberInterest::remove(std::string_view name, std::string_view pattern) {
    common::WriterLock lock(mutex_);
    const auto known = members_.find(name);
    if (known == members_.end())
        return;
    if (known->second.told)
        known->second.told->erase(std::string(pattern));
    const auto it = known->second.patterns.find(pattern);
    if (it == known->second.patterns.end())
        return;
    const bool changed = count(*it, false);
    known->second.patterns.erase(it);
    if (changed)
        bump();
}

void MemberInterest::forget(std::string_view name) {
    common::WriterLock lock(mutex_);
    const auto it = members_.find(name);
    if (it != members_.end())
        drop(it);
}

std::vector<std::string> MemberInterest::expire(Clock::time_point before) {
    std::vector<std::string> expired;
    common::WriterLock lock(mutex_);
    for (auto it = members_.begin(); it != members_.end();) {
        const auto next = std::next(it);
        if (it->second.heard < before) {
            expired.push_back(it->first);
            drop(it);
        }
        it = next;
    }
    return expired;
}

std::vector<std::string> MemberInterest::members() const {
    std::vector<std::string> names;
    common::ReaderLock lock(mutex_);
    for (const auto& entry : members_)
        names.push_back(entry.first);
    return names;
}

MemberInterest::Member& MemberInterest::member(std::string_view name, Clock::time_point now) {
    auto it = members_.find(name);
    if (it == members_.end())
        it = members_.emplace(std::string(name), Member()).first;
    it->second.heard = now;
    return it->second;
}

bool MemberInterest::count(const std::string& pattern, bool add) {
    if (add) {
        if (union_[pattern]++ > 0)
            return false;
        ++distinct_;
        return true;
    }
    const auto it = union_.find(pattern);
    if (it == union_.end() || --it->second > 0)
        return false;
    union_.erase(it);
    --distinct_;
    return true;
}

void MemberInterest::bump() {
    version_.store(++lastVersion, std::memory_order_release);
}

void MemberInterest::drop(std::map<std::string, Member, std::less<>>::iterator it) {
    bool changed = false;
    for (const auto& pattern : it->second.patterns)
        changed |= count(pattern, false);
    members_.erase(it);
    if (changed)
        bump();
}

}  // namespace connector::bayeux::cluster

#include "clustered_server.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <system_error>

#include "connector/bayeux/channel.h"
#include "connector/common/random_string.h"
#include "connector/log/diagnostic_logger.h"
#include "publish_batch.h"
#include "server/deferred_wakes.h"
#include "server/queueing_session.h"
#include "subjects.h"

namespace connector::bayeux::cluster {

namespace {

namespace log = foundation::log;
using Clock = std::chrono::steady_clock;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::cluster");

// Channels travel under this first token; subscription events under another, so that no
// channel pattern ("/**" included) can match them.
constexpr std::string_view kChannels = "orvale";
const std::string kSubscriptions = "orvale_cluster.subscriptions";
// A member's acknowledgements come on this subject, followed by its origin.
constexpr std::string_view kAcknowledgements = "orvale_cluster.acknowledgements.";

// A batch of publishes bound for the cluster, gathered on one thread (see acceptPublish).
struct Gathered {
    ClusteredServer* server = nullptr;  // the member they go out from; null: none gathered
    std::string subject;
    std::string messages;  // a batch (publish_batch.h)
    std::size_t count = 0;
};
thread_local Gathered gathered;
// A batch of publishes is sent, and a member's patterns are cut into parts, once they pass this
// size, well below NATS's default limit of a message (1 MiB).
constexpr std::size_t kMessageBytes = 64 * 1024;

// Takes the text up to the next newline off the front of `rest`.
std::string_view field(std::string_view& rest) {
    const auto end = rest.find('\n');
    const std::string_view out = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return out;
}

// A set of patterns is one pattern per line: a pattern's own newlines, which a channel may hold,
// and the '%' that escapes them travel as %0A and %25.
void appendLine(std::string& set, std::string_view pattern) {
    for (const char c : pattern) {
        if (c == '\n')
            set += "%0A";
        else if (c == '%')
            set += "%25";
        else
            set += c;
    }
}

std::string readLine(std::string_view line) {
    std::string pattern;
    pattern.reserve(line.size());
    for (std::size_t i = 0; i < line.size(); ++i) {
        const std::string_view escape = line.substr(i, 3);
        if (escape == "%0A" || escape == "%25") {
            pattern += escape == "%0A" ? '\n' : '%';
            i += 2;
        } else {
            pattern += line[i];
        }
    }
    return pattern;
}

}  // namespace

ClusteredServer::ClusteredServer(std::shared_ptr<BayeuxServer> inner, std::vector<std::string> urls,
                                 MembershipTimings timings)
    : inner_(std::move(inner)),
      timings_(timings),
      origin_(common::randomString(22)),
      acknowledgements_(std::string(kAcknowledgements) + origin_) {
    NatsLinkOptions options;
    options.urls = std::move(urls);
    // While the link is down, the others' news is lost: after it, doubt until they retold it.
    options.onLinkChange = [this](bool up) {
        others_.doubtUntil(up ? Clock::now() + timings_.settle : Clock::time_point::max());
        if (up) {
            rejoined_ = true;
            wake_.notify_all();
        }
    };
    link_ = std::make_unique<NatsLink>(options,
                                       [this](std::string_view subject, std::string_view payload) {
                                           onMessage(subject, payload);
                                       });
    link_->addInterest(kSubscriptions);
    link_->addInterest(acknowledgements_);
    others_.doubtUntil(Clock::now() + timings_.settle);
    tellPatterns('H');
    membership_ = std::thread([this] { keepMembership(); });
}

// The link goes first, so that no message from the cluster arrives while the rest is torn down.
ClusteredServer::~ClusteredServer() {
    {
        common::MutexLock lock(stateMutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    membership_.join();
    tell('Q', {});
    link_->flush(std::chrono::milliseconds(200));
    // Stopped before it is released: a handler still running may answer through link_.
    link_->stop();
    link_.reset();
    // Nobody acknowledges anything now: whoever waits is answered.
    answerWaiters(Clock::time_point::max());
    std::vector<std::function<void()>> left;
    {
        common::MutexLock lock(stateMutex_);
        left.swap(answers_);
    }
    for (auto& answer : left)
        answer();
}

void ClusteredServer::registerSession(std::weak_ptr<BayeuxSession> session) {
    inner_->registerSession(std::move(session));
}

void ClusteredServer::unregisterSession(const std::shared_ptr<BayeuxSession>& session) {
    if (session) {
        common::MutexLock lock(interestMutex_);
        const auto it = patternsOf_.find(session->getId());
        if (it != patternsOf_.end()) {
            const std::multiset<std::string> patterns = std::move(it->second);
            patternsOf_.erase(it);
            for (const auto& pattern : patterns)
                countInterest(std::string(), pattern, false);
        }
    }
    inner_->unregisterSession(session);
}

void ClusteredServer::acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) {
    if (!request)
        return;
    inner_->acceptSubscribe(request);
    shareChange(request->getClientId(), request->getChannel(), true);
}

void ClusteredServer::acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) {
    if (!request)
        return;
    inner_->acceptUnsubscribe(request);
    shareChange(request->getClientId(), request->getChannel(), false);
}

void ClusteredServer::shareChange(const std::string& clientId, const std::string& pattern,
                                  bool subscribed) {
    {
        common::MutexLock lock(interestMutex_);
        countInterest(clientId, pattern, subscribed);
    }
    std::string event = clientId;
    event += '\n';
    event += pattern;
    tell(subscribed ? '+' : '-', event);
}

void ClusteredServer::acceptPublish(std::shared_ptr<const PublishRequest> request) {
    if (!request)
        return;
    inner_->acceptPublish(request);
    // Whether the channel goes to the cluster, and its subject, kept per thread for the last
    // channel while the others' interest stays the same: publishes come in runs on one channel.
    thread_local struct {
        const ClusteredServer* server = nullptr;
        std::uint64_t version = 0;
        std::string channel, subject;
        bool shared = false;
    } last;
    const std::string& name = request->getChannel();
    const std::uint64_t version = others_.version();
    if (last.server != this || last.version != version || last.channel != name) {
        const ChannelName channel(name);
        last.shared = !channel.isMeta() && !channel.isService() && !channel.isPattern() &&
                      others_.wanted(name);
        if (last.shared && !subjectOf(kChannels, name, last.subject)) {
            last.shared = false;
            if (channel.isValid())
                noteUnshared(name);
        }
        last.server = this;
        last.version = version;
        last.channel.assign(name);
    }
    if (!last.shared || !mayLeaveProcess(*request))
        return;
    const std::string& subject = last.subject;
    // Publishes accepted in one batch (a client's frame) travel together while they follow one
    // another on one subject; any other message sends the batch first, so that a publisher's
    // order holds across channels too.
    Gathered& batch = gathered;
    if (batch.server && (batch.server != this || batch.subject != subject ||
                         batch.messages.size() + request->getJson().size() > kMessageBytes))
        sendGathered();
    if (!batch.server) {
        batch.server = this;
        batch.subject.assign(subject);
        startBatch(name, batch.messages);
    }
    appendToBatch(*request, batch.messages);
    ++batch.count;
    if (DeferredWakes::active())
        DeferredWakes::atEnd(&ClusteredServer::sendGathered);
    else
        sendGathered();
}

void ClusteredServer::sendGathered() {
    Gathered& batch = gathered;
    if (!batch.server)
        return;
    ClusteredServer& self = *batch.server;
    // The number is written last, into room left for the longest one, and the batch is
    // published under the same lock: no thread's batch can overtake another's number.
    constexpr std::size_t kDigits = std::numeric_limits<std::uint64_t>::digits10 + 1;
    thread_local std::string payload;
    payload.assign(self.origin_);
    payload += '\n';
    const std::size_t number = payload.size();
    payload.append(kDigits, '0');
    payload += '\n';
    payload += batch.messages;
    {
        common::MutexLock lock(self.sendMutex_);
        char digits[kDigits];
        const auto written = static_cast<std::size_t>(
            std::to_chars(digits, digits + kDigits, ++self.sequence_).ptr - digits);
        payload.replace(number + kDigits - written, written, digits, written);
        self.link_->publish(batch.subject, payload, batch.count);
    }
    batch.server = nullptr;
    batch.count = 0;
}

bool ClusteredServer::Seen::first(std::uint64_t sequence) {
    if (sequence > highest_) {
        if (sequence - highest_ >= kWindow) {
            recent_.reset();
        } else {
            for (std::uint64_t n = highest_ + 1; n < sequence; ++n)
                recent_.reset(n % kWindow);
        }
        highest_ = sequence;
        recent_.set(sequence % kWindow);
        return true;
    }
    if (highest_ - sequence >= kWindow || recent_.test(sequence % kWindow))
        return false;
    recent_.set(sequence % kWindow);
    return true;
}

bool ClusteredServer::whenSubscriptionsShared(std::function<void()> done) {
    const std::uint64_t number = told_.load();
    if (number == 0)
        return false;
    std::vector<std::string> members = others_.members(), pending;
    common::MutexLock lock(sharedMutex_);
    for (std::string& member : members) {
        const auto it = acknowledged_.find(member);
        if ((it == acknowledged_.end() || it->second < number) && silent_.count(member) == 0)
            pending.push_back(std::move(member));
    }
    if (pending.empty())
        return false;
    waiters_.push_back(
        Waiter{number, std::move(pending), Clock::now() + timings_.settle, std::move(done)});
    return true;
}

void ClusteredServer::onAcknowledged(std::string_view member, std::uint64_t number) {
    bool answered = false;
    {
        common::MutexLock lock(sharedMutex_);
        auto it = acknowledged_.find(member);
        if (it == acknowledged_.end())
            it = acknowledged_.emplace(std::string(member), 0).first;
        it->second = std::max(it->second, number);
        if (const auto quiet = silent_.find(member); quiet != silent_.end())
            silent_.erase(quiet);
        for (Waiter& waiter : waiters_) {
            if (waiter.number > number)
                continue;
            auto& pending = waiter.pending;
            pending.erase(std::remove(pending.begin(), pending.end(), member), pending.end());
            answered = answered || pending.empty();
        }
    }
    if (answered)
        answerWaiters(Clock::now());
}

void ClusteredServer::answerWaiters(Clock::time_point now) {
    const std::vector<std::string> members = others_.members();
    auto gone = [&](const std::string& member) {
        return std::find(members.begin(), members.end(), member) == members.end();
    };
    std::vector<std::function<void()>> answers;
    {
        common::MutexLock lock(sharedMutex_);
        for (auto it = acknowledged_.begin(); it != acknowledged_.end();)
            it = gone(it->first) ? acknowledged_.erase(it) : std::next(it);
        for (auto it = silent_.begin(); it != silent_.end();)
            it = gone(*it) ? silent_.erase(it) : std::next(it);
        for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
            auto& pending = waiter->pending;
            pending.erase(std::remove_if(pending.begin(), pending.end(), gone), pending.end());
            if (!pending.empty() && now < waiter->deadline) {
                ++waiter;
                continue;
            }
            // Not waited for again until they answer: a member that died costs one wait, not
            // one for each subscription until it is forgotten. (At the end, nobody is late.)
            if (now == Clock::time_point::max())
                pending.clear();
            for (auto& member : pending)
                if (silent_.insert(std::move(member)).second)
                    logger.log(log::warning,
                               "A member of the cluster did not acknowledge a subscription within ",
                               timings_.settle.count(), " ms");
            answers.push_back(std::move(waiter->done));
            waiter = waiters_.erase(waiter);
        }
    }
    if (answers.empty())
        return;
    {
        // Once the membership thread has stopped, they run here.
        common::MutexLock lock(stateMutex_);
        if (!stopping_) {
            for (auto& answer : answers)
                answers_.push_back(std::move(answer));
            answers.clear();
        }
    }
    wake_.notify_all();
    for (auto& answer : answers)
        answer();
}

std::optional<ClusterStats> ClusteredServer::clusterStats() const {
    const NatsLinkStats link = link_->stats();
    return ClusterStats{link.connected,  link.published,           link.received, link.lost,
                        link.reconnects, others_.members().size(), link.dropped};
}

void ClusteredServer::countInterest(const std::string& clientId, const std::string& pattern,
                                    bool add) {
    const ChannelName name(pattern);
    if (!name.isValid() || name.isMeta() || name.isService())
        return;
    auto subject = subjectOf(kChannels, pattern);
    if (!subject) {
        if (add)
            noteUnshared(pattern);
        return;
    }
    if (!clientId.empty()) {
        if (add) {
            patternsOf_[clientId].insert(pattern);
        } else {
            // A session drops only what it holds: an unknown unsubscribe changes no count.
            const auto session = patternsOf_.find(clientId);
            if (session == patternsOf_.end())
                return;
            const auto it = session->second.find(pattern);
            if (it == session->second.end())
                return;
            session->second.erase(it);
            if (session->second.empty())
                patternsOf_.erase(session);
        }
    }
    std::size_t& count = interest_[pattern];
    if (add) {
        if (count++ > 0)
            return;
        link_->addInterest(*subject);
        // Numbered for the others to acknowledge; told after the NATS subscription, which NATS
        // then carries to the others' servers first.
        std::string text = std::to_string(++told_);
        text += '\n';
        text += pattern;
        tell('I', text);
        return;
    }
    if (count == 0 || --count > 0)
        return;
    interest_.erase(pattern);
    link_->removeInterest(*subject);
    tell('U', pattern);
}

void ClusteredServer::noteUnshared(std::string_view channel) {
    const std::uint64_t n = unshared_.next();
    if (n == 0)
        return;
    constexpr std::size_t kShown = 64;
    logger.log(log::warning,
               "Cluster: a channel too long for a NATS subject stays on this member (", n,
               " so far): ", channel.substr(0, kShown), channel.size() > kShown ? "..." : "");
}

void ClusteredServer::tell(char kind, std::string_view text) {
    std::string payload = origin_;
    payload += '\n';
    payload += kind;
    payload += '\n';
    payload += text;
    link_->publish(kSubscriptions, payload, 0);
}

void ClusteredServer::tellPatterns(char kind) {
    common::MutexLock lock(interestMutex_);
    std::string part;
    for (const auto& [pattern, count] : interest_) {
        if (!part.empty() && part.size() + pattern.size() > kMessageBytes) {
            tell(kind, part);
            kind = 'T';
            part.clear();
        }
        if (!part.empty())
            part += '\n';
        appendLine(part, pattern);
    }
    tell(kind, part);
    // Whoever has the whole set acknowledges every subscription told so far.
    if (const std::uint64_t number = told_.load())
        tell('N', std::to_string(number));
}

void ClusteredServer::keepMembership() {
    const auto tick = std::min(std::chrono::milliseconds(100), timings_.settle / 4);
    auto nextRefresh = Clock::now() + timings_.refresh;
    common::UniqueLock lock(stateMutex_);
    while (!stopping_) {
        wake_.wait_for(lock.native(), tick);
        if (stopping_)
            break;
        lock.unlock();
        const auto now = Clock::now();
        if (rejoined_.exchange(false)) {
            others_.doubtUntil(now + timings_.settle);
            tellPatterns('H');
            nextRefresh = now + timings_.refresh;
        } else if (now >= nextRefresh) {
            tellPatterns('S');
            nextRefresh = now + timings_.refresh;
        }
        others_.settle(now);
        for (const std::string& gone : others_.expire(now - timings_.expiry))
            forgetSeen(gone);
        answerWaiters(now);
        lock.lock();
        if (!answers_.empty()) {
            std::vector<std::function<void()>> answers;
            answers.swap(answers_);
            lock.unlock();
            runAnswers(std::move(answers));
            lock.lock();
        }
    }
}

void ClusteredServer::runAnswers(std::vector<std::function<void()>> answers) {
    // An answer completes a caller's future, and its continuations run where it completes: one
    // that waits for another subscription, or drops the last reference to this server, must
    // not do so on the membership thread, which alone would answer it, or which would join
    // itself. Answers come once per pattern new to the member, so a thread each time is cheap.
    // Shared, so that the answers are still here should no thread start.
    auto batch = std::make_shared<std::vector<std::function<void()>>>(std::move(answers));
    auto run = [batch] {
        for (auto& answer : *batch)
            answer();
    };
    try {
        std::thread(run).detach();
    } catch (const std::system_error& e) {
        logger.log(log::warning,
                   "Cluster: answering subscriptions on the membership thread: ", e.what());
        run();
    }
}

void ClusteredServer::forgetSeen(std::string_view origin) {
    common::MutexLock lock(mutex_);
    if (const auto it = seen_.find(origin); it != seen_.end())
        seen_.erase(it);
}

void ClusteredServer::onMembership(std::string_view origin, std::string_view rest) {
    const std::string_view kind = field(rest);
    const auto now = Clock::now();
    if (kind == "+" || kind == "-") {
        std::string clientId(field(rest));
        std::string channel(rest);
        if (kind == "+")
            inner_->acceptSubscribe(
                std::make_shared<SubscribeRequest>(std::move(channel), std::move(clientId)));
        else
            inner_->acceptUnsubscribe(
                std::make_shared<UnsubscribeRequest>(std::move(channel), std::move(clientId)));
    } else if (kind == "I") {
        const std::string_view number = field(rest);
        others_.add(origin, rest, now);
        acknowledge(origin, number);
    } else if (kind == "N") {
        // Sent after a whole set: what the set no longer names can go.
        others_.complete(origin);
        acknowledge(origin, rest);
    } else if (kind == "U") {
        others_.remove(origin, rest);
    } else if (kind == "H" || kind == "S" || kind == "T") {
        std::vector<std::string> lines;
        while (!rest.empty())
            lines.push_back(readLine(field(rest)));
        const std::vector<std::string_view> patterns(lines.begin(), lines.end());
        others_.replace(origin, patterns, kind == "T", now);
        // A member that (re)joined learns the others' patterns in return.
        if (kind == "H")
            tellPatterns('S');
    } else if (kind == "Q") {
        others_.forget(origin);
        forgetSeen(origin);
    }
}

void ClusteredServer::acknowledge(std::string_view origin, std::string_view number) {
    // Origins are letters and digits; anything else names no subject of ours.
    const bool named = !origin.empty() && std::all_of(origin.begin(), origin.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c));
    });
    if (!named)
        return;
    std::string acknowledgement = origin_;
    acknowledgement += '\n';
    acknowledgement += number;
    link_->publish(std::string(kAcknowledgements).append(origin), acknowledgement, 0);
}

void ClusteredServer::onMessage(std::string_view subject, std::string_view payload) {
    std::string_view rest = payload;
    const std::string_view origin = field(rest);
    if (subject == kSubscriptions) {
        onMembership(origin, rest);
        return;
    }
    const std::string_view number = field(rest);
    std::uint64_t sequence = 0;
    if (std::from_chars(number.data(), number.data() + number.size(), sequence).ec != std::errc())
        return;
    if (subject == acknowledgements_) {
        onAcknowledged(origin, sequence);
        return;
    }
    {
        // One message matching two of this member's patterns arrives once through each.
        common::MutexLock lock(mutex_);
        auto it = seen_.find(origin);
        if (it == seen_.end())
            it = seen_.emplace(std::string(origin), Seen()).first;
        if (!it->second.first(sequence))
            return;
    }
    auto publishes = readBatch(rest);
    if (!publishes) {
        logger.log(log::error, "Dropped an unreadable message from the cluster on ", subject);
        return;
    }
    // The delivery threads are woken once for the batch, not once for each message in it.
    const DeferredWakes wakes;
    for (auto& publish : *publishes)
        inner_->acceptPublish(std::move(publish));
}

}  // namespace connector::bayeux::cluster

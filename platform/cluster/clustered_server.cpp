#include "clustered_server.h"

#include <charconv>

#include "bayeux/codec.h"
#include "connector/bayeux/channel.h"
#include "connector/common/random_string.h"
#include "connector/log/diagnostic_logger.h"
#include "subjects.h"

namespace connector::bayeux::cluster {

namespace {

namespace log = foundation::log;

const log::basic_diagnostic_logger<char> logger("connector::bayeux::cluster");

// Channels travel under this first token; subscription events under another, so that no
// channel pattern ("/**" included) can match them.
constexpr std::string_view kChannels = "orvale";
const std::string kSubscriptions = "orvale_cluster.subscriptions";

// Takes the text up to the next newline off the front of `rest`.
std::string_view field(std::string_view& rest) {
    const auto end = rest.find('\n');
    const std::string_view out = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return out;
}

}  // namespace

ClusteredServer::ClusteredServer(std::shared_ptr<BayeuxServer> inner, std::vector<std::string> urls)
    : inner_(std::move(inner)), origin_(common::randomString(22)) {
    NatsLinkOptions options;
    options.urls = std::move(urls);
    link_ = std::make_unique<NatsLink>(options,
                                       [this](std::string_view subject, std::string_view payload) {
                                           onMessage(subject, payload);
                                       });
    link_->addInterest(kSubscriptions);
}

// The link goes first, so that no message from the cluster arrives while the rest is torn down.
ClusteredServer::~ClusteredServer() {
    link_.reset();
}

void ClusteredServer::registerSession(std::weak_ptr<BayeuxSession> session) {
    inner_->registerSession(std::move(session));
}

void ClusteredServer::unregisterSession(const std::shared_ptr<BayeuxSession>& session) {
    if (session) {
        std::multiset<std::string> patterns;
        {
            common::MutexLock lock(mutex_);
            const auto it = patternsOf_.find(session->getId());
            if (it != patternsOf_.end()) {
                patterns = std::move(it->second);
                patternsOf_.erase(it);
            }
        }
        for (const auto& pattern : patterns) {
            const std::string subject = countInterest(std::string(), pattern, false);
            if (!subject.empty())
                link_->removeInterest(subject);
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
    const std::string subject = countInterest(clientId, pattern, subscribed);
    if (!subject.empty()) {
        if (subscribed)
            link_->addInterest(subject);
        else
            link_->removeInterest(subject);
    }
    announceToCluster(subscribed ? '+' : '-', clientId, pattern);
}

void ClusteredServer::acceptPublish(std::shared_ptr<const PublishRequest> request) {
    if (!request)
        return;
    inner_->acceptPublish(request);
    const ChannelName channel(request->getChannel());
    if (channel.isMeta() || channel.isService() || channel.isPattern())
        return;
    // Written into buffers of the thread's own, so that a publish allocates nothing here once
    // warm.
    thread_local std::string subject, payload;
    if (!subjectOf(kChannels, request->getChannel(), subject))
        return;
    payload.assign(origin_);
    payload += '\n';
    char digits[24];
    payload.append(digits, std::to_chars(digits, digits + sizeof digits, ++sequence_).ptr);
    payload += "\n[";
    codec::encodeInto(*request, payload);
    payload += ']';
    link_->publish(subject, payload);
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

std::optional<ClusterStats> ClusteredServer::clusterStats() const {
    const NatsLinkStats link = link_->stats();
    return ClusterStats{link.connected, link.published, link.received, link.lost, link.reconnects};
}

std::string ClusteredServer::countInterest(const std::string& clientId, const std::string& pattern,
                                           bool add) {
    const ChannelName name(pattern);
    if (!name.isValid() || name.isMeta() || name.isService())
        return std::string();
    auto subject = subjectOf(kChannels, pattern);
    if (!subject)
        return std::string();
    common::MutexLock lock(mutex_);
    if (!clientId.empty()) {
        auto& patterns = patternsOf_[clientId];
        if (add) {
            patterns.insert(pattern);
        } else {
            const auto it = patterns.find(pattern);
            // A session drops only what it holds: an unknown unsubscribe changes no count.
            if (it == patterns.end())
                return std::string();
            patterns.erase(it);
        }
    }
    std::size_t& count = interest_[*subject];
    if (add)
        return count++ == 0 ? std::move(*subject) : std::string();
    if (count == 0 || --count > 0)
        return std::string();
    interest_.erase(*subject);
    return std::move(*subject);
}

void ClusteredServer::announceToCluster(char kind, const std::string& clientId,
                                        const std::string& channel) {
    std::string payload = origin_;
    payload += '\n';
    payload += kind;
    payload += '\n';
    payload += clientId;
    payload += '\n';
    payload += channel;
    link_->publish(kSubscriptions, payload);
}

void ClusteredServer::onMessage(std::string_view subject, std::string_view payload) {
    std::string_view rest = payload;
    const std::string_view origin = field(rest);
    if (subject == kSubscriptions) {
        const std::string_view kind = field(rest);
        std::string clientId(field(rest));
        std::string channel(rest);
        if (kind == "+")
            inner_->acceptSubscribe(
                std::make_shared<SubscribeRequest>(std::move(channel), std::move(clientId)));
        else if (kind == "-")
            inner_->acceptUnsubscribe(
                std::make_shared<UnsubscribeRequest>(std::move(channel), std::move(clientId)));
        return;
    }
    const std::string_view number = field(rest);
    std::uint64_t sequence = 0;
    if (std::from_chars(number.data(), number.data() + number.size(), sequence).ec != std::errc())
        return;
    {
        // One message matching two of this member's patterns arrives once through each.
        common::MutexLock lock(mutex_);
        auto it = seen_.find(origin);
        if (it == seen_.end())
            it = seen_.emplace(std::string(origin), Seen()).first;
        if (!it->second.first(sequence))
            return;
    }
    codec::Decoded decoded = codec::decodeFromClient(rest);
    for (auto& message : decoded.messages) {
        if (message->kind() != Kind::PublishRequest)
            continue;
        std::shared_ptr<PublishRequest> publish(static_cast<PublishRequest*>(message.release()));
        inner_->acceptPublish(std::move(publish));
    }
    if (!decoded.errors.empty())
        logger.log(log::error, "Dropped an unreadable message from the cluster: ",
                   decoded.errors.front().text());
}

}  // namespace connector::bayeux::cluster

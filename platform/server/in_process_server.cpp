// The in-process Bayeux server: registry, matching and queueing under the tree lock, delivery
// on the server's own threads. See in_process_server.h for the locking and teardown rules.

#include "in_process_server.h"

#include "cluster/clustered_server.h"

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "bayeux/codec.h"
#include "bayeux/json_reader.h"
#include "channel_tree.h"
#include "common/doubling_log.h"
#include "connector/common/mutex.h"
#include "connector/log/diagnostic_logger.h"
#include "delivery_queue.h"

namespace connector::bayeux {

namespace detail {

namespace {

const foundation::log::basic_diagnostic_logger<char>& logger() {
    static const foundation::log::basic_diagnostic_logger<char> log("connector::bayeux::server");
    return log;
}

std::size_t threadsFor(std::size_t requested) {
    if (requested != 0)
        return requested;
    return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 4);
}

common::DoublingLog notJson;  // publishes kept in the process, their data not being JSON

bool sameOwner(const std::weak_ptr<BayeuxSession>& a, const std::weak_ptr<BayeuxSession>& b) {
    return !a.owner_before(b) && !b.owner_before(a);
}

// Groups the matches of one publish by delivery thread, then by session.
bool byWorkerThenSession(const Match& a, const Match& b) {
    if (a.record->worker != b.record->worker)
        return a.record->worker < b.record->worker;
    return std::less<const SessionRecord*>{}(a.record, b.record);
}

}  // namespace

class ServerCore : public std::enable_shared_from_this<ServerCore> {
  public:
    explicit ServerCore(std::size_t threads) : announceScratch_(threads) {
        workers_.reserve(threads);
        for (std::size_t i = 0; i < threads; ++i)
            workers_.push_back(std::make_unique<Worker>());
    }

    void start() {
        for (std::size_t i = 0; i < workers_.size(); ++i) {
            workers_[i]->thread = std::thread(
                [self = shared_from_this(), i] { self->runWorker(*self->workers_[i]); });
        }
    }

    void shutdown() {
        {
            common::WriterLock lock(treeMutex_);
            if (!accepting_)
                return;
            accepting_ = false;
        }
        for (auto& worker : workers_)
            worker->queue.stop();
        for (auto& worker : workers_) {
            if (worker->thread.get_id() == std::this_thread::get_id()) {
                worker->thread.detach();  // dropped from inside one of our own deliveries
            } else if (worker->thread.joinable()) {
                worker->thread.join();
            }
        }
    }

    void registerSession(const std::weak_ptr<BayeuxSession>& weak) {
        const std::shared_ptr<BayeuxSession> session = weak.lock();  // outlives the lock below
        if (!session)
            return;
        std::string id = session->getId();
        std::shared_ptr<Retirement> retirement;
        common::WriterLock lock(treeMutex_);
        if (!accepting_)
            return;
        if (auto it = byAddress_.find(session.get()); it != byAddress_.end()) {
            if (sameOwner(it->second->session, weak) && it->second->id == id)
                return;
            // The same session under a new id, or a new session where a dead one lived.
            removeLocked(*it->second, retirement);
        }
        if (auto it = byId_.find(id); it != byId_.end())
            removeLocked(*it->second, retirement);
        auto record = std::make_unique<SessionRecord>(
            weak, session.get(), std::move(id), nextWorker_++ % workers_.size(),
            dynamic_cast<QueueingSession*>(session.get()));
        byAddress_.emplace(session.get(), record.get());
        if (!record->queueing || record->queueing->hearsSubscriptions())
            hearing_.insert(record.get());
        const std::string& key = record->id;
        byId_.emplace(key, std::move(record));
        if (retirement)
            retireLocked(retirement);
    }

    void unregisterSession(const std::shared_ptr<BayeuxSession>& session) {
        if (!session)
            return;
        std::shared_ptr<Retirement> retirement;
        common::WriterLock lock(treeMutex_);
        auto it = byAddress_.find(session.get());
        if (it == byAddress_.end())
            return;
        removeLocked(*it->second, retirement);
        retireLocked(retirement);
    }

    void acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) {
        if (!request)
            return;
        common::WriterLock lock(treeMutex_);
        if (!accepting_)
            return;
        auto it = byId_.find(request->getClientId());
        if (it != byId_.end())
            tree_.subscribe(*it->second, request->getChannel());
        announceLocked(request);
    }

    void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) {
        if (!request)
            return;
        std::shared_ptr<Retirement> retirement;
        common::WriterLock lock(treeMutex_);
        if (!accepting_)
            return;
        auto it = byId_.find(request->getClientId());
        if (it != byId_.end()) {
            std::vector<std::unique_ptr<ChannelNode>> emptied;
            tree_.unsubscribe(*it->second, request->getChannel(), emptied);
            if (!emptied.empty()) {
                retirement = std::make_shared<Retirement>();
                retirement->nodes = std::move(emptied);
            }
        }
        announceLocked(request);
        if (retirement)
            retireLocked(retirement);
    }

    void acceptPublish(std::shared_ptr<const PublishRequest> request) {
        if (!request)
            return;
        // Sessions that only queue publishes get them here, once the lock is dropped.
        boost::container::small_vector<std::pair<std::shared_ptr<BayeuxSession>, QueueingSession*>,
                                       4>
            direct;
        queueMatches(request, direct);
        if (!direct.empty() && !mayLeaveProcess(*request))
            direct.clear();
        for (auto& [session, queue] : direct) {
            try {
                queue->queuePublish(request);
            } catch (const std::exception& e) {
                logger().log(foundation::log::error, "Session ", session->getId(),
                             " failed to queue a publish: ", e.what());
            }
        }
    }

    std::size_t sessionCount() const {
        common::ReaderLock lock(treeMutex_);
        return byId_.size();
    }

    std::size_t channelNodeCount() const {
        common::ReaderLock lock(treeMutex_);
        return tree_.nodeCount();
    }

    std::size_t threadCount() const { return workers_.size(); }

    bool accepting() const {
        common::ReaderLock lock(treeMutex_);
        return accepting_;
    }

  private:
    struct Worker {
        DeliveryQueue queue;
        std::thread thread;  // set by start(), joined or detached by shutdown()
    };

    // Matches `request` and queues a delivery for each matching session on its delivery
    // thread, except for live queueing sessions, which are added to `direct` instead. An expired
    // queueing session gets the delivery thread's delivery too: that thread drops it.
    template <class Direct>
    void queueMatches(std::shared_ptr<const PublishRequest>& request, Direct& direct) {
        // Reused by every publish on this thread, so matching allocates nothing once warm.
        thread_local std::vector<Match> matches;
        matches.clear();
        common::ReaderLock lock(treeMutex_);
        if (!accepting_)
            return;
        tree_.match(request->getChannel(), matches);
        if (matches.size() > 1)
            std::sort(matches.begin(), matches.end(), byWorkerThenSession);
        std::size_t i = 0;
        while (i < matches.size()) {
            const std::size_t worker = matches[i].record->worker;
            std::optional<DeliveryQueue::Appender> appender;
            while (i < matches.size() && matches[i].record->worker == worker) {
                SessionRecord* record = matches[i].record;
                std::size_t end = i + 1;
                while (end < matches.size() && matches[end].record == record)
                    ++end;
                if (record->queueing) {
                    if (auto session = record->session.lock()) {
                        direct.emplace_back(std::move(session), record->queueing);
                        i = end;
                        continue;
                    }
                }
                Delivery delivery;
                delivery.record = record;
                delivery.patternCount = static_cast<std::uint32_t>(end - i);
                const std::string** patterns = delivery.inlinePatterns.data();
                if (end - i > Delivery::kInlinePatterns) {
                    delivery.morePatterns.reset(new const std::string*[end - i]);
                    patterns = delivery.morePatterns.get();
                }
                for (std::size_t k = i; k < end; ++k)
                    patterns[k - i] = matches[k].pattern;
                // The last use of the request takes the caller's reference instead of adding one.
                if (end == matches.size() && direct.empty()) {
                    delivery.what = std::move(request);
                } else {
                    delivery.what = request;
                }
                if (!appender)
                    appender.emplace(workers_[worker]->queue);
                appender->push(std::move(delivery));
                i = end;
            }
        }
    }

    // Takes a record out of the registry and the tree; it is freed with `retirement`.
    void removeLocked(SessionRecord& record, std::shared_ptr<Retirement>& retirement)
        ORVALE_REQUIRES(treeMutex_) {
        if (!retirement)
            retirement = std::make_shared<Retirement>();
        record.removed.store(true, std::memory_order_release);
        tree_.removeAll(record, retirement->nodes);
        hearing_.erase(&record);
        if (auto it = byAddress_.find(record.address);
            it != byAddress_.end() && it->second == &record) {
            byAddress_.erase(it);
        }
        if (auto it = byId_.find(record.id); it != byId_.end() && it->second.get() == &record) {
            retirement->records.push_back(std::move(it->second));
            byId_.erase(it);
        }
    }

    // Queues the retirement behind everything already queued on every thread.
    void retireLocked(const std::shared_ptr<Retirement>& retirement) ORVALE_REQUIRES(treeMutex_) {
        std::shared_ptr<const Retirement> shared = retirement;
        for (auto& worker : workers_) {
            Delivery delivery;
            delivery.what = shared;
            DeliveryQueue::Appender(worker->queue).push(std::move(delivery));
        }
    }

    // Queues `request` for every session that hears subscription changes, with one queue lock
    // per thread.
    template <class Request>
    void announceLocked(const std::shared_ptr<const Request>& request) ORVALE_REQUIRES(treeMutex_) {
        for (SessionRecord* record : hearing_) {
            Delivery delivery;
            delivery.what = request;
            delivery.record = record;
            announceScratch_[record->worker].push_back(std::move(delivery));
        }
        for (std::size_t w = 0; w < workers_.size(); ++w) {
            auto& pending = announceScratch_[w];
            if (pending.empty())
                continue;
            DeliveryQueue::Appender appender(workers_[w]->queue);
            for (auto& delivery : pending)
                appender.push(std::move(delivery));
            pending.clear();
        }
    }

    void dropExpired(SessionRecord& record) {
        std::shared_ptr<Retirement> retirement;
        {
            common::WriterLock lock(treeMutex_);
            auto it = byId_.find(record.id);
            if (it == byId_.end() || it->second.get() != &record)
                return;
            removeLocked(record, retirement);
            retireLocked(retirement);
        }
        logger().log(foundation::log::trace, "Dropped expired session ", record.id);
    }

    void runWorker(Worker& worker) {
        std::vector<Delivery> batch;
        // channelLists[n] holds n strings whose capacity is kept from one delivery to the next.
        std::vector<std::vector<std::string>> channelLists;
        while (worker.queue.take(batch)) {
            for (Delivery& delivery : batch)
                deliverOne(delivery, channelLists);
            batch.clear();  // requests and retirements are released here, outside every lock
        }
    }

    void deliverOne(Delivery& delivery, std::vector<std::vector<std::string>>& channelLists) {
        SessionRecord* record = delivery.record;
        if (!record)
            return;  // a retirement; freed with the batch
        if (record->removed.load(std::memory_order_acquire))
            return;
        const std::shared_ptr<BayeuxSession> session = record->session.lock();
        if (!session) {
            // Only the first thread to notice drops it; the record lives until its retirement,
            // which is queued behind this delivery.
            if (!record->expiryNoticed.exchange(true))
                dropExpired(*record);
            return;
        }
        try {
            if (auto* publish =
                    std::get_if<std::shared_ptr<const PublishRequest>>(&delivery.what)) {
                const std::size_t count = delivery.patternCount;
                if (channelLists.size() <= count)
                    channelLists.resize(count + 1);
                auto& channels = channelLists[count];
                channels.resize(count);
                const std::string* const* patterns = delivery.patterns();
                for (std::size_t k = 0; k < count; ++k)
                    channels[k].assign(*patterns[k]);
                session->deliver(channels, *publish);
            } else if (auto* subscribe =
                           std::get_if<std::shared_ptr<const SubscribeRequest>>(&delivery.what)) {
                session->deliver(*subscribe);
            } else if (auto* unsubscribe =
                           std::get_if<std::shared_ptr<const UnsubscribeRequest>>(&delivery.what)) {
                session->deliver(*unsubscribe);
            }
        } catch (const std::exception& e) {
            logger().log(foundation::log::error, "Session ", record->id,
                         " threw from deliver: ", e.what());
        } catch (...) {
            logger().log(foundation::log::error, "Session ", record->id,
                         " threw a non-standard exception from deliver");
        }
    }

    std::vector<std::unique_ptr<Worker>> workers_;  // fixed after construction

    // Also guards every SessionRecord::held, which the tree changes.
    mutable common::SharedMutex treeMutex_;
    ChannelTree tree_ ORVALE_GUARDED_BY(treeMutex_);
    std::unordered_map<std::string, std::unique_ptr<SessionRecord>> byId_
        ORVALE_GUARDED_BY(treeMutex_);
    std::unordered_map<const BayeuxSession*, SessionRecord*> byAddress_
        ORVALE_GUARDED_BY(treeMutex_);
    // The registered sessions that hear subscription changes.
    std::unordered_set<SessionRecord*> hearing_ ORVALE_GUARDED_BY(treeMutex_);
    // One per thread, empty between uses.
    std::vector<std::vector<Delivery>> announceScratch_ ORVALE_GUARDED_BY(treeMutex_);
    std::size_t nextWorker_ ORVALE_GUARDED_BY(treeMutex_) = 0;
    bool accepting_ ORVALE_GUARDED_BY(treeMutex_) = true;
};

}  // namespace detail

bool mayLeaveProcess(const PublishRequest& request) {
    const std::string& data = request.getJson();
    if (request.isDataValidated() || data.empty() ||
        codec::json_reader::isJson(data, codec::kMaxDepth))
        return true;
    if (const std::uint64_t n = detail::notJson.next())
        detail::logger().log(foundation::log::warning, "Kept a publish on ", request.getChannel(),
                             " in this process: its data is not JSON (", n, " so far)");
    return false;
}

InProcessBayeuxServer::InProcessBayeuxServer(BayeuxServerOptions options)
    : core_(std::make_shared<detail::ServerCore>(detail::threadsFor(options.threads))) {
    core_->start();
}

InProcessBayeuxServer::~InProcessBayeuxServer() {
    core_->shutdown();
}

void InProcessBayeuxServer::registerSession(std::weak_ptr<BayeuxSession> session) {
    core_->registerSession(session);
}

void InProcessBayeuxServer::unregisterSession(const std::shared_ptr<BayeuxSession>& session) {
    core_->unregisterSession(session);
}

void InProcessBayeuxServer::acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> request) {
    core_->acceptUnsubscribe(std::move(request));
}

void InProcessBayeuxServer::acceptSubscribe(std::shared_ptr<const SubscribeRequest> request) {
    core_->acceptSubscribe(std::move(request));
}

void InProcessBayeuxServer::acceptPublish(std::shared_ptr<const PublishRequest> request) {
    core_->acceptPublish(std::move(request));
}

std::size_t InProcessBayeuxServer::sessionCount() const {
    return core_->sessionCount();
}

std::size_t InProcessBayeuxServer::channelNodeCount() const {
    return core_->channelNodeCount();
}

std::size_t InProcessBayeuxServer::threadCount() const {
    return core_->threadCount();
}

bool InProcessBayeuxServer::accepting() const {
    return core_->accepting();
}

std::shared_ptr<BayeuxServer> makeBayeuxServer(BayeuxServerOptions options) {
    auto server = std::make_shared<InProcessBayeuxServer>(options);
    if (options.clusterUrls.empty())
        return server;
    return std::make_shared<cluster::ClusteredServer>(std::move(server),
                                                      std::move(options.clusterUrls));
}

}  // namespace connector::bayeux

#include "log_capture.h"

#include <algorithm>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>

#include "connector/log/diagnostic_logger.h"

namespace orvale::test {

namespace {

struct Backend : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
    void consume(const boost::log::record_view& rec) {
        auto text = [&](const char* name) {
            return boost::log::extract_or_default<std::string>(name, rec, std::string());
        };
        CapturedRecord r{text("Channel"), boost::log::extract_or_default<int>("Severity", rec, 0),
                         text("Message"), text("Json")};
        std::lock_guard<std::mutex> lock(mutex);
        records.push_back(std::move(r));
    }
    std::mutex mutex;  // guards records
    std::vector<CapturedRecord> records;
};

}  // namespace

struct LogCapture::Impl {
    boost::shared_ptr<Backend> backend = boost::make_shared<Backend>();
    boost::shared_ptr<boost::log::sinks::synchronous_sink<Backend>> sink =
        boost::make_shared<boost::log::sinks::synchronous_sink<Backend>>(backend);
    int previousMask = foundation::log::getEnabledMask();
};

LogCapture::LogCapture() : impl_(std::make_unique<Impl>()) {
    foundation::log::setEnabledMask(0x7FFF);
    boost::log::core::get()->add_sink(impl_->sink);
}

LogCapture::~LogCapture() {
    boost::log::core::get()->remove_sink(impl_->sink);
    foundation::log::setEnabledMask(impl_->previousMask);
}

std::vector<CapturedRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(impl_->backend->mutex);
    return impl_->backend->records;
}

std::vector<CapturedRecord> LogCapture::find(const std::string& prefix) const {
    std::vector<CapturedRecord> out;
    for (auto& r : records())
        if (r.message.compare(0, prefix.size(), prefix) == 0)
            out.push_back(r);
    return out;
}

bool LogCapture::contains(const std::string& message) const {
    const auto all = records();
    return std::any_of(all.begin(), all.end(), [&](auto& r) { return r.message == message; });
}

}  // namespace orvale::test

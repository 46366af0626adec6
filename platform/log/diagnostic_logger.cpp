// Pushes diagnostic records into the Boost.Log core. The only file that includes Boost.Log.

#include "connector/log/diagnostic_logger.h"

#include <cxxabi.h>

#include <boost/log/attributes/constant.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace foundation::log {

namespace detail {

std::atomic<int> enabledMask{warning | error};

void push(const std::string& channel, int severity, std::string message, const std::string* json) {
    namespace attrs = boost::log::attributes;
    auto core = boost::log::core::get();
    boost::log::attribute_set attributes;
    attributes.insert("Channel", attrs::constant<std::string>(channel));
    attributes.insert("Severity", attrs::constant<int>(severity));
    if (json)
        attributes.insert("Json", attrs::constant<std::string>(*json));
    boost::log::record record = core->open_record(attributes);
    if (!record)
        return;
    {
        boost::log::record_ostream stream(record);
        stream << message;
        stream.flush();
    }
    core->push_record(std::move(record));
}

}  // namespace detail

std::string demangle(const char* mangledName) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> out(
        abi::__cxa_demangle(mangledName, nullptr, nullptr, &status), std::free);
    return status == 0 && out ? std::string(out.get()) : std::string(mangledName);
}

namespace {

// A growable byte buffer that starts at one byte and at least doubles when it must grow.
class RecordBuffer {
  public:
    RecordBuffer() : data_(static_cast<char*>(std::malloc(1))), capacity_(1) {
        if (!data_)
            throw std::runtime_error("Out of memory!");
    }
    ~RecordBuffer() { std::free(data_); }
    RecordBuffer(const RecordBuffer&) = delete;
    RecordBuffer& operator=(const RecordBuffer&) = delete;

    void append(std::string_view text) {
        if (size_ + text.size() > capacity_) {
            std::size_t capacity = capacity_ * 2;
            while (capacity < size_ + text.size())
                capacity *= 2;
            char* grown = static_cast<char*>(std::realloc(data_, capacity));
            if (!grown)
                throw std::runtime_error("Out of memory!");
            data_ = grown;
            capacity_ = capacity;
        }
        if (!text.empty())
            std::memcpy(data_ + size_, text.data(), text.size());
        size_ += text.size();
    }
    std::string str() const { return std::string(data_, size_); }

  private:
    char* data_;
    std::size_t capacity_;
    std::size_t size_ = 0;
};

}  // namespace

std::string buildJsonRecord(const std::vector<std::pair<std::string, std::string>>& tags,
                            std::string_view payload) {
    RecordBuffer buffer;
    buffer.append("{");
    for (const auto& [tag, value] : tags) {
        buffer.append("\"");
        buffer.append(tag);
        buffer.append("\":\"");
        buffer.append(value);
        buffer.append("\",");
    }
    buffer.append("\"content\":");
    buffer.append(payload);
    buffer.append("}");
    return buffer.str();
}

void basic_diagnostic_logger<char, json_tagger>::log(
    int severity, const std::vector<std::pair<std::string, std::string>>& tags,
    std::string_view payload) const {
    if (!enabled(severity))
        return;
    const int uncaught = std::uncaught_exceptions();
    std::string json = buildJsonRecord(tags, payload);
    if (std::uncaught_exceptions() != uncaught)
        return;
    detail::push(name_, severity,
                 "Message Ignored. If you see this, JSON log formatting is broken.", &json);
}

}  // namespace foundation::log

#pragma once
// The diagnostic logger: named loggers that write records into the Boost.Log core.
//
// Each record carries the attributes Channel (the logger's name) and Severity (a single-bit
// flag); a JSON-tagged record also carries Json. This header stays free of Boost.Log so that
// it can be included everywhere; the records are built and pushed in one source file.
//
// Thread safety: loggers and the functions below may be used from any thread at once; each
// record is pushed into the Boost.Log core on the thread that logs it.

#include <atomic>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

namespace foundation::log {

// Severity flags.
enum Severity : int { trace = 8, warning = 256, error = 512 };

namespace detail {
extern std::atomic<int> enabledMask;
void push(const std::string& channel, int severity, std::string message, const std::string* json);
}  // namespace detail

// Sets the mask of every logger, existing and future. The default is warning | error.
inline void setEnabledMask(int mask) {
    detail::enabledMask.store(mask, std::memory_order_relaxed);
}
inline int getEnabledMask() {
    return detail::enabledMask.load(std::memory_order_relaxed);
}

// Tag type selecting the JSON-tagging logger.
struct json_tagger {};

// Demangled name of a type, for log lines.
std::string demangle(const char* mangledName);
template <class T>
std::string typeName(const T& object) {
    return demangle(typeid(object).name());
}

// Builds {"tag":"value",...,"content":<payload>} with tag values copied unescaped; the payload is
// JSON already and goes in as it is. Throws std::runtime_error("Out of memory!") when the buffer
// cannot grow.
std::string buildJsonRecord(const std::vector<std::pair<std::string, std::string>>& tags,
                            std::string_view payload);

template <class CharT, class Tagger = void>
class basic_diagnostic_logger;

template <>
class basic_diagnostic_logger<char, void> {
  public:
    explicit basic_diagnostic_logger(std::string name) : name_(std::move(name)) {}

    const std::string& name() const { return name_; }

    bool enabled(int severity) const {
        return (detail::enabledMask.load(std::memory_order_relaxed) & severity & 0x7FFF) != 0;
    }

    // Streams the parts into one record when `severity` is enabled. A record during whose
    // streaming a new exception started is dropped.
    template <class... Parts>
    void log(int severity, const Parts&... parts) const {
        if (!enabled(severity))
            return;
        const int uncaught = std::uncaught_exceptions();
        std::ostringstream stream;
        (stream << ... << parts);
        if (std::uncaught_exceptions() == uncaught)
            detail::push(name_, severity, stream.str(), nullptr);
    }

  private:
    std::string name_;
};

template <>
class basic_diagnostic_logger<char, json_tagger> {
  public:
    explicit basic_diagnostic_logger(std::string name) : name_(std::move(name)) {}

    const std::string& name() const { return name_; }

    bool enabled(int severity) const {
        return (detail::enabledMask.load(std::memory_order_relaxed) & severity & 0x7FFF) != 0;
    }

    // Writes one JSON-tagged record; nothing is built or copied when `severity` is disabled.
    void log(int severity, const std::vector<std::pair<std::string, std::string>>& tags,
             std::string_view payload) const;

  private:
    std::string name_;
};

}  // namespace foundation::log

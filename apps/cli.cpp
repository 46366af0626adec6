#include "cli.h"

#include <charconv>
#include <fstream>

namespace orvale::app {

Args::Args(const std::vector<std::string>& words, const std::set<std::string>& valued,
           const std::set<std::string>& flags) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
            positional_.push_back(word);
            continue;
        }
        // Given twice, an option would keep its last value and silently drop the first.
        if (has(word))
            throw UsageError(word + " is given twice");
        if (flags.count(word)) {
            flags_.insert(word);
        } else if (valued.count(word)) {
            if (i + 1 >= words.size())
                throw UsageError(word + " needs a value");
            values_[word] = words[++i];
        } else {
            throw UsageError("unknown option " + word);
        }
    }
}

bool Args::has(const std::string& name) const {
    return flags_.count(name) != 0 || values_.count(name) != 0;
}

std::optional<std::string> Args::value(const std::string& name) const {
    auto it = values_.find(name);
    if (it == values_.end())
        return std::nullopt;
    return it->second;
}

std::string Args::value(const std::string& name, const std::string& fallback) const {
    return value(name).value_or(fallback);
}

std::uint64_t Args::number(const std::string& name, std::uint64_t fallback, std::uint64_t min,
                           std::uint64_t max) const {
    auto text = value(name);
    if (!text)
        return fallback;
    return parseNumber(*text, name, min, max);
}

std::string apiKey(const Args& args) {
    if (args.has("--api-key") && args.has("--api-key-file"))
        throw UsageError("--api-key and --api-key-file exclude each other");
    std::string key = args.value("--api-key", "");
    if (const auto file = args.value("--api-key-file")) {
        std::ifstream in(*file);
        if (!in)
            throw Failure("Cannot read the API key file " + *file);
        std::getline(in, key);
        if (!key.empty() && key.back() == '\r')
            key.pop_back();
    }
    if (key.empty() && (args.has("--api-key") || args.has("--api-key-file")))
        throw UsageError("the API key is empty: give one, or leave the option out");
    return key;
}

std::uint64_t parseNumber(const std::string& text, const std::string& what, std::uint64_t min,
                          std::uint64_t max) {
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    auto result = std::from_chars(text.data(), end, number);
    if (text.empty() || result.ec != std::errc() || result.ptr != end || number < min ||
        number > max)
        throw UsageError(what + " must be a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    return number;
}

}  // namespace orvale::app

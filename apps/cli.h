#pragma once
// Command-line arguments of one orvale command: positional words and --name value options,
// checked against what the command accepts.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvale::app {

// A mistake in the command line; reported with the command's usage hint.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failure while running; reported as one line, exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Args {
  public:
    // `valued` lists the --options that take a value, `flags` those that do not.
    Args(const std::vector<std::string>& words, const std::set<std::string>& valued,
         const std::set<std::string>& flags = {});

    const std::vector<std::string>& positional() const { return positional_; }
    bool has(const std::string& name) const;
    std::optional<std::string> value(const std::string& name) const;
    std::string value(const std::string& name, const std::string& fallback) const;
    // A whole number in [min, max]; UsageError otherwise.
    std::uint64_t number(const std::string& name, std::uint64_t fallback, std::uint64_t min,
                         std::uint64_t max) const;

  private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string> values_;
    std::set<std::string> flags_;
};

// The API key from --api-key or from the first line of --api-key-file (which keeps it out of
// the process list); empty when neither is given. An empty key given is refused: a hub would
// take it for no key and serve anyone.
std::string apiKey(const Args& args);

// The value of `text` as a whole number in [min, max], or UsageError naming `what`.
std::uint64_t parseNumber(const std::string& text, const std::string& what, std::uint64_t min,
                          std::uint64_t max);

}  // namespace orvale::app

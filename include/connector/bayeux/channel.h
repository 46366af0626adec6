#pragma once
// Channel names and patterns, parsed in one scan into what every user of a channel asks: its
// segments, whether it is a pattern (a last segment of "*" for one level or "**" for any depth
// below), whether it is a meta or service channel, and whether it is well formed. The in-process
// server's channel tree, the hub's checks, the codec and the message services all read channels
// through this type.
//
// A ChannelName views the text it was made from, which must outlive it; it never allocates.
//
// Thread safety: a value type; distinct objects may be used from any threads, one object from
// several threads only for reading.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace connector::bayeux {

class ChannelName {
  public:
    enum class Wildcard : std::uint8_t {
        none,  // a concrete channel
        one,   // "/a/*": channels one level below "/a"
        any,   // "/a/**": channels one or more levels below "/a"
    };
    enum class Kind : std::uint8_t { broadcast, meta, service };

    // The segments after the leading slash, in order, empty ones included: "/a//b" has "a", ""
    // and "b"; "/" has one empty segment. A text without a leading slash has none.
    class Segments {
      public:
        class iterator {
          public:
            using iterator_category = std::forward_iterator_tag;
            using value_type = std::string_view;
            using difference_type = std::ptrdiff_t;
            using pointer = const std::string_view*;
            using reference = const std::string_view&;

            iterator() = default;
            iterator(std::string_view rest, bool done) : rest_(rest), done_(done) { settle(); }
            reference operator*() const { return segment_; }
            pointer operator->() const { return &segment_; }
            iterator& operator++() {
                if (segment_.size() == rest_.size())
                    done_ = true;
                else
                    rest_.remove_prefix(segment_.size() + 1);
                settle();
                return *this;
            }
            iterator operator++(int) {
                iterator before = *this;
                ++*this;
                return before;
            }
            // True when no segment follows this one.
            bool last() const { return segment_.size() == rest_.size(); }
            bool operator==(const iterator& other) const {
                return done_ == other.done_ && (done_ || rest_.data() == other.rest_.data());
            }
            bool operator!=(const iterator& other) const { return !(*this == other); }

          private:
            void settle() {
                if (!done_)
                    segment_ = rest_.substr(0, rest_.find('/'));
            }
            std::string_view rest_;
            std::string_view segment_;
            bool done_ = true;
        };

        explicit Segments(std::string_view text) : text_(text) {}
        iterator begin() const {
            const bool rooted = !text_.empty() && text_.front() == '/';
            return rooted ? iterator(text_.substr(1), false) : end();
        }
        iterator end() const { return iterator(); }

      private:
        std::string_view text_;
    };

    constexpr ChannelName() = default;
    explicit ChannelName(std::string_view text) noexcept;

    std::string_view text() const { return text_; }
    Wildcard wildcard() const { return wildcard_; }
    bool isPattern() const { return wildcard_ != Wildcard::none; }
    Kind kind() const { return kind_; }
    // "/meta" and every channel under it.
    bool isMeta() const { return kind_ == Kind::meta; }
    // "/service" and every channel under it.
    bool isService() const { return kind_ == Kind::service; }
    // A slash, then non-empty segments, with '*' only in a last segment of exactly "*" or "**".
    bool isValid() const { return valid_; }
    // Whether the text starts with a slash.
    bool isRooted() const { return isRooted(text_); }

    // The two answers that need no scan of the whole text, for paths that ask only them.
    static Kind kindOf(std::string_view text) noexcept;
    static bool isRooted(std::string_view text) { return !text.empty() && text.front() == '/'; }

    // Every segment, the wildcard segment of a pattern included.
    Segments segments() const { return Segments(text_); }
    // The channel a pattern's wildcard stands below: "/a" for "/a/**", "" for "/*"; the whole
    // text of a concrete channel.
    std::string_view base() const {
        if (!isPattern())
            return text_;
        return lastSlash_ == std::string_view::npos ? std::string_view()
                                                    : text_.substr(0, lastSlash_);
    }
    // The segments of base().
    Segments baseSegments() const { return Segments(base()); }

    // Whether this name, read as a pattern, covers `channel`: the same text; or, for a last
    // segment "*", a channel with the same segments but one more in its place; or, for "**", a
    // channel with one or more segments in its place. A '*' anywhere else is an ordinary
    // character. Texts are compared as they are, so this also answers for texts that are not
    // well formed.
    bool matches(const ChannelName& channel) const;
    bool matches(std::string_view channel) const { return matches(ChannelName(channel)); }

  private:
    std::string_view text_;
    std::size_t lastSlash_ = std::string_view::npos;  // the last '/' of the text, if any
    Wildcard wildcard_ = Wildcard::none;
    Kind kind_ = Kind::broadcast;
    bool valid_ = false;
};

}  // namespace connector::bayeux

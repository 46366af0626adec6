#pragma once
// Bayeux channels as NATS subjects, for the cluster link.
//
// The channel /a/b/c travels as the subject "<prefix>.a.b.c". NATS splits subjects at '.', reads
// '*' and '>' as wildcards and forbids whitespace, so the bytes of a segment that NATS would read
// so, '%' itself, and every byte outside printable ASCII are written as %XX: every valid channel
// maps to exactly one subject, and back. A pattern's last segment "*" becomes the NATS token "*"
// and "**" becomes ">": both stand for one token, or one or more, as in Bayeux.
//
// A subject is at most kLongestSubject bytes. NATS closes a connection whose protocol line
// passes its max_control_line (4 KiB unless configured), and its routes carry the same lines:
// one subscription or publish on a longer subject would cut the member off the cluster. A channel
// whose subject would be longer has none, and stays on each member.
//
// Thread safety: pure functions; any thread.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace connector::bayeux::cluster {

inline constexpr std::size_t kLongestSubject = 2048;

// The subject of a valid channel or pattern; nothing for a channel that is not valid, or whose
// subject would be longer than kLongestSubject.
std::optional<std::string> subjectOf(std::string_view prefix, std::string_view channel);
// The same into `subject`, whose capacity is reused; false when there is none.
bool subjectOf(std::string_view prefix, std::string_view channel, std::string& subject);

// The channel a concrete subject under `prefix` stands for; nothing when the subject is not one
// subjectOf() makes.
std::optional<std::string> channelOf(std::string_view prefix, std::string_view subject);

}  // namespace connector::bayeux::cluster

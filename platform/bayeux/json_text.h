#pragma once
// Small JSON text helpers shared by the codec and the transport, implemented in codec.cpp so that
// only that file parses JSON.

#include <string>
#include <string_view>

namespace connector::bayeux::codec {

// Appends `text` as a quoted, escaped JSON string.
void appendQuoted(std::string& out, std::string_view text);

// The JSON object text `ext` (empty meaning {}) with member `name` set to the JSON value text
// `value`, replacing a member of that name. An `ext` that is not an object is replaced whole.
std::string withExtMember(std::string_view ext, std::string_view name, std::string_view value);

}  // namespace connector::bayeux::codec

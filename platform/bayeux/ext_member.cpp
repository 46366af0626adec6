// Sets one member of a message's ext object: the one place the codec builds a JSON tree, since
// an ext of any shape may come in and must go out again as valid JSON.

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <cmath>
#include <string>

#include "json_text.h"

namespace connector::bayeux::codec {

namespace json = boost::json;

namespace {

void appendValue(std::string& out, const json::value& value);

void appendDouble(std::string& out, double value) {
    // JSON has no infinities; a literal too large for a double comes back as null.
    if (!std::isfinite(value)) {
        out.append("null");
        return;
    }
    // "-0" would read back as the integer 0; the fraction keeps it a negative zero.
    if (value == 0 && std::signbit(value)) {
        out.append("-0.0");
        return;
    }
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Serializes a parsed value compactly; numbers keep their shortest round-trip form.
void appendValue(std::string& out, const json::value& value) {
    switch (value.kind()) {
        case json::kind::null:
            out.append("null");
            break;
        case json::kind::bool_:
            out.append(value.get_bool() ? "true" : "false");
            break;
        case json::kind::int64:
            appendInteger(out, value.get_int64());
            break;
        case json::kind::uint64:
            appendInteger(out, value.get_uint64());
            break;
        case json::kind::double_:
            appendDouble(out, value.get_double());
            break;
        case json::kind::string: {
            const auto& s = value.get_string();
            appendQuoted(out, std::string_view(s.data(), s.size()));
            break;
        }
        case json::kind::array: {
            out.push_back('[');
            bool first = true;
            for (const auto& element : value.get_array()) {
                if (!first)
                    out.push_back(',');
                first = false;
                appendValue(out, element);
            }
            out.push_back(']');
            break;
        }
        case json::kind::object: {
            out.push_back('{');
            bool first = true;
            for (const auto& member : value.get_object()) {
                if (!first)
                    out.push_back(',');
                first = false;
                appendQuoted(out, std::string_view(member.key().data(), member.key().size()));
                out.push_back(':');
                appendValue(out, member.value());
            }
            out.push_back('}');
            break;
        }
    }
}

std::string toText(const json::value& value) {
    std::string out;
    appendValue(out, value);
    return out;
}

}  // namespace

std::string withExtMember(std::string_view ext, std::string_view name, std::string_view value) {
    json::error_code ec;
    json::object object;
    if (!ext.empty()) {
        json::value parsed = json::parse(json::string_view(ext.data(), ext.size()), ec);
        if (!ec && parsed.is_object())
            object = std::move(parsed.get_object());
    }
    json::value member = json::parse(json::string_view(value.data(), value.size()), ec);
    if (ec)
        member = json::string(json::string_view(value.data(), value.size()));
    object[json::string_view(name.data(), name.size())] = std::move(member);
    return toText(object);
}

}  // namespace connector::bayeux::codec

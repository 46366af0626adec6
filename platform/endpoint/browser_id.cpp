// Browser ids: issued with a keyed MAC, checked without a list, read from Cookie headers.

#include "browser_id.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

#include "common/text.h"

namespace connector::bayeux::endpoint {

namespace {

constexpr std::size_t kRandomBytes = 16;
constexpr std::size_t kTagBytes = 16;
constexpr char kHex[] = "0123456789abcdef";

using Bytes = std::array<unsigned char, kRandomBytes + kTagBytes>;

void fillRandom(unsigned char* bytes, std::size_t count) {
    if (RAND_bytes(bytes, static_cast<int>(count)) != 1)
        throw std::runtime_error("the random generator failed");
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

}  // namespace

BrowserIds::BrowserIds() {
    fillRandom(key_.data(), key_.size());
}

std::string BrowserIds::issue() const {
    Bytes bytes;
    fillRandom(bytes.data(), kRandomBytes);
    unsigned char tag[EVP_MAX_MD_SIZE];
    unsigned int tagLength = 0;
    if (!HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), bytes.data(), kRandomBytes,
              tag, &tagLength))
        throw std::runtime_error("HMAC failed");
    std::copy(tag, tag + kTagBytes, bytes.begin() + kRandomBytes);
    std::string id;
    id.reserve(kLength);
    for (unsigned char byte : bytes) {
        id.push_back(kHex[byte >> 4]);
        id.push_back(kHex[byte & 15]);
    }
    return id;
}

bool BrowserIds::issued(std::string_view id) const {
    if (id.size() != kLength)
        return false;
    Bytes bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int high = hexValue(id[2 * i]);
        const int low = hexValue(id[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes[i] = static_cast<unsigned char>(high << 4 | low);
    }
    unsigned char tag[EVP_MAX_MD_SIZE];
    unsigned int tagLength = 0;
    if (!HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()), bytes.data(), kRandomBytes,
              tag, &tagLength))
        return false;
    return CRYPTO_memcmp(tag, bytes.data() + kRandomBytes, kTagBytes) == 0;
}

std::string_view BrowserIds::fromCookieHeader(std::string_view rest, std::string_view name) const {
    while (!rest.empty()) {
        const auto end = rest.find(';');
        const std::string_view pair = common::trimBlanks(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        const auto equals = pair.find('=');
        if (equals == std::string_view::npos || common::trimBlanks(pair.substr(0, equals)) != name)
            continue;
        std::string_view value = common::trimBlanks(pair.substr(equals + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (issued(value))
            return value;
    }
    return {};
}

std::string browserCookie(std::string_view id, std::string_view path, bool secure, bool crossSite,
                          std::string_view name) {
    std::string cookie(name);
    cookie.append("=").append(id).append("; Path=").append(path).append("; HttpOnly");
    if (secure)
        cookie.append("; Secure");
    cookie.append(secure && crossSite ? "; SameSite=None; Partitioned" : "; SameSite=Strict");
    return cookie;
}

bool sameBrowser(std::string_view a, std::string_view b) {
    return a.size() == b.size() && !a.empty() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace connector::bayeux::endpoint

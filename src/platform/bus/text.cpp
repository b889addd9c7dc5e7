// SPDX-License-Identifier: GPL-3.0-only
// JSON texts on the wire. D-Bus strings are UTF-8, but the bus library refuses the code points that Unicode
// calls non-characters (U+FDD0 to U+FDEF and the last two of every plane), which JSON may contain. Inside a
// JSON string the \u escape means the same, and outside of strings they are not valid JSON anyway. No state.
#include "platform/bus/text.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/bus/error.h"
#include "util/jsonref.h"

namespace {

// Lead bytes below this one do not start a non-character.
constexpr unsigned char kFirstLeadByte = 0xEF;

bool isAscii(const char* text, size_t length) {
    constexpr uint64_t kHighBits = 0x8080808080808080;
    uint64_t seen = 0;
    for (; length >= sizeof seen; text += sizeof seen, length -= sizeof seen) {
        uint64_t eight;
        std::memcpy(&eight, text, sizeof eight);
        seen |= eight;
    }
    for (; length; text++, length--)
        seen |= static_cast<unsigned char>(*text);
    return !(seen & kHighBits);
}

bool isNonCharacter(gunichar point) {
    return (point >= 0xFDD0 && point <= 0xFDEF) || (point & 0xFFFE) == 0xFFFE;
}

void appendUnit(std::string& out, unsigned unit) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04X", unit & 0xFFFF);
    out += escape;
}

void appendEscape(std::string& out, gunichar point) {
    if (point < 0x10000)
        return appendUnit(out, point);
    appendUnit(out, 0xD800 + ((point - 0x10000) >> 10));
    appendUnit(out, 0xDC00 + ((point - 0x10000) & 0x3FF));
}

const char* nextNonCharacter(const char* at) {
    for (; *at; at = g_utf8_next_char(at)) {
        if (static_cast<unsigned char>(*at) >= kFirstLeadByte && isNonCharacter(g_utf8_get_char(at)))
            return at;
    }
    return nullptr;
}

// `text` is valid UTF-8.
const char* escapeNonCharacters(const char* text, std::string& storage) {
    const char* found = nextNonCharacter(text);
    if (!found)
        return text;
    storage.clear();
    for (; found; found = nextNonCharacter(text)) {
        storage.append(text, found);
        appendEscape(storage, g_utf8_get_char(found));
        text = g_utf8_next_char(found);
    }
    storage += text;
    return storage.c_str();
}

}  // namespace

const char* busWireText(const char* text, std::string& storage, QSError* error) {
    if (!text) {
        busFail(error, -EINVAL, "There is no payload; give a JSON text");
        return nullptr;
    }
    const size_t length = std::strlen(text);
    if (length > kLongestPayload) {
        busFail(error, -EMSGSIZE,
                "The payload has " + std::to_string(length) + " bytes; the bus carries at most " +
                    std::to_string(kLongestPayload));
        return nullptr;
    }
    if (isAscii(text, length))
        return text;
    if (!g_utf8_validate(text, static_cast<gssize>(length), nullptr)) {
        busFail(error, -EILSEQ, "The payload is not UTF-8; the bus carries only UTF-8");
        return nullptr;
    }
    return escapeNonCharacters(text, storage);
}

bool busAsksToSubscribe(const char* payload) {
    // Skips the parser when the text has neither the word nor an escape that may encode it.
    if (!payload || (!std::strstr(payload, "subscribe") && !std::strchr(payload, '\\')))
        return false;
    const JsonRef object = parseJson(payload);
    json_object* member = jsonMember(object.get(), "subscribe");
    return member && json_object_get_boolean(member);
}

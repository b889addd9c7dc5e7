// SPDX-License-Identifier: GPL-3.0-only
// Checks of texts, names and elements against XML 1.0 and Namespaces in XML 1.0, and the stanza writer.
//
// The server's parser is namespace-aware: an undeclared prefix or a reserved binding ends the stream, as an
// invalid character does.
#include "xmpp/xmltext.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>

namespace xmpp {
namespace {

constexpr std::string_view kXmlUri = "http://www.w3.org/XML/1998/namespace";
constexpr std::string_view kXmlnsUri = "http://www.w3.org/2000/xmlns/";
constexpr char32_t kBad = 0xFFFFFFFF;
// Deeper than any payload that a bus client can write; bounds the recursion.
constexpr int kMaxDepth = 256;

struct CodePoint {
    char32_t value;
    std::size_t length;
};

constexpr CodePoint kIllFormed{kBad, 1};

CodePoint decode(std::string_view text) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length)
        return kIllFormed;
    char32_t value = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return kIllFormed;
        value = (value << 6) | (byte(i) & 0x3F);
    }
    constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kLeast[length] || value > 0x10FFFF)
        return kIllFormed;
    return {value, length};
}

template <typename Predicate>
bool everyCodePoint(std::string_view text, Predicate allowed) {
    while (!text.empty()) {
        const CodePoint point = decode(text);
        if (point.value == kBad || !allowed(point.value))
            return false;
        text.remove_prefix(point.length);
    }
    return true;
}

// Skips printable ASCII: most texts have nothing else, and some are long.
std::string_view skipPlain(std::string_view text) {
    const auto isPlain = [](char c) { return c >= 0x20 && static_cast<unsigned char>(c) < 0x7F; };
    text.remove_prefix(
        static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isPlain) - text.begin()));
    return text;
}

bool isChar(char32_t c) {
    if (c < 0x20)
        return c == '\t' || c == '\n' || c == '\r';
    return c <= 0xD7FF || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

struct Range {
    char32_t first, last;
};

bool within(char32_t c, const Range* begin, const Range* end) {
    for (const Range* range = begin; range != end; ++range)
        if (c >= range->first && c <= range->last)
            return true;
    return false;
}

// The server's parser uses the letters of the fourth edition of XML 1.0, not the wider ranges of the fifth.
// These are its large blocks: Latin, Greek, Cyrillic, Hebrew, Arabic, kana, ideographs, Hangul.
bool isNameStart(char32_t c) {
    static constexpr Range kRanges[] = {
        {'A', 'Z'},       {'_', '_'},       {'a', 'z'},       {0xC0, 0xD6},    {0xD8, 0xF6},
        {0xF8, 0x131},    {0x134, 0x13E},   {0x141, 0x148},   {0x14A, 0x17E},  {0x180, 0x1C3},
        {0x388, 0x38A},   {0x38E, 0x3A1},   {0x3A3, 0x3CE},   {0x401, 0x40C},  {0x40E, 0x44F},
        {0x451, 0x45C},   {0x45E, 0x481},   {0x5D0, 0x5EA},   {0x621, 0x63A},  {0x641, 0x64A},
        {0x3041, 0x3094}, {0x30A1, 0x30FA}, {0x4E00, 0x9FA5}, {0xAC00, 0xD7A3}};
    return within(c, std::begin(kRanges), std::end(kRanges));
}

bool isNameChar(char32_t c) {
    static constexpr Range kRanges[] = {{'-', '.'}, {'0', '9'}, {0xB7, 0xB7}};
    return isNameStart(c) || within(c, std::begin(kRanges), std::end(kRanges));
}

std::pair<std::string, std::string> splitName(const std::string& prefix, const std::string& name) {
    const std::size_t colon = name.find(':');
    if (!prefix.empty() || colon == std::string::npos || colon == 0)
        return {prefix, name};
    return {name.substr(0, colon), name.substr(colon + 1)};
}

// Checks an element with the prefixes that are declared around it.
class ElementCheck {
  public:
    bool run(const gloox::Tag& tag, int depth = 0) {
        if (depth > kMaxDepth || !isXmlText(tag.cdata()))
            return false;
        const std::size_t outer = m_declared.size();
        const bool good = declare(tag) && names(tag) && children(tag, depth);
        m_declared.resize(outer);
        return good;
    }

  private:
    bool declare(const gloox::Tag& tag) {
        for (const gloox::Tag::Attribute* attribute : tag.attributes()) {
            const auto [prefix, name] = splitName(attribute->prefix(), attribute->name());
            const std::string& uri = attribute->value();
            if (prefix.empty() && name == "xmlns" && (uri == kXmlUri || uri == kXmlnsUri))
                return false;
            if (prefix != "xmlns")
                continue;
            if (uri.empty() || uri == kXmlnsUri || name == "xmlns" || (name == "xml") != (uri == kXmlUri))
                return false;
            m_declared.emplace_back(name, uri);
        }
        return true;
    }

    bool names(const gloox::Tag& tag) const {
        const auto [prefix, local] = splitName(tag.prefix(), tag.name());
        if (!isXmlName(local) || (!prefix.empty() && !uriOf(prefix)))
            return false;
        std::set<std::pair<std::string, std::string>> seen;
        for (const gloox::Tag::Attribute* attribute : tag.attributes()) {
            const auto [attributePrefix, name] = splitName(attribute->prefix(), attribute->name());
            const std::string* uri = attributePrefix.empty() ? nullptr : uriOf(attributePrefix);
            if (!isXmlName(name) || !isXmlAttribute(attribute->value()) || (!attributePrefix.empty() && !uri))
                return false;
            if (!seen.emplace(uri ? *uri : std::string(), name).second)
                return false;
        }
        return true;
    }

    bool children(const gloox::Tag& tag, int depth) {
        for (const gloox::Tag* child : tag.children())
            if (!run(*child, depth + 1))
                return false;
        return true;
    }

    const std::string* uriOf(const std::string& prefix) const {
        static const std::string kXml(kXmlUri), kXmlns(kXmlnsUri);
        if (prefix == "xml")
            return &kXml;
        if (prefix == "xmlns")
            return &kXmlns;
        for (auto declared = m_declared.rbegin(); declared != m_declared.rend(); ++declared)
            if (declared->first == prefix)
                return &declared->second;
        return nullptr;
    }

    std::vector<std::pair<std::string, std::string>> m_declared;
};

// A parser reads a bare carriage return as a line feed, and tabs and line breaks of an attribute as blanks:
// only references keep them.
void appendEscaped(std::string& out, std::string_view text, bool attribute) {
    for (const char c : text) {
        switch (c) {
            case '\t':
                out += attribute ? "&#9;" : "\t";
                break;
            case '\n':
                out += attribute ? "&#10;" : "\n";
                break;
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '\'':
                out += "&apos;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\r':
                out += "&#13;";
                break;
            default:
                out += c;
        }
    }
}

}  // namespace

bool isXmlText(std::string_view text) {
    return everyCodePoint(skipPlain(text), isChar);
}

bool isXmlAttribute(std::string_view value) {
    return everyCodePoint(skipPlain(value), [](char32_t c) { return c >= 0x20 && isChar(c); });
}

std::string printable(const std::string& name) {
    gchar* escaped = g_strescape(name.substr(0, 120).c_str(), nullptr);
    std::string text(escaped);
    g_free(escaped);
    return text;
}

bool isXmlName(std::string_view name) {
    return !name.empty() && isNameStart(decode(name).value) && everyCodePoint(name, isNameChar);
}

bool isXmlElement(const gloox::Tag& tag) {
    return ElementCheck().run(tag);
}

StanzaWriter& StanzaWriter::open(std::string_view element, std::string_view xmlns) {
    endStartTag();
    m_out.append("<").append(element);
    m_open.emplace_back(element);
    m_inStartTag = true;
    return xmlns.empty() ? *this : attribute("xmlns", xmlns);
}

StanzaWriter& StanzaWriter::attribute(std::string_view name, std::string_view value) {
    m_invalid = m_invalid || !isXmlAttribute(value);
    writeAttribute(name, value);
    return *this;
}

StanzaWriter& StanzaWriter::foreignAttribute(std::string_view name, std::string_view value) {
    m_invalid = m_invalid || !isXmlText(value);
    writeAttribute(name, value);
    return *this;
}

void StanzaWriter::writeAttribute(std::string_view name, std::string_view value) {
    m_out.append(" ").append(name).append("='");
    appendEscaped(m_out, value, true);
    m_out += '\'';
}

StanzaWriter& StanzaWriter::text(std::string_view text) {
    m_invalid = m_invalid || !isXmlText(text);
    endStartTag();
    appendEscaped(m_out, text, false);
    return *this;
}

StanzaWriter& StanzaWriter::element(const gloox::Tag& tag) {
    m_invalid = m_invalid || !isXmlElement(tag);
    endStartTag();
    // A parser reads a bare carriage return as a line feed; only the reference keeps it. Attributes
    // have none here.
    const std::string xml = tag.xml();
    for (std::size_t begin = 0; begin < xml.size();) {
        const std::size_t end = std::min(xml.find('\r', begin), xml.size());
        m_out.append(xml, begin, end - begin);
        if (end < xml.size())
            m_out += "&#13;";
        begin = end + 1;
    }
    return *this;
}

StanzaWriter& StanzaWriter::field(std::string_view var, std::string_view value, bool hidden) {
    open("field").attribute("var", var);
    if (hidden)
        attribute("type", "hidden");
    return open("value").text(value).close().close();
}

StanzaWriter& StanzaWriter::close() {
    if (m_inStartTag)
        m_out += "/>";
    else
        m_out.append("</").append(m_open.back()).append(">");
    m_inStartTag = false;
    m_open.pop_back();
    return *this;
}

std::string StanzaWriter::finish() {
    while (!m_open.empty())
        close();
    return m_invalid ? std::string() : std::move(m_out);
}

void StanzaWriter::endStartTag() {
    if (m_inStartTag)
        m_out += '>';
    m_inStartTag = false;
}

}  // namespace xmpp

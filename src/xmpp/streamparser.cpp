// SPDX-License-Identifier: GPL-3.0-only
// Expat's callbacks. Elements are built as gloox's own parser builds them: prefixes separate from names,
// namespace declarations among the attributes.
#include "xmpp/streamparser.h"

#include <expat.h>
#include <gloox/gloox.h>

#include <algorithm>
#include <new>
#include <utility>

#include "util/log.h"

namespace xmpp {
namespace {

// Expat takes lengths as int.
constexpr std::size_t kPiece = 1u << 20;

struct Name {
    explicit Name(std::string_view name) {
        const std::size_t colon = name.find(':');
        if (colon != std::string_view::npos)
            prefix = name.substr(0, colon);
        local = name.substr(colon == std::string_view::npos ? 0 : colon + 1);
    }
    std::string prefix, local;
};

void setAttributes(gloox::Tag& tag, const char** attributes) {
    gloox::Tag::AttributeList list;
    std::string defaultXmlns;
    for (const char** at = attributes; *at; at += 2) {
        const Name name(at[0]);
        // Also adds an attribute, which those of the list replace.
        if (name.prefix == gloox::XMLNS)
            tag.setXmlns(at[1], name.local);
        else if (name.prefix.empty() && name.local == gloox::XMLNS)
            defaultXmlns = at[1];
        auto* attribute = new gloox::Tag::Attribute(name.local, at[1]);
        if (!name.prefix.empty())
            attribute->setPrefix(name.prefix);
        list.push_back(attribute);
    }
    if (!list.empty())
        tag.setAttributes(list);
    tag.setXmlns(defaultXmlns);
}

std::size_t countOf(const char** attributes) {
    std::size_t count = 0;
    while (attributes[2 * count])
        ++count;
    return count;
}

}  // namespace

struct StreamParser::Callbacks {
    static StreamParser& of(void* self) { return *static_cast<StreamParser*>(self); }
    static void XMLCALL begin(void* self, const char* name, const char** attributes) {
        of(self).begin(name, attributes);
    }
    static void XMLCALL end(void* self, const char*) { of(self).end(); }
    static void XMLCALL text(void* self, const char* text, int length) {
        of(self).text({text, static_cast<std::size_t>(length)});
    }
    // Not allowed in a stream, and its entities could expand without bound.
    static void XMLCALL doctype(void* self, const char*, const char*, const char*, int) {
        of(self).fail("it holds a document type");
    }
};

StreamParser::StreamParser(gloox::TagHandler& handler)
    : m_handler(handler), m_parser(XML_ParserCreate("UTF-8")) {
    if (!m_parser)
        throw std::bad_alloc();
    reset();
}

StreamParser::~StreamParser() {
    XML_ParserFree(m_parser);
}

void StreamParser::reset() {
    XML_ParserReset(m_parser, "UTF-8");
    XML_SetUserData(m_parser, this);
    XML_SetElementHandler(m_parser, &Callbacks::begin, &Callbacks::end);
    XML_SetCharacterDataHandler(m_parser, &Callbacks::text);
    XML_SetStartDoctypeDeclHandler(m_parser, &Callbacks::doctype);
    m_stanza.reset();
    m_current = nullptr;
    m_text.clear();
    m_fault.clear();
    m_depth = m_nodes = m_fed = m_stanzaEnd = 0;
    m_cut = m_restart = false;
}

void StreamParser::restart() {
    if (!m_feeding) {
        reset();
        return;
    }
    m_restart = true;
    m_resume = position();
    XML_StopParser(m_parser, XML_FALSE);
}

void StreamParser::stop() {
    if (!m_feeding)
        return;
    m_stopped = true;
    XML_StopParser(m_parser, XML_FALSE);
}

bool StreamParser::feed(std::string_view bytes) {
    m_stopped = false;
    while (!bytes.empty() && !m_stopped && m_fault.empty()) {
        const std::size_t length = std::min(bytes.size(), kPiece);
        const std::size_t before = std::exchange(m_fed, m_fed + length);
        m_feeding = true;
        const auto status = XML_Parse(m_parser, bytes.data(), static_cast<int>(length), XML_FALSE);
        m_feeding = false;
        if (m_restart) {
            bytes.remove_prefix(m_resume - before);
            reset();
            continue;
        }
        bytes.remove_prefix(length);
        if (status != XML_STATUS_OK && !isOver())
            m_fault = XML_ErrorString(XML_GetErrorCode(m_parser));
        if (m_fed - m_stanzaEnd > kMaxBytes && !isOver())
            m_fault = "a stanza has too many bytes";
    }
    return m_stopped || m_fault.empty();
}

std::size_t StreamParser::position() const {
    return static_cast<std::size_t>(XML_GetCurrentByteIndex(m_parser)) +
           static_cast<std::size_t>(XML_GetCurrentByteCount(m_parser));
}

void StreamParser::fail(const char* fault) {
    m_fault = fault;
    XML_StopParser(m_parser, XML_FALSE);
}

// After it was stopped Expat may call once more, for the end of an empty element.
void StreamParser::begin(const char* name, const char** attributes) {
    if (isOver())
        return;
    ++m_depth;
    if (m_depth == 1) {
        openStream(name, attributes);
        return;
    }
    if (isTooDeep()) {
        m_cut = true;
        return;
    }
    m_nodes += 1 + countOf(attributes);
    if (m_nodes > kMaxNodes) {
        fail("a stanza has too many elements");
        return;
    }
    addText();
    const Name parts(name);
    if (m_current) {
        m_current = new gloox::Tag(m_current, parts.local);
    } else {
        m_stanza = std::make_unique<gloox::Tag>(parts.local);
        m_current = m_stanza.get();
    }
    if (!parts.prefix.empty())
        m_current->setPrefix(parts.prefix);
    setAttributes(*m_current, attributes);
    // The prefix is declared in the stream's header, which is not a parent of the stanza's element.
    if (m_current == m_stanza.get() && parts.prefix == "stream")
        m_current->setXmlns(gloox::XMLNS_STREAM, parts.prefix);
}

void StreamParser::openStream(const char* name, const char** attributes) {
    const Name parts(name);
    gloox::Tag header(parts.local);
    if (!parts.prefix.empty())
        header.setPrefix(parts.prefix);
    setAttributes(header, attributes);
    if (parts.local != "stream" || header.xmlns() != gloox::XMLNS_STREAM)
        fail("it does not begin as a stream");
    else
        m_handler.handleTag(&header);
    m_stanzaEnd = position();
}

void StreamParser::text(std::string_view text) {
    if (m_depth == 1)
        m_stanzaEnd = position();
    else if (m_current && !isTooDeep())
        m_text += text;
}

void StreamParser::addText() {
    if (m_current && !m_text.empty())
        m_current->addCData(m_text);
    m_text.clear();
}

void StreamParser::end() {
    if (isOver())
        return;
    const bool wasTooDeep = isTooDeep();
    --m_depth;
    if (wasTooDeep)
        return;
    if (m_depth == 0) {
        m_handler.handleTag(nullptr);
        return;
    }
    addText();
    m_current = m_current->parent();
    if (m_depth == 1)
        handOver();
}

void StreamParser::handOver() {
    if (std::exchange(m_cut, false))
        PrvPrintErr({}, "A stanza nests more than %zu levels deep, what is deeper is left out", kMaxDepth);
    m_nodes = 0;
    m_stanzaEnd = position();
    const std::unique_ptr<gloox::Tag> stanza = std::move(m_stanza);
    m_handler.handleTag(stanza.get());
}

}  // namespace xmpp

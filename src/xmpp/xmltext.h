// SPDX-License-Identifier: GPL-3.0-only
// Checks of texts and elements for an XML stream, and a stanza writer that applies them.
//
// One forbidden character ends the stream that all clients of the service share, so everything written is
// checked. No state beyond the current stanza.
#pragma once

#include <gloox/tag.h>

#include <string>
#include <string_view>
#include <vector>

namespace xmpp {

// Well-formed UTF-8 with only characters of XML 1.0 (production Char).
bool isXmlText(std::string_view text);
// The same without tabs and line breaks, which no name of this service has.
bool isXmlAttribute(std::string_view value);
// A name that is refused may contain anything: its beginning, escaped for the log.
std::string printable(const std::string& name);
// A name without a colon (Namespaces in XML 1.0, production NCName) that every parser accepts.
bool isXmlName(std::string_view name);
// Whether the element and everything below it can be written unchanged: names, declared prefixes, texts.
bool isXmlElement(const gloox::Tag& tag);

// Writes one stanza, outer elements first. A text that XML cannot carry invalidates the whole stanza.
class StanzaWriter {
  public:
    // `element`, `name` and `xmlns` are literals of the program and are not checked.
    StanzaWriter& open(std::string_view element, std::string_view xmlns = {});
    StanzaWriter& attribute(std::string_view name, std::string_view value);
    // The same for a value that came from others and is returned unchanged, with its tabs and line breaks.
    StanzaWriter& foreignAttribute(std::string_view name, std::string_view value);
    StanzaWriter& text(std::string_view text);
    StanzaWriter& element(const gloox::Tag& tag);
    // <field var='...' [type='hidden']><value>...</value></field>
    StanzaWriter& field(std::string_view var, std::string_view value, bool hidden = false);
    StanzaWriter& close();
    // Invalidates the stanza, for content that the caller has found invalid.
    void invalidate() { m_invalid = true; }

    // In bytes.
    std::size_t size() const { return m_out.size(); }
    // Closes all open elements and returns the stanza; "" when it is invalid.
    std::string finish();

  private:
    void endStartTag();
    void writeAttribute(std::string_view name, std::string_view value);

    std::string m_out;
    std::vector<std::string> m_open;
    bool m_inStartTag = false;
    bool m_invalid = false;
};

}  // namespace xmpp

// SPDX-License-Identifier: GPL-3.0-only
// What may stand in an XML stream, and a writer that refuses the rest.
//
// One forbidden character ends the stream that every client of the service shares, so nothing is written
// unchecked. No state beyond the stanza being written.
#pragma once

#include <gloox/tag.h>

#include <string>
#include <string_view>
#include <vector>

namespace xmpp {

// Well-formed UTF-8 whose code points XML 1.0 carries (its production Char).
bool isXmlText(std::string_view text);
// The same without tabs and line breaks: no name of ours has them.
bool isXmlAttribute(std::string_view value);
// A name without a colon (Namespaces in XML 1.0, production NCName) that every parser takes for one.
bool isXmlName(std::string_view name);
// Whether the element and everything beneath it can be written as it stands: names, declared prefixes, texts.
bool isXmlElement(const gloox::Tag& tag);

// Writes one stanza from the outside in. The first text that XML cannot carry spoils the stanza as a whole.
class StanzaWriter {
  public:
    // `element`, `name` and `xmlns` are literals of the program and are not checked.
    StanzaWriter& open(std::string_view element, std::string_view xmlns = {});
    StanzaWriter& attribute(std::string_view name, std::string_view value);
    // The same for what others named and is given back as it came, tabs and line breaks with it.
    StanzaWriter& foreignAttribute(std::string_view name, std::string_view value);
    StanzaWriter& text(std::string_view text);
    StanzaWriter& element(const gloox::Tag& tag);
    // <field var='...' [type='hidden']><value>...</value></field>
    StanzaWriter& field(std::string_view var, std::string_view value, bool hidden = false);
    StanzaWriter& close();
    // For what the caller knows that XML cannot carry.
    void spoil() { m_spoilt = true; }

    // Bytes written so far.
    std::size_t size() const { return m_out.size(); }
    // Closes what is open and gives the stanza; empty when it is spoilt.
    std::string finish();

  private:
    void endStartTag();
    void writeAttribute(std::string_view name, std::string_view value);

    std::string m_out;
    std::vector<std::string> m_open;
    bool m_inStartTag = false;
    bool m_spoilt = false;
};

}  // namespace xmpp

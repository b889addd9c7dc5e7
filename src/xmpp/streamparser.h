// SPDX-License-Identifier: GPL-3.0-only
// The parser of the incoming stream, on Expat: from bytes in pieces of any size to gloox's elements.
//
// It replaces gloox's own parser, which treats an element called "stream" anywhere as the stream's, so that
// one in an item ends the stream. Here only the root is. Keeps the stanza that is being received; nothing
// outlives the stream.
#pragma once

#include <gloox/tag.h>
#include <gloox/taghandler.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct XML_ParserStruct;

namespace xmpp {

class StreamParser {
  public:
    // Limits of a stanza, so that a server cannot fill the memory. A larger stanza ends the stream.
    static constexpr std::size_t kMaxBytes = 4u << 20;
    static constexpr std::size_t kMaxNodes = 200'000;  // elements and attributes
    // Levels below the stanza that are kept. Deeper elements are left out: a published item must not end the
    // stream, and everything that processes elements recurses.
    static constexpr std::size_t kMaxDepth = 512;

    // `handler`, borrowed, gets the stream's header when it is opened, each stanza when it is complete, and
    // null when the stream ends. The parser owns the elements.
    explicit StreamParser(gloox::TagHandler& handler);
    ~StreamParser();
    StreamParser(const StreamParser&) = delete;
    StreamParser& operator=(const StreamParser&) = delete;

    // False when the bytes are not a stream, or a stanza exceeds the limits; `fault` then gives the reason.
    bool feed(std::string_view bytes);
    const std::string& fault() const { return m_fault; }
    // Begins a new stream. Inside a call of the handler it begins after the current element.
    void restart();
    // Inside a call of the handler: discards the rest of the input.
    void stop();

  private:
    struct Callbacks;

    void reset();
    void begin(const char* name, const char** attributes);
    void end();
    void text(std::string_view text);
    void openStream(const char* name, const char** attributes);
    void addText();
    void handOver();
    void fail(const char* fault);
    std::size_t position() const;
    bool isOver() const { return m_restart || m_stopped || !m_fault.empty(); }
    bool isTooDeep() const { return m_depth > kMaxDepth + 2; }

    gloox::TagHandler& m_handler;
    XML_ParserStruct* m_parser;
    std::unique_ptr<gloox::Tag> m_stanza;
    gloox::Tag* m_current = nullptr;  // innermost open element of m_stanza
    std::string m_text;               // of m_current, not yet added to it
    std::string m_fault;
    std::size_t m_depth = 0;      // open elements, the stream's among them
    std::size_t m_nodes = 0;      // of m_stanza
    std::size_t m_fed = 0;        // bytes of this stream
    std::size_t m_stanzaEnd = 0;  // of these, up to the end of the last stanza
    std::size_t m_resume = 0;     // with m_restart: the position at which the next stream begins
    bool m_cut = false;           // elements of m_stanza that were too deep were left out
    bool m_feeding = false;
    bool m_restart = false;
    bool m_stopped = false;
};

}  // namespace xmpp

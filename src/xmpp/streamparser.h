// SPDX-License-Identifier: GPL-3.0-only
// The parser of the incoming stream, on Expat: from bytes in pieces of any size to gloox's elements.
//
// It stands in the place of gloox's own, which takes elements called "stream" apart wherever they stand, so
// that one in an item ends the stream. Here only the root is the stream's, whatever the elements beneath it
// are called. Keeps the stanza that is being received; nothing outlives the stream.
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
    // What a stanza may hold, so that no server fills the memory. More ends the stream.
    static constexpr std::size_t kMaxBytes = 4u << 20;
    static constexpr std::size_t kMaxNodes = 200'000;  // elements and attributes
    // Levels beneath the stanza that are kept. What stands deeper is left out of it: whoever publishes such
    // an item must not end the stream with it, and all that works on elements recurses.
    static constexpr std::size_t kMaxDepth = 512;

    // `handler`, borrowed, gets the stream's header as it opens, each stanza as it ends, and null when the
    // stream ends; the elements are the parser's.
    explicit StreamParser(gloox::TagHandler& handler);
    ~StreamParser();
    StreamParser(const StreamParser&) = delete;
    StreamParser& operator=(const StreamParser&) = delete;

    // False when the bytes are not those of a stream, or more than a stanza may hold; `fault` then says why.
    bool feed(std::string_view bytes);
    const std::string& fault() const { return m_fault; }
    // A new stream begins. Inside a call of the handler: with what follows the element at hand.
    void restart();
    // Inside a call of the handler: the rest of what is being fed is nobody's.
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
    std::size_t m_stanzaEnd = 0;  // of those, up to the end of the last stanza
    std::size_t m_resume = 0;     // with m_restart: where the next stream begins
    bool m_cut = false;           // m_stanza lacks what was too deep
    bool m_feeding = false;
    bool m_restart = false;
    bool m_stopped = false;
};

}  // namespace xmpp

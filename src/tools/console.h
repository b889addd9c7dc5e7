// SPDX-License-Identifier: GPL-3.0-only
// Where a command prints: results on one stream, messages on the other, as text or as JSON.
// Borrows its streams.
#pragma once

#include <istream>
#include <ostream>
#include <string>

#include "tools/reply.h"

class Console {
  public:
    // Which of the two streams are terminals: control characters are escaped on these.
    struct Terminals {
        bool out = false, err = false, in = false;
    };
    Console(std::istream& in, std::ostream& out, std::ostream& err, bool json)
        : Console(in, out, err, json, Terminals()) {}
    Console(std::istream& in, std::ostream& out, std::ostream& err, bool json, Terminals terminals)
        : m_in(in), m_out(out), m_err(err), m_json(json), m_terminals(terminals) {}

    bool json() const { return m_json; }
    std::istream& in() { return m_in; }
    // Whether a person can be asked.
    bool isInteractive() const { return m_terminals.in && m_terminals.err; }
    // Reads a line, after a question on the error stream; false at the end of the input.
    bool ask(const std::string& question, std::string& answer);
    // Writes one line and flushes it; false when the reader has closed the stream.
    bool line(const std::string& text);
    // Prints a message for the user to the error stream.
    void message(const std::string& text);
    // Prints a finished call: the reply itself under --json, else `terse` when it succeeded. Returns
    // the exit code.
    Exit finish(const Reply& reply, const std::string& terse);
    Exit usage(const std::string& problem);

  private:
    std::istream& m_in;
    std::ostream& m_out;
    std::ostream& m_err;
    bool m_json;
    Terminals m_terminals;
};

// Line breaks and tabs stay; other control characters (C0, DEL, C1) become \xHH.
std::string escapeForTerminal(const std::string& text);

// A payload as one line of JSON; text that is not JSON becomes a JSON string.
std::string oneLine(const std::string& payload);

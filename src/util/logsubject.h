// SPDX-License-Identifier: GPL-3.0-only
// What log lines are about, for a log that takes fields beside the text.
#pragma once

#include <string>

// While it lives, lines are about this node and this item; "" says nothing. Borrows both texts.
class LogSubject {
  public:
    explicit LogSubject(const std::string& node, const std::string& item = none());
    ~LogSubject();
    LogSubject(const LogSubject&) = delete;
    LogSubject& operator=(const LogSubject&) = delete;

    // Of the innermost that lives; "" without one.
    static const std::string& node();
    static const std::string& item();

  private:
    static const std::string& none();

    const std::string& m_node;
    const std::string& m_item;
    const LogSubject* m_before;
};

// The state of the connection from now on: a literal. "" until the first one.
void setLogState(const char* state);
const char* logState();

// SPDX-License-Identifier: GPL-3.0-only
#include "util/logsubject.h"

namespace {

const LogSubject* innermost = nullptr;
const char* currentState = "";

}  // namespace

LogSubject::LogSubject(const std::string& node, const std::string& item)
    : m_node(node), m_item(item), m_before(innermost) {
    innermost = this;
}

LogSubject::~LogSubject() {
    innermost = m_before;
}

const std::string& LogSubject::none() {
    static const std::string empty;
    return empty;
}

const std::string& LogSubject::node() {
    return innermost ? innermost->m_node : none();
}

const std::string& LogSubject::item() {
    return innermost ? innermost->m_item : none();
}

void setLogState(const char* state) {
    currentState = state;
}

const char* logState() {
    return currentState;
}

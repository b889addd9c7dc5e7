// SPDX-License-Identifier: GPL-3.0-only
// Captures what the diagnostics log writes to standard error, for comparison with the expected texts.
//
// The capture begins with the object and ends with it; captures may be nested. A record begins with
// "[function: line]: "; its text is everything up to the newline before the next record, so a text that
// itself ends in a newline keeps it. Sanitizer reports go to the true standard error all the same.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

extern "C" void __sanitizer_set_report_fd(void* descriptor) __attribute__((weak));

class LogCapture {
  public:
    struct Record {
        std::string function;
        int line;
        std::string text;
    };

    LogCapture() {
        std::fflush(stderr);
        m_saved = dup(STDERR_FILENO);
        m_captured = memfd_create("log", MFD_CLOEXEC);
        dup2(m_captured, STDERR_FILENO);
        reportSanitizersTo(m_saved);
    }
    ~LogCapture() {
        std::fflush(stderr);
        dup2(m_saved, STDERR_FILENO);
        reportSanitizersTo(STDERR_FILENO);
        close(m_saved);
        close(m_captured);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything written so far, or since the last take.
    std::string raw() const {
        std::fflush(stderr);
        const off_t end = lseek(m_captured, 0, SEEK_END);
        std::string text(static_cast<std::size_t>(end - m_begin), '\0');
        const ssize_t length = pread(m_captured, text.data(), text.size(), m_begin);
        text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return text;
    }
    std::vector<Record> records() const { return parse(raw()); }
    // The texts alone: "Malformed json packet? \n".
    std::vector<std::string> texts() const {
        std::vector<std::string> found;
        for (const Record& record : records())
            found.push_back(record.text);
        return found;
    }
    // "function: text".
    std::vector<std::string> lines() const {
        std::vector<std::string> found;
        for (const Record& record : records())
            found.push_back(record.function + ": " + record.text);
        return found;
    }
    // The texts since the last take; later readings begin after them.
    std::vector<std::string> takeTexts() {
        std::vector<std::string> found = texts();
        clear();
        return found;
    }
    std::vector<std::string> takeLines() {
        std::vector<std::string> found = lines();
        clear();
        return found;
    }
    void clear() {
        std::fflush(stderr);
        m_begin = lseek(m_captured, 0, SEEK_END);
    }
    bool contains(const std::string& text) const {
        for (const Record& record : records())
            if (record.text == text)
                return true;
        return false;
    }

  private:
    static void reportSanitizersTo(int descriptor) {
        if (__sanitizer_set_report_fd)
            __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
    }

    static std::vector<Record> parse(const std::string& raw) {
        static const std::regex kHead(R"((^|\n)\[([A-Za-z_~][A-Za-z0-9_]*): ([0-9]+)\]: )");
        std::vector<Record> found;
        std::size_t textBegin = 0;
        for (std::sregex_iterator head(raw.begin(), raw.end(), kHead), end; head != end; ++head) {
            if (!found.empty())
                found.back().text =
                    raw.substr(textBegin, static_cast<std::size_t>(head->position()) - textBegin);
            found.push_back({(*head)[2], std::stoi((*head)[3]), ""});
            textBegin = static_cast<std::size_t>(head->position() + head->length());
        }
        if (!found.empty()) {
            found.back().text = raw.substr(textBegin);
            if (found.back().text.ends_with('\n'))
                found.back().text.pop_back();
        }
        return found;
    }

    int m_saved = -1;
    int m_captured = -1;
    off_t m_begin = 0;
};

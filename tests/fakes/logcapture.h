// SPDX-License-Identifier: GPL-3.0-only
// Captures the log lines on standard error, for comparison with the expected texts.
//
// The capture lasts as long as the object; captures can be nested. A record begins with "[function: line]: ";
// its text is everything up to the newline before the next record, so a text that itself ends in a newline
// keeps it. Sanitizer reports still go to the real standard error.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
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
    // The texts since the last take; later reads begin after them.
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

    // Reads "[function: line]: " at `at`; returns how long it is, 0 when there is none.
    static std::size_t readHead(const std::string& raw, std::size_t at, Record& record) {
        const std::size_t colon = raw.find(": ", at);
        const std::size_t end = raw.find("]: ", at);
        if (raw[at] != '[' || colon == std::string::npos || end == std::string::npos || colon >= end)
            return 0;
        const std::string line = raw.substr(colon + 2, end - colon - 2);
        record = {raw.substr(at + 1, colon - at - 1), std::atoi(line.c_str()), ""};
        const bool isHead = line.find_first_not_of("0123456789") == std::string::npos &&
                            record.function.find_first_of(" []\n") == std::string::npos;
        return isHead ? end + 3 - at : 0;
    }

    static std::vector<Record> parse(const std::string& raw) {
        std::vector<Record> found;
        Record record;
        for (std::size_t at = 0; at < raw.size();) {
            std::size_t lineEnd = raw.find('\n', at);
            lineEnd = lineEnd == std::string::npos ? raw.size() : lineEnd + 1;
            const std::size_t head = readHead(raw, at, record);
            if (head > 0)
                found.push_back(record);
            if (!found.empty())
                found.back().text += raw.substr(at + head, lineEnd - at - head);
            at = lineEnd;
        }
        for (Record& complete : found)
            if (complete.text.ends_with('\n'))
                complete.text.pop_back();
        return found;
    }

    int m_saved = -1;
    int m_captured = -1;
    off_t m_begin = 0;
};

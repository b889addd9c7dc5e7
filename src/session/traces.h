// SPDX-License-Identifier: GPL-3.0-only
// The stations of marked items on this device: when each was received, handed on and acknowledged.
//
// An item is marked by its id, which begins with "trace-". In memory only, of the last items alone.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class Traces {
  public:
    static constexpr std::size_t kItems = 16;
    static constexpr std::size_t kStations = 16;  // of an item, the first ones
    static constexpr std::size_t kMarkMin = 16;   // characters of the publisher's mark
    static constexpr std::size_t kMarkMax = 32;

    struct Station {
        int64_t at;  // microseconds since 1970
        std::string name;
        std::string to;  // who was handed the item; "": nobody
    };

    // Whether `mark` is a text of the base64url alphabet with a permitted length.
    static bool isMark(const std::string& mark);
    static std::string itemId(const std::string& mark) { return "trace-" + mark; }

    // Does nothing for an item that is not marked.
    void append(const std::string& itemId, const char* station, const std::string& to = {});
    std::vector<Station> of(const std::string& itemId) const;

    // When the server was asked under this request id, and, once, when that was.
    void setAsked(const std::string& requestId);
    std::optional<int64_t> takeAsked(const std::string& requestId);

  private:
    struct Item {
        std::string id;
        std::vector<Station> stations;
    };
    std::deque<Item> m_items;                               // the newest last
    std::deque<std::pair<std::string, int64_t>> m_askings;  // likewise
};

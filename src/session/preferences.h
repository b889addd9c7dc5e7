// SPDX-License-Identifier: GPL-3.0-only
// One store of the preferences: opened when it is needed, read as JSON, written, committed.
//
// A view over a handle that somebody else keeps (null: not open), of which this is the only writer. What is
// written is in the handle until the commit. Every commit replaces the handle, so no copy of it may be kept.
#pragma once

#include <string>

#include "util/jsonref.h"
#include "util/log.h"

struct QPHandle;

// The application id of the service's own store.
inline constexpr char kServicePreferences[] = "com.zelt.pubsubservice";

// What stands under a key.
struct StoredValue {
    int result = 0;       // of the store; an absent key is none of its failures
    bool exists = false;  // there is a value
    JsonRef json;         // null when there is none, or when it is no JSON

    bool isUnreadable() const { return result != 0; }
    bool isDamaged() const { return exists && !json; }
};

// Formats for the store's result. A failure whose format is null is not logged.
inline constexpr char kOpenFailed[] = "Getting app handle failed. %d";
inline constexpr char kWriteFailed[] = "Error: QPAppSetValue returned %d, On failed";
struct CommitErrors {
    const char* commitFailed = nullptr;
    const char* openFailed = "Getting app handle failed!";
};

class Preferences {
  public:
    Preferences(const char* application, QPHandle*& handle) : m_application(application), m_handle(handle) {}

    bool isOpen() const { return m_handle != nullptr; }
    // Does nothing when it is open.
    bool open(const char* error = kOpenFailed, CallSite site = {});

    StoredValue read(const std::string& key) const;
    // All keys, in byte order; null when they cannot be read.
    JsonRef keys() const;

    bool write(const std::string& key, json_object* value, const char* error = kWriteFailed,
               CallSite site = {});
    // False when there is no such key, or the store fails.
    bool remove(const std::string& key);

    // Makes durable what was written, as a unit, and opens the store again.
    void commit(const CommitErrors& errors = {}, CallSite site = {});

  private:
    const char* m_application;
    QPHandle*& m_handle;
};

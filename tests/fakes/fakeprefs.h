// SPDX-License-Identifier: GPL-3.0-only
// The preferences store in memory: every QP call with the commit rules of the real one.
//
// Committed values survive restart(), as they survive the end of the process; handles and their
// buffers do not.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/prefs/qp.h"

// A buffer of writes over the stored values; an entry without a value is a removal.
struct QPHandle {
    std::string app;
    std::map<std::string, std::optional<std::string>> writes;
};

class FakePrefs {
  public:
    using Values = std::map<std::string, std::string>;

    // The committed values of an application, as the next start would read them.
    const Values& stored(const std::string& app) const;
    void store(const std::string& app, const std::string& key, const std::string& value);
    void setDeviceId(const std::string& id) { m_deviceId = id; }

    // The next `times` uses of an operation ("QPAppSetValue", ...) fail with this result.
    void failNext(const std::string& operation, int result, int times = 1);
    bool faultPending(const std::string& operation) const { return m_faults.contains(operation); }

    std::size_t openHandles() const { return m_handles.size(); }
    // The process ends: handles are lost without a commit.
    void restart() { m_handles.clear(); }
    // Clears everything.
    void reset();

  private:
    friend struct FakePrefsCalls;
    struct Fault {
        int result;
        int times;
    };

    std::map<std::string, Values> m_stored;
    std::map<QPHandle*, std::unique_ptr<QPHandle>> m_handles;
    std::map<std::string, Fault> m_faults;
    std::string m_deviceId;
};

FakePrefs& fakePrefs();

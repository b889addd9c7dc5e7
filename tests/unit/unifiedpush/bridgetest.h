// SPDX-License-Identifier: GPL-3.0-only
// A session bus, a public bus with the push service, a folder for the state, and the bridge between them, all on
// one main loop.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/unifiedpush/application.h"
#include "tests/unit/unifiedpush/fakedevice.h"
#include "unifiedpush/bridge.h"

inline bool until(const std::function<bool()>& condition, int milliseconds = 10'000) {
    const gint64 deadline = g_get_monotonic_time() + gint64{milliseconds} * 1000;
    const guint tick = g_timeout_add(
        10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    while (!condition() && g_get_monotonic_time() < deadline)
        g_main_context_iteration(nullptr, TRUE);
    g_source_remove(tick);
    return condition();
}

class BridgeTest : public testing::Test {
  protected:
    BridgeTest() { device = std::make_unique<FakeDevice>(); }

    // Starts the bridge, and waits until it has looked at the device.
    void start() {
        bridge = std::make_unique<Bridge>(folder / "state");
        bridge->onEnd = [this] { ended = true; };
        bridge->networkPatience = networkPatience;
        bridge->unixTime = [this] { return now; };
        std::string problem;
        ASSERT_TRUE(bridge->start(problem)) << problem;
    }
    void restart() {
        bridge.reset();
        start();
    }
    std::string stateText() const {
        std::ifstream in(folder / "state/registrations.json");
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static std::string nameOf(const std::string& token, const std::string& vapid = "",
                              const std::string& service = "org.example.app") {
        return endpointName(service, token, vapid);
    }
    // Registers and waits for the address.
    void enroll(Application& app, const std::string& token, const std::string& vapid = "") {
        const std::size_t before = app.calls.size();
        app.enroll(token, vapid);
        ASSERT_TRUE(until([&] { return app.calls.size() > before; }));
        ASSERT_TRUE(until([&] { return stateText().find("\"announced\":false") == std::string::npos; }));
        app.calls.clear();
        app.answers.clear();
    }
    bool isReceived(const std::string& endpoint) {
        return until([&] { return device->receives() > 0 && device->endpoints.contains(endpoint); });
    }

    TestFolder folder;
    PrivateBus session{"DBUS_SESSION_BUS_ADDRESS"};
    PrivateBus publicBus{"ZELT_PUBLIC_BUS"};
    int64_t now = 1'800'000'000;
    int64_t networkPatience = 20'000;  // milliseconds; a test that waits for its end shortens it
    bool ended = false;
    std::unique_ptr<FakeDevice> device;
    std::unique_ptr<Bridge> bridge;
};

inline const std::string kVapid = "B" + std::string(86, 'A');
inline const std::string kOtherVapid = "BA" + std::string(85, 'Q');

// SPDX-License-Identifier: GPL-3.0-only
// A verb of applications against a small service on the public bus, which acts step by step after its replies.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/host/privatebus.h"
#include "tests/unit/tools/commandline.h"
#include "tests/unit/tools/fakeservice.h"

class PublicSteps : public testing::Test, public CommandLine {
  protected:
    // What the service does after its reply to the call number 1, 2, ... of the method.
    void after(const std::string& method, std::vector<std::function<void()>> steps) {
        m_steps[method] = std::move(steps);
        service.afterReply = [this](const std::string& called) {
            size_t number = m_counts[called]++;
            if (number < m_steps[called].size())
                schedule(m_steps[called][number]);
        };
    }
    static void schedule(const std::function<void()>& step) {
        g_idle_add(
            [](gpointer data) -> gboolean {
                std::unique_ptr<std::function<void()>> held(static_cast<std::function<void()>*>(data));
                (*held)();
                return FALSE;
            },
            new std::function<void()>(step));
    }

    PrivateBus publicBus{"ZELT_PUBLIC_BUS"};
    FakeService service{QSBus::Public};

  private:
    std::map<std::string, std::vector<std::function<void()>>> m_steps;
    std::map<std::string, size_t> m_counts;
};

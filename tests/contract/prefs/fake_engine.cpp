// SPDX-License-Identifier: GPL-3.0-only
// The contract of the preferences store on the fake that the unit tests link.
#include "tests/contract/prefs/engine.h"
#include "tests/fakes/fakeprefs.h"

namespace {

class FakeEngine : public PrefsEngine {
  public:
    FakeEngine() { fakePrefs().reset(); }
    ~FakeEngine() override { fakePrefs().reset(); }
    void restart() override { fakePrefs().restart(); }
};

}  // namespace

std::unique_ptr<PrefsEngine> makePrefsEngine() {
    return std::make_unique<FakeEngine>();
}

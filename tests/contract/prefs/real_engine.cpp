// SPDX-License-Identifier: GPL-3.0-only
// The contract of the preferences store on the real one, in a folder that is removed with the engine.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/prefs/store.h"
#include "tests/contract/prefs/engine.h"

namespace {

class RealEngine : public PrefsEngine {
  public:
    RealEngine() {
        std::string name = (std::filesystem::temp_directory_path() / "prefs-XXXXXX").string();
        m_folder = mkdtemp(name.data());
        std::ofstream(m_folder / "machine-id") << "0123456789abcdef0123456789abcdef\n";
        setenv("ZELT_PREFS_DIR", (m_folder / "prefs").c_str(), 1);
        setenv("ZELT_MACHINE_ID_FILE", (m_folder / "machine-id").c_str(), 1);
    }
    ~RealEngine() override {
        closePrefsStores();
        std::filesystem::remove_all(m_folder);
    }
    void restart() override { closePrefsStores(); }

  private:
    std::filesystem::path m_folder;
};

}  // namespace

std::unique_ptr<PrefsEngine> makePrefsEngine() {
    return std::make_unique<RealEngine>();
}

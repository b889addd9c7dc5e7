// SPDX-License-Identifier: GPL-3.0-only
// The registered item handlers of each node, and the file that keeps them over a restart.
//
// Keeps PubSubSession::serviceNodeMap, appNodeMap and m_confirming. Each line of the file is a record: the text
// of a JSON object ({"node", "endpoint", optional "app" and "confirm"}), a zero byte and a newline. The file is read once at start, a
// new registration appends to it, and a withdrawn one replaces it atomically and synced. At a damaged record
// the file is deleted; the records read before it stay in memory.
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

// A line is read into 4096 bytes: 4095 characters, among them the record's zero byte, and the terminator.
constexpr std::size_t kLineLength = 4095;
constexpr std::size_t kRecordLength = kLineLength - 1;
constexpr mode_t kFileMode = 0666;  // of a new file, before the umask

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// The next line without its newline; false at the end of the file. When a line fills the buffer, the newline
// after it is consumed too, so that the longest record is not followed by an empty one.
bool readLine(FILE* file, std::string& line) {
    line.clear();
    int character = 0;
    while (line.size() < kLineLength && (character = std::getc(file)) != EOF && character != '\n')
        line.push_back(static_cast<char>(character));
    if (line.size() < kLineLength)
        return character != EOF || !line.empty();
    character = std::getc(file);
    if (character != '\n' && character != EOF)
        std::ungetc(character, file);
    return true;
}

struct Record {
    std::string node;
    std::string endpoint;
    bool confirm = false;
};

// Parses one record. `app` keeps its value when the record has none.
bool parseRecord(const std::string& line, Record& record, bool& app) {
    const JsonRef object = parseJson(line.c_str());
    if (!object)
        return false;
    record.node = getJSONString(object.get(), "node", {});
    if (record.node.empty())
        return false;
    record.endpoint = getJSONString(object.get(), "endpoint", {});
    if (record.endpoint.empty())
        return false;
    std::string ignored;
    getJSONboolean(object.get(), "app", ignored, app);
    record.confirm = boolMember(object.get(), "confirm");
    return true;
}

bool makeStateDir(CallSite site) {
    if (mkdir(stateDir().c_str(), 0744) == 0 || errno == EEXIST)
        return true;
    PrvPrintErr(site, "Creating /var/pubsub failed");
    return false;
}

// A longer record would be read in two pieces, and the second piece would have the whole file deleted.
bool fitsLine(std::size_t length, CallSite site) {
    if (length <= kRecordLength)
        return true;
    PrvPrintErr(
        site, "Handler record of %zu characters not saved, the limit is %zu. Use a shorter node or endpoint.",
        length, kRecordLength);
    return false;
}

File openHandlerFile(const char* mode, CallSite site) {
    File file(std::fopen(handlerFile().c_str(), mode));
    if (file)
        // Unbuffered, so that an error belongs to the current record and closing writes nothing.
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
    else
        PrvPrintErr(site, "Cannot open handler file.");
    return file;
}

bool writeRecord(FILE* file, const std::string& record, CallSite site) {
    struct stat before = {};
    fstat(fileno(file), &before);
    const std::string line = record + std::string("\0\n", 2);
    std::fwrite(line.data(), 1, line.size(), file);
    if (!std::ferror(file))
        return true;
    PrvPrintErr(site, "Cannot write to file.");
    // A partly written record, on a full disk, would be read as damage and have the file deleted.
    [[maybe_unused]] const int trimmed = ftruncate(fileno(file), before.st_size);
    return false;
}

// Not built as an object: the main loop waits while thousands of records are written.
void appendRecordText(std::string& text, const std::string& node, const std::string& endpoint, bool app,
                      bool confirm) {
    text += R"({ "node": )";
    appendJsonString(text, node);
    text += app ? R"(, "app": true, "endpoint": )" : R"(, "app": false, "endpoint": )";
    appendJsonString(text, endpoint);
    text += confirm ? R"(, "confirm": true })" : " }";
}

// The shortest form of a record: no spaces, no escaped slashes, and no "app" when it equals that of the
// record before. The text that a caller registered is never shorter.
std::string shortRecordText(const std::string& node, const std::string& endpoint, bool app, bool appBefore,
                            bool confirm) {
    JsonObject record;
    record.set("node", node).set("endpoint", endpoint);
    if (app != appBefore)
        record.set("app", app);
    if (confirm)
        record.set("confirm", true);
    return record.line();
}

using NodeMap = std::map<std::string, std::list<std::string>>;
using Confirming = std::map<std::string, std::set<std::string>>;

bool confirms(const Confirming& confirming, const std::string& node, const std::string& endpoint) {
    const auto handlers = confirming.find(node);
    return handlers != confirming.end() && handlers->second.contains(endpoint);
}

// The new text of the file, with the records of all maps.
class Rewrite {
  public:
    explicit Rewrite(CallSite site) : m_site(site) {}

    void add(const NodeMap& table, bool app, const Confirming& confirming) {
        for (const auto& [node, endpoints] : table)
            for (const std::string& endpoint : endpoints)
                add(node, endpoint, app, confirms(confirming, node, endpoint));
    }
    const std::string& text() const { return m_text; }
    // False when a record was too long. It is left out, because it would have the whole file deleted.
    bool complete() const { return m_complete; }

  private:
    // A record that is too long in its full form is written in its short form.
    void add(const std::string& node, const std::string& endpoint, bool app, bool confirm) {
        const std::size_t start = m_text.size();
        appendRecordText(m_text, node, endpoint, app, confirm);
        if (const std::size_t length = m_text.size() - start; length > kRecordLength) {
            m_text.resize(start);
            const std::string record = shortRecordText(node, endpoint, app, m_app, confirm);
            if (record.size() > kRecordLength) {
                fitsLine(length, m_site);
                m_complete = false;
                return;
            }
            m_text += record;
        }
        m_text.append("\0\n", 2);
        m_app = app;
    }

    CallSite m_site;
    std::string m_text;
    bool m_app = false;  // the value with which reading begins
    bool m_complete = true;
};

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};

// Atomic: a kill, a full disk or a power cut leaves either the old file or the new one.
bool replaceHandlerFile(const std::string& text, CallSite site) {
    struct stat before = {};
    // Do not replace a file that cannot be opened for writing.
    if (const File file = openHandlerFile("a", site); !file || fstat(fileno(file.get()), &before) != 0)
        return false;
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    GError* error = nullptr;
    if (g_file_set_contents_full(handlerFile().c_str(), text.data(), static_cast<gssize>(text.size()), flags,
                                 static_cast<int>(before.st_mode & kFileMode), &error))
        return true;
    const std::unique_ptr<GError, FreeError> owned(error);
    PrvPrintErr(site, "Cannot write to file.");
    return false;
}

// Removes unfinished files, left by a kill beside the handler file, whose names are six characters longer.
void removeUnfinishedRewrites() {
    const std::string prefix = std::filesystem::path(handlerFile()).filename().string() + '.';
    std::error_code none;
    std::vector<std::filesystem::path> left;
    for (const auto& entry : std::filesystem::directory_iterator(stateDir(), none)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(prefix) && name.size() == prefix.size() + 6 &&
            std::all_of(name.end() - 6, name.end(), [](unsigned char c) { return std::isalnum(c); }))
            left.push_back(entry.path());
    }
    for (const std::filesystem::path& path : left)
        unlink(path.c_str());
}

// Refuses a record that a later rewrite could not write.
bool canBeRewritten(const std::string& record, CallSite site) {
    Record parsed;
    bool app = false;
    return !parseRecord(record, parsed, app) ||
           fitsLine(shortRecordText(parsed.node, parsed.endpoint, false, false, parsed.confirm).size(), site);
}

bool appendRecord(const char* line, CallSite site) {
    std::string record(line);
    std::replace_if(
        record.begin(), record.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (!fitsLine(record.size(), site) || !canBeRewritten(record, site))
        return false;
    const File file = openHandlerFile("a", site);
    return file && writeRecord(file.get(), record, site);
}

}  // namespace

bool PubSubSession::addNodeToMap(std::string node, std::string endpoint, bool app, bool& alreadyPresent) {
    std::list<std::string>& endpoints = (app ? appNodeMap : serviceNodeMap)[node];
    alreadyPresent = std::find(endpoints.begin(), endpoints.end(), endpoint) != endpoints.end();
    if (!alreadyPresent)
        endpoints.push_back(std::move(endpoint));
    return true;
}

bool PubSubSession::removeNodeFromMap(std::string node, std::string endpoint, bool app) {
    NodeMap& table = app ? appNodeMap : serviceNodeMap;
    const auto entry = table.find(node);
    if (entry == table.end() || entry->second.remove(endpoint) == 0)
        return false;
    if (!app)
        setConfirming(node, endpoint, false);
    if (entry->second.empty())
        table.erase(entry);
    return true;
}

bool PubSubSession::setConfirming(const std::string& node, const std::string& endpoint, bool confirm) {
    if (confirm)
        return m_confirming[node].insert(endpoint).second;
    const auto handlers = m_confirming.find(node);
    if (handlers == m_confirming.end() || handlers->second.erase(endpoint) == 0)
        return false;
    if (handlers->second.empty())
        m_confirming.erase(handlers);
    return true;
}

void PubSubSession::ReadHandlerFile() {
    removeUnfinishedRewrites();
    File file(std::fopen(handlerFile().c_str(), "r"));
    if (!file) {
        PrvPrintErr({}, "Warning: No handler file present");
        return;
    }
    // sic: initialised once, before the first line. A record without "app" goes to the same map as the
    // record before it.
    bool app = false;
    bool alreadyPresent = false;
    std::string line;
    Record record;
    while (readLine(file.get(), line)) {
        if (!parseRecord(line, record, app)) {
            PrvPrintErr({}, "Malformed handler file. Stop reading \n");
            file.reset();
            unlink(handlerFile().c_str());
            return;
        }
        addNodeToMap(record.node, record.endpoint, app, alreadyPresent);
        if (!app)
            setConfirming(record.node, record.endpoint, record.confirm);
    }
}

bool PubSubSession::UpdateHandlerFile(const char* line, bool append) {
    const CallSite site;
    if (!makeStateDir(site))
        return false;
    if (append)
        return appendRecord(line, site);
    Rewrite rewrite(site);
    rewrite.add(serviceNodeMap, false, m_confirming);
    rewrite.add(appNodeMap, true, {});
    return replaceHandlerFile(rewrite.text(), site) && rewrite.complete();
}

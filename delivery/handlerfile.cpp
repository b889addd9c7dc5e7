// SPDX-License-Identifier: GPL-3.0-only
// The registered item handlers of each node, and the file that brings them over a restart.
//
// Keeps PubSubSession::serviceNodeMap and appNodeMap. The file holds one record a line: the text of a JSON
// object
// ({"node", "endpoint", optional "app"}), a zero byte and a newline. It is read once at start, appended to by
// a new registration and written anew when one is withdrawn. A damaged record costs the file, not what was
// read before it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "session/pubsubsession.h"
#include "util/jsonargs.h"
#include "util/jsonref.h"
#include "util/log.h"
#include "util/paths.h"

namespace {

// A line is read into 4096 bytes: 4095 characters and the terminator. The record's own zero byte is one of
// them.
constexpr std::size_t kLineLength = 4095;
constexpr std::size_t kRecordLength = kLineLength - 1;

// The log names the operation and not the step of it that failed.
constexpr const char* kUpdate = "UpdateHandlerFile";

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// The next line without its newline; false at the end of the file. The newline after a line that fills the
// buffer belongs to that line, so that the longest record is not followed by an empty one.
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
};

// Reads one record. `app` keeps the value of the record before when this one has none.
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
    return true;
}

bool makeStateDir() {
    if (mkdir(stateDir().c_str(), 0744) == 0 || errno == EEXIST)
        return true;
    PrvPrintErr(kUpdate, __LINE__, "Creating /var/pubsub failed");
    return false;
}

// A longer record would be read back in two pieces, and the second piece would cost the whole file.
bool fitsLine(std::string_view record) {
    if (record.size() <= kRecordLength)
        return true;
    PrvPrintErr(
        kUpdate, __LINE__,
        "Handler record of %zu characters not saved, the limit is %zu. Use a shorter node or endpoint.",
        record.size(), kRecordLength);
    return false;
}

File openHandlerFile(const char* mode) {
    File file(std::fopen(handlerFile().c_str(), mode));
    if (file)
        // So that an error is one of the record at hand, and nothing of it is left for the close to write.
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
    else
        PrvPrintErr(kUpdate, __LINE__, "Cannot open handler file.");
    return file;
}

bool writeRecord(FILE* file, const std::string& record) {
    struct stat before = {};
    fstat(fileno(file), &before);
    const std::string line = record + std::string("\0\n", 2);
    std::fwrite(line.data(), 1, line.size(), file);
    if (!std::ferror(file))
        return true;
    PrvPrintErr(kUpdate, __LINE__, "Cannot write to file.");
    // The piece of a record that a full disk still took would read as damage, and damage costs the file.
    [[maybe_unused]] const int trimmed = ftruncate(fileno(file), before.st_size);
    return false;
}

std::string recordText(const std::string& node, const std::string& endpoint, bool app) {
    const JsonRef object(json_object_new_object());
    json_object_object_add(object.get(), "node", json_object_new_string(node.c_str()));
    json_object_object_add(object.get(), "app", json_object_new_boolean(app));
    json_object_object_add(object.get(), "endpoint", json_object_new_string(endpoint.c_str()));
    return json_object_to_json_string(object.get());
}

using NodeMap = std::map<std::string, std::list<std::string>>;

// False when writing fails. A record that does not fit is left out and clears `complete`: it must not cost
// the rest.
bool writeTable(FILE* file, const NodeMap& table, bool app, bool& complete) {
    for (const auto& [node, endpoints] : table)
        for (const std::string& endpoint : endpoints) {
            const std::string record = recordText(node, endpoint, app);
            if (!fitsLine(record))
                complete = false;
            else if (!writeRecord(file, record))
                return false;
        }
    return true;
}

bool appendRecord(const char* line) {
    std::string record(line);
    std::replace_if(
        record.begin(), record.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (!fitsLine(record))
        return false;
    const File file = openHandlerFile("a");
    return file && writeRecord(file.get(), record);
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
    if (entry->second.empty())
        table.erase(entry);
    return true;
}

void PubSubSession::ReadHandlerFile() {
    File file(std::fopen(handlerFile().c_str(), "r"));
    if (!file) {
        PrvPrintErr(__func__, __LINE__, "Warning: No handler file present");
        return;
    }
    // sic: set once, before the first line. A record without "app" goes to the table of the record before it.
    bool app = false;
    bool alreadyPresent = false;
    std::string line;
    Record record;
    while (readLine(file.get(), line)) {
        if (!parseRecord(line, record, app)) {
            PrvPrintErr(__func__, __LINE__, "Malformed handler file. Stop reading \n");
            file.reset();
            unlink(handlerFile().c_str());
            return;
        }
        addNodeToMap(record.node, record.endpoint, app, alreadyPresent);
    }
}

bool PubSubSession::UpdateHandlerFile(const char* line, bool append) {
    if (!makeStateDir())
        return false;
    if (append)
        return appendRecord(line);
    const File file = openHandlerFile("w");
    bool complete = true;
    return file && writeTable(file.get(), serviceNodeMap, false, complete) &&
           writeTable(file.get(), appNodeMap, true, complete) && complete;
}

// SPDX-License-Identifier: GPL-3.0-only
// The table of verbs and what several of them share. Keeps no state.
#include "tools/verbs.h"

#include <glib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

static constexpr size_t kMostText = 16 * 1024 * 1024;

const std::vector<Verb>& allVerbs() {
    static const std::vector<Verb> verbs = {
        {{"status"},
         "[--follow | --wait] [--public]",
         "show whether the service is connected to its server",
         0,
         0,
         {{"follow", 'f', nullptr, "keep on printing every change"},
          {"wait", 0, nullptr, "return once it is connected, or when --timeout is over"},
          {"public", 0, nullptr, "ask on the public bus, which also asks the service to connect"}},
         runStatus},
        {{"session", "login"},
         "",
         "log in anew with the machine's account and wait for the connection",
         0,
         0,
         {},
         runSessionLogin},
        {{"session", "disconnect"},
         "",
         "end the connection; it comes back with the network or a login",
         0,
         0,
         {},
         runSessionDisconnect},
        {{"session", "jid"}, "", "name the account that the service uses", 0, 0, {}, runSessionJid},
        {{"doctor"}, "", "check everything between here and the server", 0, 0, {}, runDoctor},
        {{"node", "create"},
         "NODE [OPTION...]",
         "create a node on the server",
         1,
         1,
         {{"collection", 0, nullptr, "a node that holds other nodes"},
          {"parent", 0, "NODE", "the collection to put it in"},
          {"title", 0, "TEXT", "its name for people"},
          {"access", 0, "open|authorize", "who may subscribe: anyone, or whom the owner approves"}},
         runNodeCreate},
        {{"node", "delete"}, "NODE", "delete a node from the server", 1, 1, {}, runNodeDelete},
        {{"node", "publish"},
         "NODE [TEXT | - | --file FILE | --json OBJECT]",
         "publish one item; without a text it is read from standard input",
         1,
         2,
         {{"file", 0, "FILE", "take the text from a file, byte for byte"},
          {"json", 0, "OBJECT", "an item with elements and attributes; - reads it from standard input"}},
         runNodePublish},
        {{"node", "subscribe"},
         "NODE [--jid JID] [--depth N]",
         "subscribe the device, or a JID, to a node",
         1,
         1,
         {{"jid", 0, "JID", "who is subscribed; the service's own JID by default"},
          {"depth", 0, "N", "how deep to look below a collection (1)"}},
         runNodeSubscribe},
        {{"node", "unsubscribe"},
         "NODE --jid JID --subid ID",
         "end a subscription",
         1,
         1,
         {{"jid", 0, "JID", "who was subscribed"}, {"subid", 0, "ID", "the id that subscribing printed"}},
         runNodeUnsubscribe},
        {{"node", "config"},
         "NODE [--set NAME=VALUE]...",
         "show a node's configuration, or set options of it",
         1,
         1,
         {{"set", 0, "NAME=VALUE", "an option to set, such as access_model=open; may be repeated"}},
         runNodeConfig},
        {{"endpoint", "create"},
         "NAME [--description TEXT] [--access authorize]",
         "create an endpoint of this application and print its publish key",
         1,
         1,
         {{"description", 0, "TEXT", "what it is for, up to 49 bytes"},
          {"access", 0, "authorize", "let others subscribe when the owner approves"}},
         runEndpointCreate},
        {{"endpoint", "delete"},
         "NAME",
         "delete an endpoint; its key dies with it",
         1,
         1,
         {},
         runEndpointDelete},
        {{"endpoint", "key"}, "NAME", "print an endpoint's publish key", 1, 1, {}, runEndpointKey},
        {{"subscribe"},
         "ENDPOINT [-C COUNT] [-W SECONDS] [-- COMMAND...]",
         "receive an endpoint's items and print each, or run a command with each on its standard input",
         1,
         1,
         {{"count", 'C', "COUNT", "end after so many items"}, {"wait", 'W', "SECONDS", "end after so long"}},
         runSubscribe,
         true},
        {{"unsubscribe"},
         "ENDPOINT [--onclose]",
         "stop the endpoint's items, whichever process waits for them",
         1,
         1,
         {{"onclose", 0, nullptr, "end the notices for the closed application too"}},
         runUnsubscribe},
        {{"publish"},
         "KEY|URL [TEXT | - | --file FILE]",
         "publish one item over HTTP to the endpoint that has the key",
         1,
         2,
         {{"file", 0, "FILE", "take the text from a file, byte for byte"},
          {"url", 0, "URL", "where to publish; PUBSUB_HTTP_URL or HTTP_URL by default"}},
         runPublish},
        {{"pending", "list"},
         "[NODE...] [-C COUNT] [-W SECONDS]",
         "print the subscribers that wait for approval, as they come",
         0,
         1000,
         {{"count", 'C', "COUNT", "end after so many"}, {"wait", 'W', "SECONDS", "end after so long"}},
         runPendingList},
        {{"pending", "approve"},
         "NODE --id ID --subid SUBID --jid JID",
         "let a waiting subscriber in",
         1,
         1,
         {{"id", 0, "ID", "the request's id, as `pending list` printed it"},
          {"subid", 0, "SUBID", "the subscription's id"},
          {"jid", 0, "JID", "who waits"}},
         runPendingApprove},
        {{"pending", "deny"},
         "NODE --id ID --subid SUBID --jid JID",
         "turn a waiting subscriber away",
         1,
         1,
         {{"id", 0, "ID", "the request's id, as `pending list` printed it"},
          {"subid", 0, "SUBID", "the subscription's id"},
          {"jid", 0, "JID", "who waits"}},
         runPendingDeny},
        {{"onclose", "listen"},
         "[-C COUNT] [-W SECONDS]",
         "be told of items for closed applications; one listener at a time",
         0,
         0,
         {{"count", 'C', "COUNT", "end after so many"}, {"wait", 'W', "SECONDS", "end after so long"}},
         runOnCloseListen},
        {{"onclose", "add"},
         "ENDPOINT",
         "have the endpoint's items announced when this application is closed",
         1,
         1,
         {},
         runOnCloseAdd},
        {{"onclose", "remove"}, "ENDPOINT", "end those announcements", 1, 1, {}, runOnCloseRemove},
        {{"handler"},
         "NODE [-C COUNT] [-W SECONDS]",
         "receive a node's items and print each until interrupted",
         1,
         1,
         {{"count", 'C', "COUNT", "end after so many items"}, {"wait", 'W', "SECONDS", "end after so long"}},
         runHandler},
        {{"call"},
         "METHOD [JSON | -] [--follow | --no-reply] [--public]",
         "call a method of the service, or any whole zelt:// URI, and print the answer",
         1,
         2,
         {{"follow", 'f', nullptr, "subscribe, and keep on printing answers"},
          {"public", 0, nullptr, "call on the public bus"},
          {"no-reply", 0, nullptr, "do not wait for an answer, for methods that give none"},
          {"raw", 0, nullptr, "send the text as it is, JSON or not"}},
         runCall},
    };
    return verbs;
}

std::unique_ptr<BusClient> openBus(QSBus bus, Reply& failure) {
    auto client = std::make_unique<BusClient>();
    std::string words;
    if (client->connect(bus, nullptr, words) && client->attach(words))
        return client;
    failure = noBus(words);
    return nullptr;
}

Reply callService(const Invocation& invocation, const char* method, const std::string& payload) {
    Reply failure;
    auto client = openBus(QSBus::Private, failure);
    return client ? client->call(methodUri(method), payload, invocation.timeoutSeconds) : failure;
}

Reply callPublic(const Invocation& invocation, const char* method, const std::string& payload) {
    Reply failure;
    auto client = openBus(QSBus::Public, failure);
    return client ? client->call(methodUri(method), payload, invocation.timeoutSeconds) : failure;
}

static void readStream(std::istream& stream, std::string& text) {
    char block[65536];
    while (text.size() <= kMostText && (stream.read(block, sizeof block), stream.gcount() > 0))
        text.append(block, static_cast<size_t>(stream.gcount()));
}

bool mayTravel(const std::string& text, const std::string& place, std::string& problem) {
    if (text.size() > kMostText)
        problem = place + " is longer than 16 MiB; publish a reference to it instead";
    else if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
        problem = place + " is not UTF-8 text (or holds a NUL); encode it first, for instance with base64";
    return problem.empty();
}

bool readWhole(Console& console, const std::string& place, std::string& text, std::string& problem) {
    text.clear();
    if (place == "-") {
        readStream(console.in(), text);
        return mayTravel(text, "standard input", problem);
    }
    std::ifstream file(place, std::ios::binary);
    file.peek();  // a folder opens, but cannot be read
    if (!file.is_open() || file.bad()) {
        problem = "cannot read " + place + "; check the name and its permissions";
        return false;
    }
    readStream(file, text);
    return mayTravel(text, place, problem);
}

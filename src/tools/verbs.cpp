// SPDX-License-Identifier: GPL-3.0-only
// The table of verbs and what several of them share. Keeps no state.
#include "tools/verbs.h"

#include <glib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace {

constexpr size_t kMostText = 16 * 1024 * 1024;

constexpr OptionSpec kCount = {
    .name = "count", .letter = 'C', .value = "COUNT", .help = "exit after so many"};
constexpr OptionSpec kCountOfItems = {
    .name = "count", .letter = 'C', .value = "COUNT", .help = "exit after so many items"};
constexpr OptionSpec kWait = {
    .name = "wait", .letter = 'W', .value = "SECONDS", .help = "exit after this time"};
constexpr OptionSpec kUrl = {
    .name = "url", .value = "URL", .help = "where to publish; PUBSUB_HTTP_URL or HTTP_URL by default"};
const std::vector<OptionSpec> kRequestOptions = {
    {.name = "id", .value = "ID", .help = "the request's id, as `pending list` printed it"},
    {.name = "subid", .value = "SUBID", .help = "the subscription's id"},
    {.name = "jid", .value = "JID", .help = "the subscriber"},
};

void readStream(std::istream& stream, std::string& text) {
    char block[65536];
    while (text.size() <= kMostText && (stream.read(block, sizeof block), stream.gcount() > 0))
        text.append(block, static_cast<size_t>(stream.gcount()));
}

}  // namespace

const std::vector<Verb>& allVerbs() {
    static const std::vector<Verb> verbs = {
        {.words = {"status"},
         .usage = "[--follow | --wait] [--public]",
         .help = "show whether the service is connected to its server",
         .options = {{.name = "follow", .letter = 'f', .help = "keep printing every change"},
                     {.name = "wait", .help = "return once it is connected, or when --timeout expires"},
                     {.name = "public",
                      .help = "ask on the public bus, which also asks the service to connect"}},
         .run = runStatus},
        {.words = {"session", "login"},
         .help = "log in again with the machine's account and wait for the connection",
         .run = runSessionLogin},
        {.words = {"session", "disconnect"},
         .help = "end the connection until a login, or another request for one, re-establishes it",
         .run = runSessionDisconnect},
        {.words = {"session", "jid"}, .help = "show the account that the service uses", .run = runSessionJid},
        {.words = {"setup"},
         .usage = "[--service DOMAIN] [--user NAME] [--url HOST] [--port PORT] [--endpoint NAME]",
         .help = "set the machine up: try a server and an account, store them, connect, and show an item "
                 "arriving; asks for what is not given, and reads the token from standard input",
         .options = {{.name = "service", .value = "DOMAIN", .help = "the domain of the account"},
                     {.name = "user", .value = "NAME", .help = "its user name, the part before the @"},
                     {.name = "url", .value = "HOST", .help = "the server's host; the domain by default"},
                     {.name = "port", .value = "PORT", .help = "the server's port (5222)"},
                     {.name = "endpoint",
                      .value = "NAME",
                      .help = "the endpoint to create for the user (first)"}},
         .run = runSetup},
        {.words = {"doctor"}, .help = "check everything between here and the server", .run = runDoctor},
        {.words = {"node", "create"},
         .usage = "NODE [OPTION...]",
         .help = "create a node on the server",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "collection", .help = "a node that holds other nodes"},
                     {.name = "parent", .value = "NODE", .help = "the collection to put it in"},
                     {.name = "title", .value = "TEXT", .help = "its display name"},
                     {.name = "access",
                      .value = "open|authorize",
                      .help = "who may subscribe: anyone, or subscribers that the owner approves"}},
         .run = runNodeCreate},
        {.words = {"node", "delete"},
         .usage = "NODE",
         .help = "delete a node from the server",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runNodeDelete},
        {.words = {"node", "list"},
         .help = "print the nodes that this device has handlers for or has received items of",
         .run = runNodeList},
        {.words = {"node", "publish"},
         .usage = "NODE [TEXT | - | --file FILE | --json OBJECT]",
         .help = "publish one item; without a text it is read from standard input",
         .minArguments = 1,
         .maxArguments = 2,
         .options = {{.name = "file", .value = "FILE", .help = "read the text from a file, byte for byte"},
                     {.name = "json",
                      .value = "OBJECT",
                      .help = "an item with elements and attributes; - reads it from standard input"}},
         .run = runNodePublish},
        {.words = {"node", "subscribe"},
         .usage = "NODE [--jid JID] [--depth N]",
         .help = "subscribe the device, or a JID, to a node",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "jid",
                      .value = "JID",
                      .help = "who is subscribed; the service's own JID by default"},
                     {.name = "depth", .value = "N", .help = "how many levels below a collection (1)"}},
         .run = runNodeSubscribe},
        {.words = {"node", "unsubscribe"},
         .usage = "NODE --jid JID --subid ID",
         .help = "end a subscription",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "jid", .value = "JID", .help = "who was subscribed"},
                     {.name = "subid", .value = "ID", .help = "the id that subscribing printed"}},
         .run = runNodeUnsubscribe},
        {.words = {"node", "config"},
         .usage = "NODE [--set NAME=VALUE]...",
         .help = "show a node's configuration, or set options of it",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "set",
                      .value = "NAME=VALUE",
                      .help = "an option to set, such as access_model=open; may be repeated"}},
         .run = runNodeConfig},
        {.words = {"endpoint", "create"},
         .usage = "NAME [--description TEXT] [--access authorize]",
         .help = "create an endpoint of this application and print its publish key",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "description", .value = "TEXT", .help = "what it is for, up to 49 bytes"},
                     {.name = "access",
                      .value = "authorize",
                      .help = "let others subscribe when the owner approves"}},
         .run = runEndpointCreate},
        {.words = {"endpoint", "delete"},
         .usage = "ENDPOINT",
         .help = "delete an endpoint and its key",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runEndpointDelete},
        {.words = {"endpoint", "key"},
         .usage = "ENDPOINT",
         .help = "print an endpoint's publish key",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runEndpointKey},
        {.words = {"endpoint", "list"},
         .help = "print this application's endpoints, who gets their items and how many wait",
         .run = runEndpointList},
        {.words = {"subscribe"},
         .usage = "ENDPOINT [-C COUNT] [-W SECONDS] [--newest] [[--retries N] -- COMMAND...]",
         .help = "receive an endpoint's items and print each, or run a command with each on its standard "
                 "input; the server keeps an item until that is done",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {kCountOfItems,
                     kWait,
                     {.name = "retries",
                      .value = "N",
                      .help = "how often a command that failed is run again with the same item (3)"},
                     {.name = "newest",
                      .help =
                          "take only the newest item of those that came meanwhile, whatever happens to it"}},
         .run = runSubscribe,
         .takesCommand = true},
        {.words = {"unsubscribe"},
         .usage = "ENDPOINT [--onclose]",
         .help = "stop the endpoint's items, whichever process receives them",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "onclose", .help = "also end the notices for the closed application"}},
         .run = runUnsubscribe},
        {.words = {"publish"},
         .usage = "KEY|URL [TEXT | - | --file FILE]",
         .help = "publish one item over HTTP to the endpoint that has the key",
         .minArguments = 1,
         .maxArguments = 2,
         .options = {{.name = "file", .value = "FILE", .help = "read the text from a file, byte for byte"},
                     kUrl},
         .run = runPublish},
        {.words = {"trace"},
         .usage = "NODE|KEY|URL [-W SECONDS] [--url URL]",
         .help = "publish a marked item and print when it passed each station up to its acknowledgement",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {{.name = "wait",
                      .letter = 'W',
                      .value = "SECONDS",
                      .help = "how long to wait for the acknowledgement (10)"},
                     kUrl},
         .run = runTrace},
        {.words = {"push", "list"},
         .help = "print what the applications of this session have registered for push messages",
         .run = runPushList},
        {.words = {"push", "remove"},
         .usage = "ENDPOINT",
         .help = "end a registration, as `push list` printed it; its application is told",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runPushRemove},
        {.words = {"push", "test"},
         .help = "send a message the whole way to an application of the session, and print how long each "
                 "part took",
         .run = runPushTest},
        {.words = {"pending", "list"},
         .usage = "[NODE...] [-C COUNT] [-W SECONDS]",
         .help = "print the subscribers that wait for approval, as they arrive",
         .maxArguments = 1000,
         .options = {kCount, kWait},
         .run = runPendingList},
        {.words = {"pending", "approve"},
         .usage = "NODE --id ID --subid SUBID --jid JID",
         .help = "approve a waiting subscriber",
         .minArguments = 1,
         .maxArguments = 1,
         .options = kRequestOptions,
         .run = runPendingApprove},
        {.words = {"pending", "deny"},
         .usage = "NODE --id ID --subid SUBID --jid JID",
         .help = "deny a waiting subscriber",
         .minArguments = 1,
         .maxArguments = 1,
         .options = kRequestOptions,
         .run = runPendingDeny},
        {.words = {"onclose", "listen"},
         .usage = "[-C COUNT] [-W SECONDS]",
         .help = "print notices of items for closed applications; one listener at a time",
         .options = {kCount, kWait},
         .run = runOnCloseListen},
        {.words = {"onclose", "add"},
         .usage = "ENDPOINT",
         .help = "announce the endpoint's items while this application is closed",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runOnCloseAdd},
        {.words = {"onclose", "remove"},
         .usage = "ENDPOINT",
         .help = "end those announcements",
         .minArguments = 1,
         .maxArguments = 1,
         .run = runOnCloseRemove},
        {.words = {"handler"},
         .usage = "NODE [-C COUNT] [-W SECONDS] [--confirm]",
         .help = "receive a node's items and print each until interrupted",
         .minArguments = 1,
         .maxArguments = 1,
         .options = {kCountOfItems,
                     kWait,
                     {.name = "confirm", .help = "have the server keep an item until it has been printed"}},
         .run = runHandler},
        {.words = {"call"},
         .usage = "METHOD [JSON | -] [--follow | --no-reply] [--public]",
         .help = "call a method of the service, or any full zelt:// URI, and print the answer",
         .minArguments = 1,
         .maxArguments = 2,
         .options = {{.name = "follow", .letter = 'f', .help = "subscribe and keep printing answers"},
                     {.name = "public", .help = "call on the public bus"},
                     {.name = "no-reply", .help = "do not wait for an answer, for methods that send none"},
                     {.name = "raw", .help = "send the text as it is, JSON or not"}},
         .run = runCall},
    };
    return verbs;
}

std::unique_ptr<BusClient> openBus(QSBus bus, Reply& failure) {
    auto client = std::make_unique<BusClient>();
    std::string problem;
    if (client->connect(bus, nullptr, problem) && client->attach(problem))
        return client;
    failure = noBus(problem);
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

bool isSendable(const std::string& text, const std::string& place, std::string& problem) {
    if (text.size() > kMostText)
        problem = place + " is longer than 16 MiB; publish a reference to it instead";
    else if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
        problem = place + " is not UTF-8 text (or contains a NUL); encode it first, for instance with base64";
    return problem.empty();
}

bool readWhole(Console& console, const std::string& place, std::string& text, std::string& problem) {
    text.clear();
    if (place == "-") {
        readStream(console.in(), text);
        return isSendable(text, "standard input", problem);
    }
    std::ifstream file(place, std::ios::binary);
    file.peek();  // a folder can be opened, but not read
    if (!file.is_open() || file.bad()) {
        problem = "cannot read " + place + "; check the name and its permissions";
        return false;
    }
    readStream(file, text);
    return isSendable(text, place, problem);
}

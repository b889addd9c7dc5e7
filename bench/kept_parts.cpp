// SPDX-License-Identifier: GPL-3.0-only
// The parts of the delivery of items that are kept until they are taken, one after the other and with nothing
// of the service between them: kept_parts PORT NODES COUNT, for the receiver, with so many endpoints, or
// PORT 0 COUNT, for the confirming handler. Connects to the scripted server, reads the stanza of an item, sets
// an alarm, looks the item's number up and hands the item to bench_receiver; when it is taken, commits the
// number, acknowledges to the server and answers. Prints "NAME MICROSECONDS-AN-ITEM" lines; the last part is
// what is waited for: the bus daemons, the host, the receiver and the server.
//
// The parts alternate, as in the service: each one, repeated alone, would find the processor's caches full of
// itself, and take a third of the time.
#include <glib-unix.h>
#include <gloox/parser.h>
#include <gloox/tag.h>
#include <gloox/taghandler.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include "bench/link.h"
#include "platform/bus/qsraii.h"
#include "platform/prefs/qp.h"

namespace {

using bench::Clock;

constexpr char kStandIn[] = "com.zelt.bench.handout";
constexpr char kStore[] = "com.zelt.bench.parts";
constexpr char kXmlns[] = "urn:zelt:pubsub:device:0";
constexpr const char* kParts[] = {"parse", "alarm", "read", "hand-out", "commit", "ack", "answer", "others"};
enum Part { Parse, Alarm, Read, HandOut, Commit, Ack, Answer, Others };

// Where the time goes: to one part at any moment.
double spent[std::size(kParts)];
Part current = Others;
Clock::time_point since;

Part enter(Part next) {
    const Clock::time_point now = Clock::now();
    spent[current] += std::chrono::duration<double, std::micro>(now - since).count();
    since = now;
    return std::exchange(current, next);
}

class Timed {
  public:
    explicit Timed(Part part) : m_before(enter(part)) {}
    ~Timed() { enter(m_before); }
    Timed(const Timed&) = delete;
    Timed& operator=(const Timed&) = delete;

  private:
    Part m_before;
};

struct Item {
    std::string node;
    std::string id;
    std::string number;
};

class Road : public gloox::TagHandler {
  public:
    Road(int port, long nodes, long count)
        : m_nodes(nodes), m_count(count), m_link("127.0.0.1", port), m_parser(this) {}

    void run() {
        check(QSRegister(QSBus::Private, nullptr, &m_private, m_error) &&
              QSGmainAttach(m_private, m_loop, m_error));
        static constexpr QSMethod methods[] = {{.name = "createEndpoint", .handler = onCreate},
                                               {.name = "receive", .handler = onReceive},
                                               {.name = "acknowledge", .handler = onAcknowledge},
                                               {}};
        QSHandle* served = nullptr;
        if (m_nodes != 0)
            check(QSRegister(QSBus::Public, kStandIn, &served, m_error) &&
                  QSRegisterCategory(served, "/", methods, this, m_error) &&
                  QSGmainAttach(served, m_loop, m_error));
        if (QPAppGetHandle(kStore, &m_store) != 0)
            fail("the preferences cannot be opened");
        std::string header = "<stream:stream xmlns:stream='http://etherx.jabber.org/streams'>";
        m_parser.feed(header);
        std::puts("ready");
        std::fflush(stdout);
        if (m_nodes == 0)
            activate();
        g_main_loop_run(m_loop);
        for (std::size_t part = 0; part < std::size(kParts); ++part)
            std::printf("%s %.3f\n", kParts[part], spent[part] / static_cast<double>(m_count));
    }

  private:
    [[noreturn]] static void fail(const char* text) {
        std::fprintf(stderr, "%s\n", text);
        std::exit(1);
    }
    void check(bool done) {
        if (!done)
            fail(m_error.message());
    }

    void activate() {
        std::string text = "<iq to='pubsub.localhost' id='b' type='set'><activate-nodes>";
        for (long i = 0; i < m_nodes; ++i)
            text += "<node id='e" + std::to_string(i) + "' limit='1'/>";
        if (m_nodes == 0)
            text += "<node id='/bench/kept' limit='1'/>";
        m_link.send(text + "</activate-nodes></iq>");
        m_link.flush();
        m_link.unblock();
        g_unix_fd_add(m_link.descriptor(), G_IO_IN, onInput, this);
    }

    static gboolean onInput(gint, GIOCondition, gpointer data) {
        auto* self = static_cast<Road*>(data);
        const Timed timed(Parse);
        std::string piece;
        self->m_link.read(piece);
        self->m_parser.feed(piece);
        return G_SOURCE_CONTINUE;
    }

    void handleTag(gloox::Tag* tag) override {
        if (tag->name() != "message")
            return;
        if (m_arrived++ == 0) {
            for (double& part : spent)
                part = 0;
        }
        const gloox::Tag* items = tag->findChild("event")->findChild("items");
        const gloox::Tag* item = items->findChild("item");
        const Item came = {items->findAttribute("node"), item->findAttribute("id"),
                           item->findAttribute("seqNo")};
        handOut(came, item->findChild("payload")->cdata());
    }

    void handOut(const Item& item, const std::string& text) {
        {
            const Timed timed(Alarm);
            check(QSCall(m_private, "zelt://com.zelt.power/timeout/set",
                         R"({"key":"bench", "uri":"quor://com.zelt.bench.sink/none", "in":"00:25:00", )"
                         R"("wakeup":true, "params":"{}"})",
                         onAlarm, nullptr, nullptr, m_error));
        }
        {
            const Timed timed(Read);
            char* value = nullptr;
            QPAppCopyValue(m_store, item.node.c_str(), &value);
            json_object_put(value ? json_tokener_parse(value) : nullptr);
            std::free(value);
        }
        const Timed timed(HandOut);
        m_open[item.node] = item;
        if (m_nodes == 0) {
            const std::string payload = R"({ "item": ")" + text + R"(", "itemid": ")" + item.id +
                                        R"(", "node": ")" + item.node + R"(", "returnValue": true })";
            check(QSCall(m_private, "zelt://com.zelt.bench.confirm/item", payload.c_str(), onConfirmed, this,
                         nullptr, m_error));
            return;
        }
        const std::string payload = R"({ "returnValue": true, "endpoint": ")" + item.node +
                                    R"(", "item": ")" + text + R"(", "itemid": ")" + item.id +
                                    R"(", "receipt": "12345678901234567890-)" + item.number + R"(" })";
        check(QSMessageRespond(m_receiver.get(), payload.c_str(), m_error));
    }

    void take(const Item& item) {
        {
            const Timed timed(Commit);
            QPAppSetValue(m_store, item.node.c_str(), (R"({ "seqNo": ")" + item.number + R"(" })").c_str());
            QPAppFreeHandle(m_store, true);
            QPAppGetHandle(kStore, &m_store);
        }
        const Timed timed(Ack);
        gloox::Tag message("message");
        message.addAttribute("to", "pubsub.localhost");
        message.addAttribute("id", "x" + item.number);
        auto* ack = new gloox::Tag(&message, "ack");
        ack->setXmlns(kXmlns);
        ack->addAttribute("node", item.node);
        ack->addAttribute("id", item.id);
        ack->addAttribute("seqNo", item.number);
        m_link.send(message.xml());
        m_link.flush();
        ++m_taken;
    }

    static bool onAlarm(QSHandle*, QSMessage*, void*) { return true; }

    static bool onCreate(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<Road*>(context);
        self->check(QSMessageReply(handle, message, R"({"returnValue":true})", self->m_error));
        return true;
    }

    static bool onReceive(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<Road*>(context);
        bool subscribed = false;
        self->check(QSSubscriptionProcess(handle, message, &subscribed, self->m_error));
        self->m_receiver = KeptMessage(message);
        self->check(QSMessageReply(handle, message, R"({"returnValue":true})", self->m_error));
        self->activate();
        return true;
    }

    static bool onAcknowledge(QSHandle* handle, QSMessage* message, void* context) {
        auto* self = static_cast<Road*>(context);
        const Timed timed(Answer);
        json_object* request = json_tokener_parse(QSMessageGetPayload(message));
        json_object* endpoint = nullptr;
        json_object_object_get_ex(request, "endpoint", &endpoint);
        const std::string node = json_object_get_string(endpoint);
        json_object_put(request);
        self->take(self->m_open[node]);
        const std::string answer = R"({ "returnValue": true, "endpoint": ")" + node + "\" }";
        self->check(QSMessageReply(handle, message, answer.c_str(), self->m_error));
        self->endAfterTheLast();
        return true;
    }

    static bool onConfirmed(QSHandle*, QSMessage* reply, void* context) {
        auto* self = static_cast<Road*>(context);
        if (QSMessageIsError(reply))
            fail(QSMessageGetPayload(reply));
        self->take(self->m_open["/bench/kept"]);
        self->endAfterTheLast();
        return true;
    }

    void endAfterTheLast() {
        if (m_taken == m_count)
            g_main_loop_quit(m_loop);
    }

    long m_nodes;
    long m_count;
    bench::Link m_link;
    gloox::Parser m_parser;
    GMainLoop* m_loop = g_main_loop_new(nullptr, FALSE);
    QSHandle* m_private = nullptr;
    QPHandle* m_store = nullptr;
    KeptMessage m_receiver;
    std::map<std::string, Item> m_open;
    long m_arrived = 0;
    long m_taken = 0;
    BusError m_error;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_kept_parts PORT NODES COUNT\n");
        return 2;
    }
    since = Clock::now();
    Road(std::atoi(argv[1]), std::atol(argv[2]), std::atol(argv[3])).run();
}

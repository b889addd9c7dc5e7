// SPDX-License-Identifier: GPL-3.0-only
// The parts of item delivery, each measured alone over the same number of items: item_parts COUNT NODE
// PAYLOAD. Prints "NAME MICROSECONDS-AN-ITEM" lines. Needs ZELT_PRIVATE_BUS with bench_sink and a power
// service on it, and ZELT_PREFS_DIR on the file system of interest.
#include <gloox/parser.h>
#include <gloox/tag.h>
#include <gloox/taghandler.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "platform/bus/qs.h"
#include "platform/prefs/qp.h"

namespace {

using Clock = std::chrono::steady_clock;

void report(const char* name, long count, const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    const std::chrono::duration<double, std::micro> spent = Clock::now() - start;
    std::printf("%s %.3f\n", name, spent.count() / static_cast<double>(count));
}

std::string stanza(const std::string& node, long number, const std::string& payload) {
    const std::string n = std::to_string(number);
    return "<message from='pubsub.localhost' to='device@localhost/bench' id='m" + n +
           "'><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" + node + "'><item id='i" +
           n + "' seqNo='" + n + "'><payload>" + payload + "</payload></item></items></event></message>";
}

struct Counter : gloox::TagHandler {
    long count = 0;
    void handleTag(gloox::Tag*) override { ++count; }
};

void parse(long count, const std::string& node, const std::string& payload) {
    std::string text = "<stream:stream xmlns:stream='http://etherx.jabber.org/streams'>";
    for (long i = 0; i < count; ++i)
        text += stanza(node, i, payload);
    Counter counter;
    gloox::Parser parser(&counter);
    constexpr std::size_t kPiece = 65536;  // as much as one read of the socket returns
    report("parse", count, [&] {
        for (std::size_t at = 0; at < text.size(); at += kPiece) {
            std::string piece = text.substr(at, kPiece);
            parser.feed(piece);
        }
    });
    if (counter.count < count)
        std::fprintf(stderr, "only %ld of %ld stanzas were parsed\n", counter.count, count);
}

long gReplies = 0;

bool onReply(QSHandle*, QSMessage*, void*) {
    ++gReplies;
    return true;
}

void busCalls(long count, const std::string& node, const std::string& payload) {
    QSError error;
    QSErrorInit(&error);
    QSHandle* handle = nullptr;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    if (!QSRegister(QSBus::Private, nullptr, &handle, &error) || !QSGmainAttach(handle, loop, &error)) {
        QSErrorPrint(&error, stderr);
        std::exit(1);
    }
    const std::string item =
        R"({ "item": ")" + payload + R"(", "itemid": "i1", "node": ")" + node + R"(", "returnValue": true })";
    const char* alarm = R"({"key":"bench", "uri":"quor://com.zelt.bench.sink/none", "in":"00:25:00", )"
                        R"("wakeup":true, "params":"{}"})";
    // For each item one delivery without a reply and one alarm with a reply, as many together as one read of
    // the socket returns.
    constexpr long kTogether = 200;
    report("bus-calls", count, [&] {
        for (long sent = 0; sent < count;) {
            for (long i = 0; i < kTogether && sent < count; ++i, ++sent) {
                QSCall(handle, "zelt://com.zelt.power/timeout/set", alarm, onReply, nullptr, nullptr, &error);
                QSCall(handle, "zelt://com.zelt.bench.sink/item", item.c_str(), nullptr, nullptr, nullptr,
                       &error);
            }
            while (g_main_context_iteration(nullptr, FALSE)) {
            }
        }
        while (gReplies < count)
            g_main_context_iteration(nullptr, TRUE);
    });
    QSErrorFree(&error);
}

void store(long count, const std::string& node) {
    const char* app = "com.zelt.bench.parts";
    QPHandle* handle = nullptr;
    if (QPAppGetHandle(app, &handle) != 0) {
        std::fprintf(stderr, "the preferences cannot be opened\n");
        std::exit(1);
    }
    report("commit", count, [&] {
        for (long i = 0; i < count; ++i) {
            QPAppSetValue(handle, node.c_str(), (R"({ "seqNo": ")" + std::to_string(i) + R"(" })").c_str());
            QPAppFreeHandle(handle, true);
            QPAppGetHandle(app, &handle);
        }
    });
    report("read", count, [&] {
        for (long i = 0; i < count; ++i) {
            char* value = nullptr;
            QPAppCopyValue(handle, node.c_str(), &value);
            json_object_put(json_tokener_parse(value));
            std::free(value);
        }
    });
    QPAppFreeHandle(handle, false);
}

void acknowledge(long count, const std::string& node) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        std::exit(1);
    std::thread reader([fd = ends[1]] {
        char buffer[65536];
        while (read(fd, buffer, sizeof buffer) > 0) {
        }
    });
    report("ack", count, [&] {
        for (long i = 0; i < count; ++i) {
            gloox::Tag message("message");
            message.addAttribute("to", "pubsub.localhost");
            message.addAttribute("id", "x" + std::to_string(i));
            auto* ack = new gloox::Tag(&message, "ack");
            ack->setXmlns("urn:zelt:pubsub:device:0");
            ack->addAttribute("node", node);
            ack->addAttribute("id", "i" + std::to_string(i));
            const std::string text = message.xml();
            if (write(ends[0], text.data(), text.size()) < 0)
                std::exit(1);
        }
    });
    close(ends[0]);
    reader.join();
    close(ends[1]);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_parts COUNT NODE PAYLOAD\n");
        return 2;
    }
    const long count = std::atol(argv[1]);
    const std::string node = argv[2];
    const std::string payload = argv[3];
    parse(count, node, payload);
    busCalls(count, node, payload);
    store(count, node);
    acknowledge(count, node);
}

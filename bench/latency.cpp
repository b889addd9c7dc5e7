// SPDX-License-Identifier: GPL-3.0-only
// Measures how long one item takes from its publisher to its receiver, one item at a time:
//
//   bench_latency prompt HOST PORT PATH ENDPOINT COUNT                a POST to an application of the service
//   bench_latency xmpp HOST PORT DOMAIN USER PASSWORD NODE COUNT      an XMPP session to another one
//   bench_latency mqtt HOST PORT COUNT                                an MQTT client to another one, with QoS 1
//
// Publisher and receiver are one process, so one clock measures both. `prompt` makes the endpoint at the service of the
// bus ZELT_PUBLIC_BUS; COUNT has to stay below the burst that a key may have. Prints the same line as bench_server.
#include <cstdlib>
#include <memory>

#include "bench/busclient.h"
#include "bench/session.h"

namespace {

using bench::Account;
using bench::Clock;
using bench::Figures;
using bench::Link;
using bench::Session;

constexpr char kService[] = "com.zelt.pubsubservice";
constexpr char kSubscription[] = "com.zelt.Subscription1";
const std::string kText(100, 'x');

// Reads until the mark is there, and drops what stands up to it.
void await(Link& link, std::string& in, std::string_view mark) {
    std::size_t found = 0;
    while ((found = in.find(mark)) == std::string::npos)
        link.read(in);
    in.erase(0, found + mark.size());
}

void sendNow(Link& link, std::string_view text) {
    link.send(text);
    link.flush();
}

// The application: it subscribes to its endpoint anew for each item, since an item ends a subscription.
class Application {
  public:
    explicit Application(const std::string& endpoint)
        : m_bus(bench::connect(nullptr, "ZELT_PUBLIC_BUS")),
          m_endpoint(R"({"endpoint":")" + endpoint + "\"}") {
        bench::check(sd_bus_add_filter(m_bus, nullptr, onMessage, this), "filter");
    }
    ~Application() { sd_bus_flush_close_unref(m_bus); }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    std::string makeEndpoint() {
        call("createEndpoint");
        const std::string mark = R"("publishKey":")";
        std::string& text = m_answer;
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        const std::size_t key = text.find(mark);
        if (key == std::string::npos)
            throw std::runtime_error("no endpoint was made: " + text);
        const std::size_t begin = key + mark.size();
        return text.substr(begin, text.find('"', begin) - begin);
    }
    // Two answers say that it is subscribed: the reply, and the server's.
    void subscribe() {
        m_answers = 0;
        call("subscribe");
        awaitAnswers(1);
    }
    void awaitItem() { awaitAnswers(2); }
    // The service has forgotten the subscription when it has said so.
    void awaitEnd() {
        while (!m_ended)
            wait();
        m_ended = false;
    }

  private:
    static int onMessage(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<Application*>(data);
        if (sd_bus_message_is_signal(message, kSubscription, "Answer"))
            ++self.m_answers;
        else if (sd_bus_message_is_signal(message, kSubscription, "Ended"))
            self.m_ended = true;
        return 0;
    }
    void call(const char* method) {
        sd_bus_message* reply = nullptr;
        bench::check(sd_bus_call_method(m_bus, kService, "/", kService, method, nullptr, &reply, "s",
                                        m_endpoint.c_str()),
                     method);
        const char* text = "";
        bench::check(sd_bus_message_read(reply, "s", &text), "reading the reply");
        m_answer = text;
        sd_bus_message_unref(reply);
    }
    void awaitAnswers(int count) {
        while (m_answers < count)
            wait();
    }
    void wait() {
        const int result = sd_bus_process(m_bus, nullptr);
        bench::check(result, "processing");
        if (result > 0)
            return;
        const int come = sd_bus_wait(m_bus, 20'000'000);
        bench::check(come, "waiting");
        if (come == 0)
            throw std::runtime_error("the application was told nothing for 20 s");
    }

    sd_bus* m_bus;
    std::string m_endpoint;
    std::string m_answer;
    int m_answers = 0;
    bool m_ended = false;
};

void prompt(Figures& figures, const std::string& host, int port, const std::string& path,
            const std::string& endpoint, int count) {
    Application application(endpoint);
    const std::string request = "POST " + path + "/" + application.makeEndpoint() +
                                " HTTP/1.1\r\nHost: " + host +
                                "\r\nContent-Length: " + std::to_string(kText.size()) + "\r\n\r\n" + kText;
    Link link(host, port);
    for (int i = 0; i < count; ++i) {
        application.subscribe();
        const auto asked = Clock::now();
        sendNow(link, request);
        application.awaitItem();
        figures.note(asked, true);
        application.awaitEnd();
        std::string in;
        await(link, in, "\r\n\r\n");
        while (in.find('}') == std::string::npos)
            link.read(in);
    }
}

void xmpp(Figures& figures, const Account& account, const std::string& node, int count) {
    Session receiver(account, "receiver");
    sendNow(receiver.link(), "<presence/>");
    receiver.ask("<iq type='set' id='sub' to='" + receiver.service() + "'><pubsub xmlns='" + bench::kPubSub +
                     "'><subscribe node='" + node + "' jid='" + account.user + "@" + account.domain +
                     "/receiver'/></pubsub></iq>",
                 "id='sub'");
    Session publisher(account, "publisher");
    for (int i = 0; i < count; ++i) {
        const std::string id = "load-" + std::to_string(i) + "'";
        const auto asked = Clock::now();
        sendNow(publisher.link(), "<iq type='set' id='" + id + " to='" + publisher.service() +
                                      "'><pubsub xmlns='" + bench::kPubSub + "'><publish node='" + node +
                                      "'><item><payload>" + kText +
                                      "</payload></item></publish></pubsub></iq>");
        await(receiver.link(), receiver.input(), kText);
        figures.note(asked, true);
        await(publisher.link(), publisher.input(), id);
    }
}

// A text as MQTT carries it, and a packet: its first byte, its length (below 16384), and what it holds.
std::string mqttText(const std::string& text) {
    return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xff)} + text;
}
std::string mqttPacket(unsigned char kind, const std::string& content) {
    std::string packet(1, static_cast<char>(kind));
    if (content.size() < 128)
        packet += static_cast<char>(content.size());
    else
        packet += {static_cast<char>(content.size() % 128 | 0x80), static_cast<char>(content.size() / 128)};
    return packet + content;
}

// An MQTT 3.1.1 client that is connected.
class Mqtt {
  public:
    Mqtt(const std::string& host, int port, const std::string& name) : m_link(host, port) {
        const std::string clean{4, 2, 0, 0};  // the protocol's level, a clean session, no keep-alive
        ask(mqttPacket(0x10, mqttText("MQTT") + clean + mqttText(name)), 4);
    }
    // Sends a packet and reads an answer of so many bytes.
    std::string ask(const std::string& packet, std::size_t size) {
        sendNow(m_link, packet);
        return take(size);
    }
    std::string take(std::size_t size) {
        while (m_in.size() < size)
            m_link.read(m_in);
        std::string taken = m_in.substr(0, size);
        m_in.erase(0, size);
        return taken;
    }
    Link& link() { return m_link; }

  private:
    Link m_link;
    std::string m_in;
};

void mqtt(Figures& figures, const std::string& host, int port, int count) {
    const std::string topic = mqttText("bench/item");
    Mqtt receiver(host, port, "receiver");
    Mqtt publisher(host, port, "publisher");
    receiver.ask(mqttPacket(0x82, std::string{0, 1} + topic + std::string{1}), 5);
    const std::string id{0, 1};
    const std::string packet =
        mqttPacket(0x32, topic + id + kText);  // one at a time, so all may have one number
    for (int i = 0; i < count; ++i) {
        const auto asked = Clock::now();
        sendNow(publisher.link(), packet);
        const std::string item = receiver.take(packet.size());
        figures.note(asked, item.compare(item.size() - kText.size(), kText.size(), kText) == 0);
        sendNow(receiver.link(), mqttPacket(0x40, item.substr(packet.size() - kText.size() - 2, 2)));
        publisher.take(4);
    }
}

}  // namespace

int main(int count, char** arguments) {
    const std::vector<std::string> given(arguments + 1, arguments + count);
    try {
        Figures figures;
        const auto begin = Clock::now();
        if (given.size() == 6 && given[0] == "prompt")
            prompt(figures, given[1], std::stoi(given[2]), given[3], given[4], std::stoi(given[5]));
        else if (given.size() == 8 && given[0] == "xmpp")
            xmpp(figures, {given[1], std::stoi(given[2]), given[3], given[4], given[5]}, given[6],
                 std::stoi(given[7]));
        else if (given.size() == 4 && given[0] == "mqtt")
            mqtt(figures, given[1], std::stoi(given[2]), std::stoi(given[3]));
        else
            throw std::runtime_error("bad arguments; the first lines of the source say which there are");
        figures.print(bench::secondsSince(begin));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_latency: %s\n", error.what());
        return 1;
    }
    return 0;
}

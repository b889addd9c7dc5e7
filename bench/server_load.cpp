// SPDX-License-Identifier: GPL-3.0-only
// A load generator for the XMPP server: publications over XMPP and over HTTP, and deliveries to devices.
//
//   bench_server publish HOST PORT DOMAIN USER PASSWORD SESSIONS IN_FLIGHT SECONDS NODE...
//   bench_server http    HOST PORT METHOD CONNECTIONS SECONDS PATH...
//   bench_server deliver HOST PORT DOMAIN USER PASSWORD NODE DEVICES IN_FLIGHT SECONDS ack|noack
//   bench_server hold    HOST PORT DOMAIN USER PASSWORD NODE DEVICES
//
// One thread, nothing but sockets: it must not be what is measured. Prints one line of JSON: what was answered, what was
// refused, the seconds it took, and the 50th and 99th percentile of the time from request to answer, in microseconds.
// `hold` keeps devices of a node connected, without anything for them to do, from that line to the end of its input.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <unordered_map>

#include "bench/session.h"

namespace {

using bench::Account;
using bench::Clock;
using bench::Figures;
using bench::kPubSub;
using bench::Link;
using bench::secondsSince;
using bench::Session;

constexpr char kIdMark[] = " id='load-";
constexpr char kDevice[] = "urn:zelt:pubsub:device:0";

// Waits for any of the links and hands each that can be read to `take`.
template <typename Links, typename Take>
void turn(Links& links, Take take) {
    std::vector<pollfd> entries;
    bool pending = false;
    for (auto& each : links) {
        entries.push_back({each->link().descriptor(),
                           static_cast<short>(POLLIN | (each->link().wantsToWrite() ? POLLOUT : 0)), 0});
        pending = pending || each->link().hasMore();
    }
    ::poll(entries.data(), entries.size(), pending ? 0 : 100);
    for (std::size_t i = 0; i < links.size(); ++i) {
        Link& link = links[i]->link();
        if (entries[i].revents & POLLOUT)
            link.flush();
        if ((entries[i].revents & (POLLIN | POLLHUP)) || link.hasMore())
            while (link.read(links[i]->input()))
                take(*links[i]);
    }
}

// The publisher's half of a session: so many publications wait for their answers at any time.
class Publisher : public Session {
  public:
    Publisher(const Account& account, const std::string& resource, std::vector<std::string> nodes,
              Figures& figures)
        : Session(account, resource), m_nodes(std::move(nodes)), m_figures(figures) {
        link().unblock();
    }

    void publish() {
        const std::string& node = m_nodes[m_next % m_nodes.size()];
        const std::string id = std::to_string(m_next++);
        link().send("<iq type='set' id='load-" + id + "' to='" + service() + "'><pubsub xmlns='" + kPubSub +
                    "'><publish node='" + node + "'><item><payload>" + kText +
                    "</payload></item></publish></pubsub></iq>");
        m_asked[m_next - 1] = Clock::now();
    }
    // Notes each answer and publishes once more for it, while there is time.
    void take(bool goOn) {
        std::string& in = input();
        std::size_t done = 0;
        for (std::size_t mark = in.find(kIdMark); mark != std::string::npos; mark = in.find(kIdMark, done)) {
            const std::size_t end = in.find('>', mark);
            if (end == std::string::npos)
                break;
            const std::size_t begin = in.rfind('<', mark);
            long id = -1;
            const char* number = in.data() + mark + sizeof kIdMark - 1;
            std::from_chars(number, in.data() + end, id);
            done = end + 1;
            const auto asked = m_asked.find(id);
            if (asked == m_asked.end())
                continue;  // the stanza that an error gives back
            const std::string_view tag(in.data() + begin, end - begin);
            m_figures.note(asked->second, tag.find("type='result'") != std::string_view::npos);
            m_asked.erase(asked);
            if (goOn)
                publish();
        }
        if (done)
            in.erase(0, done);
        link().flush();
    }
    bool waits() const { return !m_asked.empty(); }

  private:
    // An item of 100 bytes.
    static constexpr char kText[] =
        "012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678"
        "9";

    std::vector<std::string> m_nodes;
    Figures& m_figures;
    long m_next = 0;
    std::unordered_map<long, Clock::time_point> m_asked;
};

void publish(const Account& account, int sessions, int inFlight, double seconds,
             const std::vector<std::string>& nodes) {
    Figures figures;
    std::vector<std::unique_ptr<Publisher>> publishers;
    for (int i = 0; i < sessions; ++i) {
        std::vector<std::string> own;
        for (std::size_t j = static_cast<std::size_t>(i) % nodes.size(); j < nodes.size();
             j += static_cast<std::size_t>(sessions))
            own.push_back(nodes[j]);
        publishers.push_back(std::make_unique<Publisher>(account, "load" + std::to_string(i), own, figures));
    }
    const auto begin = Clock::now();
    for (auto& each : publishers) {
        for (int i = 0; i < inFlight; ++i)
            each->publish();
        each->link().flush();
    }
    while (secondsSince(begin) < seconds)
        turn(publishers, [&](Publisher& each) { each.take(secondsSince(begin) < seconds); });
    const double taken = secondsSince(begin);
    figures.print(taken);
}

// A device that receives a node's items and acknowledges them.
class Device : public Session {
  public:
    Device(const Account& account, const std::string& resource, bool acknowledges)
        : Session(account, resource), m_acknowledges(acknowledges) {}

    void subscribe(const std::string& node, const std::string& user, const std::string& domain,
                   const std::string& resource) {
        m_node = node;
        if (m_acknowledges)
            link().send("<presence to='" + service() + "'/>");
        else
            link().send("<presence/>");
        ask("<iq type='set' id='sub' to='" + service() + "'><pubsub xmlns='" + kPubSub +
                "'><subscribe node='" + node + "' jid='" + user + "@" + domain + "/" + resource +
                "'/></pubsub></iq>",
            "id='sub'");
        link().unblock();
    }
    // Counts the items of what came, and acknowledges them in one write.
    long take() {
        std::string& in = input();
        long items = 0;
        std::size_t done = 0;
        for (std::size_t end = in.find("</message>"); end != std::string::npos;
             end = in.find("</message>", done)) {
            const std::string_view message(in.data() + done, end - done);
            done = end + strlen("</message>");
            const std::size_t item = message.find("<item ");
            if (item == std::string_view::npos)
                continue;
            ++items;
            if (!m_acknowledges)
                continue;
            const std::size_t id = message.find("id='", item) + 4;
            acknowledge(std::string(message.substr(id, message.find('\'', id) - id)));
        }
        in.erase(0, done);
        link().flush();
        return items;
    }

  private:
    void acknowledge(const std::string& item) {
        link().send("<message to='" + service() + "'><ack xmlns='" + kDevice + "' node='" + m_node +
                    "' id='" + item + "'/></message>");
    }

    std::string m_node;
    bool m_acknowledges;
};

// One publisher and many devices of one node. A publication counts as answered when the server took it; the deliveries
// are counted apart, until the last device has had everything.
void deliver(const Account& account, const std::string& node, int devices, int inFlight, double seconds,
             bool acknowledges) {
    Figures figures;
    std::vector<std::unique_ptr<Publisher>> publisher;
    publisher.push_back(
        std::make_unique<Publisher>(account, "load", std::vector<std::string>{node}, figures));
    std::vector<std::unique_ptr<Device>> receivers;
    for (int i = 0; i < devices; ++i) {
        const std::string resource = "device" + std::to_string(i);
        receivers.push_back(std::make_unique<Device>(account, resource, acknowledges));
        receivers.back()->subscribe(node, account.user, account.domain, resource);
    }
    long deliveries = 0;
    const auto begin = Clock::now();
    for (int i = 0; i < inFlight; ++i)
        publisher[0]->publish();
    publisher[0]->link().flush();
    const auto isOver = [&] { return secondsSince(begin) >= seconds; };
    while (!isOver() || publisher[0]->waits() ||
           (deliveries < figures.answered * devices && secondsSince(begin) < 3 * seconds)) {
        turn(publisher, [&](Publisher& each) { each.take(!isOver()); });
        turn(receivers, [&](Device& each) { deliveries += each.take(); });
    }
    const double taken = secondsSince(begin);
    std::printf("{\"deliveries\": %ld, \"published\": %ld, \"refused\": %ld, \"seconds\": %.3f}\n",
                deliveries, figures.answered, figures.refused, taken);
}

void hold(const Account& account, const std::string& node, int devices) {
    std::vector<std::unique_ptr<Device>> held;
    for (int i = 0; i < devices; ++i) {
        const std::string resource = "held" + std::to_string(i);
        held.push_back(std::make_unique<Device>(account, resource, true));
        held.back()->subscribe(node, account.user, account.domain, resource);
    }
    std::printf("{\"connected\": %d}\n", devices);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

// A connection that asks one request after the other and keeps alive.
class Asker {
  public:
    Asker(const std::string& host, int port, std::string request, Figures& figures)
        : m_link(host, port), m_request(std::move(request)), m_figures(figures) {
        m_link.unblock();
    }
    void ask() {
        m_link.send(m_request);
        m_asked = Clock::now();
        m_link.flush();
    }
    void take(bool goOn) {
        const std::size_t head = m_in.find("\r\n\r\n");
        if (head == std::string::npos)
            return;
        std::size_t length = 0;
        std::string lower = m_in.substr(0, head);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        if (const std::size_t field = lower.find("content-length:"); field != std::string::npos)
            length = std::strtoul(lower.c_str() + field + strlen("content-length:"), nullptr, 10);
        if (m_in.size() < head + 4 + length)
            return;
        m_figures.note(m_asked, m_in.compare(0, 10, "HTTP/1.1 2") == 0);
        m_in.clear();
        if (goOn)
            ask();
    }
    Link& link() { return m_link; }
    std::string& input() { return m_in; }

  private:
    Link m_link;
    std::string m_request;
    Figures& m_figures;
    std::string m_in;
    Clock::time_point m_asked;
};

void http(const std::string& host, int port, const std::string& method, int connections, double seconds,
          const std::vector<std::string>& paths) {
    Figures figures;
    const std::string body = method == "GET" ? "" : std::string(100, 'x');
    std::vector<std::unique_ptr<Asker>> askers;
    for (int i = 0; i < connections; ++i) {
        const std::string request = method + " " + paths[static_cast<std::size_t>(i) % paths.size()] +
                                    " HTTP/1.1\r\nHost: " + host +
                                    "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        askers.push_back(std::make_unique<Asker>(host, port, request, figures));
    }
    const auto begin = Clock::now();
    for (auto& each : askers)
        each->ask();
    while (secondsSince(begin) < seconds)
        turn(askers, [&](Asker& each) { each.take(secondsSince(begin) < seconds); });
    figures.print(secondsSince(begin));
}

}  // namespace

int main(int count, char** arguments) {
    const std::vector<std::string> given(arguments + 1, arguments + count);
    const auto from = [&](std::size_t first) {
        return std::vector<std::string>(given.begin() + static_cast<std::ptrdiff_t>(first), given.end());
    };
    const auto account = [&] { return Account{given[1], std::stoi(given[2]), given[3], given[4], given[5]}; };
    try {
        if (given.size() >= 10 && given[0] == "publish")
            publish(account(), std::stoi(given[6]), std::stoi(given[7]), std::stod(given[8]), from(9));
        else if (given.size() >= 7 && given[0] == "http")
            http(given[1], std::stoi(given[2]), given[3], std::stoi(given[4]), std::stod(given[5]), from(6));
        else if (given.size() == 11 && given[0] == "deliver")
            deliver(account(), given[6], std::stoi(given[7]), std::stoi(given[8]), std::stod(given[9]),
                    given[10] == "ack");
        else if (given.size() == 8 && given[0] == "hold")
            hold(account(), given[6], std::stoi(given[7]));
        else
            throw std::runtime_error("bad arguments; the first lines of the source say which there are");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_server: %s\n", error.what());
        return 1;
    }
    return 0;
}

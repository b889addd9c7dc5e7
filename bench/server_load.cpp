// SPDX-License-Identifier: GPL-3.0-only
// A load generator for the XMPP server: publications over XMPP and over HTTP, and deliveries to devices.
//
//   bench_server publish HOST PORT DOMAIN USER PASSWORD SESSIONS IN_FLIGHT SECONDS NODE...
//   bench_server http    HOST PORT METHOD CONNECTIONS SECONDS PATH...
//   bench_server deliver HOST PORT DOMAIN USER PASSWORD NODE DEVICES IN_FLIGHT SECONDS ack|noack
//
// One thread, nothing but sockets: it must not be what is measured. Prints one line of JSON: what was answered, what was
// refused, the seconds it took, and the 50th and 99th percentile of the time from request to answer, in microseconds.
#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = 64 * 1024;
constexpr char kIdMark[] = " id='load-";
constexpr char kPubSub[] = "http://jabber.org/protocol/pubsub";
constexpr char kDevice[] = "urn:zelt:pubsub:device:0";

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A connection to the server, with TLS once it was asked for. Blocking until `unblock`.
class Link {
  public:
    Link(const std::string& host, int port) {
        m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 ||
            connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect to " + host + ": " + strerror(errno));
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Link() {
        if (m_tls)
            gnutls_deinit(m_tls);
        if (m_credentials)
            gnutls_certificate_free_credentials(m_credentials);
        close(m_socket);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void startTls() {
        gnutls_certificate_allocate_credentials(&m_credentials);
        gnutls_init(&m_tls, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
        gnutls_set_default_priority(m_tls);
        gnutls_credentials_set(m_tls, GNUTLS_CRD_CERTIFICATE, m_credentials);
        gnutls_transport_set_int(m_tls, m_socket);
        int result = 0;
        do
            result = gnutls_handshake(m_tls);
        while (result < 0 && !gnutls_error_is_fatal(result));
        if (result < 0)
            throw std::runtime_error(std::string("TLS handshake: ") + gnutls_strerror(result));
    }
    void unblock() { m_blocking = false; }

    int descriptor() const { return m_socket; }
    bool wantsToWrite() const { return m_sent < m_out.size(); }
    void send(std::string_view text) { m_out.append(text); }

    // Sends what it can; all of it while blocking.
    void flush() {
        while (wantsToWrite()) {
            const ssize_t sent = put(m_out.data() + m_sent, m_out.size() - m_sent);
            if (sent < 0)
                return;
            m_sent += static_cast<std::size_t>(sent);
        }
        m_out.clear();
        m_sent = 0;
    }
    // Reads one piece into `in`. False when there is nothing.
    bool read(std::string& in) {
        char piece[kPiece];
        const ssize_t got = get(piece, sizeof piece);
        if (got == 0)
            throw std::runtime_error("the server closed the connection");
        if (got < 0)
            return false;
        in.append(piece, static_cast<std::size_t>(got));
        return true;
    }
    // TLS may hold input that the socket no longer announces.
    bool hasMore() const { return m_tls && gnutls_record_check_pending(m_tls) > 0; }

  private:
    ssize_t put(const char* data, std::size_t size) {
        const ssize_t sent =
            m_tls ? gnutls_record_send(m_tls, data, std::min(size, std::size_t{16384}))
                  : ::send(m_socket, data, size, MSG_NOSIGNAL | (m_blocking ? 0 : MSG_DONTWAIT));
        return check(sent);
    }
    ssize_t get(char* data, std::size_t size) {
        if (m_tls && !hasMore() && !m_blocking && !isReadable())
            return -1;
        return check(m_tls ? gnutls_record_recv(m_tls, data, size)
                           : recv(m_socket, data, size, m_blocking ? 0 : MSG_DONTWAIT));
    }
    ssize_t check(ssize_t result) const {
        if (result >= 0)
            return result;
        const bool again = m_tls ? !gnutls_error_is_fatal(static_cast<int>(result)) : errno == EAGAIN;
        if (!again)
            throw std::runtime_error("the connection broke");
        return -1;
    }
    bool isReadable() const {
        pollfd entry{m_socket, POLLIN, 0};
        return ::poll(&entry, 1, 0) > 0;
    }

    int m_socket;
    bool m_blocking = true;
    gnutls_session_t m_tls = nullptr;
    gnutls_certificate_credentials_t m_credentials = nullptr;
    std::string m_out;
    std::size_t m_sent = 0;
};

// What was answered, and how long it took.
struct Figures {
    long answered = 0;
    long refused = 0;
    std::vector<float> microseconds;

    void note(Clock::time_point asked, bool taken) {
        ++(taken ? answered : refused);
        microseconds.push_back(static_cast<float>(secondsSince(asked) * 1e6));
    }
    void print(double seconds) {
        std::sort(microseconds.begin(), microseconds.end());
        const auto percentile = [&](double part) {
            return microseconds.empty()
                       ? 0
                       : microseconds[static_cast<std::size_t>(part * (microseconds.size() - 1))];
        };
        std::printf(
            "{\"answered\": %ld, \"refused\": %ld, \"seconds\": %.3f, \"p50\": %.0f, \"p99\": %.0f}\n",
            answered, refused, seconds, percentile(0.5), percentile(0.99));
    }
};

std::string base64(const std::string& text) {
    gnutls_datum_t in{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                      static_cast<unsigned>(text.size())};
    gnutls_datum_t out{};
    gnutls_base64_encode2(&in, &out);
    std::string encoded(reinterpret_cast<char*>(out.data), out.size);
    gnutls_free(out.data);
    return encoded;
}

struct Account {
    std::string host;
    int port = 0;
    std::string domain;
    std::string user;
    std::string password;
};

// A session of an account, logged in.
class Session {
  public:
    Session(const Account& account, const std::string& resource)
        : m_domain(account.domain), m_link(account.host, account.port) {
        open();
        ask("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>", "<proceed");
        m_in.clear();
        m_link.startTls();
        open();
        ask("<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='PLAIN'>" +
                base64(std::string("\0", 1) + account.user + std::string("\0", 1) + account.password) +
                "</auth>",
            "<success");
        open();
        ask("<iq type='set' id='bind'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><resource>" + resource +
                "</resource></bind></iq>",
            "</iq>");
        m_in.clear();
    }

    // Sends and waits until the mark is there; what stands before it is dropped.
    void ask(const std::string& text, const char* mark) {
        m_link.send(text);
        m_link.flush();
        std::size_t found = 0;
        while ((found = m_in.find(mark)) == std::string::npos)
            m_link.read(m_in);
        if (m_in.find("type='error'") != std::string::npos || m_in.find("<failure") != std::string::npos)
            throw std::runtime_error("refused: " + m_in);
        m_in.erase(0, found + strlen(mark));
    }
    Link& link() { return m_link; }
    std::string& input() { return m_in; }
    std::string service() const { return "pubsub." + m_domain; }

  private:
    void open() {
        m_in.clear();
        ask("<stream:stream to='" + m_domain +
                "' xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>",
            "</stream:features>");
    }

    std::string m_domain;
    Link m_link;
    std::string m_in;
};

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
        else
            throw std::runtime_error("bad arguments; the first lines of the source say which there are");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_server: %s\n", error.what());
        return 1;
    }
    return 0;
}

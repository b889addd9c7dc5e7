// SPDX-License-Identifier: GPL-3.0-only
// The environment of the bus contract on real bus daemons. Clients and other services use plain D-Bus through
// sd-bus, not the layer under test, so that the wire contract is checked as a foreign client sees it. A
// client with an application id connects from its own process, whose environment has the id.
#include "tests/contract/bus/real_engine.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

constexpr char kSubscription[] = "com.zelt.Subscription1";
constexpr std::chrono::seconds kDeadline(5);

void require(int result, const char* what) {
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
}

// One byte with room for a descriptor.
struct DescriptorMessage : msghdr {
    DescriptorMessage() : msghdr{} {
        msg_iov = &part;
        msg_iovlen = 1;
        msg_control = control;
        msg_controllen = sizeof control;
    }
    DescriptorMessage(const DescriptorMessage&) = delete;
    DescriptorMessage& operator=(const DescriptorMessage&) = delete;

    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
};

void sendDescriptor(int channel, int descriptor) {
    DescriptorMessage message;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    sendmsg(channel, &message, 0);
}

int receiveDescriptor(int channel) {
    DescriptorMessage message;
    cmsghdr* header = recvmsg(channel, &message, MSG_CMSG_CLOEXEC) == 1 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (!header)
        throw std::runtime_error("the application's process did not connect");
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return descriptor;
}

[[noreturn]] void runApplication(int channel, const std::string& socketPath, const std::string& id) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sockaddr_un where = {};
    where.sun_family = AF_UNIX;
    std::strncpy(where.sun_path, socketPath.c_str(), sizeof where.sun_path - 1);
    int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connection, reinterpret_cast<sockaddr*>(&where), sizeof where) != 0)
        _exit(1);
    sendDescriptor(channel, connection);
    // The credentials of a connection are those of the process that connected; its environment
    // is the new one.
    std::string entry = "ZELT_APP_ID=" + id;
    char* environment[] = {entry.data(), nullptr};
    execle("/bin/sleep", "sleep", "1000", nullptr, environment);
    _exit(1);
}

struct Application {
    OwnedProcess process;
    int connection = -1;
};

Application startApplication(const std::string& socketPath, const std::string& id) {
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
        throw std::runtime_error("no channel to the application's process");
    pid_t pid = fork();
    if (pid == 0)
        runApplication(channel[1], socketPath, id);
    close(channel[1]);
    Application application = {OwnedProcess(pid), receiveDescriptor(channel[0])};
    // The exec closes the channel: from here on the environment is the application's.
    char byte;
    (void)!read(channel[0], &byte, 1);
    close(channel[0]);
    return application;
}

}  // namespace

WireConnection::WireConnection(RealEngine& engine, QSBus bus, int descriptor)
    : m_engine(engine), m_side(bus) {
    require(sd_bus_new(&m_bus), "connection");
    if (descriptor >= 0)
        require(sd_bus_set_fd(m_bus, descriptor, descriptor), "connection");
    else
        require(sd_bus_set_address(m_bus, engine.buses().address(bus).c_str()), "address");
    require(sd_bus_set_bus_client(m_bus, 1), "bus client");
    require(sd_bus_start(m_bus), "start");
    const char* unique = nullptr;
    require(sd_bus_get_unique_name(m_bus, &unique), "hello");
    m_engine.join(this);
}

WireConnection::~WireConnection() {
    m_engine.leave(this);
    sd_bus_close_unref(m_bus);
}

bool WireConnection::turn() {
    bool moved = false;
    while (sd_bus_process(m_bus, nullptr) > 0)
        moved = true;
    return moved;
}

void WireConnection::ping(int* outstanding) {
    auto answered = [](sd_bus_message*, void* count, sd_bus_error*) {
        --*static_cast<int*>(count);
        return 0;
    };
    ++*outstanding;
    require(sd_bus_call_method_async(m_bus, nullptr, kServiceName, "/", "org.freedesktop.DBus.Peer", "Ping",
                                     answered, outstanding, ""),
            "ping");
    sd_bus_flush(m_bus);
}

namespace {

class RealClient : public BusClient, private WireConnection {
  public:
    RealClient(RealEngine& engine, QSBus bus, Application application)
        : WireConnection(engine, bus, application.connection), m_process(std::move(application.process)) {
        require(sd_bus_add_filter(m_bus, nullptr, onSignal, this), "filter");
    }

    size_t call(const std::string& category, const std::string& method, const std::string& payload) override {
        return place(category, method, payload, true);
    }
    size_t callWithoutReply(const std::string& category, const std::string& method,
                            const std::string& payload) override {
        return place(category, method, payload, false);
    }

    void cancel(size_t call) override {
        Placed& placed = *m_placed.at(call);
        require(sd_bus_call_method_async(m_bus, nullptr, kServiceName, placed.category.c_str(), kSubscription,
                                         "Cancel", onCancelled, &placed, "u",
                                         static_cast<uint32_t>(placed.serial)),
                "Cancel");
        sd_bus_flush(m_bus);
    }

    std::vector<std::string> answers(size_t call) const override { return m_placed.at(call)->answers; }

  private:
    struct Placed {
        std::string category;
        uint64_t serial = 0;
        std::vector<std::string> answers;
    };

    size_t place(const std::string& category, const std::string& method, const std::string& payload,
                 bool reply) {
        m_placed.push_back(std::make_unique<Placed>(Placed{category, 0, {}}));
        Placed& placed = *m_placed.back();
        sd_bus_message* wire = nullptr;
        require(sd_bus_message_new_method_call(m_bus, &wire, kServiceName, category.c_str(), kServiceName,
                                               method.c_str()),
                "new call");
        require(sd_bus_message_append(wire, "s", payload.c_str()), "payload");
        if (reply) {
            require(sd_bus_call_async(m_bus, nullptr, wire, onReply, &placed, UINT64_MAX), "call");
        } else {
            sd_bus_message_set_expect_reply(wire, 0);
            require(sd_bus_send(m_bus, wire, nullptr), "call");
        }
        sd_bus_message_get_cookie(wire, &placed.serial);
        sd_bus_message_unref(wire);
        sd_bus_flush(m_bus);
        return m_placed.size() - 1;
    }

    static int onReply(sd_bus_message* reply, void* data, sd_bus_error*) {
        const sd_bus_error* error = sd_bus_message_get_error(reply);
        const char* text = "";
        if (!error)
            sd_bus_message_read(reply, "s", &text);
        static_cast<Placed*>(data)->answers.push_back(error ? std::string("error ") + error->name
                                                            : std::string("reply ") + text);
        return 0;
    }

    static int onCancelled(sd_bus_message* reply, void* data, sd_bus_error*) {
        int found = 0;
        bool failed =
            sd_bus_message_is_method_error(reply, nullptr) || sd_bus_message_read(reply, "b", &found) < 0;
        static_cast<Placed*>(data)->answers.emplace_back(failed  ? "cancel refused"
                                                         : found ? "cancelled true"
                                                                 : "cancelled false");
        return 0;
    }

    static int onSignal(sd_bus_message* signal, void* data, sd_bus_error*) {
        if (!sd_bus_message_is_signal(signal, kSubscription, nullptr))
            return 0;
        uint32_t serial = 0;
        const char* text = nullptr;
        require(sd_bus_message_read(signal, "us", &serial, &text), "signal");
        const bool ended = std::strcmp(sd_bus_message_get_member(signal), "Ended") == 0;
        for (const auto& placed : static_cast<RealClient*>(data)->m_placed) {
            if (placed->serial == serial)
                placed->answers.push_back(ended ? "ended" : std::string("answer ") + text);
        }
        return 1;
    }

    OwnedProcess m_process;
    std::vector<std::unique_ptr<Placed>> m_placed;
};

class RealOtherService : public OtherService, private WireConnection {
  public:
    RealOtherService(RealEngine& engine, const std::string& name) : WireConnection(engine, QSBus::Private) {
        require(sd_bus_add_filter(m_bus, nullptr, onCall, this), "filter");
        require(sd_bus_request_name(m_bus, name.c_str(), 0), "name");
        m_name = name;
    }
    ~RealOtherService() override {
        for (sd_bus_message* wire : m_received)
            sd_bus_message_unref(wire);
    }

    std::vector<std::string> calls() const override { return m_calls; }
    std::vector<size_t> cancelled() const override { return m_cancelled; }

    void reply(size_t call, const std::string& payload) override {
        require(sd_bus_reply_method_return(m_received.at(call), "s", payload.c_str()), "reply");
        sd_bus_flush(m_bus);
    }
    void refuse(size_t call, const std::string& errorName, const std::string& text) override {
        require(sd_bus_reply_method_errorf(m_received.at(call), errorName.c_str(), "%s", text.c_str()),
                "error");
        sd_bus_flush(m_bus);
    }
    void answer(size_t call, const std::string& payload) override { send(call, "Answer", payload); }
    void end(size_t call) override { send(call, "Ended", "released"); }

  private:
    void send(size_t call, const char* member, const std::string& text) {
        sd_bus_message* received = m_received.at(call);
        sd_bus_message* wire = nullptr;
        require(
            sd_bus_message_new_signal(m_bus, &wire, sd_bus_message_get_path(received), kSubscription, member),
            "signal");
        require(sd_bus_message_append(wire, "us", static_cast<uint32_t>(serialOf(received)), text.c_str()),
                "signal");
        require(sd_bus_message_set_destination(wire, sd_bus_message_get_sender(received)), "signal");
        require(sd_bus_send(m_bus, wire, nullptr), "signal");
        sd_bus_message_unref(wire);
        sd_bus_flush(m_bus);
    }

    static uint64_t serialOf(sd_bus_message* wire) {
        uint64_t serial = 0;
        sd_bus_message_get_cookie(wire, &serial);
        return serial;
    }

    static int onCall(sd_bus_message* wire, void* data, sd_bus_error*) {
        auto* self = static_cast<RealOtherService*>(data);
        if (sd_bus_message_is_method_call(wire, kSubscription, "Cancel"))
            return self->onCancel(wire);
        if (!sd_bus_message_is_method_call(wire, self->m_name.c_str(), nullptr))
            return 0;
        const char* payload = "";
        require(sd_bus_message_read(wire, "s", &payload), "payload");
        self->m_calls.push_back(std::string(sd_bus_message_get_path(wire)) + " " +
                                sd_bus_message_get_member(wire) + " " + payload +
                                (sd_bus_message_get_expect_reply(wire) > 0 ? "" : " (no reply)"));
        self->m_received.push_back(sd_bus_message_ref(wire));
        return 1;
    }

    int onCancel(sd_bus_message* wire) {
        uint32_t serial = 0;
        require(sd_bus_message_read(wire, "u", &serial), "Cancel");
        for (size_t i = 0; i < m_received.size(); i++) {
            if (serialOf(m_received[i]) == serial)
                m_cancelled.push_back(i);
        }
        return sd_bus_reply_method_return(wire, "b", 1);
    }

    std::string m_name;
    std::vector<std::string> m_calls;
    std::vector<sd_bus_message*> m_received;
    std::vector<size_t> m_cancelled;
};

}  // namespace

RealEngine::RealEngine(const std::string& extraConfig)
    : m_buses(extraConfig), m_loop(g_main_loop_new(nullptr, FALSE)) {
    setenv("ZELT_APP_ID_FROM_ENVIRONMENT", "1", 1);
    m_probes.push_back(std::make_unique<WireConnection>(*this, QSBus::Private));
    m_probes.push_back(std::make_unique<WireConnection>(*this, QSBus::Public));
}

RealEngine::~RealEngine() {
    m_probes.clear();
    g_main_loop_unref(m_loop);
}

std::unique_ptr<BusClient> RealEngine::client(QSBus bus, const std::string& applicationId) {
    Application application;
    if (!applicationId.empty())
        application = startApplication(m_buses.socketPath(bus), applicationId);
    return std::make_unique<RealClient>(*this, bus, std::move(application));
}

std::unique_ptr<OtherService> RealEngine::otherService(const std::string& name) {
    return std::make_unique<RealOtherService>(*this, name);
}

bool RealEngine::turn() {
    bool moved = g_main_context_iteration(nullptr, FALSE);
    for (WireConnection* connection : m_connections)
        moved = connection->turn() || moved;
    return moved;
}

bool RealEngine::until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        if (!turn())
            g_usleep(100);
    }
    return true;
}

void RealEngine::settle() {
    // Three rounds: a first request of a client, the daemon's answer about its identity, and the reply.
    for (int round = 0; round < 3; round++) {
        int outstanding = 0;
        for (WireConnection* connection : m_connections)
            connection->ping(&outstanding);
        if (!until([&] { return outstanding == 0; }))
            throw std::runtime_error("the buses do not settle");
    }
}

void RealEngine::leave(WireConnection* connection) {
    std::erase(m_connections, connection);
}

std::unique_ptr<BusEngine> makeBusEngine() {
    return std::make_unique<RealEngine>();
}

// SPDX-License-Identifier: GPL-3.0-only
// The bus contract on the fake that the unit tests link: what clients do waits until the loop is iterated or
// the service reads its connections, as on a real bus.
#include <string>

#include "tests/contract/bus/engine.h"
#include "tests/fakes/fakebus.h"

namespace {

constexpr char kProcess[] = " 4711";

class FakeClient : public BusClient {
  public:
    FakeClient(QSBus bus, const std::string& applicationId)
        : m_bus(bus), m_appId(applicationId.empty() ? "" : applicationId + kProcess) {
        static int clients = 0;
        m_name = "client " + std::to_string(++clients);
    }
    ~FakeClient() override {
        if (!m_calls.empty())
            fakeBus().queue([any = m_calls.front()] { fakeBus().clientDies(any); });
    }

    size_t call(const std::string& category, const std::string& method, const std::string& payload) override {
        return send(category, method, payload, true);
    }
    size_t callWithoutReply(const std::string& category, const std::string& method,
                            const std::string& payload) override {
        return send(category, method, payload, false);
    }
    void cancel(size_t call) override {
        FakeMessage* message = m_calls[call];
        fakeBus().queue([message] {
            const bool found = fakeBus().cancel(message);
            message->arrivals.emplace_back(found ? "cancelled true" : "cancelled false");
        });
    }
    std::vector<std::string> answers(size_t call) const override { return m_calls[call]->arrivals; }

  private:
    size_t send(const std::string& category, const std::string& method, const std::string& payload,
                bool wantsReply) {
        QSZeltService* service = fakeBus().service(kServiceName);
        QSHandle* handle = m_bus == QSBus::Public ? QSZeltServiceGetPublicConnection(service)
                                                  : QSZeltServiceGetPrivateConnection(service);
        FakeMessage* message = fakeBus().request(handle, method, payload, m_appId, m_name);
        message->category = category;
        message->wantsReply = wantsReply;
        fakeBus().queue([message] { fakeBus().dispatch(message); });
        m_calls.push_back(message);
        return m_calls.size() - 1;
    }

    QSBus m_bus;
    std::string m_appId;
    std::string m_name;
    std::vector<FakeMessage*> m_calls;
};

// Receives the calls to its name that were placed since it was created.
class FakeOtherService : public OtherService {
  public:
    explicit FakeOtherService(const std::string& name) : m_name(name), m_first(fakeBus().calls().size()) {
        fakeBus().serverStatus(name, true);
    }
    ~FakeOtherService() override {
        fakeBus().queue([name = m_name] { fakeBus().serverStatus(name, false); });
    }

    std::vector<std::string> calls() const override {
        std::vector<std::string> texts;
        for (const PlacedCall* call : received()) {
            const std::string rest = call->uri.substr(call->uri.find('/', 7));
            const size_t last = rest.rfind('/');
            texts.push_back((last == 0 ? "/" : rest.substr(0, last)) + ' ' + rest.substr(last + 1) + ' ' +
                            call->payload + (call->callback ? "" : " (no reply)"));
        }
        return texts;
    }
    void reply(size_t call, const std::string& payload) override {
        later(call, [payload](QSToken token) { fakeBus().reply(token, payload); });
    }
    void refuse(size_t call, const std::string& errorName, const std::string& text) override {
        later(call, [errorName, text](QSToken token) { fakeBus().refuse(token, errorName, text); });
    }
    void answer(size_t call, const std::string& payload) override { reply(call, payload); }
    void end(size_t call) override {
        later(call, [](QSToken token) { fakeBus().endCall(token); });
    }
    std::vector<size_t> cancelled() const override {
        std::vector<size_t> indexes;
        const auto calls = received();
        for (size_t i = 0; i < calls.size(); ++i)
            if (calls[i]->cancelled && calls[i]->subscribes)
                indexes.push_back(i);
        return indexes;
    }

  private:
    std::vector<const PlacedCall*> received() const {
        std::vector<const PlacedCall*> calls;
        for (size_t i = m_first; i < fakeBus().calls().size(); ++i)
            if (fakeBus().calls()[i].uri.compare(7, m_name.size() + 1, m_name + '/') == 0)
                calls.push_back(&fakeBus().calls()[i]);
        return calls;
    }
    void later(size_t call, std::function<void(QSToken)> act) {
        fakeBus().queue([token = received()[call]->token, act = std::move(act)] { act(token); });
    }

    std::string m_name;
    size_t m_first;
};

class FakeEngine : public BusEngine {
  public:
    FakeEngine() : m_loop(g_main_loop_new(nullptr, FALSE)) {
        fakeBus().reset();
        fakeBus().knowServices();
    }
    ~FakeEngine() override {
        fakeBus().reset();
        g_main_loop_unref(m_loop);
    }

    GMainLoop* loop() override { return m_loop; }
    std::unique_ptr<BusClient> client(QSBus bus, const std::string& applicationId) override {
        return std::make_unique<FakeClient>(bus, applicationId);
    }
    std::unique_ptr<OtherService> otherService(const std::string& name) override {
        return std::make_unique<FakeOtherService>(name);
    }
    // Nothing arrives from outside: what has not happened when the queue is empty will not happen.
    bool until(const std::function<bool()>& condition) override {
        while (!condition())
            if (!fakeBus().readOne())
                return condition();
        return true;
    }
    void settle() override {
        while (fakeBus().readOne()) {
        }
    }

  private:
    GMainLoop* m_loop;
};

}  // namespace

std::unique_ptr<BusEngine> makeBusEngine() {
    return std::make_unique<FakeEngine>();
}

// SPDX-License-Identifier: GPL-3.0-only
#include "tools/trylogin.h"

#include <glib.h>
#include <gloox/connectionlistener.h>
#include <gloox/jid.h>

#include <cstdlib>

#include "xmpp/client.h"

namespace {

class Trial : public gloox::ConnectionListener {
  public:
    explicit Trial(xmpp::Client& client) : m_client(client) {}
    ~Trial() override { g_main_loop_unref(m_loop); }
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    // Whether the session was established.
    bool run() {
        m_client.registerConnectionListener(this);
        if (!m_client.connect("", nullptr) || m_ended)
            return m_connected;
        GIOChannel* channel = g_io_channel_unix_new(m_client.socket());
        GSource* watch = g_io_create_watch(channel, static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP));
        g_source_set_callback(watch, G_SOURCE_FUNC(received), this, nullptr);
        g_source_attach(watch, nullptr);
        g_main_loop_run(m_loop);
        g_source_destroy(watch);
        g_source_unref(watch);
        g_io_channel_unref(channel);
        return m_connected;
    }
    gloox::ConnectionError error() const { return m_error; }
    bool isCertificateRefused() const { return m_certificateRefused; }

    void onConnect() override {
        m_connected = true;
        g_main_loop_quit(m_loop);
    }
    void onDisconnect(gloox::ConnectionError error) override {
        m_ended = true;
        m_error = error;
        g_main_loop_quit(m_loop);
    }
    bool onTLSConnect(const gloox::CertInfo& info) override {
        m_certificateRefused = info.status != gloox::CertOk;
        return !m_certificateRefused;
    }

  private:
    static gboolean received(GIOChannel*, GIOCondition, gpointer context) {
        return static_cast<Trial*>(context)->m_client.recv() == gloox::ConnNoError ? G_SOURCE_CONTINUE
                                                                                   : G_SOURCE_REMOVE;
    }

    xmpp::Client& m_client;
    GMainLoop* m_loop = g_main_loop_new(nullptr, FALSE);
    gloox::ConnectionError m_error = gloox::ConnNoError;
    bool m_connected = false, m_ended = false, m_certificateRefused = false;
};

std::string problemOf(const Trial& trial, const ServerPlace& place) {
    if (trial.isCertificateRefused())
        return "the certificate of " + place.host + " is not one for " + place.domain +
               " that an authority of this machine has signed; check the domain, or add the authority";
    switch (trial.error()) {
        case gloox::ConnAuthenticationFailed:
            return "the server refuses " + place.user + "@" + place.domain +
                   ": the user name or the token is wrong; ask whoever runs the server";
        case gloox::ConnTlsFailed:
        case gloox::ConnTlsNotAvailable:
            return "the server and this machine agree on no encryption; it has to offer STARTTLS";
        case gloox::ConnNoSupportedAuth:
            return "the server offers no way to log in that is known here";
        default:
            return place.host + " port " + place.port + " ended the connection before the login (error " +
                   std::to_string(trial.error()) + "); check that an XMPP server for clients answers there";
    }
}

}  // namespace

std::string tryLogin(const ServerPlace& place, const std::string& token, const std::string& caFile,
                     unsigned seconds) {
    const gloox::JID jid(place.user + "@" + place.domain);
    if (!jid)
        return place.user + "@" + place.domain + " is no address of an account; check both parts";
    auto* client = new xmpp::Client(jid, token, std::atoi(place.port.c_str()));
    client->setServer(place.host);
    client->setCACerts({caFile});
    client->setTls(gloox::TLSRequired);
    client->setCompression(false);
    client->setDeadline(seconds * 1000);
    Trial trial(*client);
    const bool connected = trial.run();
    client->removeConnectionListener(&trial);
    xmpp::Client::dispose(client);
    return connected ? "" : problemOf(trial, place);
}

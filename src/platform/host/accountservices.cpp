// SPDX-License-Identifier: GPL-3.0-only
// The account service.
#include "platform/host/accountservices.h"

#include "platform/host/account.h"
#include "platform/host/say.h"

Presence AccountServices::start(GMainLoop* loop) {
    static const QSMethod methods[] = {{"getAccountToken", onGetAccountToken, 0}, {nullptr, nullptr, 0}};
    const Presence presence = m_bus.take("com.zelt.accountservices");
    if (presence != Presence::Up)
        return presence;
    return m_bus.serve("/", methods, this) && m_bus.attach(loop) ? Presence::Up : Presence::Failed;
}

bool AccountServices::onGetAccountToken(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<AccountServices*>(context);
    Account account;
    std::string words;
    if (readAccount(self->m_file, account, words)) {
        self->m_bus.reply(message, accountPayload(account));
    } else {
        say("%s", words.c_str());
        self->m_bus.refuse(message, words);
    }
    return true;
}

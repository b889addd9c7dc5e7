// SPDX-License-Identifier: GPL-3.0-only
// The account service.
#include "platform/host/accountservices.h"

#include "platform/host/account.h"
#include "platform/host/log.h"

StartResult AccountServices::start(GMainLoop* loop) {
    static constexpr QSMethod methods[] = {{.name = "getAccountToken", .handler = onGetAccountToken}, {}};
    const StartResult result = m_bus.take("com.zelt.accountservices");
    if (result != StartResult::Started)
        return result;
    return m_bus.serve("/", methods, this) && m_bus.attach(loop) ? StartResult::Started : StartResult::Failed;
}

bool AccountServices::onGetAccountToken(QSHandle*, QSMessage* message, void* context) {
    auto* self = static_cast<AccountServices*>(context);
    Account account;
    std::string problem;
    if (readAccount(self->m_file, account, problem)) {
        self->m_bus.reply(message, accountPayload(account));
    } else {
        // Asked for again and again while the push service has no connection.
        if (problem != self->m_logged)
            logLine("%s", problem.c_str());
        self->m_bus.refuse(message, problem);
    }
    self->m_logged = problem;
    return true;
}

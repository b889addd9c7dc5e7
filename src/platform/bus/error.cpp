// SPDX-License-Identifier: GPL-3.0-only
// The error record of the bus calls: one code and one text on the C heap, owned by the caller's record.
#include "platform/bus/error.h"

#include <cstdlib>
#include <cstring>

#include "util/log.h"

bool QSErrorInit(QSError* error) {
    if (!error)
        return false;
    error->code = 0;
    error->message = nullptr;
    return true;
}

void QSErrorPrint(QSError* error, FILE* stream) {
    if (!error || !stream)
        return;
    std::fprintf(stream, "bus error %d: ", error->code);
    printEscaped(stream, error->message ? error->message : "");
    std::fputc('\n', stream);
}

void QSErrorFree(QSError* error) {
    if (!error)
        return;
    std::free(error->message);
    QSErrorInit(error);
}

bool busFail(QSError* error, int code, const std::string& message) {
    if (!error)
        return false;
    QSErrorFree(error);
    error->code = code;
    error->message = strdup(message.c_str());
    return false;
}

bool busFailErrno(QSError* error, int code, const std::string& what) {
    return busFail(error, code, what + ": " + std::strerror(-code));
}

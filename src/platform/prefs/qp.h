// SPDX-License-Identifier: GPL-3.0-only
// The preferences store (QP): durable key-value stores, one for each application id.
//
// A handle buffers writes; freeing it with commit makes them durable in one transaction, freeing it without
// drops them. Reads through the handle see them. Results are 0 or one of QPResult. Returned copies belong to
// the caller, who releases them with free().
#pragma once

#include <json-c/json.h>

struct QPHandle;

enum QPResult { QP_OK = 0, QP_NOT_FOUND = 1, QP_BAD_ARGUMENT = 2, QP_IO = 3, QP_BUSY = 4, QP_CORRUPT = 5 };

int QPAppGetHandle(const char* appId, QPHandle** handle);
int QPAppCopyValue(QPHandle* handle, const char* key, char** json);
int QPAppCopyValueString(QPHandle* handle, const char* key, char** text);
// All keys as a JSON array in byte order; the caller releases it with json_object_put().
int QPAppCopyKeysCJ(QPHandle* handle, json_object** keys);
int QPAppSetValue(QPHandle* handle, const char* key, const char* json);
int QPAppSetValueString(QPHandle* handle, const char* key, const char* text);
int QPAppRemoveValue(QPHandle* handle, const char* key);
int QPAppFreeHandle(QPHandle* handle, bool commit);
// System values; "com.zelt.properties.kduid" is the device id.
int QPSystemCopyStringValue(const char* key, char** text);

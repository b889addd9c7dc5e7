// SPDX-License-Identifier: GPL-3.0-only
// The members of an item that only those who take it by acknowledging are told.
#pragma once

#include "session/openitems.h"
#include "util/jsonref.h"

// "encoding", "expires", "published" and "urgency", each if the server sent it.
void addItemMembers(JsonObject& object, const _itemStruct& item);

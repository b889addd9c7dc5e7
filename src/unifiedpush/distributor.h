// SPDX-License-Identifier: GPL-3.0-only
// The object that applications call: both versions of the distributor's interface, their arguments and their
// answers. What the calls do is told by whoever sets the two functions.
#pragma once

#include <functional>
#include <string>

#include "platform/bus/slot.h"

inline constexpr char kDistributorName[] = "org.unifiedpush.Distributor.pubsubservice";
inline constexpr char kDistributorPath[] = "/org/unifiedpush/Distributor";

// Why a registration failed; the texts are those of the interface.
inline constexpr char kInternalError[] = "INTERNAL_ERROR";
inline constexpr char kNetwork[] = "NETWORK";
inline constexpr char kActionRequired[] = "ACTION_REQUIRED";
inline constexpr char kUnauthorized[] = "UNAUTHORIZED";

struct RegisterCall {
    Wire call;
    int version = 2;
    std::string sender;  // unique name
    std::string service, token, description, vapid;
};

struct UnregisterCall {
    Wire call;
    int version = 2;
    std::string sender;
    std::string token;
    bool removed = false;  // something was registered under the token
};

class Distributor {
  public:
    std::function<void(RegisterCall call)> onRegister;
    std::function<void(UnregisterCall call)> onUnregister;

    // Makes the object, with its introspection; the name is not requested yet. Negative errno on failure.
    int serve(sd_bus* bus);

    static void succeed(const RegisterCall& call);
    static void fail(const RegisterCall& call, const char* reason);
    static void acknowledge(const UnregisterCall& call);

  private:
    static int onRegister1(sd_bus_message* message, void* data, sd_bus_error*);
    static int onRegister2(sd_bus_message* message, void* data, sd_bus_error*);
    static int onUnregister1(sd_bus_message* message, void* data, sd_bus_error*);
    static int onUnregister2(sd_bus_message* message, void* data, sd_bus_error*);
    static const sd_bus_vtable kVersion1[];
    static const sd_bus_vtable kVersion2[];

    Slot m_object1;
    Slot m_object2;
};

// SPDX-License-Identifier: GPL-3.0-only
// An application that receives push messages, on sd-bus, in both versions of the interface:
// connectorsd NAME LOG [VERSION TOKEN]. It registers with the token, and writes a line for each thing that happens
// to the log.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

static FILE *out;

static void say_bytes(sd_bus_message *call) {
    const unsigned char *bytes = NULL;
    size_t length = 0;
    sd_bus_message_read_array(call, 'y', (const void **)&bytes, &length);
    for (size_t i = 0; i < length; i++)
        fprintf(out, "%02x", bytes[i]);
    if (length == 0)
        fprintf(out, "-");
}

static void say_value(sd_bus_message *call, const char *type) {
    const char *text = "";
    fprintf(out, " ");
    if (type[0] == 'a')
        say_bytes(call);
    else if (sd_bus_message_read(call, "s", &text) > 0)
        fprintf(out, "%s", text[0] ? text : "-");
}

static void say_call(sd_bus_message *call) {
    const char *contents = NULL, *key = NULL, *member = sd_bus_message_get_member(call);
    char type = 0;
    fprintf(out, "%s", strcmp(member, "Message") == 0 ? "message" : member);
    if (sd_bus_message_enter_container(call, 'a', "{sv}") > 0) {
        while (sd_bus_message_enter_container(call, 'e', "sv") > 0) {
            sd_bus_message_read(call, "s", &key);
            sd_bus_message_peek_type(call, &type, &contents);
            sd_bus_message_enter_container(call, 'v', contents);
            say_value(call, contents);
            sd_bus_message_exit_container(call);
            sd_bus_message_exit_container(call);
        }
    } else {
        while (sd_bus_message_peek_type(call, &type, &contents) > 0)
            say_value(call, type == 'a' ? "a" : "s");
    }
    fprintf(out, "\n");
}

static int on_call(sd_bus_message *call, void *data, sd_bus_error *error) {
    say_call(call);
    if (strcmp(sd_bus_message_get_interface(call), "org.unifiedpush.Connector1") == 0)
        return sd_bus_reply_method_return(call, "");
    return sd_bus_reply_method_return(call, "a{sv}", 0);
}

static const sd_bus_vtable version1[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Message", "says", "", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("NewEndpoint", "ss", "", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Unregistered", "s", "", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

static const sd_bus_vtable version2[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Message", "a{sv}", "a{sv}", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("NewEndpoint", "a{sv}", "a{sv}", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Unregistered", "a{sv}", "a{sv}", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

static int on_registered(sd_bus_message *reply, void *token, sd_bus_error *error) {
    const char *first = "", *second = "";
    if (sd_bus_message_is_method_error(reply, NULL))
        first = sd_bus_message_get_error(reply)->name;
    else if (sd_bus_message_read(reply, "ss", &first, &second) <= 0 &&
             sd_bus_message_enter_container(reply, 'a', "{sv}") > 0)
        sd_bus_message_read(reply, "{sv}", &second, "s", &first);
    fprintf(out, "register %s %s\n", (const char *)token, first);
    return 0;
}

static int enrol(sd_bus *bus, const char *name, const char *version, char *token) {
    const char *to = "org.unifiedpush.Distributor.pubsubservice", *path = "/org/unifiedpush/Distributor";
    if (strcmp(version, "1") == 0)
        return sd_bus_call_method_async(bus, NULL, to, path, "org.unifiedpush.Distributor1", "Register",
                                        on_registered, token, "sss", name, token, "");
    return sd_bus_call_method_async(bus, NULL, to, path, "org.unifiedpush.Distributor2", "Register",
                                    on_registered, token, "a{sv}", 2, "service", "s", name, "token", "s", token);
}

int main(int argc, char **argv) {
    sd_bus *bus = NULL;
    const char *path = "/org/unifiedpush/Connector";
    out = argc > 2 ? fopen(argv[2], "a") : NULL;
    if (!out || sd_bus_open_user(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, NULL, path, "org.unifiedpush.Connector1", version1, NULL) < 0 ||
        sd_bus_add_object_vtable(bus, NULL, path, "org.unifiedpush.Connector2", version2, NULL) < 0 ||
        sd_bus_request_name(bus, argv[1], 0) < 0)
        return 1;
    setvbuf(out, NULL, _IOLBF, 0);
    fprintf(out, "started\n");
    if (argc > 4 && enrol(bus, argv[1], argv[3], argv[4]) < 0)
        return 1;
    int done;
    while ((done = sd_bus_process(bus, NULL)) >= 0)
        if (done == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)
            return 1;
    return 0;
}

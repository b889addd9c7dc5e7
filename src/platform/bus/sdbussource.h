// SPDX-License-Identifier: GPL-3.0-only
// A connection of sd-bus on the main loop of GLib.
#pragma once

#include <glib.h>
#include <systemd/sd-bus.h>

#include <functional>

// Handles the connection's messages from the default context for as long as it lives. The bus is borrowed.
class SdBusSource {
  public:
    // `onLost` is called once from the main loop, with an error number, when the connection is lost; it may
    // destroy the source.
    SdBusSource(sd_bus* bus, std::function<void(int error)> onLost);
    ~SdBusSource();
    SdBusSource(const SdBusSource&) = delete;
    SdBusSource& operator=(const SdBusSource&) = delete;

  private:
    struct Source;
    static gboolean prepare(GSource* source, gint* timeout);
    static gboolean check(GSource* source);
    static gboolean dispatch(GSource* source, GSourceFunc callback, gpointer data);

    sd_bus* m_bus;
    std::function<void(int error)> m_onLost;
    GSource* m_source;
};

// SPDX-License-Identifier: GPL-3.0-only
// What an application has registered, and the limits of the texts in it.
#pragma once

#include <cstdint>
#include <string>

struct Registration {
    std::string service;  // bus name of the application
    std::string token;    // what the application calls the registration; secret
    std::string vapid;    // public key of the only sender that may publish; "" for any
    std::string description;
    int version = 2;        // of the interface that it came by, and by which the application is called
    std::string url;        // "" until the server has given one
    bool announced = true;  // the application has taken the url
    bool newest = true;     // false: the application has registered the token again, with another key

    // The registration's endpoint on the device.
    std::string endpoint() const;
};

// "up-" and the first 32 hexadecimal digits of the SHA-256 of the three texts, each preceded by its length in
// bytes, in decimal, and a colon. What is registered again after the state was lost gets its endpoint back.
std::string endpointName(const std::string& service, const std::string& token, const std::string& vapid);
bool isEndpointName(const std::string& text);

// The name of a service: no unique name.
bool isServiceName(const std::string& text);
// 1 to 100 bytes.
bool isToken(const std::string& text);
// At most 100 bytes.
bool isDescription(const std::string& text);
// A P-256 public key in the uncompressed form, base64url without padding: 87 characters.
bool isVapidKey(const std::string& text);
// An address that a sender can use: http or https, at most 1000 bytes, printable.
bool isUrl(const std::string& text);

// SPDX-License-Identifier: GPL-3.0-only
// Where the service keeps its files. A relocatable build takes the places from
// PUBSUB_STATE_DIR and PUBSUB_CA_FILE.
#pragma once

#include <string>

const std::string& stateDir();         // /var/pubsub
const std::string& credentialsFile();  // /var/pubsub/pubsub.conf
const std::string& handlerFile();      // /var/pubsub/pubsubhandlers.conf
const std::string& cacheDir();         // /var/pubsub/cache/
const std::string& caFile();           // /etc/ssl/certs/ca-certificates.crt

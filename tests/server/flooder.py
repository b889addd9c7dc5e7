# SPDX-License-Identifier: GPL-3.0-only
"""A device that floods the service from a process of its own: flooder.py ENV USER PASSWORD RESOURCE < STANZAS

It announces itself, reports this on standard output, and sends the stanzas repeatedly until it is killed. It runs at low
priority, since a flooder on another machine would not use this one's processor.
"""
import os
import sys

import xmppclient


def main():
    os.nice(19)
    server = xmppclient.Server.from_env(sys.argv[1])
    client = xmppclient.connect(server, *sys.argv[2:5])
    client.send("<presence to='%s'/>" % server.pubsub)
    client.sync()
    client._sort = lambda element: None  # what is received is not needed
    stanzas = sys.stdin.buffer.read()
    print("ready", flush=True)
    while not client.ended:
        client.send(stanzas)


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    main()

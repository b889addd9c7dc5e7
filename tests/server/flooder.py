# SPDX-License-Identifier: GPL-3.0-only
"""A device that floods the service from a process of its own: flooder.py ENV USER PASSWORD RESOURCE < STANZAS

It announces itself, says so on its standard output, and sends the stanzas over and over until it is killed. It leaves
the processor to others, as a flooder on another machine does.
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
    client._sort = lambda element: None  # nobody waits for what comes
    stanzas = sys.stdin.buffer.read()
    print("ready", flush=True)
    while not client.ended:
        client.send(stanzas)


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    main()

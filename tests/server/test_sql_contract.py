# SPDX-License-Identifier: GPL-3.0-only
"""The tests of the service that other files have, with its data in PostgreSQL."""
import test_cluster
import test_delivery
import test_devices
import test_forms
import test_kept
import test_keys
import test_limited
import test_limits
import test_messages
import test_names
import test_push
import test_push_cluster
import test_restart
import test_sharing
import test_strangers
import test_urgency
import test_vapid

CONTRACT = (test_delivery.Delivery, test_keys.Keys, test_keys.Activation, test_devices.Machines, test_devices.Bounds,
            test_forms.StandardRequests, test_kept.Full, test_kept.Exact, test_kept.Bytes, test_limited.Limited,
            test_limited.Numbers, test_limited.Waiting, test_limited.Dropped, test_limits.Bounds, test_limits.Ages,
            test_messages.Messages, test_names.Names, test_names.Writers, test_push.Bodies, test_push.Times,
            test_push.Topics, test_push_cluster.PushCluster, test_restart.Restart, test_sharing.Authorisation, test_sharing.Collections,
            test_strangers.Names, test_strangers.Subscriptions, test_strangers.Hidden, test_urgency.Urgency,
            test_vapid.Nodes, test_cluster.Cluster)

for each in CONTRACT:
    name = "%s_%s_over_PostgreSQL" % (each.__module__, each.__name__)
    globals()[name] = type(name, (each,), {"database": "postgresql", "__module__": __name__})
del each, name

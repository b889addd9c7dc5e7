%% SPDX-License-Identifier: GPL-3.0-only
%% A metric. `key` is its name in the code, `name` the one that is printed, after "pubsub_device_". A counter or gauge
%% with a label has a sample for each of the `values`. A level is a gauge that is set, a gauge is computed when asked.
-record(family, {key, name, kind, label = none, values = [], help}).

-- SPDX-License-Identifier: GPL-3.0-only
-- The tables of the device extension in PostgreSQL, beside those of the engine (pubsub_node and the others of ejabberd).
-- Each section is a migration: a member that starts applies those that the database does not have yet, in their order,
-- under a lock. A section that was released is never changed; changes are further sections.
--
-- A node is known by the engine's id (pubsub_node.nodeid), which is never used again; its key, its marks and its creator
-- by its name, since they are recorded before the engine knows the node.

-- version 1

CREATE TABLE pubsub_device_account (
    id bigserial PRIMARY KEY,
    jid text NOT NULL UNIQUE,
    kept bigint NOT NULL DEFAULT 0,    -- copies of all devices
    bytes bigint NOT NULL DEFAULT 0,   -- of these copies
    nodes integer NOT NULL DEFAULT 0,  -- created by the account
    keys integer NOT NULL DEFAULT 0
) WITH (fillfactor = 70);

CREATE TABLE pubsub_device (
    id bigserial PRIMARY KEY,
    account bigint NOT NULL REFERENCES pubsub_device_account,
    resource text NOT NULL,
    seen bigint NOT NULL,              -- seconds
    kept bigint NOT NULL DEFAULT 0,
    bytes bigint NOT NULL DEFAULT 0,
    UNIQUE (account, resource)
) WITH (fillfactor = 70);

CREATE TABLE pubsub_device_key (
    service text NOT NULL,
    node text NOT NULL,
    key text NOT NULL UNIQUE,
    account bigint NOT NULL REFERENCES pubsub_device_account,
    PRIMARY KEY (service, node)
);
CREATE INDEX pubsub_device_key_account ON pubsub_device_key (account);

-- The devices that created or activated a key node; device 0 says that there once were some.
CREATE TABLE pubsub_device_mark (
    service text NOT NULL,
    node text NOT NULL,
    device bigint NOT NULL,
    since bigint NOT NULL,             -- seconds
    PRIMARY KEY (service, node, device)
);
CREATE INDEX pubsub_device_mark_device ON pubsub_device_mark (device);

-- Who created a node, whoever owns it later.
CREATE TABLE pubsub_device_node (
    service text NOT NULL,
    node text NOT NULL,
    account bigint NOT NULL REFERENCES pubsub_device_account,
    PRIMARY KEY (service, node)
);

-- The last number of a node, and the item that has it. The row is locked while numbers are given.
CREATE TABLE pubsub_device_number (
    node bigint PRIMARY KEY,
    last bigint NOT NULL,
    step integer NOT NULL,             -- how many numbers were given last
    item text
) WITH (fillfactor = 70);

-- One row: all numbers of deleted nodes are up to `last`.
CREATE TABLE pubsub_device_floor (
    last bigint NOT NULL
);
INSERT INTO pubsub_device_floor VALUES (0);

-- An item that waits for devices, once.
CREATE TABLE pubsub_device_body (
    node bigint NOT NULL,
    number bigint NOT NULL,
    item_id text NOT NULL,
    item text NOT NULL,                -- the element, without its number
    at bigint NOT NULL,                -- when it was kept, in seconds
    PRIMARY KEY (node, number)
);

-- For whom it waits.
CREATE TABLE pubsub_device_copy (
    device bigint NOT NULL,
    node bigint NOT NULL,
    number bigint NOT NULL,
    via "char" NOT NULL,               -- s: a subscription, o: the ownership of a key node
    bytes integer NOT NULL,
    PRIMARY KEY (device, node, number)
);
CREATE INDEX pubsub_device_copy_body ON pubsub_device_copy (node, number);
CREATE INDEX pubsub_device_copy_age ON pubsub_device_copy (device, number);

-- How many items of a node wait for a device.
CREATE TABLE pubsub_device_queue (
    device bigint NOT NULL,
    node bigint NOT NULL,
    kept bigint NOT NULL,
    PRIMARY KEY (device, node)
) WITH (fillfactor = 70);
CREATE INDEX pubsub_device_queue_node ON pubsub_device_queue (node);

-- version 2

-- Expired items are found without reading all.
CREATE INDEX pubsub_device_body_at ON pubsub_device_body USING brin (at);

-- version 3

-- What senders over HTTP ask for an item: until when it is kept (seconds), how urgent it is (1 to 4), and its topic.
ALTER TABLE pubsub_device_body ADD COLUMN expires bigint;
ALTER TABLE pubsub_device_body ADD COLUMN urgency smallint NOT NULL DEFAULT 3;
ALTER TABLE pubsub_device_body ADD COLUMN topic text;
CREATE INDEX pubsub_device_body_expires ON pubsub_device_body (expires) WHERE expires IS NOT NULL;
CREATE INDEX pubsub_device_body_topic ON pubsub_device_body (node, topic) WHERE topic IS NOT NULL;

-- What a key node was made for: web push, and the key of the only application server that may publish.
ALTER TABLE pubsub_device_key ADD COLUMN web_push boolean NOT NULL DEFAULT false;
ALTER TABLE pubsub_device_key ADD COLUMN vapid text;

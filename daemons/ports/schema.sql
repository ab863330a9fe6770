-- The configuration of the fleet: units, their ports, VLAN membership and MAC filters.
-- Enumerations are stored as their position in the library's word tables.

CREATE TABLE units (
    unit   INTEGER PRIMARY KEY CHECK (unit BETWEEN 0 AND 128),        -- 0 is the appliance itself
    model  INTEGER NOT NULL DEFAULT 0 CHECK (model BETWEEN 0 AND 10),
    mac    TEXT    NOT NULL UNIQUE CHECK (length(mac) = 17),
    alias  TEXT    NOT NULL DEFAULT '' CHECK (length(alias) <= 8),
    online INTEGER NOT NULL DEFAULT 0 CHECK (online IN (0, 1))
);

CREATE TABLE ports (
    unit        INTEGER NOT NULL REFERENCES units (unit) ON DELETE CASCADE,
    port        INTEGER NOT NULL CHECK (port BETWEEN 1 AND 99),
    status      INTEGER NOT NULL DEFAULT 0 CHECK (status IN (0, 1)),
    poe_status  INTEGER NOT NULL DEFAULT 0 CHECK (poe_status BETWEEN 0 AND 4),
    link_status INTEGER NOT NULL DEFAULT 0 CHECK (link_status BETWEEN 0 AND 3),
    link_speed  INTEGER NOT NULL DEFAULT 0 CHECK (link_speed BETWEEN 0 AND 6),
    vlan_mode   INTEGER NOT NULL DEFAULT 1 CHECK (vlan_mode BETWEEN 0 AND 4),
    power_mw    INTEGER NOT NULL DEFAULT 0 CHECK (power_mw >= 0),
    PRIMARY KEY (unit, port)
);

CREATE TABLE vlan_members (
    unit    INTEGER NOT NULL,
    port    INTEGER NOT NULL,
    vlan_id INTEGER NOT NULL CHECK (vlan_id BETWEEN 1 AND 4092),
    PRIMARY KEY (unit, port, vlan_id),
    FOREIGN KEY (unit, port) REFERENCES ports (unit, port) ON DELETE CASCADE
);

CREATE TABLE mac_filters (
    unit INTEGER NOT NULL,
    port INTEGER NOT NULL,
    mac  TEXT    NOT NULL CHECK (length(mac) = 17),
    mask TEXT    NOT NULL CHECK (length(mask) = 17),
    PRIMARY KEY (unit, port, mac, mask),
    FOREIGN KEY (unit, port) REFERENCES ports (unit, port) ON DELETE CASCADE
);

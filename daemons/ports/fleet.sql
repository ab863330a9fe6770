-- A small fleet to try things on: the appliance with its dedicated ports d1 to d4, and three edge switches.
BEGIN;
INSERT INTO units (unit, model, mac, alias, online) VALUES
    (0, 0, '00:1B:0D:00:00:00', 'H7',      1),
    (1, 1, '00:1B:0D:00:00:01', 'LOBBY',   1),
    (2, 5, '00:1B:0D:00:00:02', 'LAB',     1),
    (3, 8, '00:1B:0D:00:00:03', 'ROOF',    0);

INSERT INTO ports (unit, port, status, poe_status, link_status, link_speed, vlan_mode, power_mw) VALUES
    (0, 1, 1, 4, 2, 6, 3, 0),
    (0, 2, 1, 4, 2, 6, 1, 0),
    (0, 3, 0, 4, 1, 1, 1, 0),
    (0, 4, 1, 4, 2, 5, 1, 0),
    (1, 1, 1, 2, 2, 6, 2, 4200),
    (1, 2, 1, 2, 2, 5, 1, 3100),
    (1, 3, 0, 1, 1, 1, 1, 0),
    (1, 4, 1, 4, 2, 6, 3, 0),
    (2, 1, 1, 2, 2, 6, 2, 6400),
    (2, 2, 0, 1, 1, 1, 1, 0),
    (3, 1, 1, 3, 3, 1, 1, 0),
    (3, 2, 0, 3, 3, 1, 1, 0);

INSERT INTO vlan_members (unit, port, vlan_id) VALUES
    (0, 1, 10), (0, 1, 20), (0, 1, 30),
    (1, 1, 10),
    (1, 4, 10), (1, 4, 20),
    (2, 1, 30);
COMMIT;

#include "methods.h"

#include <array>
#include <string>

#include "common/handles.h"
#include "common/log.h"
#include "common/names.h"

namespace ports {

namespace {

using tavrix::Json;

constexpr char unit_name[] = "ports";
constexpr size_t word_size = 32;
constexpr int max_vlan_ids = sizeof(tavrix_port_input::vlan_ids) / sizeof(int32_t);
constexpr int max_mac_filters = 16;
constexpr int lock_attempts = 20;
constexpr int lock_delay_ms = 50;

Context &context_of(const tavrix_call *call) { return *static_cast<Context *>(tavrix_call_user(call)); }
Database &database_of(const tavrix_call *call) { return *context_of(call).database; }

/** The end of a wait, whichever it is: its timer goes with it. */
template <class Wait>
void end(tavrix_service *service, std::list<Wait> Context::*waits, const Wait *ended) {
    tavrix_service_cancel(service, ended->timer);
    (static_cast<Context *>(tavrix_service_user(service))->*waits).remove_if([ended](const Wait &wait) {
        return &wait == ended;
    });
}

// --- A lock of another process -------------------------------------------------------------------------------------

void try_again(tavrix_service *service, void *user) {
    auto *retry = static_cast<Retry *>(user);
    tavrix_call *call = tavrix_service_deferred(service, retry->call);
    const int rc = call != nullptr ? retry->work(call) : TAVRIX_OK;
    if (rc == TAVRIX_ERR_DB_BUSY && --retry->left > 0) {
        LOG_DEBUG("The database is locked, %d attempts left\n", retry->left);
        return;
    }
    if (call != nullptr && rc < 0) {
        tavrix_call_fail(call, rc);
    } else if (call != nullptr && tavrix_service_deferred(service, retry->call) != nullptr) {
        tavrix_call_reply(call, json_integer(0));
    }
    end(service, &Context::retries, retry);
}

/** The handler of a method that reads or changes the database: nobody else waits while it is locked. */
template <Work work>
int with_database(tavrix_call *call) {
    const int rc = work(call);
    if (rc != TAVRIX_ERR_DB_BUSY) {
        return rc;
    }
    LOG_DEBUG("The database is locked, %d attempts left\n", lock_attempts);
    tavrix_service *service = tavrix_call_service(call);
    std::list<Retry> &retries = context_of(call).retries;
    const uint64_t number = tavrix_call_defer(call, nullptr, nullptr);
    Retry &retry = retries.emplace_back(Retry{work, number, 0, lock_attempts});
    retry.timer = number != 0 ? tavrix_service_timer(service, lock_delay_ms, lock_delay_ms, try_again, &retry) : 0;
    if (retry.timer == 0) {
        retries.pop_back();
        return TAVRIX_ERR_DB_BUSY;
    }
    return TAVRIX_OK;
}

// --- Parameters and results ----------------------------------------------------------------------------------------

Selection selection_of(const tavrix_call *call) {
    const std::string text = tavrix_call_text(call, "port_id");
    Selection selection;
    selection.all = text == "all";
    if (!selection.all) {
        tavrix_parse_mzu_port_id(&selection.unit, &selection.port, text.c_str());
    }
    return selection;
}

/** The word at a stored position; null, with a line in the log, for a position that the table does not have. */
json_t *word_json(int value, const char *const *table, const char *what) {
    int count = 0;
    while (table[count] != nullptr) {
        ++count;
    }
    if (value < 0 || value >= count) {
        LOG_ERROR("The database holds %d for a %s, which is not valid; was it written by another version?\n", value,
                  what);
        return nullptr;
    }
    return json_string(table[value]);
}

json_t *port_id_json(int unit, int port) {
    std::array<char, word_size> text{};
    tavrix_create_port_id_str(text.data(), text.size(), unit, port);
    return json_string(text.data());
}

json_t *mzu_id_json(int unit) {
    std::array<char, word_size> text{};
    tavrix_create_mzu_id_str(text.data(), text.size(), unit);
    return json_string(text.data());
}

/** Null when the table of a stored value has no such value. */
json_t *port_json(const Port &port) {
    json_t *vlan_ids = json_array();
    for (const int vlan_id : port.vlan_ids) {
        if (validate_vlan_id(vlan_id) != TAVRIX_VALID) {
            LOG_ERROR("The database holds an invalid VLAN id\n");
            json_decref(vlan_ids);
            return nullptr;
        }
        json_array_append_new(vlan_ids, json_integer(vlan_id));
    }
    return json_pack("{s:o, s:o, s:o, s:o, s:o, s:o, s:o}", "port_id", port_id_json(port.unit, port.port), "status",
                     word_json(port.status, tavrix_port_status_strings, "port status"), "poe_status",
                     word_json(port.poe_status, tavrix_poe_status_strings, "PoE status"), "link_status",
                     word_json(port.link_status, tavrix_link_status_strings, "link status"), "link_speed",
                     word_json(port.link_speed, tavrix_link_speed_strings, "link speed"), "vlan_mode",
                     word_json(port.vlan_mode, tavrix_vlan_mode_strings, "VLAN mode"), "vlan_ids", vlan_ids);
}

json_t *unit_json(const Unit &unit) {
    return json_pack("{s:o, s:o, s:s, s:s, s:b}", "mzu_id", mzu_id_json(unit.unit), "model",
                     word_json(unit.model, tavrix_mzu_model_strings, "model"), "mac", unit.mac.c_str(), "alias",
                     unit.alias.c_str(), "online", unit.online ? 1 : 0);
}

/** Answers with {name: [...]}; an entry that cannot be shown fails the whole, since a list without it would lie. */
template <class Entry>
int reply_with_list(tavrix_call *call, const char *name, const std::vector<Entry> &entries,
                    json_t *(*as_json)(const Entry &)) {
    Json list(json_array());
    for (const Entry &entry : entries) {
        if (json_array_append_new(list.get(), as_json(entry)) != 0) {
            return tavrix_call_fail_with(call, TAVRIX_JRPC_DATABASE_ERROR, "The database holds an invalid value.",
                                         nullptr);
        }
    }
    return tavrix_call_reply(call, json_pack("{s:o}", name, list.release()));
}

// --- Methods -------------------------------------------------------------------------------------------------------

int get(tavrix_call *call) {
    std::vector<Port> found;
    const int rc = database_of(call).find_ports(selection_of(call), &found);
    return rc != TAVRIX_OK ? rc : reply_with_list(call, "ports", found, port_json);
}

int set_enabled(tavrix_call *call) {
    return database_of(call).set_status(selection_of(call), tavrix_call_word(call, "status"));
}

int set_vlan_local(tavrix_call *call) {
    return database_of(call).set_vlans(selection_of(call), TAVRIX_VLAN_MODE_LOCAL, nullptr, 0);
}

int set_vlan_access(tavrix_call *call) {
    const int vlan_id = static_cast<int>(tavrix_call_integer(call, "vlan_id"));
    return database_of(call).set_vlans(selection_of(call), TAVRIX_VLAN_MODE_ACCESS, &vlan_id, 1);
}

int set_vlan_trunk(tavrix_call *call) {
    int count = 0;
    const int *vlan_ids = tavrix_call_integers(call, "vlan_ids", &count);
    return database_of(call).set_vlans(selection_of(call), TAVRIX_VLAN_MODE_TRUNK, vlan_ids, count);
}

int get_instant_power(tavrix_call *call) {
    const Selection selection = selection_of(call);
    int milliwatts = 0;
    const int rc = database_of(call).instant_power(selection, &milliwatts);
    return rc != TAVRIX_OK ? rc
                           : tavrix_call_reply(call, json_pack("{s:o, s:i}", "port_id",
                                                               port_id_json(selection.unit, selection.port), "power_mw",
                                                               milliwatts));
}

int set_mac_filters(tavrix_call *call) {
    int count = 0;
    const tavrix_mac_filter *filters = tavrix_call_mac_filters(call, "filters", &count);
    if (count > max_mac_filters) {
        return TAVRIX_ERR_TOO_MANY_ENTRIES; // which has a code of its own, unlike a parameter that is refused
    }
    return database_of(call).set_mac_filters(selection_of(call), filters, count);
}

int list_units(tavrix_call *call) {
    std::vector<Unit> units;
    const int rc = database_of(call).list_units(&units);
    return rc != TAVRIX_OK ? rc : reply_with_list(call, "mzus", units, unit_json);
}

int register_unit(tavrix_call *call) {
    Unit unit;
    int port = 0;
    tavrix_parse_mzu_port_id(&unit.unit, &port, tavrix_call_text(call, "mzu_id"));
    unit.model = tavrix_call_word(call, "model");
    unit.mac = tavrix_call_text(call, "mac");
    unit.alias = tavrix_call_text(call, "alias");
    if (unit.model == 0) {
        return TAVRIX_ERR_NO_SUCH_MODEL; // "unknown" is a word of the table, but nothing that can be registered
    }
    const int rc = database_of(call).register_unit(unit);
    return rc != TAVRIX_OK ? rc : tavrix_call_reply(call, json_pack("{s:o}", "mzu_id", mzu_id_json(unit.unit)));
}

// --- Waiting for a link change -------------------------------------------------------------------------------------

void on_wait_abandoned(tavrix_call *call, void *user) {
    end(tavrix_call_service(call), &Context::waiters, static_cast<const Waiter *>(user));
}

void on_wait_over(tavrix_service *service, void *user) {
    const auto *waiter = static_cast<const Waiter *>(user);
    tavrix_call *call = tavrix_service_deferred(service, waiter->call); // null when the service itself has answered it
    end(service, &Context::waiters, waiter);
    tavrix_call_fail(call, TAVRIX_ERR_TIMEOUT);
}

int wait_link_changed(tavrix_call *call) {
    Context &context = context_of(call);
    Waiter &waiter = context.waiters.emplace_back();
    waiter.call = tavrix_call_defer(call, on_wait_abandoned, &waiter);
    if (waiter.call != 0) {
        waiter.timer =
            tavrix_service_timer(tavrix_call_service(call), context.wait_timeout_ms, 0, on_wait_over, &waiter);
    }
    if (waiter.call == 0 || waiter.timer == 0) {
        context.waiters.pop_back();
        return TAVRIX_ERR_SYSTEM_BUSY;
    }
    LOG_DEBUG("Waiting for %s, %d ms at most\n", tavrix::names::link_changed, context.wait_timeout_ms);
    return TAVRIX_OK;
}

void on_link_changed(tavrix_service *service, const char * /*method*/, json_t *params, void *user) {
    std::list<Waiter> &waiters = static_cast<Context *>(user)->waiters;
    while (!waiters.empty()) {
        tavrix_call *call = tavrix_service_deferred(service, waiters.front().call);
        end(service, &Context::waiters, &waiters.front());
        tavrix_call_reply(call, params != nullptr ? json_incref(params) : json_null());
    }
}

// --- Table ---------------------------------------------------------------------------------------------------------

const tavrix_service_param end_of_rows = TAVRIX_PARAM_END;
const tavrix_service_param any_ports =
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "a port, a unit for all its ports, or all", TAVRIX_ANY_PORTS);
const tavrix_service_param any_port =
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "a converter port or a dedicated port", TAVRIX_ANY_PORT);
const tavrix_service_param c_port =
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "a converter port", TAVRIX_ALLOW_C_PORT);

const tavrix_service_param get_params[] = {any_ports, end_of_rows};
const tavrix_service_param set_enabled_params[] = {
    any_ports, TAVRIX_PARAM("status", TAVRIX_KIND_STATUS, "whether the ports carry traffic", 0), end_of_rows};
const tavrix_service_param port_params[] = {any_port, end_of_rows};
const tavrix_service_param access_params[] = {
    any_port, TAVRIX_PARAM("vlan_id", TAVRIX_KIND_VLAN_ID, "the port's only VLAN", 0), end_of_rows};
const tavrix_service_param trunk_params[] = {
    any_port,
    TAVRIX_PARAM_RANGE("vlan_ids", TAVRIX_KIND_VLAN_IDS, "the VLANs that the port carries", 0, 1, max_vlan_ids),
    end_of_rows};
const tavrix_service_param c_port_params[] = {c_port, end_of_rows};
const tavrix_service_param mac_filter_params[] = {
    c_port,
    TAVRIX_PARAM("filters", TAVRIX_KIND_MAC_FILTERS, "what takes the place of the port's filters, at most 16", 0),
    end_of_rows};
const tavrix_service_param register_params[] = {
    TAVRIX_PARAM("mzu_id", TAVRIX_KIND_MZU_ID, "the unit's id, not in use yet", 0),
    TAVRIX_PARAM("model", TAVRIX_KIND_MZU_MODEL, "its model", 0),
    TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "its MAC address", 0),
    TAVRIX_PARAM("alias", TAVRIX_KIND_ALIAS, "its name for people", 0), end_of_rows};

const tavrix_service_param port_rows[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "the port", TAVRIX_ANY_PORT),
    TAVRIX_PARAM_WORDS("status", tavrix_port_status_strings, "whether it carries traffic", 0),
    TAVRIX_PARAM_WORDS("poe_status", tavrix_poe_status_strings, "whether it feeds a device", 0),
    TAVRIX_PARAM_WORDS("link_status", tavrix_link_status_strings, "whether its link stands", 0),
    TAVRIX_PARAM_WORDS("link_speed", tavrix_link_speed_strings, "its speed", 0),
    TAVRIX_PARAM_WORDS("vlan_mode", tavrix_vlan_mode_strings, "how it treats VLANs", 0),
    TAVRIX_PARAM("vlan_ids", TAVRIX_KIND_VLAN_IDS, "the VLANs that it is in", 0),
    end_of_rows};
const tavrix_service_param unit_rows[] = {TAVRIX_PARAM("mzu_id", TAVRIX_KIND_MZU_ID, "the unit", 0),
                                          TAVRIX_PARAM_WORDS("model", tavrix_mzu_model_strings, "its model", 0),
                                          TAVRIX_PARAM("mac", TAVRIX_KIND_MAC_ADDRESS, "its MAC address", 0),
                                          TAVRIX_PARAM("alias", TAVRIX_KIND_ALIAS, "its name for people", 0),
                                          TAVRIX_PARAM("online", TAVRIX_KIND_BOOLEAN, "whether it is connected", 0),
                                          end_of_rows};
const tavrix_service_param event_rows[] = {TAVRIX_PARAM("number", TAVRIX_KIND_INTEGER, "the event's number", 0),
                                           TAVRIX_PARAM("kind", TAVRIX_KIND_TEXT, "link", 0),
                                           TAVRIX_PARAM("entity", TAVRIX_KIND_TEXT, "the port", 0),
                                           TAVRIX_PARAM("text", TAVRIX_KIND_TEXT, "up or down", 0), end_of_rows};

const tavrix_service_param get_result[] = {
    TAVRIX_PARAM_MEMBERS("ports", TAVRIX_KIND_ARRAY, "the ports, in their order", 0, 0, 0, port_rows), end_of_rows};
const tavrix_service_param power_result[] = {
    TAVRIX_PARAM("port_id", TAVRIX_KIND_PORT_ID, "the port", TAVRIX_ALLOW_C_PORT),
    TAVRIX_PARAM("power_mw", TAVRIX_KIND_INTEGER, "what its device draws, in milliwatts", 0), end_of_rows};
const tavrix_service_param list_result[] = {
    TAVRIX_PARAM_MEMBERS("mzus", TAVRIX_KIND_ARRAY, "the units, in their order", 0, 0, 0, unit_rows), end_of_rows};
const tavrix_service_param register_result[] = {TAVRIX_PARAM("mzu_id", TAVRIX_KIND_MZU_ID, "the unit", 0), end_of_rows};

const tavrix_service_method table[] = {
    TAVRIX_METHOD("ports.Get", with_database<get>, "Reads ports.", get_params, get_result, TAVRIX_METHOD_READS),
    TAVRIX_METHOD("ports.SetEnabled", with_database<set_enabled>, "Lets ports carry traffic, or not.",
                  set_enabled_params, nullptr, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("ports.SetVlanLocal", with_database<set_vlan_local>, "Takes a port out of all VLANs.", port_params,
                  nullptr, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("ports.SetVlanAccess", with_database<set_vlan_access>, "Puts a port into one VLAN.", access_params,
                  nullptr, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("ports.SetVlanTrunk", with_database<set_vlan_trunk>, "Puts a port into several VLANs.", trunk_params,
                  nullptr, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("ports.poe.GetInstantPower", with_database<get_instant_power>, "Reads what a port's device draws.",
                  c_port_params, power_result, TAVRIX_METHOD_READS),
    TAVRIX_METHOD("ports.SetMacFilters", with_database<set_mac_filters>, "Sets the MAC filters of a port.",
                  mac_filter_params, nullptr, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD("ports.WaitLinkChanged", wait_link_changed, "Waits for the next link change.", nullptr, event_rows,
                  TAVRIX_METHOD_READS),
    TAVRIX_METHOD("mzu.List", with_database<list_units>, "Lists the units of the fleet.", nullptr, list_result,
                  TAVRIX_METHOD_READS),
    TAVRIX_METHOD("mzu.Register", with_database<register_unit>, "Adds a unit to the fleet.", register_params,
                  register_result, TAVRIX_METHOD_CHANGES),
    TAVRIX_METHOD_END,
};

} // namespace

const tavrix_service_method *methods() { return table; }

bool listen_for_link_changes(tavrix_service *service, Context *context) {
    return tavrix_service_subscribe(service, tavrix::names::link_changed, on_link_changed, context) != 0;
}

} // namespace ports

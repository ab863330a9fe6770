#include "methods.h"

#include <array>
#include <cstdio>
#include <memory>

#include "common/error_data.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/service.h"

namespace ports {

namespace {

using daemon_support::BusSocket;
using daemon_support::error_message;
using daemon_support::FreeMemory;
using daemon_support::Json;
using daemon_support::method;

constexpr char unit_name[] = "ports";
constexpr int max_vlan_ids = 32;
constexpr int max_mac_filters = 16;
constexpr size_t word_size = 32;
constexpr char link_changed[] = "events.LinkChanged";

Service service;

using Word = std::array<char, word_size>;

/** Which forms a port parameter may take. */
struct PortForms {
    bool all;
    bool unit;
    bool c_port;
    bool d_port;
};
constexpr PortForms any_port_or_group = {true, true, true, true};
constexpr PortForms any_port = {false, false, true, true};
constexpr PortForms c_port_only = {false, false, true, false};

/**
 * Reads a request's parameters one after the other; the first failure stays and makes the rest do nothing. A value
 * that fails its field's rule is answered like a wrong type, with a message that names the parameter.
 */
class Parameters {
  public:
    Parameters(json_t *params, json_t **error_data) : params_(params), error_data_(error_data) {}

    Parameters &port(const char *key, const PortForms &forms, Selection *out) {
        Word text{};
        if (take(key, tavrix_jrpc_utils_retrieve_input_port_id, text.data(), text.size(), forms.all, forms.unit,
                 forms.c_port, forms.d_port)) {
            *out = selection_of(text.data());
        }
        return *this;
    }
    Parameters &unit(const char *key, int *out) {
        Word text{};
        int port = 0;
        if (take(key, tavrix_jrpc_utils_retrieve_input_mzu_id, text.data(), text.size(), false)) {
            tavrix_parse_mzu_port_id(out, &port, text.data());
        }
        return *this;
    }
    /** A word that passes its retriever, as its position in a table. */
    template <class Retriever>
    Parameters &word(const char *key, Retriever retrieve, const char *const *table, int *out) {
        Word text{};
        if (take(key, retrieve, text.data(), text.size())) {
            tavrix_str_to_enum(out, text.data(), table);
        }
        return *this;
    }
    template <class Retriever>
    Parameters &text(const char *key, Retriever retrieve, std::string *out) {
        Word text{};
        if (take(key, retrieve, text.data(), text.size())) {
            *out = text.data();
        }
        return *this;
    }
    template <class Retriever, class... Out>
    Parameters &value(const char *key, Retriever retrieve, Out... out) {
        take(key, retrieve, out...);
        return *this;
    }

    int status() const { return status_; }

  private:
    template <class Retriever, class... Arguments>
    bool take(const char *key, Retriever retrieve, Arguments... arguments) {
        if (status_ != TAVRIX_OK) {
            return false;
        }
        status_ = retrieve(params_, error_data_, key, arguments...);
        if (status_ == TAVRIX_ERR_VALIDATION || status_ == TAVRIX_ERR_PARAMETER) {
            status_ = TAVRIX_ERR_INVALID_PARAMETER;
        }
        if (status_ != TAVRIX_OK && *error_data_ == nullptr) {
            *error_data_ = json_pack("{s:o}", "message", json_sprintf("Parameter '%s' has no valid value.", key));
        }
        return status_ == TAVRIX_OK;
    }

    static Selection selection_of(const char *text) {
        Selection selection;
        selection.all = std::string(text) == "all";
        if (!selection.all) {
            tavrix_parse_mzu_port_id(&selection.unit, &selection.port, text);
        }
        return selection;
    }

    json_t *params_;
    json_t **error_data_;
    int status_ = TAVRIX_OK;
};

json_t *word_json(int value, const char *const *table) {
    Word text{};
    tavrix_enum_to_str(text.data(), text.size(), value, table);
    return json_string(text.data());
}

json_t *port_id_json(int unit, int port) {
    Word text{};
    tavrix_create_port_id_str(text.data(), text.size(), unit, port);
    return json_string(text.data());
}

json_t *mzu_id_json(int unit) {
    Word text{};
    tavrix_create_mzu_id_str(text.data(), text.size(), unit);
    return json_string(text.data());
}

json_t *port_json(const Port &port) {
    json_t *vlan_ids = json_array();
    for (const int vlan_id : port.vlan_ids) {
        json_array_append_new(vlan_ids, json_integer(vlan_id));
    }
    return json_pack("{s:o, s:o, s:o, s:o, s:o, s:o, s:o}", "port_id", port_id_json(port.unit, port.port), "status",
                     word_json(port.status, tavrix_port_status_strings), "poe_status",
                     word_json(port.poe_status, tavrix_poe_status_strings), "link_status",
                     word_json(port.link_status, tavrix_link_status_strings), "link_speed",
                     word_json(port.link_speed, tavrix_link_speed_strings), "vlan_mode",
                     word_json(port.vlan_mode, tavrix_vlan_mode_strings), "vlan_ids", vlan_ids);
}

int vlan_mode_value(const char *word) {
    int value = 0;
    tavrix_str_to_enum(&value, word, tavrix_vlan_mode_strings);
    return value;
}

int get(json_t *params, json_t **result, json_t **error_data) {
    Selection selection;
    const int rc = Parameters(params, error_data).port("port_id", any_port_or_group, &selection).status();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    std::vector<Port> found;
    const int status = service.database->find_ports(selection, &found);
    if (status != TAVRIX_OK) {
        return status;
    }
    json_t *list = json_array();
    for (const Port &port : found) {
        json_array_append_new(list, port_json(port));
    }
    *result = json_pack("{s:o}", "ports", list);
    return TAVRIX_OK;
}

int set_enabled(json_t *params, json_t ** /*result*/, json_t **error_data) {
    Selection selection;
    int status = 0;
    const int rc = Parameters(params, error_data)
                       .port("port_id", any_port_or_group, &selection)
                       .word("status", tavrix_jrpc_utils_retrieve_input_status, tavrix_admin_status_strings, &status)
                       .status();
    return rc != TAVRIX_OK ? rc : service.database->set_status(selection, status);
}

int set_vlan_local(json_t *params, json_t ** /*result*/, json_t **error_data) {
    Selection selection;
    const int rc = Parameters(params, error_data).port("port_id", any_port, &selection).status();
    return rc != TAVRIX_OK ? rc : service.database->set_vlans(selection, vlan_mode_value("local"), nullptr, 0);
}

int set_vlan_access(json_t *params, json_t ** /*result*/, json_t **error_data) {
    Selection selection;
    int vlan_id = 0;
    const int rc = Parameters(params, error_data)
                       .port("port_id", any_port, &selection)
                       .value("vlan_id", tavrix_jrpc_utils_retrieve_input_vlan_id, &vlan_id)
                       .status();
    return rc != TAVRIX_OK ? rc : service.database->set_vlans(selection, vlan_mode_value("access"), &vlan_id, 1);
}

int set_vlan_trunk(json_t *params, json_t ** /*result*/, json_t **error_data) {
    Selection selection;
    std::array<int, max_vlan_ids> vlan_ids{};
    int count = 0;
    const int rc = Parameters(params, error_data)
                       .port("port_id", any_port, &selection)
                       .value("vlan_ids", tavrix_jrpc_utils_retrieve_input_vlan_ids, vlan_ids.data(), &count)
                       .status();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (count == 0) {
        *error_data = error_message("Parameter 'vlan_ids' needs at least one VLAN id.");
        return TAVRIX_ERR_INVALID_PARAMETER;
    }
    return service.database->set_vlans(selection, vlan_mode_value("trunk"), vlan_ids.data(), count);
}

int get_instant_power(json_t *params, json_t **result, json_t **error_data) {
    Selection selection;
    int milliwatts = 0;
    const int rc = Parameters(params, error_data).port("port_id", c_port_only, &selection).status();
    const int status = rc != TAVRIX_OK ? rc : service.database->instant_power(selection, &milliwatts);
    if (status == TAVRIX_OK) {
        *result =
            json_pack("{s:o, s:i}", "port_id", port_id_json(selection.unit, selection.port), "power_mw", milliwatts);
    }
    return status;
}

int set_mac_filters(json_t *params, json_t ** /*result*/, json_t **error_data) {
    Selection selection;
    int rc = Parameters(params, error_data).port("port_id", c_port_only, &selection).status();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    tavrix_mac_filter *filters = nullptr;
    int count = 0;
    rc = Parameters(params, error_data)
             .value("filters", tavrix_jrpc_utils_retrieve_input_mac_filters, &filters, &count, selection.unit,
                    selection.port)
             .status();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const std::unique_ptr<tavrix_mac_filter, FreeMemory> owner(filters);
    if (count > max_mac_filters) {
        return TAVRIX_ERR_TOO_MANY_ENTRIES;
    }
    return service.database->set_mac_filters(selection, filters, count);
}

int list_units(json_t * /*params*/, json_t **result, json_t ** /*error_data*/) {
    std::vector<Unit> units;
    const int rc = service.database->list_units(&units);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    json_t *list = json_array();
    for (const Unit &unit : units) {
        json_array_append_new(list, json_pack("{s:o, s:o, s:s, s:s, s:b}", "mzu_id", mzu_id_json(unit.unit), "model",
                                              word_json(unit.model, tavrix_mzu_model_strings), "mac", unit.mac.c_str(),
                                              "alias", unit.alias.c_str(), "online", unit.online ? 1 : 0));
    }
    *result = json_pack("{s:o}", "mzus", list);
    return TAVRIX_OK;
}

int register_unit(json_t *params, json_t **result, json_t **error_data) {
    Unit unit;
    const int rc = Parameters(params, error_data)
                       .unit("mzu_id", &unit.unit)
                       .word("model", tavrix_jrpc_utils_retrieve_input_mzu_model, tavrix_mzu_model_strings, &unit.model)
                       .text("mac", tavrix_jrpc_utils_retrieve_input_mac_address, &unit.mac)
                       .text("alias", tavrix_jrpc_utils_retrieve_input_alias, &unit.alias)
                       .status();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (unit.model == 0) {
        return TAVRIX_ERR_NO_SUCH_MODEL; // "unknown" is a word of the table, but nothing that can be registered
    }
    const int status = service.database->register_unit(unit);
    if (status == TAVRIX_OK) {
        *result = json_pack("{s:o}", "mzu_id", mzu_id_json(unit.unit));
    }
    return status;
}

/** Subscribes a socket of its own to a notification. */
bool listen_for(const std::string &address, const char *method, BusSocket *socket) {
    if (tavrix_jrpc_mq_sub_init(socket->place(), 0) != TAVRIX_OK || !daemon_support::receive_large_messages(*socket)) {
        return false;
    }
    if (tavrix_jrpc_mq_sub_set_channel(address.c_str(), method, socket->place()) != TAVRIX_OK) {
        socket->forget(); // closed by the failed call
        return false;
    }
    return true;
}

int wait_link_changed(json_t * /*params*/, json_t **result, json_t **error_data) {
    if (service.events_address.empty()) {
        *error_data = error_message("No events service is configured.");
        return TAVRIX_ERR_UNIMPLEMENTED;
    }
    BusSocket socket;
    if (!listen_for(service.events_address, link_changed, &socket)) {
        return TAVRIX_ERR_GENERAL;
    }
    json_t *received = nullptr;
    const bool heard = daemon_support::wait_within(service.wait_timeout_ms, link_changed, socket, [&] {
        return tavrix_jrpc_mq_sub_for_notifcation(*socket.get(), link_changed, &received) == TAVRIX_OK;
    });
    const Json notification(received);
    if (!heard) {
        return TAVRIX_ERR_TIMEOUT;
    }
    *result = json_incref(json_object_get(notification.get(), "params"));
    return TAVRIX_OK;
}

} // namespace

bool set_service(const Service &wanted) {
    service = wanted;
    BusSocket trial;
    if (!service.events_address.empty() && !listen_for(service.events_address, link_changed, &trial)) {
        LOG_ERROR("Cannot listen to %s\n", service.events_address.c_str());
        return false;
    }
    return true;
}

std::vector<tavrix_jrpc_method> methods() {
    return {
        method<get>("ports.Get"),
        method<set_enabled>("ports.SetEnabled"),
        method<set_vlan_local>("ports.SetVlanLocal"),
        method<set_vlan_access>("ports.SetVlanAccess"),
        method<set_vlan_trunk>("ports.SetVlanTrunk"),
        method<get_instant_power>("ports.poe.GetInstantPower"),
        method<set_mac_filters>("ports.SetMacFilters"),
        method<wait_link_changed>("ports.WaitLinkChanged"),
        method<list_units>("mzu.List"),
        method<register_unit>("mzu.Register"),
    };
}

} // namespace ports

/**
 * The ports service's view of the configuration database: every query and change it makes, as one function each.
 *
 * Functions return a status of tavrix_error.h. Changes run in a transaction: on failure nothing has changed. A lock of
 * another process is a failure at once, TAVRIX_ERR_DB_BUSY: who calls may try again later, nothing here waits.
 */
#ifndef TAVRIX_DAEMONS_PORTS_DATABASE_H
#define TAVRIX_DAEMONS_PORTS_DATABASE_H

#include <string>
#include <vector>

#include <sqlite3.h>
#include <sys/types.h>

#include "tavrix.h"

namespace ports {

/** The port number that stands for a whole unit. */
constexpr int whole_unit = 32767;

/** What a request names: one port, a unit's ports, or every port of the fleet. */
struct Selection {
    bool all = false;
    int unit = 0;
    int port = 0;
};

struct Port {
    int unit = 0;
    int port = 0;
    int status = 0;
    int poe_status = 0;
    int link_status = 0;
    int link_speed = 0;
    int vlan_mode = 0;
    std::vector<int> vlan_ids;
};

struct Unit {
    int unit = 0;
    int model = 0;
    std::string mac;
    std::string alias;
    bool online = false;
};

class Database {
  public:
    /** Opened on first use. */
    explicit Database(std::string path) : path_(std::move(path)) {}
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    ~Database();

    /** Opens the database now, to learn early that it is missing, or has not the tables that are needed. */
    int check_schema();

    /** The ports of a selection; TAVRIX_ERR_NO_SUCH_PORT or TAVRIX_ERR_NO_SUCH_MZU when one does not exist. */
    int find_ports(const Selection &selection, std::vector<Port> *out);
    int list_units(std::vector<Unit> *out);
    /** The power a port draws; TAVRIX_ERR_NO_POE, or TAVRIX_ERR_MZU_OFFLINE. */
    int instant_power(const Selection &selection, int *milliwatts_out);

    int set_status(const Selection &selection, int status);
    /** Mode and membership together; an empty list leaves the port in no VLAN. */
    int set_vlans(const Selection &selection, int mode, const int *vlan_ids, int count);
    int set_mac_filters(const Selection &selection, const tavrix_mac_filter *filters, int count);
    /** Adds a unit with its ports; TAVRIX_ERR_MZU_EXISTS, or TAVRIX_ERR_MAC_EXISTS when another has its MAC address. */
    int register_unit(const Unit &unit);

  private:
    int open();
    void leave_replaced_file();
    int check_selection(const Selection &selection);
    int count(const char *table, const std::string &condition, int64_t *out);
    template <class TakeRow>
    int read_rows(const std::string &sql, TakeRow take);
    template <class Change>
    int change(const Selection &selection, Change carry_out);

    std::string path_;
    sqlite3 *handle_ = nullptr;
    dev_t device_ = 0; ///< with the inode: tells whether the file is still the one that is open
    ino_t inode_ = 0;
};

} // namespace ports

#endif

#include "database.h"

#include <array>
#include <cerrno>
#include <climits>
#include <initializer_list>

#include <sys/stat.h>
#include <unistd.h>

#include "common/database_handles.h"
#include "common/log.h"

namespace ports {

namespace {

constexpr char unit_name[] = "database";
constexpr int ports_of_a_new_unit = 8;

using tavrix::Statement;

/** The status for a result code of SQLite. */
int status_of(int sqlite_code) {
    switch (sqlite_code & 0xff) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
        return TAVRIX_OK;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return TAVRIX_ERR_DB_BUSY;
    default:
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
}

/**
 * The status for the call that has just failed: the layer's own does not tell a lock from anything else. A lock is no
 * news: whoever asked tries again.
 */
int failure_of(sqlite3 *handle) {
    const int status = status_of(sqlite3_errcode(handle));
    if (status == TAVRIX_ERR_DB_BUSY) {
        return status;
    }
    LOG_ERROR("Cannot use the database: %s\n", sqlite3_errmsg(handle));
    return TAVRIX_ERR_SYSTEM_ACCESS;
}

/** The status for a result code that the last call has given. */
int outcome_of(sqlite3 *handle, int sqlite_code) {
    return status_of(sqlite_code) == TAVRIX_OK ? TAVRIX_OK : failure_of(handle);
}

/** Which rows of a table with `unit` and `port` columns a selection means. */
std::string where(const Selection &selection) {
    if (selection.all) {
        return "1";
    }
    const std::string of_unit = "unit = " + std::to_string(selection.unit);
    return selection.port == whole_unit ? of_unit : of_unit + " AND port = " + std::to_string(selection.port);
}

/** A stored number; -1, which stands for nothing in the fleet, when it is no number, or too large for an int. */
int number_column(sqlite3_stmt *statement, int column) {
    const sqlite3_int64 number = sqlite3_column_int64(statement, column);
    if (sqlite3_column_type(statement, column) != SQLITE_INTEGER || number < INT_MIN || number > INT_MAX) {
        LOG_ERROR("The database holds a value in column %s that is not a 32-bit integer\n",
                  sqlite3_column_name(statement, column));
        return -1;
    }
    return static_cast<int>(number);
}

std::string text_column(sqlite3_stmt *statement, int column) {
    const unsigned char *text = sqlite3_column_text(statement, column);
    return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

int prepare(sqlite3 *handle, const std::string &path, const std::string &sql, Statement *out) {
    sqlite3_stmt *prepared = nullptr;
    if (tavrix_db_prepare_statement(handle, path.c_str(), &prepared, sql.c_str()) != TAVRIX_OK) {
        return failure_of(handle);
    }
    out->reset(prepared);
    return TAVRIX_OK;
}

/** Reads the one number that a query is for; `name` is what the log calls it. */
int read_number(sqlite3 *handle, const std::string &path, const char *name, const std::string &sql, int64_t *out) {
    const int rc = tavrix_db_get_single_id_result(handle, path.c_str(), name, out, "%s", sql.c_str());
    return rc == TAVRIX_OK ? TAVRIX_OK : failure_of(handle);
}

int run_bound(sqlite3 *handle, const std::string &path, const char *sql, std::initializer_list<int> numbers,
              std::initializer_list<const char *> texts) {
    Statement statement;
    const int rc = prepare(handle, path, sql, &statement);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    int position = 0;
    for (const int number : numbers) {
        sqlite3_bind_int(statement.get(), ++position, number);
    }
    for (const char *text : texts) {
        sqlite3_bind_text(statement.get(), ++position, text, -1, SQLITE_TRANSIENT);
    }
    return outcome_of(handle, sqlite3_step(statement.get()));
}

} // namespace

Database::~Database() {
    if (handle_ != nullptr) {
        tavrix_db_close(handle_);
    }
}

/** Lets go of a connection whose file has been put aside for another: what it reads is nobody's any more. */
void Database::leave_replaced_file() {
    struct stat file {};
    const bool is_there = stat(path_.c_str(), &file) == 0;
    if (handle_ != nullptr && (!is_there || file.st_dev != device_ || file.st_ino != inode_)) {
        LOG_WARNING("The database %s has been replaced: opening it again\n", path_.c_str());
        tavrix_db_close(handle_);
        handle_ = nullptr;
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
}

int Database::open() {
    leave_replaced_file();
    const int rc = tavrix_db_ensure_open_file(&handle_, path_.c_str());
    if (rc != TAVRIX_OK) {
        handle_ = nullptr; // after a failed open the variable holds a closed handle
        if (access(path_.c_str(), F_OK) != 0 && errno == ENOENT) {
            LOG_ERROR("Cannot open the database %s: there is none; it is made with: tavrixctl db init %s\n",
                      path_.c_str(), path_.c_str());
        } else {
            LOG_ERROR("Cannot open the database %s; is it a file that this user may read and write?\n", path_.c_str());
        }
    }
    return rc;
}

int Database::check_schema() {
    int rc = open();
    Statement statement;
    for (const char *rows : {"unit, model, mac, alias, online FROM units",
                             "unit, port, status, poe_status, link_status, link_speed, vlan_mode, power_mw FROM ports",
                             "unit, port, vlan_id FROM vlan_members", "unit, port, mac, mask FROM mac_filters"}) {
        rc = rc == TAVRIX_OK ? prepare(handle_, path_, std::string("SELECT ") + rows, &statement) : rc;
    }
    if (rc == TAVRIX_ERR_DB_BUSY) {
        return TAVRIX_OK; // another process is at work: each request finds out for itself
    }
    if (rc != TAVRIX_OK && handle_ != nullptr) {
        LOG_ERROR("The database %s is not the fleet's; in its place one is made with: tavrixctl db init %s\n",
                  path_.c_str(), path_.c_str());
    }
    return rc;
}

int Database::count(const char *table, const std::string &condition, int64_t *out) {
    return read_number(handle_, path_, table, std::string("SELECT count(*) FROM ") + table + " WHERE " + condition,
                       out);
}

int Database::check_selection(const Selection &selection) {
    int rc = open();
    if (rc != TAVRIX_OK || selection.all) {
        return rc;
    }
    int64_t found = 0;
    const bool unit_meant = selection.port == whole_unit;
    rc = count(unit_meant ? "units" : "ports", where(selection), &found);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (found > 0) {
        return TAVRIX_OK;
    }
    return unit_meant ? TAVRIX_ERR_NO_SUCH_MZU : TAVRIX_ERR_NO_SUCH_PORT;
}

template <class TakeRow>
int Database::read_rows(const std::string &sql, TakeRow take) {
    Statement statement;
    const int rc = prepare(handle_, path_, sql, &statement);
    int step = SQLITE_DONE;
    while (rc == TAVRIX_OK && (step = sqlite3_step(statement.get())) == SQLITE_ROW) {
        take(statement.get());
    }
    return rc == TAVRIX_OK ? outcome_of(handle_, step) : rc;
}

/**
 * The lock for writing is taken at once, which the layer's own begin leaves to the first change: from here on nothing
 * but the commit, which lets readers finish, has to wait for another process, and what is read first stays true. So the
 * layer's own execution, which would sleep in this loop until a lock has gone, meets none in between: a statement whose
 * pages a reader keeps from the file leaves them in memory.
 */
template <class Change>
int Database::change(const Selection &selection, Change carry_out) {
    int rc = check_selection(selection);
    rc =
        rc == TAVRIX_OK ? outcome_of(handle_, sqlite3_exec(handle_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr)) : rc;
    if (rc != TAVRIX_OK) {
        return rc;
    }
    rc = carry_out();
    if (rc == TAVRIX_OK && tavrix_db_commit_transaction(handle_) != TAVRIX_OK) {
        rc = failure_of(handle_);
    }
    if (rc != TAVRIX_OK) {
        tavrix_db_rollback_transaction(handle_);
    }
    return rc;
}

int Database::find_ports(const Selection &selection, std::vector<Port> *out) {
    const int rc = check_selection(selection);
    if (rc != TAVRIX_OK) {
        return rc;
    }
    const std::string sql = "SELECT unit, port, status, poe_status, link_status, link_speed, vlan_mode, vlan_id"
                            " FROM ports LEFT JOIN vlan_members USING (unit, port) WHERE " +
                            where(selection) + " ORDER BY unit, port, vlan_id";
    return read_rows(sql, [out](sqlite3_stmt *row) {
        std::array<int, 7> numbers{}; // in the order of Port's members
        for (size_t column = 0; column < numbers.size(); ++column) {
            numbers[column] = number_column(row, static_cast<int>(column));
        }
        const auto [unit, port, status, poe_status, link_status, link_speed, vlan_mode] = numbers;
        if (out->empty() || out->back().unit != unit || out->back().port != port) {
            out->push_back(Port{unit, port, status, poe_status, link_status, link_speed, vlan_mode, {}});
        }
        if (sqlite3_column_type(row, 7) != SQLITE_NULL) {
            out->back().vlan_ids.push_back(number_column(row, 7));
        }
    });
}

int Database::list_units(std::vector<Unit> *out) {
    const int rc = open();
    if (rc != TAVRIX_OK) {
        return rc;
    }
    return read_rows("SELECT unit, model, mac, alias, online FROM units WHERE unit > 0 ORDER BY unit",
                     [out](sqlite3_stmt *row) {
                         out->push_back(Unit{number_column(row, 0), number_column(row, 1), text_column(row, 2),
                                             text_column(row, 3), number_column(row, 4) != 0});
                     });
}

int Database::instant_power(const Selection &selection, int *milliwatts_out) {
    int rc = check_selection(selection);
    int64_t online = 0;
    int64_t poe_status = 0;
    int64_t milliwatts = 0;
    const struct {
        const char *name;
        std::string sql;
        int64_t *out;
    } reads[] = {
        {"online", "SELECT online FROM units WHERE unit = " + std::to_string(selection.unit), &online},
        {"poe status", "SELECT poe_status FROM ports WHERE " + where(selection), &poe_status},
        {"power", "SELECT power_mw FROM ports WHERE " + where(selection), &milliwatts},
    };
    for (const auto &read : reads) {
        rc = rc == TAVRIX_OK ? read_number(handle_, path_, read.name, read.sql, read.out) : rc;
    }
    if (rc != TAVRIX_OK) {
        return rc;
    }
    if (online == 0) {
        return TAVRIX_ERR_MZU_OFFLINE;
    }
    if (poe_status == TAVRIX_POE_STATUS_UNSUPPORTED) {
        return TAVRIX_ERR_NO_POE;
    }
    if (milliwatts < 0 || milliwatts > INT_MAX) {
        LOG_ERROR("The database holds %lld for a power, which is not valid\n", static_cast<long long>(milliwatts));
        return TAVRIX_ERR_SYSTEM_ACCESS;
    }
    *milliwatts_out = static_cast<int>(milliwatts);
    return TAVRIX_OK;
}

int Database::set_status(const Selection &selection, int status) {
    return change(selection, [&] {
        return outcome_of(handle_, tavrix_sqlite3_exec_sql(handle_, "UPDATE ports SET status = %d WHERE %s", status,
                                                           where(selection).c_str()));
    });
}

int Database::set_vlans(const Selection &selection, int mode, const int *vlan_ids, int count) {
    return change(selection, [&, condition = where(selection)] {
        int step =
            tavrix_sqlite3_exec_sql(handle_, "UPDATE ports SET vlan_mode = %d WHERE %s", mode, condition.c_str());
        if (step == SQLITE_OK) {
            step = tavrix_sqlite3_exec_sql(handle_, "DELETE FROM vlan_members WHERE %s", condition.c_str());
        }
        for (int i = 0; step == SQLITE_OK && i < count; ++i) {
            step = tavrix_sqlite3_exec_sql(handle_,
                                           "INSERT OR IGNORE INTO vlan_members (unit, port, vlan_id)"
                                           " SELECT unit, port, %d FROM ports WHERE %s",
                                           vlan_ids[i], condition.c_str());
        }
        return outcome_of(handle_, step);
    });
}

int Database::set_mac_filters(const Selection &selection, const tavrix_mac_filter *filters, int count) {
    return change(selection, [&] {
        int status = outcome_of(
            handle_, tavrix_sqlite3_exec_sql(handle_, "DELETE FROM mac_filters WHERE %s", where(selection).c_str()));
        for (int i = 0; status == TAVRIX_OK && i < count; ++i) {
            status = run_bound(handle_, path_,
                               "INSERT OR IGNORE INTO mac_filters (unit, port, mac, mask) VALUES (?, ?, ?, ?)",
                               {selection.unit, selection.port}, {filters[i].mac, filters[i].mask});
        }
        return status;
    });
}

int Database::register_unit(const Unit &unit) {
    Selection everything;
    everything.all = true;
    return change(everything, [&]() -> int {
        const struct {
            std::string condition;
            int status;
        } conflicts[] = {{"unit = " + std::to_string(unit.unit), TAVRIX_ERR_MZU_EXISTS},
                         {"mac = '" + unit.mac + "'", TAVRIX_ERR_MAC_EXISTS}}; // canonical: hexadecimal and colons only
        for (const auto &conflict : conflicts) {
            int64_t found = 0;
            const int rc = count("units", conflict.condition, &found);
            if (rc != TAVRIX_OK || found > 0) {
                return rc != TAVRIX_OK ? rc : conflict.status;
            }
        }
        int status = run_bound(handle_, path_, "INSERT INTO units (unit, model, mac, alias) VALUES (?, ?, ?, ?)",
                               {unit.unit, unit.model}, {unit.mac.c_str(), unit.alias.c_str()});
        for (int port = 1; status == TAVRIX_OK && port <= ports_of_a_new_unit; ++port) {
            status =
                outcome_of(handle_, tavrix_sqlite3_exec_sql(handle_, "INSERT INTO ports (unit, port) VALUES (%d, %d)",
                                                            unit.unit, port));
        }
        return status;
    });
}

} // namespace ports

/**
 * The ports service's database in the test's folder, and the test's own look into it.
 */
#ifndef TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H
#define TAVRIX_TESTS_SUPPORT_FLEET_DATABASE_H

#include <string>

#include <sqlite3.h>

namespace support {

/** Makes the database with the example fleet, in the place of one that is there. */
void make_fleet_database();

/** The test's own connection to the daemons' database. */
class Sql {
  public:
    Sql();
    Sql(const Sql &) = delete;
    Sql &operator=(const Sql &) = delete;
    ~Sql();

    void run(const std::string &text) const;
    /** The rows' values, a blank between any two. */
    std::string read(const std::string &query) const;

  private:
    sqlite3 *db_ = nullptr;
};

} // namespace support

#endif

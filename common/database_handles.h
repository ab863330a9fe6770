/**
 * Owners for what SQLite opens and prepares.
 */
#ifndef TAVRIX_COMMON_DATABASE_HANDLES_H
#define TAVRIX_COMMON_DATABASE_HANDLES_H

#include <memory>

#include <sqlite3.h>

namespace tavrix {

struct FinalizeStatement {
    void operator()(sqlite3_stmt *statement) const { static_cast<void>(sqlite3_finalize(statement)); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

struct CloseConnection {
    void operator()(sqlite3 *connection) const { static_cast<void>(sqlite3_close(connection)); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

} // namespace tavrix

#endif

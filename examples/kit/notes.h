/* The notes service's table, so that its test can drive it without a router. */
#ifndef NOTES_H
#define NOTES_H

#include <sqlite3.h>
#include <tavrix_service.h>

struct notes {
    const char *path; /* the database's */
    sqlite3 *database;
};

/* What the service is made of; `notes` has to live as long as the service. */
tavrix_service_options notes_options(struct notes *notes);

#endif

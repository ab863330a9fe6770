/* notesd [OPTION]...: the notes in the file that NOTES names, or in notes.db */
#include <stdlib.h>

#include "notes.h"

int main(int argc, char **argv) {
    const char *path = getenv("NOTES");
    struct notes notes = {.path = path != NULL ? path : "notes.db"};
    const tavrix_service_options options = notes_options(&notes);
    return tavrix_service_main(&options, argc, argv);
}

/* The notes service without a router, a ports service or a day of time: nothing but cc and assert. */
#include <assert.h>
#include <string.h>

#include <tavrix_service_test.h>

#include "notes.h"

#define PORT "{\"result\":{\"port_id\":\"c1-1\"}}"
#define NOTE "{\"port_id\":\"c1-1\",\"text\":\"no light\"}"

static tavrix_service_test *test;

static void expect(const char *got, const char *wanted) {
    assert(got != NULL ? wanted != NULL && strcmp(got, wanted) == 0 : wanted == NULL);
}

static void a_note_is_kept_and_told_of(void) {
    tavrix_service_test_play(test, "ports.Get", PORT);
    expect(tavrix_service_test_call(test, "notes.Add", NOTE), "{\"result\":true}");
    expect(tavrix_service_test_next_notification(test), "{\"method\":\"notes.Added\",\"params\":" NOTE "}");
    expect(tavrix_service_test_call(test, "notes.List", NULL), "{\"result\":[" NOTE "]}");
    expect(tavrix_service_test_call(test, "notes.List", "{\"port_id\":\"c1-2\"}"), "{\"result\":[]}");
}

static void the_ports_service_is_asked_and_waited_for(void) {
    tavrix_service_test_play(test, "ports.Get", NULL);
    expect(tavrix_service_test_call(test, "notes.Add", NOTE), NULL);
    expect(tavrix_service_test_next_request(test), "{\"method\":\"ports.Get\",\"params\":{\"port_id\":\"c1-1\"}}");
    assert(tavrix_service_test_answer(test, "ports.Get", PORT));
    expect(tavrix_service_test_next_outcome(test), "{\"result\":true}");
    assert(tavrix_service_test_next_notification(test) != NULL);
}

static void its_refusal_is_passed_on(void) {
    const char *refusal = "{\"error\":{\"code\":-32012,\"message\":\"No such port\",\"data\":null}}";
    tavrix_service_test_play(test, "ports.Get", refusal);
    assert(strstr(tavrix_service_test_call(test, "notes.Add", NOTE), "\"code\":-32012") != NULL);
    expect(tavrix_service_test_next_notification(test), NULL);
    tavrix_service_test_play(test, "ports.Get", NULL);
}

static void after_two_seconds_it_is_given_up(void) {
    expect(tavrix_service_test_call(test, "notes.Add", NOTE), NULL);
    tavrix_service_test_advance(test, 1999);
    expect(tavrix_service_test_next_outcome(test), NULL);
    tavrix_service_test_advance(test, 1);
    assert(strstr(tavrix_service_test_next_outcome(test), "\"code\":-32005") != NULL);
}

static void a_bad_note_is_refused_by_name(void) {
    const char *outcome = tavrix_service_test_call(test, "notes.Add", "{\"port_id\":\"c1-1\"}");
    assert(strstr(outcome, "\"code\":-32602") != NULL && strstr(outcome, "text") != NULL);
}

static void what_is_a_day_old_is_forgotten(struct notes *notes) {
    assert(sqlite3_exec(notes->database, "UPDATE notes SET added = added - 90000", NULL, NULL, NULL) == SQLITE_OK);
    tavrix_service_test_advance(test, 60000);
    expect(tavrix_service_test_next_notification(test), "{\"method\":\"notes.Forgotten\",\"params\":{\"count\":2}}");
    expect(tavrix_service_test_call(test, "notes.List", NULL), "{\"result\":[]}");
}

static void a_missing_folder_ends_it_with_a_line(void) {
    struct notes nowhere = {.path = "/nonexistent/notes.db"};
    const tavrix_service_options options = notes_options(&nowhere);
    tavrix_service_test *none = NULL;
    assert(tavrix_service_test_open(&options, &none) < 0 && none == NULL);
}

int main(void) {
    struct notes notes = {.path = ":memory:"};
    const tavrix_service_options options = notes_options(&notes);
    assert(tavrix_service_test_open(&options, &test) == 0);
    assert(tavrix_service_test_logged(test, "INFO notesd ready"));
    a_note_is_kept_and_told_of();
    the_ports_service_is_asked_and_waited_for();
    its_refusal_is_passed_on();
    after_two_seconds_it_is_given_up();
    a_bad_note_is_refused_by_name();
    what_is_a_day_old_is_forgotten(&notes);
    tavrix_service_test_close(test);
    a_missing_folder_ends_it_with_a_line();
    return 0;
}

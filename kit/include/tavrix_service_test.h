/**
 * @file tavrix_service_test.h
 * Tests of a service's table without a router: requests go in as texts; answers, log lines, notifications and requests
 * to other services come out; the others' answers are played, and the clock moves when the test moves it.
 *
 * @code
 * #include <assert.h>
 * #include <string.h>
 * #include <tavrix_service_test.h>
 *
 * int main(void) {
 *     tavrix_service_test *test = NULL;
 *     assert(tavrix_service_test_open(&options, &test) == 0);
 *     assert(strcmp(tavrix_service_test_call(test, "hello.Say", "{\"name\":\"you\"}"),
 *                   "{\"result\":{\"hello\":\"you\"}}") == 0);
 *     tavrix_service_test_close(test);
 * }
 * @endcode
 *
 * libtavrix_service_test.a holds the whole kit and takes libtavrix_service's place in a test program; its pkg-config
 * name is `tavrix_service_test`. The service opens no socket and reads no signal; what the test itself makes on the
 * service's event_base, and the listeners of tavrix_service_listen_unix() and its like, are real.
 * tavrix_request_wait() is not played either.
 *
 * An outcome is `{"result": ...}` or `{"error": {"code": ..., "message": ..., "data": ...}}`. Texts that are returned
 * are compact JSON and live until the test is closed; null is returned when there is none. Everything comes in the
 * order in which it was made, and waits until it is taken.
 *
 * Null arguments and texts that are no JSON object end the program with a message, as a failed assertion does; so does
 * running out of memory. All open tests share one clock. Thread-safety: one thread.
 */
#ifndef TAVRIX_SERVICE_TEST_H
#define TAVRIX_SERVICE_TEST_H

#include "tavrix_service.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A service under test. */
typedef struct tavrix_service_test tavrix_service_test;

/**
 * Opens a service that is registered already: calls the options' `start` and `ready` as tavrix_service_main() does. The
 * options' addresses are not used.
 *
 * @return 0; what tavrix_service_open() or `start` refuses, and then what was logged stands on standard error
 */
int tavrix_service_test_open(const tavrix_service_options *options, tavrix_service_test **test_out);

/** Ends the service as SIGTERM does, calls the options' `stop`, and releases everything. A null test is passed over. */
void tavrix_service_test_close(tavrix_service_test *test);

/** The service, for everything that tavrix_service.h has. */
tavrix_service *tavrix_service_test_service(const tavrix_service_test *test);

/**
 * @name Requests to the service
 * @{
 */

/**
 * Hands a request over, any text. A member "caller" with "pid", "uid" and "gid" is who calls, as from the router.
 *
 * @return the whole response; null when there is none (yet): see tavrix_service_test_next_response()
 */
const char *tavrix_service_test_request(tavrix_service_test *test, const char *text);

/**
 * Calls a method. Transaction ids count from 1.
 *
 * @param params a JSON object; null for none
 * @return the outcome; null when the call is deferred
 */
const char *tavrix_service_test_call(tavrix_service_test *test, const char *method, const char *params);

/** The next response that has not been returned yet: those of deferred calls. */
const char *tavrix_service_test_next_response(tavrix_service_test *test);

/** The same, its outcome alone. */
const char *tavrix_service_test_next_outcome(tavrix_service_test *test);

/** The router cancels a request, by its transaction id: nobody waits for its answer any more. */
void tavrix_service_test_cancel(tavrix_service_test *test, int64_t transaction_id);
/** @} */

/**
 * @name What the service sends
 * @{
 */

/** The next request to another service that was not played: `{"method": ..., "params": ...}`. */
const char *tavrix_service_test_next_request(tavrix_service_test *test);

/** From now on each request to a method ends with an outcome, after the handler that made it. Null: with none. */
void tavrix_service_test_play(tavrix_service_test *test, const char *method, const char *outcome);

/** Ends the oldest request to a method that waits. @return false when none does */
bool tavrix_service_test_answer(tavrix_service_test *test, const char *method, const char *outcome);

/** The next notification that the service has published: `{"method": ..., "params": ...}`. */
const char *tavrix_service_test_next_notification(tavrix_service_test *test);

/** The next log line as its level and its text, such as `ERROR Cannot open it`; debug lines are left out. */
const char *tavrix_service_test_next_log(tavrix_service_test *test);

/** Takes log lines until one holds `part`. @return false when none does: then all are taken */
bool tavrix_service_test_logged(tavrix_service_test *test, const char *part);
/** @} */

/**
 * @name What happens to the service
 * @{
 */

/** Another service publishes a notification. @param params a JSON object; null for none */
void tavrix_service_test_notify(tavrix_service_test *test, const char *method, const char *params);

/** The router has dropped notifications; see tavrix_service_on_lost(). */
void tavrix_service_test_lose(tavrix_service_test *test, uint64_t count);

/** The router goes and comes back: what is in flight both ways ends, then the service is ready again. */
void tavrix_service_test_restart_router(tavrix_service_test *test);

/**
 * Moves the clock: the kit's timers, time-outs and deadlines end in their order, each at its own time.
 *
 * @param ms by how many milliseconds; 0 ends what is due by now, a negative number counts as 0
 */
void tavrix_service_test_advance(tavrix_service_test *test, int ms);

/** Lets the event_base do what it can do at once: for events of the test's or the service's own. */
void tavrix_service_test_run(tavrix_service_test *test);

/** SIGTERM comes: requests to others are cancelled, deferred calls are answered, new ones refused. */
void tavrix_service_test_stop(tavrix_service_test *test);

/** Whether the service ends, by SIGTERM or by itself. */
bool tavrix_service_test_is_stopped(const tavrix_service_test *test);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
